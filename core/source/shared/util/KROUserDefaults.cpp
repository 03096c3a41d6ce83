#include "KROUserDefaults.h"

#include <cstdlib>
#include <system_error>

#include "KROError.h"

namespace {

std::optional<std::filesystem::path> absolutePathFromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || value[0] != '/') {
        return std::nullopt;
    }
    return std::filesystem::path(value);
}

} // namespace

std::filesystem::path KROUserDefaults::standardPath() {
    if (auto path = absolutePathFromEnvironment("KROCORE_DEFAULTS")) {
        return *path;
    }
    auto configHome = absolutePathFromEnvironment("XDG_CONFIG_HOME");
    if (!configHome) {
        configHome = absolutePathFromEnvironment("HOME").value_or("/") / ".config";
    }
    return *configHome / "krocore" / "defaults.plist";
}

KROUserDefaults& KROUserDefaults::standardUserDefaults() {
    static KROUserDefaults defaults(standardPath());
    return defaults;
}

KROUserDefaults::KROUserDefaults(std::filesystem::path path) : path_(std::move(path)) {
    // A missing or unreadable file is an empty store; the first change
    // writes a new one.
    if (const auto stored = KROPropertyList::fromFile(path_); stored && stored->isDictionary()) {
        stored_ = *stored;
    }
}

void KROUserDefaults::registerDefaults(const KROPropertyList::Dictionary& defaults) {
    std::lock_guard guard(lock_);
    for (const auto& [key, value] : defaults) {
        registered_.setObjectForKey(key, value);
    }
}

std::optional<KROPropertyList> KROUserDefaults::objectForKey(std::string_view key) const {
    std::lock_guard guard(lock_);
    if (const KROPropertyList* value = stored_.objectForKey(key)) {
        return *value;
    }
    if (const KROPropertyList* value = registered_.objectForKey(key)) {
        return *value;
    }
    return std::nullopt;
}

bool KROUserDefaults::setObjectForKey(std::string_view key, KROPropertyList value,
                                      KROErrorPtr* error) {
    std::lock_guard guard(lock_);
    stored_.setObjectForKey(key, std::move(value));
    std::error_code ignored;
    std::filesystem::create_directories(path_.parent_path(), ignored);
    return stored_.writeToFile(path_, error);
}
