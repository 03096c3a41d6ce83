#include "KROResources.h"

#include <cstdlib>
#include <system_error>

std::filesystem::path KROResourceDirectory() {
    if (const char* fromEnvironment = std::getenv("KROCORE_RESOURCES");
        fromEnvironment && *fromEnvironment) {
        return fromEnvironment;
    }
    std::error_code ignored;
    const std::filesystem::path installed = KRO_INSTALLED_RESOURCE_DIR;
    if (std::filesystem::is_directory(installed, ignored)) {
        return installed;
    }
    return KRO_SOURCE_RESOURCE_DIR;
}

std::filesystem::path KROResourcePath(std::string_view fileName) {
    return KROResourceDirectory() / fileName;
}
