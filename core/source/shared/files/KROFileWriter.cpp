#include "KROFileWriter.h"

#include <cerrno>

#include "KROError.h"
#include "KROFileStream.h"

KROFileWriter::~KROFileWriter() {
    close();
}

bool KROFileWriter::initWithURL(const std::filesystem::path& url, KROErrorPtr* error) {
    if (url.empty()) {
        return false;
    }
    close();
    URL_ = url;
    file_ = KROFileStream::open(url.c_str(), "r+b");
    if (file_ == nullptr) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_opening");
    }
    return true;
}

bool KROFileWriter::getPosition(std::uint64_t& position, KROErrorPtr* error) {
    return KROFileStream::getPosition(file_, position, error);
}

bool KROFileWriter::setPositionToBeginning(KROErrorPtr* error) {
    return setPosition(0, error);
}

bool KROFileWriter::setPositionToEnd(KROErrorPtr* error) {
    return KROFileStream::setPositionToEnd(file_, error);
}

bool KROFileWriter::setPosition(std::uint64_t position, KROErrorPtr* error) {
    return KROFileStream::setPosition(file_, position, error);
}

bool KROFileWriter::writeIntValue(std::int32_t value, KROErrorPtr* error) {
    return writeBuffer(&value, sizeof value, error);
}

bool KROFileWriter::writeLongLongValue(std::int64_t value, KROErrorPtr* error) {
    return writeBuffer(&value, sizeof value, error);
}

bool KROFileWriter::writeData(const KROData& data, KROErrorPtr* error) {
    return writeBuffer(data.data(), data.size(), error);
}

bool KROFileWriter::writeBuffer(const void* buffer, std::size_t length, KROErrorPtr* error) {
    if (file_ == nullptr) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    if (length == 0) {
        return true;
    }
    if (std::fwrite(buffer, 1, length, file_) != length) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_writing");
    }
    return true;
}

bool KROFileWriter::flush(KROErrorPtr* error) {
    if (file_ == nullptr) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_synchronizing");
    }
    if (std::fflush(file_) != 0) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_synchronizing");
    }
    return true;
}

void KROFileWriter::close() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}
