// The URL services as free functions in namespace kro; the URL is a std::filesystem::path and is
// the first argument of every instance operation. Call them qualified (kro::exists), since
// std::filesystem has functions of the same names.
//
// Linux forms (DESIGN.md section 4): the documents directory follows
// xdg-user-dirs, application support is $XDG_DATA_HOME/<application name>,
// the temporary directory is $TMPDIR or /tmp; security-scoped access does
// nothing; moves and copies never replace an existing target and work across
// file systems (KROFileTransfer).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class KROError;
using KROErrorPtr = std::shared_ptr<KROError>;
using KRODate = std::chrono::system_clock::time_point;

namespace kro {

using URL = std::filesystem::path;

// Instance operations.
bool exists(const URL& url);
bool existsAsDirectory(const URL& url);
bool existsAsFile(const URL& url);
bool createFile(const URL& url, KROErrorPtr* error = nullptr);
bool createDirectory(const URL& url, KROErrorPtr* error = nullptr);
bool renameTo(const URL& url, const std::string& name, KROErrorPtr* error = nullptr);
bool moveTo(const URL& url, const URL& target, KROErrorPtr* error = nullptr);
bool copyTo(const URL& url, const URL& target, KROErrorPtr* error = nullptr);
// Named deleteItem since delete is a keyword in C++.
bool deleteItem(const URL& url, KROErrorPtr* error = nullptr);
bool emptyDirectory(const URL& url, KROErrorPtr* error = nullptr);
bool copyItemsInDirectoryToDirectory(const URL& url, const URL& target,
                                     KROErrorPtr* error = nullptr);
// The direct items, sorted by name.
std::optional<std::vector<URL>> contentsOfDirectory(const URL& url, KROErrorPtr* error = nullptr);
bool getSizeOfDirectory(const URL& url, std::uint64_t& size, KROErrorPtr* error = nullptr);
bool getSizeOfFile(const URL& url, std::uint64_t& size, KROErrorPtr* error = nullptr);
URL temporaryDirectory(const URL& url, KROErrorPtr* error);
std::uint64_t availableBytesOnVolume(const URL& url, KROErrorPtr* error = nullptr);
std::optional<KRODate> modificationDate(const URL& url, KROErrorPtr* error = nullptr);
std::string filename(const URL& url);
// The last path component, trailing separators ignored.
std::string lastPathComponent(const URL& url);

// Security-scoped access does not exist on Linux: starting answers false, so
// that nobody stops it.
bool startAccessingSecurityScopedResource(const URL& url);
void stopAccessingSecurityScopedResource(const URL& url);

// Class-level operations.
URL temporaryDirectory();
URL publicDirectory();
URL privateDirectory(KROErrorPtr* error = nullptr);
URL supportDirectory(KROErrorPtr* error = nullptr);

// The Linux form of the main bundle's CFBundleName, which names the support
// directory: the program's name unless the host sets another before the
// first supportDirectory call.
void setApplicationName(std::string name);
std::string applicationName();

} // namespace kro
