// The user's preferences: values the library registers as defaults, under the
// values the user stored, which replace them key by key once they exist. The
// stored values are an XML property list at $KROCORE_DEFAULTS, else
// $XDG_CONFIG_HOME/krocore/defaults.plist (~/.config when that is unset).
// Every change is written through at once. Safe to use from any thread.
#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "KROPropertyList.h"

class KROUserDefaults {
public:
    // The store at the standard path, read on first use.
    static KROUserDefaults& standardUserDefaults();
    static std::filesystem::path standardPath();

    // A store at another path, for hosts that keep several; read at once.
    explicit KROUserDefaults(std::filesystem::path path);
    KROUserDefaults(const KROUserDefaults&) = delete;
    KROUserDefaults& operator=(const KROUserDefaults&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Adds or replaces registered defaults; the stored file is not touched.
    void registerDefaults(const KROPropertyList::Dictionary& defaults);

    // The stored value, else the registered one, else none.
    std::optional<KROPropertyList> objectForKey(std::string_view key) const;

    // Stores the value and writes the file, making its folder when needed.
    bool setObjectForKey(std::string_view key, KROPropertyList value, KROErrorPtr* error = nullptr);

private:
    mutable std::mutex lock_;
    std::filesystem::path path_;
    KROPropertyList registered_;
    KROPropertyList stored_;
};
