#include "KROFileTransfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <stdio.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

#ifndef RENAME_NOREPLACE
#define RENAME_NOREPLACE (1 << 0)
#endif

namespace {

using Path = KROFileTransfer::Path;
using Result = KROFileTransferResult;

Result failure(int errnum, KROFileAccess access) {
    return Result::failure(errnum, access);
}
Result readingFailure() {
    return failure(errno, KROFileAccess::reading);
}
Result writingFailure() {
    return failure(errno, KROFileAccess::writing);
}

// Closes a descriptor when leaving scope; close() answers its own result.
class Descriptor {
public:
    explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    int get() const { return descriptor_; }
    bool isOpen() const { return descriptor_ >= 0; }
    int close() {
        const int result = descriptor_ >= 0 ? ::close(descriptor_) : 0;
        descriptor_ = -1;
        return result;
    }

private:
    int descriptor_;
};

// The directory that a new item at target goes into.
Path parentOf(const Path& target) {
    const Path parent = target.parent_path();
    return parent.empty() ? Path(".") : parent;
}

// A hidden name beside target for the item being built; mkstemp and
// mkdtemp fill in the X's.
std::string temporaryTemplate(const Path& target) {
    // Appended piece by piece: "." + string trips a false -Wrestrict of g++ 12 at -O3.
    std::string name(".");
    name += target.filename().string();
    name += ".kro-XXXXXX";
    return (parentOf(target) / name).string();
}

// Removes a temporary item at scope exit unless it was published.
class TemporaryItem {
public:
    explicit TemporaryItem(Path path) : path_(std::move(path)) {}
    TemporaryItem(const TemporaryItem&) = delete;
    TemporaryItem& operator=(const TemporaryItem&) = delete;
    ~TemporaryItem() {
        if (!path_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }
    const Path& path() const { return path_; }
    void release() { path_.clear(); }

private:
    Path path_;
};

// Makes the data of a copy durable in its directory before the source goes.
void syncDirectory(const Path& directory) {
    Descriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor.isOpen()) {
        ::fsync(descriptor.get());
    }
}

// Errors of copy_file_range that only mean "not between these two files".
bool copyFileRangeUnsupported(int errnum) {
    return errnum == EXDEV || errnum == EINVAL || errnum == ENOSYS || errnum == EOPNOTSUPP ||
           errnum == ENOTSUP || errnum == EBADF;
}

Result writeAll(int output, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = ::write(output, bytes, count);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return writingFailure();
        }
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return Result::success();
}

Result copyBytesByReading(int input, int output) {
    std::vector<char> buffer(std::size_t{1} << 20);
    for (;;) {
        const ssize_t count = ::read(input, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return readingFailure();
        }
        if (count == 0) {
            return Result::success();
        }
        if (Result result = writeAll(output, buffer.data(), static_cast<std::size_t>(count));
            !result) {
            return result;
        }
    }
}

// The kernel copies within the page cache when it can; read and write otherwise.
Result copyBytes(int input, int output) {
    for (;;) {
        const ssize_t count = ::copy_file_range(input, nullptr, output, nullptr, 1 << 30, 0);
        if (count > 0) {
            continue;
        }
        if (count == 0) {
            return Result::success();
        }
        if (errno == EINTR) {
            continue;
        }
        if (copyFileRangeUnsupported(errno)) {
            return copyBytesByReading(input, output);
        }
        return writingFailure();
    }
}

// Extended attributes go along where the target accepts them (a resource
// fork kept in user.com.apple.ResourceFork among them).
void copyExtendedAttributes(int input, int output) {
    const ssize_t size = ::flistxattr(input, nullptr, 0);
    if (size <= 0) {
        return;
    }
    std::vector<char> names(static_cast<std::size_t>(size));
    const ssize_t listed = ::flistxattr(input, names.data(), names.size());
    for (ssize_t at = 0; at < listed;) {
        const char* name = names.data() + at;
        at += static_cast<ssize_t>(std::char_traits<char>::length(name)) + 1;
        const ssize_t valueSize = ::fgetxattr(input, name, nullptr, 0);
        if (valueSize < 0) {
            continue;
        }
        std::vector<char> value(static_cast<std::size_t>(valueSize));
        const ssize_t read = ::fgetxattr(input, name, value.data(), value.size());
        if (read >= 0) {
            ::fsetxattr(output, name, value.data(), static_cast<std::size_t>(read), 0);
        }
    }
}

// Owner (effective only for root), mode, attributes and times of the
// source, each where the target accepts it, as a file manager copy keeps them.
void copyMetadata(int input, int output, const struct stat& status) {
    if (::fchown(output, status.st_uid, status.st_gid) != 0) {
        // Not the owner: the copy belongs to whoever copies.
    }
    ::fchmod(output, status.st_mode & 07777);
    copyExtendedAttributes(input, output);
    const std::array<struct timespec, 2> times = {status.st_atim, status.st_mtim};
    ::futimens(output, times.data());
}

// The absolute form of a path with links resolved and no trailing separator.
Path resolved(const Path& path) {
    std::error_code ignored;
    Path result =
        std::filesystem::weakly_canonical(std::filesystem::absolute(path, ignored), ignored)
            .lexically_normal();
    return result.has_filename() ? result : result.parent_path();
}

// True when path lies inside directory (or is it), after resolving both.
bool isInside(const Path& path, const Path& directory) {
    const Path inner = resolved(path);
    const Path outer = resolved(directory);
    auto [outerEnd, innerAt] =
        std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
    return outerEnd == outer.end();
}

} // namespace

int KROFileTransfer::renameNoReplace(const Path& from, const Path& to) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 28))
    const int result = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
#else
    // glibc before 2.28 has no wrapper for the system call.
    const int result = static_cast<int>(
        ::syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE));
#endif
    return result == 0 ? 0 : errno;
}

KROFileTransferResult KROFileTransfer::moveItem(const Path& source, const Path& target) {
    const int errnum = renameNoReplace(source, target);
    if (errnum == 0) {
        return Result::success();
    }
    if (errnum == EXDEV) {
        return moveAcrossFileSystems(source, target);
    }
    if (errnum == EINVAL || errnum == ENOSYS) {
        return moveWithoutNoReplace(source, target);
    }
    return failure(errnum, KROFileAccess::writing);
}

KROFileTransferResult KROFileTransfer::moveAcrossFileSystems(const Path& source,
                                                             const Path& target) {
    struct stat status {};
    if (::lstat(source.c_str(), &status) != 0) {
        return readingFailure();
    }
    if (Result copied = copyItem(source, target); !copied) {
        return copied;
    }
    syncDirectory(parentOf(target));
    if (Result removed = removeItem(source); !removed) {
        // A file that cannot leave its place stays there whole, and the copy
        // goes. A directory may have lost part of its items by now; the copy
        // stays, so that every item still exists whole somewhere.
        if (!S_ISDIR(status.st_mode)) {
            removeItem(target);
        }
        return removed;
    }
    return Result::success();
}

KROFileTransferResult KROFileTransfer::moveWithoutNoReplace(const Path& source,
                                                            const Path& target) {
    struct stat status {};
    if (::lstat(source.c_str(), &status) != 0) {
        return writingFailure();
    }
    // link() never replaces, so a file moves safely on such a file system too.
    if (S_ISREG(status.st_mode) && ::link(source.c_str(), target.c_str()) == 0) {
        ::unlink(source.c_str());
        return Result::success();
    }
    if (S_ISREG(status.st_mode) && errno != EPERM && errno != ENOTSUP && errno != EOPNOTSUPP) {
        return writingFailure();
    }
    // No atomic way is left: look, then rename.
    struct stat existing {};
    if (::lstat(target.c_str(), &existing) == 0) {
        return failure(EEXIST, KROFileAccess::writing);
    }
    if (::rename(source.c_str(), target.c_str()) != 0) {
        return writingFailure();
    }
    return Result::success();
}

KROFileTransferResult KROFileTransfer::copyItem(const Path& source, const Path& target) {
    struct stat status {};
    if (::lstat(source.c_str(), &status) != 0) {
        return readingFailure();
    }
    struct stat existing {};
    if (::lstat(target.c_str(), &existing) == 0) {
        return failure(EEXIST, KROFileAccess::writing);
    }
    if (S_ISREG(status.st_mode)) {
        return copyRegularFile(source, target);
    }
    if (S_ISDIR(status.st_mode)) {
        return copyDirectory(source, target);
    }
    if (S_ISLNK(status.st_mode)) {
        return copySymbolicLink(source, target);
    }
    return failure(ENOTSUP, KROFileAccess::reading);
}

KROFileTransferResult KROFileTransfer::copyRegularFile(const Path& source, const Path& target) {
    Descriptor input(::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (!input.isOpen() || ::fstat(input.get(), &status) != 0) {
        return readingFailure();
    }
    std::string name = temporaryTemplate(target);
    Descriptor output(::mkostemp(name.data(), O_CLOEXEC));
    if (!output.isOpen()) {
        return writingFailure();
    }
    TemporaryItem temporary{Path(name)};
    if (Result copied = copyBytes(input.get(), output.get()); !copied) {
        return copied;
    }
    copyMetadata(input.get(), output.get(), status);
    if (::fsync(output.get()) != 0 || output.close() != 0) {
        return writingFailure();
    }
    if (Result published = publish(temporary.path(), target, false); !published) {
        return published;
    }
    temporary.release();
    return Result::success();
}

KROFileTransferResult KROFileTransfer::copyDirectory(const Path& source, const Path& target) {
    // A copy inside its own source would find itself while it grows.
    if (isInside(target, source)) {
        return failure(EINVAL, KROFileAccess::writing);
    }
    std::string name = temporaryTemplate(target);
    if (::mkdtemp(name.data()) == nullptr) {
        return writingFailure();
    }
    TemporaryItem temporary{Path(name)};
    std::error_code error;
    for (std::filesystem::directory_iterator item(source, error), end; !error && item != end;
         item.increment(error)) {
        if (Result copied = copyItem(item->path(), temporary.path() / item->path().filename());
            !copied) {
            return copied;
        }
    }
    if (error) {
        return failure(error.value(), KROFileAccess::reading);
    }
    Descriptor input(::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Descriptor output(::open(temporary.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (input.isOpen() && output.isOpen() && ::fstat(input.get(), &status) == 0) {
        copyMetadata(input.get(), output.get(), status);
    }
    if (Result published = publish(temporary.path(), target, true); !published) {
        return published;
    }
    temporary.release();
    return Result::success();
}

KROFileTransferResult KROFileTransfer::copySymbolicLink(const Path& source, const Path& target) {
    std::error_code error;
    const Path linked = std::filesystem::read_symlink(source, error);
    if (error) {
        return failure(error.value(), KROFileAccess::reading);
    }
    // symlink() never replaces an existing target.
    if (::symlink(linked.c_str(), target.c_str()) != 0) {
        return writingFailure();
    }
    return Result::success();
}

KROFileTransferResult KROFileTransfer::publish(const Path& temporary, const Path& target,
                                               bool isDirectory) {
    const int errnum = renameNoReplace(temporary, target);
    if (errnum == 0) {
        syncDirectory(parentOf(target));
        return Result::success();
    }
    if (errnum != EINVAL && errnum != ENOSYS) {
        return failure(errnum, KROFileAccess::writing);
    }
    if (!isDirectory) {
        if (::link(temporary.c_str(), target.c_str()) == 0) {
            ::unlink(temporary.c_str());
            return Result::success();
        }
        if (errno != EPERM && errno != ENOTSUP && errno != EOPNOTSUPP) {
            return writingFailure();
        }
    }
    return moveWithoutNoReplace(temporary, target);
}

KROFileTransferResult KROFileTransfer::removeItem(const Path& item) {
    struct stat status {};
    if (::lstat(item.c_str(), &status) != 0) {
        return writingFailure();
    }
    std::error_code error;
    std::filesystem::remove_all(item, error);
    if (error) {
        return failure(error.value(), KROFileAccess::writing);
    }
    return Result::success();
}
