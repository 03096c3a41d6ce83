// KROFileWriter, a positioned writer over a stream opened for
// update. The file must exist (kro::createFile). Values go out in the host's
// byte order.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

#include "KROObject.h"

class KROError;
using KROErrorPtr = std::shared_ptr<KROError>;
using KROData = std::vector<std::uint8_t>;

class KROFileWriter : public KROObject {
    KRO_DECLARE_CLASS(KROFileWriter)

public:
    KROFileWriter() = default;
    KROFileWriter(const KROFileWriter&) = delete;
    KROFileWriter& operator=(const KROFileWriter&) = delete;
    ~KROFileWriter() override;

    // An empty URL fails with no error. Opens the existing file in "r+" mode.
    bool initWithURL(const std::filesystem::path& url, KROErrorPtr* error = nullptr);

    bool getPosition(std::uint64_t& position, KROErrorPtr* error = nullptr);
    bool setPositionToBeginning(KROErrorPtr* error = nullptr);
    bool setPositionToEnd(KROErrorPtr* error = nullptr);
    bool setPosition(std::uint64_t position, KROErrorPtr* error = nullptr);

    bool writeIntValue(std::int32_t value, KROErrorPtr* error = nullptr);
    bool writeLongLongValue(std::int64_t value, KROErrorPtr* error = nullptr);
    bool writeData(const KROData& data, KROErrorPtr* error = nullptr);
    // A short count fails with errno.
    bool writeBuffer(const void* buffer, std::size_t length, KROErrorPtr* error = nullptr);
    // fflush: hands the buffered bytes to the system (no fsync).
    bool flush(KROErrorPtr* error = nullptr);

    const std::filesystem::path& URL() const { return URL_; }
    std::FILE* file() const { return file_; }

private:
    void close();

    std::filesystem::path URL_;
    std::FILE* file_ = nullptr;
};
