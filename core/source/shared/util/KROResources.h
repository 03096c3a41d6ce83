// Where the library's resource files are found: the directory named by
// KROCORE_RESOURCES; else, for the library of a build tree, the sources'
// core/resources; else share/krocore beside the installed library, found from
// the library's own file so that an installed tree may be moved; else the
// folder it was installed to.
#pragma once

#include <filesystem>
#include <string_view>

std::filesystem::path KROResourceDirectory();

// The path of one resource file in that directory.
std::filesystem::path KROResourcePath(std::string_view fileName);
