// Where the library's resource files are found: the directory named by
// KROCORE_RESOURCES, else the installed share/krocore, else the source tree's
// core/resources (tests and the build tree).
#pragma once

#include <filesystem>
#include <string_view>

std::filesystem::path KROResourceDirectory();

// The path of one resource file in that directory.
std::filesystem::path KROResourcePath(std::string_view fileName);
