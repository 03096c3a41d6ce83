#include "KROAudioFileChunk.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "KROError.h"
#include "KROExtended80.h"
#include "KROFileReader.h"
#include "KROFileWriter.h"
#include "KROPropertyList.h"
#include "KROStringHelpers.h"

namespace {

constexpr std::uint32_t kUUIDType = kro::fourCC("uuid");
constexpr std::uint32_t kStringsType = kro::fourCC("strg");
// cStringAtPosition never reads more than this.
constexpr std::uint64_t kCStringLimit = 256;
constexpr std::size_t kFloat80Width = 10;

// The bytes of value, width bytes wide, in the given order.
void appendInteger(KROData& data, std::uint64_t value, std::size_t width, bool bigEndian) {
    for (std::size_t i = 0; i < width; ++i) {
        const std::size_t shift = 8 * (bigEndian ? width - 1 - i : i);
        data.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

std::uint64_t integerFromBytes(const std::uint8_t* bytes, std::size_t width, bool bigEndian) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        const std::size_t shift = 8 * (bigEndian ? width - 1 - i : i);
        value |= std::uint64_t{bytes[i]} << shift;
    }
    return value;
}

// The text of an argument: a string as it is, any other value as its
// description; none for the empty argument.
std::optional<std::string> textOf(const KROPropertyList* value) {
    if (value == nullptr) {
        return std::nullopt;
    }
    if (const std::string* text = value->stringValue()) {
        return *text;
    }
    return value->description();
}

// The bytes before the first zero byte.
KROData cutAtZero(KROData bytes) {
    bytes.erase(std::find(bytes.begin(), bytes.end(), 0), bytes.end());
    return bytes;
}

std::optional<std::string> asciiTextOf(const KROData& bytes) {
    if (bytes.empty()) {
        return std::nullopt;
    }
    return kro::stringWithASCIIBytes(bytes.data(), bytes.size());
}

// The UTF-8 bytes of text, as many as it has UTF-16 units.
std::string_view bytesOfCharacterCount(std::string_view text) {
    return text.substr(0, std::min(text.size(), kro::utf16Length(text)));
}

} // namespace

void KROAudioFileChunk::setGUID(const KROGUIDTail& guid) {
    guid_ = guid;
    usesGUID_ = true;
}

void KROAudioFileChunk::setFile(KROFileReader* reader) {
    fileReader_ = reader;
    fileWriter_ = nullptr;
}

void KROAudioFileChunk::setFile(KROFileWriter* writer) {
    fileWriter_ = writer;
    fileReader_ = nullptr;
}

std::uint64_t KROAudioFileChunk::dataLength() const {
    return data_ ? data_->size() : dataLength_;
}

bool KROAudioFileChunk::swaps() const {
    return byteOrder_ != littleEndian;
}

KROData& KROAudioFileChunk::mutableData() {
    if (!data_) {
        data_.emplace();
    }
    return *data_;
}

// ---------------------------------------------------------------- reading

std::uint64_t KROAudioFileChunk::bytesAvailableFrom(std::uint64_t position) const {
    if (fileReader_ != nullptr) {
        const std::uint64_t fileLength = fileReader_->length();
        if (position > fileLength || dataLocation_ > fileLength - position) {
            return 0;
        }
        return fileLength - dataLocation_ - position;
    }
    if (data_ && position < data_->size()) {
        return data_->size() - position;
    }
    return 0;
}

bool KROAudioFileChunk::fetch(std::uint64_t position, void* bytes, std::size_t length) const {
    if (length == 0) {
        return true;
    }
    if (fileReader_ != nullptr) {
        if (position > ~std::uint64_t{0} - dataLocation_) {
            return false;
        }
        std::size_t count = length;
        return fileReader_->setPosition(dataLocation_ + position) &&
               fileReader_->getBuffer(bytes, &count);
    }
    if (!data_ || position > data_->size() || length > data_->size() - position) {
        return false;
    }
    std::memcpy(bytes, data_->data() + position, length);
    return true;
}

KROData KROAudioFileChunk::fetchUpTo(std::uint64_t position, std::uint64_t length) const {
    KROData bytes(static_cast<std::size_t>(std::min(length, bytesAvailableFrom(position))));
    if (!fetch(position, bytes.data(), bytes.size())) {
        return {};
    }
    return bytes;
}

template <typename Value> Value KROAudioFileChunk::valueAtPosition(std::uint64_t position) const {
    // Kept: an unsigned difference, so a chunk shorter than the value passes.
    if (position > dataLength() - sizeof(Value)) {
        return 0;
    }
    std::uint8_t bytes[sizeof(Value)] = {};
    if (!fetch(position, bytes, sizeof bytes)) {
        return 0;
    }
    using Bits = std::conditional_t<
        sizeof(Value) == 1, std::uint8_t,
        std::conditional_t<sizeof(Value) == 2, std::uint16_t,
                           std::conditional_t<sizeof(Value) == 4, std::uint32_t, std::uint64_t>>>;
    return std::bit_cast<Value>(static_cast<Bits>(integerFromBytes(bytes, sizeof bytes, swaps())));
}

std::int8_t KROAudioFileChunk::charValueAtPosition(std::uint64_t position) const {
    return valueAtPosition<std::int8_t>(position);
}

std::int16_t KROAudioFileChunk::shortValueAtPosition(std::uint64_t position) const {
    return valueAtPosition<std::int16_t>(position);
}

std::int32_t KROAudioFileChunk::intValueAtPosition(std::uint64_t position) const {
    return valueAtPosition<std::int32_t>(position);
}

std::int64_t KROAudioFileChunk::longLongValueAtPosition(std::uint64_t position) const {
    return valueAtPosition<std::int64_t>(position);
}

float KROAudioFileChunk::floatValueAtPosition(std::uint64_t position) const {
    return valueAtPosition<float>(position);
}

double KROAudioFileChunk::doubleValueAtPosition(std::uint64_t position) const {
    return valueAtPosition<double>(position);
}

double KROAudioFileChunk::float80ValueAtPosition(std::uint64_t position) const {
    std::uint8_t bytes[kFloat80Width] = {};
    if (position > dataLength() - kFloat80Width || !fetch(position, bytes, sizeof bytes)) {
        return 0.0;
    }
    return KRODoubleFromExtended80(bytes);
}

std::uint32_t KROAudioFileChunk::fourCharCodeAtPosition(std::uint64_t position) const {
    std::uint8_t bytes[4] = {};
    if (position > dataLength() - 4 || !fetch(position, bytes, sizeof bytes)) {
        return 0;
    }
    return static_cast<std::uint32_t>(integerFromBytes(bytes, 4, true));
}

std::optional<std::string> KROAudioFileChunk::pascalStringAtPosition(std::uint64_t position) const {
    const std::int8_t length = charValueAtPosition(position);
    if (length <= 0 || position >= dataLength() ||
        std::uint64_t(length) > dataLength() - position - 1) {
        return std::nullopt;
    }
    KROData bytes(static_cast<std::size_t>(length));
    if (!fetch(position + 1, bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    return kro::stringWithASCIIBytes(bytes.data(), bytes.size());
}

std::optional<std::string> KROAudioFileChunk::cStringAtPosition(std::uint64_t position) const {
    if (position >= dataLength()) {
        return std::nullopt;
    }
    return asciiTextOf(
        cutAtZero(fetchUpTo(position, std::min(kCStringLimit, dataLength() - position))));
}

std::optional<std::string> KROAudioFileChunk::unicharStringAtPosition(std::uint64_t position,
                                                                      std::uint64_t length) const {
    if (position > dataLength() - length) {
        return std::nullopt;
    }
    const std::uint64_t inChunk = position < dataLength() ? dataLength() - position : 0;
    const KROData bytes = fetchUpTo(position, std::min(length, inChunk) & ~std::uint64_t{1});
    std::size_t units = 0;
    while (2 * units + 1 < bytes.size() && (bytes[2 * units] | bytes[2 * units + 1]) != 0) {
        ++units;
    }
    if (units == 0) {
        return std::nullopt;
    }
    return kro::stringWithUTF16LittleEndianBytes(bytes.data(), 2 * units);
}

std::optional<std::string> KROAudioFileChunk::stringAtPosition(std::uint64_t position,
                                                               std::uint64_t length) const {
    if (length == toEnd) {
        if (position >= dataLength()) {
            return std::nullopt;
        }
        length = dataLength() - position;
    }
    if (position > dataLength() - length) {
        return std::nullopt;
    }
    const std::uint64_t inChunk = position < dataLength() ? dataLength() - position : 0;
    return asciiTextOf(cutAtZero(fetchUpTo(position, std::min(length, inChunk))));
}

std::optional<KROData> KROAudioFileChunk::dataAtPosition(std::uint64_t position,
                                                         std::uint64_t length) const {
    // The second test keeps a size field from allocating more than the file holds.
    if (position > dataLength() - length || length > bytesAvailableFrom(position)) {
        return std::nullopt;
    }
    KROData bytes(static_cast<std::size_t>(length));
    if (!fetch(position, bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    return bytes;
}

std::optional<std::string> KROAudioFileChunk::stringForID(std::uint32_t stringID) const {
    if (type_ != kStringsType || stringID == 0) {
        return std::nullopt;
    }
    constexpr std::uint64_t entrySize = 12;
    const auto count = static_cast<std::uint32_t>(intValueAtPosition(0));
    // Only entries that the chunk and the file hold are looked at, whatever
    // the count claims.
    const std::uint64_t held = std::min(dataLength(), bytesAvailableFrom(0));
    const std::uint64_t entries = std::min<std::uint64_t>(count, held >= 4 ? (held - 4) / 12 : 0);
    for (std::uint64_t i = 0; i < entries; ++i) {
        const std::uint64_t entry = 4 + entrySize * i;
        if (static_cast<std::uint32_t>(intValueAtPosition(entry)) == stringID) {
            const auto offset = static_cast<std::uint64_t>(longLongValueAtPosition(entry + 4));
            return cStringAtPosition(offset + 4 + entrySize * count);
        }
    }
    return std::nullopt;
}

void KROAudioFileChunk::loadFromFile() {
    if ((data_ && !data_->empty()) || fileReader_ == nullptr) {
        return;
    }
    // A length past the end of the file would fail there, but only after the
    // reader had set aside a block for it.
    const std::uint64_t length = dataLength();
    if (length > bytesAvailableFrom(0)) {
        return;
    }
    KROData bytes;
    if (fileReader_->setPosition(dataLocation_) &&
        fileReader_->getData(bytes, static_cast<std::size_t>(length))) {
        data_ = std::move(bytes);
    }
}

// ---------------------------------------------------------------- building

void KROAudioFileChunk::reset() {
    mutableData().clear();
    type_ = 0;
    guid_ = {};
    usesGUID_ = false;
    chunkID_ = 0;
    name_.clear();
}

void KROAudioFileChunk::appendByte(std::uint8_t value) {
    mutableData().push_back(value);
}

void KROAudioFileChunk::appendShort(std::int16_t value) {
    appendInteger(mutableData(), static_cast<std::uint16_t>(value), 2, swaps());
}

void KROAudioFileChunk::appendInt(std::int32_t value) {
    appendInteger(mutableData(), static_cast<std::uint32_t>(value), 4, swaps());
}

void KROAudioFileChunk::appendLongLong(std::int64_t value) {
    appendInteger(mutableData(), static_cast<std::uint64_t>(value), 8, swaps());
}

void KROAudioFileChunk::appendFloat(float value) {
    appendInteger(mutableData(), std::bit_cast<std::uint32_t>(value), 4, swaps());
}

void KROAudioFileChunk::appendDouble(double value) {
    appendInteger(mutableData(), std::bit_cast<std::uint64_t>(value), 8, swaps());
}

void KROAudioFileChunk::appendAsFloat80(double value) {
    std::uint8_t bytes[kFloat80Width];
    KROGetExtended80ForDouble(value, bytes);
    appendBytes(bytes, sizeof bytes);
}

void KROAudioFileChunk::appendFourCharCode(std::uint32_t code) {
    appendInteger(mutableData(), code, 4, true);
}

void KROAudioFileChunk::appendGUID(const KROGUIDTail& guid) {
    if (data_) {
        data_->insert(data_->end(), guid.begin(), guid.end());
    }
}

void KROAudioFileChunk::appendAsPascalString(const KROPropertyList* value, bool pad) {
    const auto text = textOf(value);
    appendAsPascalString(text ? std::string_view(*text) : std::string_view(), pad);
}

void KROAudioFileChunk::appendAsPascalString(std::string_view text, bool pad) {
    // The empty argument and the empty text both give a count byte of 0.
    const auto bytes = kro::lossyASCIIPascalString(text);
    if (!bytes) {
        return;
    }
    appendData(*bytes);
    if (pad && bytes->size() % 2 != 0) {
        appendByte(0);
    }
}

void KROAudioFileChunk::appendAsCString(const KROPropertyList* value, bool pad) {
    if (const auto text = textOf(value)) {
        appendAsCString(*text, pad);
    } else {
        appendByte(0);
    }
}

void KROAudioFileChunk::appendAsCString(std::string_view text, bool pad) {
    const KROData bytes = kro::lossyASCIICString(text);
    appendData(bytes);
    if (pad && bytes.size() % 2 != 0) {
        appendByte(0);
    }
}

void KROAudioFileChunk::appendAsCStringOfSize(const KROPropertyList* value, std::uint64_t size) {
    const auto text = textOf(value);
    appendAsCStringOfSize(text ? std::string_view(*text) : std::string_view(), size);
}

void KROAudioFileChunk::appendAsCStringOfSize(std::string_view text, std::uint64_t size) {
    if (size == 0) {
        return;
    }
    KROData bytes = kro::lossyASCIICString(text);
    if (bytes.size() > size) {
        bytes.resize(static_cast<std::size_t>(size - 1));
    }
    bytes.resize(static_cast<std::size_t>(size), 0);
    appendData(bytes);
}

void KROAudioFileChunk::appendAsUnicodeString(const KROPropertyList* value) {
    const auto text = textOf(value);
    appendAsUnicodeString(text ? std::string_view(*text) : std::string_view());
}

void KROAudioFileChunk::appendAsUnicodeString(std::string_view text) {
    appendData(kro::utf16LittleEndianData(text));
    appendPadOfLength(2);
}

void KROAudioFileChunk::appendString(const KROPropertyList* value) {
    if (const auto text = textOf(value)) {
        appendString(*text);
    }
}

void KROAudioFileChunk::appendString(std::string_view text) {
    const std::string_view bytes = bytesOfCharacterCount(text);
    appendBytes(bytes.data(), bytes.size());
}

void KROAudioFileChunk::appendStringOfSize(const KROPropertyList* value, std::uint64_t size) {
    const auto text = textOf(value);
    appendStringOfSize(text ? std::string_view(*text) : std::string_view(), size);
}

void KROAudioFileChunk::appendStringOfSize(std::string_view text, std::uint64_t size) {
    const std::string_view bytes = bytesOfCharacterCount(text).substr(0, size);
    appendBytes(bytes.data(), bytes.size());
    appendPadOfLength(size - bytes.size());
}

void KROAudioFileChunk::appendData(const KROData& data) {
    appendBytes(data.data(), data.size());
}

void KROAudioFileChunk::appendBytes(const void* bytes, std::size_t length) {
    KROData& data = mutableData();
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    data.insert(data.end(), first, first + length);
}

void KROAudioFileChunk::appendPadByte() {
    if (mutableData().size() % 2 != 0) {
        appendByte(0);
    }
}

void KROAudioFileChunk::appendPadOfLength(std::uint64_t length) {
    KROData& data = mutableData();
    data.resize(data.size() + static_cast<std::size_t>(length), 0);
}

void KROAudioFileChunk::replaceIntAtPosition(std::uint64_t position, std::int32_t value) {
    if (!data_ || position > data_->size() || data_->size() - position < 4) {
        return;
    }
    KROData bytes;
    appendInteger(bytes, static_cast<std::uint32_t>(value), 4, swaps());
    std::copy(bytes.begin(), bytes.end(), data_->begin() + static_cast<std::ptrdiff_t>(position));
}

void KROAudioFileChunk::replaceBytesInRange(std::uint64_t location, std::uint64_t length,
                                            const void* bytes) {
    if (!data_ || location > data_->size() || length > data_->size() - location) {
        return;
    }
    std::memcpy(data_->data() + location, bytes, static_cast<std::size_t>(length));
}

// ---------------------------------------------------------------- writing

KROData KROAudioFileChunk::header() const {
    KROData header;
    appendInteger(header, type_, 4, true);
    if (usesGUID_) {
        header.insert(header.end(), guid_.begin(), guid_.end());
    }
    const std::uint64_t length = data_ ? data_->size() : 0;
    if (!usesLongLongSizes_) {
        appendInteger(header, length, 4, swaps());
    } else {
        const std::uint64_t size =
            length + (sizeIncludesNameAndSize_ ? 24 : 0) + (type_ == kUUIDType ? 16 : 0);
        appendInteger(header, size, 8, swaps());
    }
    if (type_ == kUUIDType) {
        header.insert(header.end(), uuid_.begin(), uuid_.end());
    }
    return header;
}

bool KROAudioFileChunk::appendToFile(KROErrorPtr* error) {
    if (fileWriter_ == nullptr) {
        return KROFail<KROFileError>(error, EBADF, "KROFile_action_writing");
    }
    // Always at the end, whatever was patched before.
    if (!fileWriter_->setPositionToEnd(error)) {
        return false;
    }
    if (type_ != 0 && !fileWriter_->writeData(header(), error)) {
        return false;
    }
    const std::uint64_t length = data_ ? data_->size() : 0;
    if (length > 0 && !fileWriter_->writeData(*data_, error)) {
        return false;
    }
    if (byteCountMultiple_ != 0 && length % byteCountMultiple_ != 0) {
        const KROData pad(
            static_cast<std::size_t>(byteCountMultiple_ - length % byteCountMultiple_), 0);
        return fileWriter_->writeData(pad, error);
    }
    return true;
}

std::string KROAudioFileChunk::description() const {
    const std::uint8_t code[4] = {
        static_cast<std::uint8_t>(type_ >> 24), static_cast<std::uint8_t>(type_ >> 16),
        static_cast<std::uint8_t>(type_ >> 8), static_cast<std::uint8_t>(type_)};
    const std::string contents =
        data_ && !data_->empty() ? KROPropertyList(*data_).description() : "(not loaded)";
    return "KROAudioFileChunk '" + kro::stringWithASCIIBytes(code, 4) + "' " +
           std::to_string(dataLength()) + " bytes " + contents;
}
