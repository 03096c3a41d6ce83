// A fresh temporary directory, removed with its contents when the helper goes.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

class KROScratchDirectory {
public:
    KROScratchDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "krocore-XXXXXX").string();
        if (mkdtemp(pattern.data())) {
            path_ = pattern;
        }
    }
    ~KROScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    KROScratchDirectory(const KROScratchDirectory&) = delete;
    KROScratchDirectory& operator=(const KROScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};
