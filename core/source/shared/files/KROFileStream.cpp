#include "KROFileStream.h"

#include <cerrno>
#include <limits>
#include <sys/types.h>

#include "KROError.h"

std::FILE* KROFileStream::open(const char* path, const char* mode) {
    std::FILE* file = std::fopen(path, mode);
    if (file != nullptr) {
        // stdio allocates and owns the buffer; failure leaves the default one.
        std::setvbuf(file, nullptr, _IOFBF, bufferSize);
    }
    return file;
}

bool KROFileStream::getPosition(std::FILE* file, std::uint64_t& position, KROErrorPtr* error) {
    const off_t answer = file ? ::ftello(file) : (errno = EBADF, -1);
    if (answer < 0) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_gettingPosition");
    }
    position = static_cast<std::uint64_t>(answer);
    return true;
}

bool KROFileStream::setPosition(std::FILE* file, std::uint64_t position, KROErrorPtr* error) {
    if (file == nullptr) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_movingPosition");
    }
    // A position beyond off_t would wrap to a negative offset.
    if (position > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
        return KROFail<KROFileError>(error, EINVAL, "KROFile_action_movingPosition");
    }
    if (::fseeko(file, static_cast<off_t>(position), SEEK_SET) != 0) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_movingPosition");
    }
    return true;
}

bool KROFileStream::setPositionToEnd(std::FILE* file, KROErrorPtr* error) {
    if (file == nullptr) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_movingToEnd");
    }
    if (::fseeko(file, 0, SEEK_END) != 0) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_movingToEnd");
    }
    return true;
}
