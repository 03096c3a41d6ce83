// `kro info DIR`: one line (or one JSON object) per file of a folder, read
// through the header probe rather than the format handlers, so that a
// folder of thousands of files lists quickly. Hidden files and folders
// inside are left out; files are in name order.
#pragma once

#include <filesystem>

// Prints the listing; answers the exit code, 1 when the folder cannot be read.
int listFolder(const std::filesystem::path& folder, bool json);
