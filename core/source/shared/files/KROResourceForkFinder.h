// Where a file's resource fork lives on Linux. Linux has no "..namedfork/rsrc"; tools that carry
// Mac files keep the fork beside the file instead. The places are tried in this order, and the
// first that holds a non-empty fork wins:
//   1. <file>/..namedfork/rsrc (a file system that offers it),
//   2. ._<name> beside the file (macOS archivers, libsndfile's SD2 writer),
//   3. .AppleDouble/<name> beside the file (netatalk),
//   4. the extended attribute user.com.apple.ResourceFork.
// Each may hold the raw fork or an AppleDouble (or AppleSingle) file.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "KROFileResource.h"

class KROResourceForkFinder {
public:
    static constexpr const char* extendedAttributeName = "user.com.apple.ResourceFork";

    // No container larger than this is read: a classic fork addresses at most
    // 16 MiB of data and 16 MiB of map.
    static constexpr std::uint64_t largestContainer = std::uint64_t{64} << 20;

    // The files of places 1 to 3 for the file at url, in search order.
    static std::vector<std::filesystem::path> sidecarPaths(const std::filesystem::path& url);

    // The fork of the file at url, unwrapped from its container; empty when
    // no place holds one.
    static KROData forkOfFile(const std::filesystem::path& url);

private:
    static std::optional<KROData> readContainerFile(const std::filesystem::path& path);
    static std::optional<KROData> readContainerAttribute(const std::filesystem::path& url);
    static std::optional<KROData> forkInContainer(const std::optional<KROData>& container);
};
