#include "KROResources.h"

#include <cstdlib>
#include <dlfcn.h>
#include <system_error>

namespace {

// The folder of this library's own file, none if it cannot be told.
std::filesystem::path libraryFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&KROResourceDirectory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return {};
    }
    std::error_code ignored;
    return std::filesystem::canonical(info.dli_fname, ignored).parent_path();
}

} // namespace

std::filesystem::path KROResourceDirectory() {
    if (const char* fromEnvironment = std::getenv("KROCORE_RESOURCES");
        fromEnvironment && *fromEnvironment) {
        return fromEnvironment;
    }
    const std::filesystem::path folder = libraryFolder();
    std::error_code ignored;
    // The library of a build tree reads the sources' resources, so a change
    // to them needs no install; an installed one never looks there.
    if (!folder.empty() && std::filesystem::equivalent(folder, KRO_BUILD_LIBRARY_DIR, ignored)) {
        return KRO_SOURCE_RESOURCE_DIR;
    }
    if (!folder.empty()) {
        const std::filesystem::path beside =
            (folder / KRO_RESOURCE_DIR_FROM_LIBRARY).lexically_normal();
        if (std::filesystem::is_directory(beside, ignored)) {
            return beside;
        }
    }
    return KRO_INSTALLED_RESOURCE_DIR;
}

std::filesystem::path KROResourcePath(std::string_view fileName) {
    return KROResourceDirectory() / fileName;
}
