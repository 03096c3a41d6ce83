// The move and copy behind kro::moveTo and kro::copyTo.
// A move is a rename within a file system, atomic to readers. Neither a move
// nor a copy ever replaces an existing target (renameat2 RENAME_NOREPLACE).
// Across file systems a move copies into a temporary item in the target's
// directory, syncs it, publishes it under the target name without replacing,
// and only then removes the source: at every moment the item exists whole
// under one of the two names, never half-moved.
#pragma once

#include <filesystem>

#include "KRONSError.h"

// The errno of a failed step and which way the file was used; errnum 0 is success.
struct KROFileTransferResult {
    int errnum = 0;
    KROFileAccess access = KROFileAccess::writing;

    explicit operator bool() const { return errnum == 0; }
    static KROFileTransferResult success() { return {}; }
    static KROFileTransferResult failure(int errnum, KROFileAccess access) {
        return {errnum, access};
    }
};

class KROFileTransfer {
public:
    using Path = std::filesystem::path;

    // Moves a file, directory or symbolic link; fails with EEXIST when the target exists.
    static KROFileTransferResult moveItem(const Path& source, const Path& target);

    // Copies a file, a directory with all it holds, or a symbolic link (as a
    // link). Modes, times and extended attributes go along where the target
    // accepts them. Fails with EEXIST when the target exists.
    static KROFileTransferResult copyItem(const Path& source, const Path& target);

    // Removes a file, a link, or a directory with all it holds; ENOENT when absent.
    static KROFileTransferResult removeItem(const Path& item);

    // rename() that fails with EEXIST instead of replacing; returns 0 or errno.
    // EINVAL or ENOSYS when the file system or kernel cannot promise that.
    static int renameNoReplace(const Path& from, const Path& to);

private:
    static KROFileTransferResult moveAcrossFileSystems(const Path& source, const Path& target);
    static KROFileTransferResult moveWithoutNoReplace(const Path& source, const Path& target);
    static KROFileTransferResult copyRegularFile(const Path& source, const Path& target);
    static KROFileTransferResult copyDirectory(const Path& source, const Path& target);
    static KROFileTransferResult copySymbolicLink(const Path& source, const Path& target);
    static KROFileTransferResult publish(const Path& temporary, const Path& target,
                                         bool isDirectory);
};
