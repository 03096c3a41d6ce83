#include "KROFileReader.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "KROError.h"
#include "KROFileStream.h"
#include "KROResourceForkFinder.h"
#include "KROResourceForkParser.h"
#include "KROURLExtension.h"

namespace {

// getData reads blocks of this size at most, so that a damaged length field
// asking for gigabytes from a small file fails at its end instead of
// allocating them first.
constexpr std::size_t dataStep = std::size_t{16} << 20;

} // namespace

KROFileReader::~KROFileReader() {
    reset();
}

void KROFileReader::reset() {
    releaseContents();
    close();
    if (shouldStopSecurityScopedAccess_) {
        kro::stopAccessingSecurityScopedResource(URL_);
    }
    shouldStopSecurityScopedAccess_ = false;
    length_ = 0;
    contentsPosition_ = 0;
    cached_ = false;
    resources_.reset();
}

bool KROFileReader::initWithURL(const std::filesystem::path& url, KROErrorPtr* error) {
    if (url.empty()) {
        return false;
    }
    reset();
    URL_ = url;
    shouldStopSecurityScopedAccess_ = kro::startAccessingSecurityScopedResource(url);
    file_ = KROFileStream::open(url.c_str(), "rb");
    if (file_ == nullptr) {
        return KROFail<KROFileError>(error, errno, "KROFile_action_opening");
    }
    setCached(true);
    return true;
}

void KROFileReader::setCached(bool cached) {
    if (contents_ != nullptr) {
        cached_ = false;
        return;
    }
    setNoCache(!cached);
    cached_ = cached;
}

void KROFileReader::setNoCache(bool noCache) {
    // Linux has no per-descriptor no-cache flag, so it becomes advice.
    // NOREUSE lets the kernel drop the pages first; it never slows the read
    // itself.
    if (file_ != nullptr) {
        ::posix_fadvise(::fileno(file_), 0, 0, noCache ? POSIX_FADV_NOREUSE : POSIX_FADV_NORMAL);
    }
}

bool KROFileReader::loadIntoMemory(KROErrorPtr* error) {
    if (contents_ != nullptr) {
        return true;
    }
    if (file_ == nullptr) {
        return KROFail<KROFileError>(error, EBADF, "KROFileReader_action_reading");
    }
    std::uint64_t size = 0;
    if (!kro::getSizeOfFile(URL_, size, error)) {
        return false;
    }
    void* memory = nullptr;
    const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    // At least one byte, so that an empty file has an image too.
    if (const int errnum = ::posix_memalign(&memory, pageSize, std::max<std::uint64_t>(size, 1))) {
        return KROFail<KROFileError>(error, errnum, "KROFileReader_action_allocatingMemory");
    }
    contents_ = static_cast<std::uint8_t*>(memory);
    contentsLength_ = size;
    // Locked so that a real-time reader never takes a page fault; without the
    // privilege the image is plain memory, which still works.
    ::mlock(contents_, contentsLength_);
    setNoCache(true);
    return readWholeFile(error);
}

bool KROFileReader::readWholeFile(KROErrorPtr* error) {
    std::clearerr(file_);
    errno = 0;
    std::size_t count = 0;
    if (::fseeko(file_, 0, SEEK_SET) == 0) {
        count = std::fread(contents_, 1, contentsLength_, file_);
    }
    if (count != contentsLength_) {
        // A file that shrank since its size was taken ends the read without
        // an errno; it reads as an input/output failure.
        const int errnum = errno != 0 ? errno : EIO;
        releaseContents();
        return KROFail<KROFileError>(error, errnum, "KROFileReader_action_reading");
    }
    close();
    contentsPosition_ = 0;
    cached_ = false;
    return true;
}

bool KROFileReader::getPosition(std::uint64_t& position, KROErrorPtr* error) {
    if (contents_ != nullptr) {
        position = contentsPosition_;
        return true;
    }
    return KROFileStream::getPosition(file_, position, error);
}

bool KROFileReader::setPositionToBeginning(KROErrorPtr* error) {
    return setPosition(0, error);
}

bool KROFileReader::setPositionToEnd(KROErrorPtr* error) {
    if (contents_ != nullptr) {
        contentsPosition_ = contentsLength_;
        return true;
    }
    return KROFileStream::setPositionToEnd(file_, error);
}

bool KROFileReader::setPosition(std::uint64_t position, KROErrorPtr* error) {
    if (contents_ != nullptr) {
        contentsPosition_ = position;
        return true;
    }
    return KROFileStream::setPosition(file_, position, error);
}

bool KROFileReader::isPositionAtEnd() const {
    if (contents_ != nullptr) {
        return contentsPosition_ == contentsLength_;
    }
    return file_ != nullptr && std::feof(file_) != 0;
}

template <typename Value> bool KROFileReader::getValue(Value& value, KROErrorPtr* error) {
    Value read{};
    std::size_t length = sizeof(Value);
    if (!getBuffer(&read, &length, error)) {
        return false;
    }
    value = read;
    return true;
}

bool KROFileReader::getCharValue(std::int8_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getCharValue(std::uint8_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getShortValue(std::int16_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getShortValue(std::uint16_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getIntValue(std::int32_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getUnsignedIntValue(std::uint32_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getLongLongValue(std::int64_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getUnsignedLongLongValue(std::uint64_t& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getFourCharCode(std::uint32_t& value, KROErrorPtr* error) {
    std::array<std::uint8_t, 4> bytes{};
    if (!getValue(bytes, error)) {
        return false;
    }
    value = (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) |
            (std::uint32_t{bytes[2]} << 8) | std::uint32_t{bytes[3]};
    return true;
}

bool KROFileReader::getUUID(KROUUID& value, KROErrorPtr* error) {
    return getValue(value, error);
}

bool KROFileReader::getData(KROData& data, std::size_t length, KROErrorPtr* error) {
    KROData block;
    block.reserve(std::min(length, dataStep));
    while (block.size() < length) {
        const std::size_t offset = block.size();
        std::size_t step = std::min(length - offset, dataStep);
        block.resize(offset + step);
        if (!getBuffer(block.data() + offset, &step, error)) {
            return false;
        }
    }
    data = std::move(block);
    return true;
}

bool KROFileReader::getBuffer(void* buffer, std::size_t* length, KROErrorPtr* error) {
    if (length == nullptr) {
        return true;
    }
    if (contents_ != nullptr) {
        return getBufferFromMemory(buffer, length, error);
    }
    return getBufferFromStream(buffer, length, error);
}

bool KROFileReader::getBufferFromMemory(void* buffer, std::size_t* length, KROErrorPtr* error) {
    // The position may lie past the end: setPosition stores any value.
    const std::uint64_t available =
        contentsPosition_ < contentsLength_ ? contentsLength_ - contentsPosition_ : 0;
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(*length, available));
    if (count > 0) {
        std::memcpy(buffer, contents_ + contentsPosition_, count);
        contentsPosition_ += count;
    }
    if (count == *length) {
        return true;
    }
    // Kept: the count stays as the caller set it; handlers read it so.
    return KROFail<KROFileError>(error, endOfFileCode, "KROFile_action_reading");
}

bool KROFileReader::getBufferFromStream(void* buffer, std::size_t* length, KROErrorPtr* error) {
    if (file_ == nullptr) {
        *length = 0;
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_reading");
    }
    std::clearerr(file_);
    const std::size_t count = std::fread(buffer, 1, *length, file_);
    if (std::ferror(file_)) {
        const int errnum = errno;
        *length = 0;
        return KROFail<KROFileError>(error, errnum, "KROFile_action_reading");
    }
    if (count == *length) {
        return true;
    }
    if (std::feof(file_)) {
        *length = count;
        return KROFail<KROFileError>(error, endOfFileCode, "KROFile_action_reading");
    }
    // Kept, a deliberately lenient case: fewer bytes with neither error nor
    // end of file succeed, the count unchanged.
    return true;
}

bool KROFileReader::getBufferAtPosition(void* buffer, std::size_t* length, std::uint64_t position,
                                        KROErrorPtr* error) {
    if (contents_ != nullptr) {
        const std::uint64_t available = position < contentsLength_ ? contentsLength_ - position : 0;
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(*length, available));
        if (count > 0) {
            std::memcpy(buffer, contents_ + position, count);
        }
        return finishPositionedRead(length, count, error);
    }
    if (file_ == nullptr) {
        *length = 0;
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_reading");
    }
    std::size_t count = 0;
    while (count < *length) {
        const ::ssize_t read = ::pread(::fileno(file_), static_cast<std::uint8_t*>(buffer) + count,
                                       *length - count, static_cast<off_t>(position + count));
        if (read < 0 && errno == EINTR) {
            continue;
        }
        if (read < 0) {
            const int errnum = errno;
            *length = 0;
            return KROFail<KROFileError>(error, errnum, "KROFile_action_reading");
        }
        if (read == 0) {
            break;
        }
        count += static_cast<std::size_t>(read);
    }
    return finishPositionedRead(length, count, error);
}

bool KROFileReader::finishPositionedRead(std::size_t* length, std::size_t count,
                                         KROErrorPtr* error) {
    if (count == *length) {
        return true;
    }
    *length = count;
    return KROFail<KROFileError>(error, endOfFileCode, "KROFile_action_reading");
}

bool KROFileReader::ungetCharValue(std::uint8_t value, KROErrorPtr* error) {
    if (file_ == nullptr || std::ungetc(value, file_) == EOF) {
        return KROFail<KROFileError>(error, ungetCode, "KROFile_action_unget");
    }
    return true;
}

std::uint64_t KROFileReader::length() {
    if (contents_ != nullptr) {
        return contentsLength_;
    }
    if (length_ == 0 && file_ != nullptr) {
        const off_t saved = ::ftello(file_);
        if (saved >= 0 && ::fseeko(file_, 0, SEEK_END) == 0) {
            length_ = static_cast<std::uint64_t>(std::max<off_t>(::ftello(file_), 0));
            ::fseeko(file_, saved, SEEK_SET);
        }
    }
    return length_;
}

const std::optional<KROFileResources>& KROFileReader::resources() {
    if (!resources_) {
        loadResources();
    }
    return resources_;
}

void KROFileReader::loadResources() {
    const KROData fork = KROResourceForkFinder::forkOfFile(URL_);
    resources_ = KROResourceForkParser::resourcesFromFork(fork);
}

void KROFileReader::releaseContents() {
    if (contents_ != nullptr) {
        ::munlock(contents_, contentsLength_);
        std::free(contents_);
    }
    contents_ = nullptr;
    contentsLength_ = 0;
}

void KROFileReader::close() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}
