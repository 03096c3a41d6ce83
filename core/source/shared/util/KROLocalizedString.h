// The one lookup through which every text that the user sees passes. Two
// stages: the library's string table "krocore" (krocore.strings, an XML
// property-list dictionary among the resources), then the host's table. The
// host's table can add keys, never override them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

// An empty key yields an empty string; a key missing in both tables yields
// the key itself.
std::string KROLocalizedString(std::string_view key);

// An absent key yields none.
std::optional<std::string> KROLocalizedString(std::nullptr_t key);

// The host's own table, the Linux form of the application's main bundle. An
// empty path removes it.
void KROSetHostStringTablePath(const std::filesystem::path& path);
