#include "KROURLExtension.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "KROError.h"
#include "KROFileTransfer.h"

namespace kro {

namespace {

// A platform error wrapped in a KROError with the caller's action.
bool failWithErrno(KROErrorPtr* error, int errnum, KROFileAccess access, std::string_view key) {
    if (error) {
        *error = KROError::errorWithNSError(KRONSError::errorWithErrno(errnum, access),
                                            KROLocalizedString(key));
    }
    return false;
}

// The same with an action that is a format applied to the thing concerned.
bool failWithErrno(KROErrorPtr* error, int errnum, KROFileAccess access, std::string_view key,
                   const std::string& thing) {
    if (error) {
        const std::string action = KROStringWithFormatArguments(KROLocalizedString(key), thing);
        *error = KROError::errorWithNSError(KRONSError::errorWithErrno(errnum, access), action);
    }
    return false;
}

bool failWithTransfer(KROErrorPtr* error, const KROFileTransferResult& result, std::string_view key,
                      const URL& url) {
    return failWithErrno(error, result.errnum, result.access, key, filename(url));
}

// An environment variable that names an absolute path, else none.
std::optional<URL> absolutePathFromEnvironment(const char* name) {
    const char* value = std::getenv(name);
    if (value == nullptr || value[0] != '/') {
        return std::nullopt;
    }
    return URL(value);
}

URL homeDirectory() {
    if (auto home = absolutePathFromEnvironment("HOME")) {
        return *home;
    }
    struct passwd entry {};
    struct passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
        found->pw_dir && found->pw_dir[0] == '/') {
        return URL(found->pw_dir);
    }
    return URL("/");
}

URL configHome() {
    return absolutePathFromEnvironment("XDG_CONFIG_HOME").value_or(homeDirectory() / ".config");
}

URL dataHome() {
    return absolutePathFromEnvironment("XDG_DATA_HOME").value_or(homeDirectory() / ".local/share");
}

// One value of user-dirs.dirs: "$HOME/yyy" or "/yyy" in double quotes,
// with backslash escapes (xdg-user-dirs allows no other form).
std::optional<URL> userDirectoryValue(std::string_view value) {
    if (value.size() < 2 || value.front() != '"') {
        return std::nullopt;
    }
    value.remove_prefix(1);
    std::string text;
    for (std::size_t at = 0; at < value.size() && value[at] != '"'; ++at) {
        if (value[at] == '\\' && at + 1 < value.size()) {
            ++at;
        }
        text += value[at];
    }
    if (text.rfind("$HOME", 0) == 0) {
        std::string rest = text.substr(5);
        rest.erase(0, rest.find_first_not_of('/'));
        return rest.empty() ? homeDirectory() : homeDirectory() / rest;
    }
    if (!text.empty() && text.front() == '/') {
        return URL(text);
    }
    return std::nullopt;
}

// XDG_DOCUMENTS_DIR as xdg-user-dir answers it: the file's line, which the
// script sources over the environment, else the environment.
std::optional<URL> documentsDirectoryFromUserDirs() {
    std::ifstream file(configHome() / "user-dirs.dirs");
    std::optional<URL> found;
    const std::string key = "XDG_DOCUMENTS_DIR=";
    for (std::string line; std::getline(file, line);) {
        line.erase(0, line.find_first_not_of(" \t"));
        if (line.rfind(key, 0) == 0) {
            if (auto value = userDirectoryValue(std::string_view(line).substr(key.size()))) {
                found = value;
            }
        }
    }
    return found ? found : absolutePathFromEnvironment("XDG_DOCUMENTS_DIR");
}

// A directory kept for the process once computed. Kept as it stands: when
// creating it fails, that call answers empty and later calls answer the kept
// URL without creating it again.
class KeptDirectory {
public:
    template <typename Compute> URL get(Compute compute, KROErrorPtr* error) {
        std::lock_guard guard(lock_);
        if (kept_) {
            return *kept_;
        }
        kept_ = compute();
        if (!createDirectory(*kept_, error)) {
            return URL();
        }
        return *kept_;
    }

private:
    std::mutex lock_;
    std::optional<URL> kept_;
};

struct ApplicationName {
    std::mutex lock;
    std::optional<std::string> name;
};

ApplicationName& applicationNameSlot() {
    static ApplicationName slot;
    return slot;
}

// mkdir that answers success when something is already there; for the last
// component that something must be a directory. An intermediate file shows
// up as ENOTDIR at the next component.
int makeOneDirectory(const URL& path, bool last) {
    if (::mkdir(path.c_str(), 0777) == 0 || (errno == EEXIST && !last)) {
        return 0;
    }
    const int errnum = errno;
    struct stat status {};
    if (errnum == EEXIST && ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        return 0;
    }
    return errnum;
}

} // namespace

bool exists(const URL& url) {
    struct stat status {};
    return !url.empty() && ::stat(url.c_str(), &status) == 0;
}

bool existsAsDirectory(const URL& url) {
    struct stat status {};
    return !url.empty() && ::stat(url.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool existsAsFile(const URL& url) {
    struct stat status {};
    return !url.empty() && ::stat(url.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

bool createFile(const URL& url, KROErrorPtr* error) {
    // Appending creates an empty file and leaves an existing one as it was.
    std::FILE* file = std::fopen(url.c_str(), "ab");
    if (file == nullptr) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_creatingFile");
    }
    std::fclose(file);
    return true;
}

bool createDirectory(const URL& url, KROErrorPtr* error) {
    if (url.empty()) {
        return failWithErrno(error, ENOENT, KROFileAccess::writing,
                             "KROFile_action_creatingDirectory");
    }
    const URL normal = url.lexically_normal();
    const URL whole = normal.has_filename() ? normal : normal.parent_path();
    URL prefix;
    for (const auto& component : whole) {
        prefix /= component;
        if (component.empty() || component == "/" || component == "." || component == "..") {
            continue;
        }
        if (int errnum = makeOneDirectory(prefix, prefix == whole)) {
            return failWithErrno(error, errnum, KROFileAccess::writing,
                                 "KROFile_action_creatingDirectory");
        }
    }
    return true;
}

bool renameTo(const URL& url, const std::string& name, KROErrorPtr* error) {
    URL target = url.parent_path() / name;
    if (URL(name).extension().empty() && !url.extension().empty()) {
        target += url.extension();
    }
    return moveTo(url, target, error);
}

bool moveTo(const URL& url, const URL& target, KROErrorPtr* error) {
    if (url == target) {
        return true;
    }
    const KROFileTransferResult result = KROFileTransfer::moveItem(url, target);
    return result || failWithTransfer(error, result, "KROFile_action_moving", url);
}

bool copyTo(const URL& url, const URL& target, KROErrorPtr* error) {
    if (url == target) {
        return true;
    }
    const KROFileTransferResult result = KROFileTransfer::copyItem(url, target);
    return result || failWithTransfer(error, result, "KROFile_action_copying", url);
}

bool deleteItem(const URL& url, KROErrorPtr* error) {
    const KROFileTransferResult result = KROFileTransfer::removeItem(url);
    return result || failWithTransfer(error, result, "KROFile_action_deleting", url);
}

bool emptyDirectory(const URL& url, KROErrorPtr* error) {
    const auto items = contentsOfDirectory(url, error);
    if (!items) {
        return false;
    }
    return std::all_of(items->begin(), items->end(),
                       [error](const URL& item) { return deleteItem(item, error); });
}

bool copyItemsInDirectoryToDirectory(const URL& url, const URL& target, KROErrorPtr* error) {
    if (!createDirectory(target, error)) {
        return false;
    }
    const auto items = contentsOfDirectory(url, error);
    if (!items) {
        return false;
    }
    for (const URL& item : *items) {
        const URL destination = target / item.filename();
        if (kro::exists(destination)) {
            continue;
        }
        if (!copyTo(item, destination, error)) {
            return false;
        }
    }
    return true;
}

std::optional<std::vector<URL>> contentsOfDirectory(const URL& url, KROErrorPtr* error) {
    std::vector<URL> items;
    std::error_code failure;
    for (std::filesystem::directory_iterator item(url, failure), end; !failure && item != end;
         item.increment(failure)) {
        items.push_back(item->path());
    }
    if (failure) {
        failWithErrno(error, failure.value(), KROFileAccess::reading,
                      "KROFile_action_gettingDirectoryContents", lastPathComponent(url));
        return std::nullopt;
    }
    std::sort(items.begin(), items.end());
    return items;
}

bool getSizeOfDirectory(const URL& url, std::uint64_t& size, KROErrorPtr* error) {
    size = 0;
    std::uint64_t sum = 0;
    std::error_code failure;
    for (std::filesystem::recursive_directory_iterator item(url, failure), end;
         !failure && item != end; item.increment(failure)) {
        struct stat status {};
        if (::lstat(item->path().c_str(), &status) != 0) {
            failure.assign(errno, std::generic_category());
            break;
        }
        // Directories have no file size of their own; links count as themselves.
        if (!S_ISDIR(status.st_mode)) {
            sum += static_cast<std::uint64_t>(status.st_size);
        }
    }
    if (failure) {
        return failWithErrno(error, failure.value(), KROFileAccess::reading,
                             "KROFile_action_gettingSize", lastPathComponent(url));
    }
    size = sum;
    return true;
}

bool getSizeOfFile(const URL& url, std::uint64_t& size, KROErrorPtr* error) {
    // Follows links: the handlers want the size of the bytes they will read.
    struct stat status {};
    if (::stat(url.c_str(), &status) != 0) {
        return failWithErrno(error, errno, KROFileAccess::reading, "KROFile_action_gettingSize",
                             lastPathComponent(url));
    }
    // A directory has no file size; it answers 0 as the platform's does.
    size = S_ISDIR(status.st_mode) ? 0 : static_cast<std::uint64_t>(status.st_size);
    return true;
}

URL temporaryDirectory(const URL&, KROErrorPtr* error) {
    URL directory = temporaryDirectory();
    if (directory.empty()) {
        KROFail<KROError>(error, ENOENT, "KROFile_action_creatingTemporaryDirectory");
    }
    return directory;
}

std::uint64_t availableBytesOnVolume(const URL& url, KROErrorPtr* error) {
    struct statvfs volume {};
    if (::statvfs(url.c_str(), &volume) != 0) {
        failWithErrno(error, errno, KROFileAccess::reading, "KROFile_action_gettingAvailableBytes",
                      lastPathComponent(url));
        return 0;
    }
    return std::uint64_t{volume.f_bavail} * std::uint64_t{volume.f_frsize};
}

std::optional<KRODate> modificationDate(const URL& url, KROErrorPtr* error) {
    struct stat status {};
    if (::stat(url.c_str(), &status) != 0) {
        failWithErrno(error, errno, KROFileAccess::reading,
                      "KROFile_action_gettingModificationDate", lastPathComponent(url));
        return std::nullopt;
    }
    const auto sinceEpoch = std::chrono::seconds(status.st_mtim.tv_sec) +
                            std::chrono::nanoseconds(status.st_mtim.tv_nsec);
    return KRODate(std::chrono::duration_cast<KRODate::duration>(sinceEpoch));
}

std::string lastPathComponent(const URL& url) {
    std::string text = url.string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    const std::size_t slash = text.find_last_of('/');
    return (slash == std::string::npos || text == "/") ? text : text.substr(slash + 1);
}

std::string filename(const URL& url) {
    return URL(lastPathComponent(url)).stem().string();
}

bool startAccessingSecurityScopedResource(const URL&) {
    return false;
}

void stopAccessingSecurityScopedResource(const URL&) {}

URL temporaryDirectory() {
    return absolutePathFromEnvironment("TMPDIR").value_or(URL("/tmp"));
}

URL publicDirectory() {
    static const URL directory =
        documentsDirectoryFromUserDirs().value_or(homeDirectory() / "Documents");
    return directory;
}

URL privateDirectory(KROErrorPtr* error) {
    static KeptDirectory kept;
    return kept.get([] { return publicDirectory() / ".private"; }, error);
}

URL supportDirectory(KROErrorPtr* error) {
    static KeptDirectory kept;
    return kept.get([] { return dataHome() / applicationName(); }, error);
}

void setApplicationName(std::string name) {
    ApplicationName& slot = applicationNameSlot();
    std::lock_guard guard(slot.lock);
    slot.name = std::move(name);
}

std::string applicationName() {
    ApplicationName& slot = applicationNameSlot();
    std::lock_guard guard(slot.lock);
    if (slot.name && !slot.name->empty()) {
        return *slot.name;
    }
    return program_invocation_short_name;
}

} // namespace kro
