// KROFileReader, a positioned reader over a stream file, with an
// optional whole-file memory image and a reader of the file's resource fork.
// Values pass in the host's byte order; only getFourCharCode swaps.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "KROFileResource.h"
#include "KROObject.h"

class KROError;
using KROErrorPtr = std::shared_ptr<KROError>;
using KROUUID = std::array<std::uint8_t, 16>;

class KROFileReader : public KROObject {
    KRO_DECLARE_CLASS(KROFileReader)

public:
    // The code of a read that ended before the request was met.
    static constexpr std::int64_t endOfFileCode = 999;
    // The code of a byte that could not be pushed back.
    static constexpr std::int64_t ungetCode = 998;

    KROFileReader() = default;
    KROFileReader(const KROFileReader&) = delete;
    KROFileReader& operator=(const KROFileReader&) = delete;
    ~KROFileReader() override;

    // An empty URL fails with no error. Opens the file for reading, cached.
    // A second call leaves the first file.
    bool initWithURL(const std::filesystem::path& url, KROErrorPtr* error = nullptr);

    // Whether the system may keep this file's pages. Linux has no F_NOCACHE;
    // false advises the kernel that the pages will not be read again.
    void setCached(bool cached);
    bool cached() const { return cached_; }

    // Reads the whole file into locked memory and closes the stream; true at
    // once when already done.
    bool loadIntoMemory(KROErrorPtr* error = nullptr);

    bool getPosition(std::uint64_t& position, KROErrorPtr* error = nullptr);
    bool setPositionToBeginning(KROErrorPtr* error = nullptr);
    bool setPositionToEnd(KROErrorPtr* error = nullptr);
    // In memory any position is stored; reading past the end fails with 999.
    bool setPosition(std::uint64_t position, KROErrorPtr* error = nullptr);
    // Stream: the end-of-file mark, so true only after a read hit the end.
    bool isPositionAtEnd() const;

    bool getCharValue(std::int8_t& value, KROErrorPtr* error = nullptr);
    bool getCharValue(std::uint8_t& value, KROErrorPtr* error = nullptr);
    bool getShortValue(std::int16_t& value, KROErrorPtr* error = nullptr);
    bool getShortValue(std::uint16_t& value, KROErrorPtr* error = nullptr);
    bool getIntValue(std::int32_t& value, KROErrorPtr* error = nullptr);
    bool getUnsignedIntValue(std::uint32_t& value, KROErrorPtr* error = nullptr);
    bool getLongLongValue(std::int64_t& value, KROErrorPtr* error = nullptr);
    bool getUnsignedLongLongValue(std::uint64_t& value, KROErrorPtr* error = nullptr);
    // Four bytes as a big-endian integer: "RIFF" is 0x52494646 on any host.
    bool getFourCharCode(std::uint32_t& value, KROErrorPtr* error = nullptr);
    bool getUUID(KROUUID& value, KROErrorPtr* error = nullptr);
    // A new block of length bytes; on failure data is left alone.
    bool getData(KROData& data, std::size_t length, KROErrorPtr* error = nullptr);
    // length points to the requested count; a null pointer is a successful
    // no-op. After a failure the count holds: in memory, the request as it
    // was; on the stream, 0 after a stream error and the bytes read at the
    // end of the file. A short read that meets neither succeeds with the
    // count unchanged.
    bool getBuffer(void* buffer, std::size_t* length, KROErrorPtr* error = nullptr);
    // Reads at position without moving the reader's own: one system call,
    // and readers of other positions need not take turns. Fails as getBuffer
    // does, except that at the end of the file the count always holds the
    // bytes that were there, in memory too.
    bool getBufferAtPosition(void* buffer, std::size_t* length, std::uint64_t position,
                             KROErrorPtr* error = nullptr);
    // Stream only: not for use after loadIntoMemory.
    bool ungetCharValue(std::uint8_t value, KROErrorPtr* error = nullptr);

    // Cached once known; a length of 0 is computed afresh on the next call.
    std::uint64_t length();

    // The resources of the file's fork, parsed on first need; none while the
    // fork is damaged, an empty array when there is no fork.
    const std::optional<KROFileResources>& resources();
    void loadResources();

    const std::filesystem::path& URL() const { return URL_; }
    // The open stream; null once the file lives in memory.
    std::FILE* file() const { return file_; }
    const std::uint8_t* contents() const { return contents_; }
    std::uint64_t contentsLength() const { return contentsLength_; }
    std::uint64_t contentsPosition() const { return contentsPosition_; }
    bool shouldStopSecurityScopedAccess() const { return shouldStopSecurityScopedAccess_; }

private:
    template <typename Value> bool getValue(Value& value, KROErrorPtr* error);
    bool getBufferFromMemory(void* buffer, std::size_t* length, KROErrorPtr* error);
    bool getBufferFromStream(void* buffer, std::size_t* length, KROErrorPtr* error);
    static bool finishPositionedRead(std::size_t* length, std::size_t count, KROErrorPtr* error);
    bool readWholeFile(KROErrorPtr* error);
    void setNoCache(bool noCache);
    void releaseContents();
    void close();
    // Back to a reader of nothing: what destruction and a new init need.
    void reset();

    std::filesystem::path URL_;
    std::FILE* file_ = nullptr;
    std::uint64_t length_ = 0;
    std::uint8_t* contents_ = nullptr;
    std::uint64_t contentsLength_ = 0;
    std::uint64_t contentsPosition_ = 0;
    bool cached_ = false;
    bool shouldStopSecurityScopedAccess_ = false;
    std::optional<KROFileResources> resources_;
};
