// One chunk of a chunked audio file (WAVE, AIFF, Wave64, CAF, AU, Sound
// Designer). Reading, it is a view of a stretch of a file: values are fetched
// at positions relative to the chunk's data and converted from the chunk's
// byte order. Writing, it is a growing data block that appendToFile emits as
// header, data and padding. Reads never fail: what a file lacks reads as 0 or
// empty. A chunk moves its reader's position, so it is used by one thread at
// a time, under the handler's read lock once the reader is shared.
//
// Operations that share a first keyword and that C++ could not tell apart
// join their keywords:
//   appendAsCString:pad:     appendAsCString(value, pad)
//   appendAsCString:size:    appendAsCStringOfSize(value, size)
//   appendString:size:       appendStringOfSize(value, size)
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KROObject.h"

class KROError;
class KROFileReader;
class KROFileWriter;
class KROPropertyList;
using KROErrorPtr = std::shared_ptr<KROError>;
using KROData = std::vector<std::uint8_t>;
using KROUUID = std::array<std::uint8_t, 16>;
// The last 12 bytes of a Wave64 chunk identifier, after its four-character code.
using KROGUIDTail = std::array<std::uint8_t, 12>;

class KROAudioFileChunk : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFileChunk)

public:
    static constexpr std::int64_t littleEndian = 1;
    static constexpr std::int64_t bigEndian = 2;
    // stringAtPosition's length that reads to the chunk's end.
    static constexpr std::uint64_t toEnd = ~std::uint64_t{0};

    // A new chunk is big-endian with everything else zero or empty.
    KROAudioFileChunk() = default;

    // ---- Fields

    // 1 little-endian; any other value big-endian.
    std::int64_t byteOrder() const { return byteOrder_; }
    void setByteOrder(std::int64_t byteOrder) { byteOrder_ = byteOrder; }
    // appendToFile pads the data with zeros to a multiple of this; 0 pads nothing.
    std::uint64_t byteCountMultiple() const { return byteCountMultiple_; }
    void setByteCountMultiple(std::uint64_t multiple) { byteCountMultiple_ = multiple; }
    // The header carries the 12 bytes of guid after the type (Wave64).
    bool usesGUID() const { return usesGUID_; }
    void setUsesGUID(bool usesGUID) { usesGUID_ = usesGUID; }
    // The header's size field has 64 bits.
    bool usesLongLongSizes() const { return usesLongLongSizes_; }
    void setUsesLongLongSizes(bool uses) { usesLongLongSizes_ = uses; }
    // The written 64-bit size counts the 24 header bytes (Wave64).
    bool sizeIncludesNameAndSize() const { return sizeIncludesNameAndSize_; }
    void setSizeIncludesNameAndSize(bool includes) { sizeIncludesNameAndSize_ = includes; }
    // The four-character code; 0 is a chunk without a header, which is how a
    // handler emits a raw file header.
    std::uint32_t type() const { return type_; }
    void setType(std::uint32_t type) { type_ = type; }
    // The identity of a CAF chunk of type 'uuid'.
    const KROUUID& uuid() const { return uuid_; }
    void setUUID(const KROUUID& uuid) { uuid_ = uuid; }
    const KROGUIDTail& guid() const { return guid_; }
    // Also sets usesGUID.
    void setGUID(const KROGUIDTail& guid);
    // The caller's identifier and name, for KROAudioFileChunkList's searches.
    std::int16_t chunkID() const { return chunkID_; }
    void setChunkID(std::int16_t chunkID) { chunkID_ = chunkID; }
    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }

    // The reader or writer behind the chunk, not owned: a chunk must not
    // outlive the file it was walked from. Setting one clears the other.
    KROFileReader* fileReader() const { return fileReader_; }
    KROFileWriter* fileWriter() const { return fileWriter_; }
    void setFile(KROFileReader* reader);
    void setFile(KROFileWriter* writer);

    // The bytes of a chunk being built or loaded; none until the first append.
    const std::optional<KROData>& data() const { return data_; }

    // Where the header and the first data byte lie in the file.
    std::uint64_t location() const { return location_; }
    void setLocation(std::uint64_t location) { location_ = location; }
    std::uint64_t dataLocation() const { return dataLocation_; }
    void setDataLocation(std::uint64_t location) { dataLocation_ = location; }
    // The length of data when it exists, else the stored length.
    std::uint64_t dataLength() const;
    void setDataLength(std::uint64_t length) { dataLength_ = length; }

    // ---- Reading at positions relative to the data
    //
    // With a reader, each value is read from the file at dataLocation plus
    // the position; otherwise from data. A value that would start past
    // dataLength less its width reads as 0. The limit is an unsigned
    // difference, so a chunk shorter than the value's width reads whatever
    // the file holds there; data in memory is never read past its end.

    std::int8_t charValueAtPosition(std::uint64_t position) const;
    std::int16_t shortValueAtPosition(std::uint64_t position) const;
    std::int32_t intValueAtPosition(std::uint64_t position) const;
    std::int64_t longLongValueAtPosition(std::uint64_t position) const;
    float floatValueAtPosition(std::uint64_t position) const;
    double doubleValueAtPosition(std::uint64_t position) const;
    // Ten bytes, always big-endian, as an 80-bit extended value.
    double float80ValueAtPosition(std::uint64_t position) const;
    // Always the big-endian reading, whatever byteOrder says.
    std::uint32_t fourCharCodeAtPosition(std::uint64_t position) const;

    // A length byte read as signed, then that many ASCII bytes. A length of 0
    // or less, or text that would pass the chunk's end, gives none.
    std::optional<std::string> pascalStringAtPosition(std::uint64_t position) const;
    // At most 256 bytes, to the first zero byte or the chunk's end. None at or
    // past the end or when the first byte is zero. Longer text is cut at 256
    // bytes on purpose: files written elsewhere rely on nothing longer.
    std::optional<std::string> cStringAtPosition(std::uint64_t position) const;
    // Up to length bytes (cut at the chunk's end, halved to whole units) of
    // little-endian UTF-16, to the first zero unit. None when the position
    // lies past dataLength less length or no unit precedes the first zero.
    std::optional<std::string> unicharStringAtPosition(std::uint64_t position,
                                                       std::uint64_t length) const;
    // Up to length bytes to the first zero byte as ASCII, with the rules
    // above; toEnd reads to the chunk's end.
    std::optional<std::string> stringAtPosition(std::uint64_t position, std::uint64_t length) const;
    // Exactly length bytes, or none when they pass the chunk's end.
    std::optional<KROData> dataAtPosition(std::uint64_t position, std::uint64_t length) const;
    // In a chunk of type 'strg' only, for an identifier other than 0: the
    // text of the entry with that identifier.
    std::optional<std::string> stringForID(std::uint32_t stringID) const;
    // Copies the chunk's bytes from the file into data, once. Nothing is
    // loaded when the file holds fewer bytes than dataLength.
    void loadFromFile();

    // ---- Building: each appends to data, creating it if needed

    // Empties data and clears type, guid, usesGUID, chunkID and name; the
    // byte order, padding multiple, size flags, uuid and file stay.
    void reset();
    void appendByte(std::uint8_t value);
    // The integers and floats go out in the chunk's byte order.
    void appendShort(std::int16_t value);
    void appendInt(std::int32_t value);
    void appendLongLong(std::int64_t value);
    void appendFloat(float value);
    void appendDouble(double value);
    // Ten bytes, always big-endian.
    void appendAsFloat80(double value);
    // Always big-endian.
    void appendFourCharCode(std::uint32_t code);
    // Kept: appends only to data that already exists; handlers append the
    // type first.
    void appendGUID(const KROGUIDTail& guid);

    // The text arguments take any property-list value: a value that is not a
    // string is written as its description, and a null value is the empty
    // argument.

    // A count byte and the text in lossy ASCII; text of 256 bytes or more
    // appends nothing. The empty argument appends one zero byte. With pad, a
    // zero byte follows an odd number of bytes just appended.
    void appendAsPascalString(const KROPropertyList* value, bool pad);
    void appendAsPascalString(std::string_view text, bool pad);
    // Lossy ASCII and a terminating zero. The empty argument appends one zero
    // byte and is never padded; with pad, a zero byte follows an odd count.
    void appendAsCString(const KROPropertyList* value, bool pad);
    void appendAsCString(std::string_view text, bool pad);
    // A field of exactly size bytes: lossy ASCII, cut to size - 1 bytes and a
    // zero, or zero-filled after the terminator.
    void appendAsCStringOfSize(const KROPropertyList* value, std::uint64_t size);
    void appendAsCStringOfSize(std::string_view text, std::uint64_t size);
    // Little-endian UTF-16 and a two-byte terminator.
    void appendAsUnicodeString(const KROPropertyList* value);
    void appendAsUnicodeString(std::string_view text);
    // The UTF-8 bytes, as many as the text has UTF-16 units, no terminator.
    // Kept: non-ASCII text is cut short, and files in circulation hold it so.
    void appendString(const KROPropertyList* value);
    void appendString(std::string_view text);
    // A field of exactly size bytes: the same bytes up to size, zero-filled,
    // with no terminator when the text fills the field.
    void appendStringOfSize(const KROPropertyList* value, std::uint64_t size);
    void appendStringOfSize(std::string_view text, std::uint64_t size);
    void appendData(const KROData& data);
    void appendBytes(const void* bytes, std::size_t length);
    // One zero byte when data is of odd length.
    void appendPadByte();
    void appendPadOfLength(std::uint64_t length);
    // Overwrites four bytes in the chunk's byte order; nothing happens when
    // they do not lie inside data.
    void replaceIntAtPosition(std::uint64_t position, std::int32_t value);
    // Overwrites bytes inside data; a range past its end changes nothing.
    void replaceBytesInRange(std::uint64_t location, std::uint64_t length, const void* bytes);

    // Writes header, data and padding at the end of the writer's file. The
    // padding is never counted in the header's size. Fails with the writer's
    // error, or with EBADF when the chunk has no writer.
    bool appendToFile(KROErrorPtr* error = nullptr);

    // "KROAudioFileChunk 'fmt ' 16 bytes (not loaded)", or the data's bytes
    // in place of "(not loaded)".
    std::string description() const override;

private:
    bool swaps() const;
    KROData& mutableData();
    // Fills bytes from the file or data; false when nothing could be fetched
    // in full.
    bool fetch(std::uint64_t position, void* bytes, std::size_t length) const;
    // Up to length bytes from position, fewer where the file or data ends.
    KROData fetchUpTo(std::uint64_t position, std::uint64_t length) const;
    template <typename Value> Value valueAtPosition(std::uint64_t position) const;
    // What the file holds from dataLocation + position, or what data holds.
    std::uint64_t bytesAvailableFrom(std::uint64_t position) const;
    KROData header() const;

    std::int64_t byteOrder_ = bigEndian;
    std::uint64_t byteCountMultiple_ = 0;
    bool usesGUID_ = false;
    bool usesLongLongSizes_ = false;
    bool sizeIncludesNameAndSize_ = false;
    std::uint32_t type_ = 0;
    KROUUID uuid_{};
    KROGUIDTail guid_{};
    std::int16_t chunkID_ = 0;
    std::string name_;
    KROFileReader* fileReader_ = nullptr;
    KROFileWriter* fileWriter_ = nullptr;
    std::optional<KROData> data_;
    std::uint64_t location_ = 0;
    std::uint64_t dataLocation_ = 0;
    std::uint64_t dataLength_ = 0;
};
