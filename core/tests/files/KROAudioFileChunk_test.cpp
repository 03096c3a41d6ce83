// Chunks read from files and from memory, built byte by byte, and written
// with their headers.
#include <gtest/gtest.h>

#include <functional>

#include "KROAudioFileChunk.h"
#include "KROError.h"
#include "KROFileReader.h"
#include "KROFileTestSupport.h"
#include "KROFileWriter.h"
#include "KROPropertyList.h"
#include "KROStringHelpers.h"
#include "KROURLExtension.h"

namespace {

// The same bytes behind a chunk twice: as the data of a chunk in memory, and
// at offset 3 of a file behind a chunk with a reader.
class ChunkViews {
public:
    explicit ChunkViews(const KROData& bytes, std::int64_t byteOrder) {
        KROWriteTestFile(directory_ / "chunk", KROTestBytes().fill(3, 0xEE).bytes(bytes).data());
        reader_.initWithURL(directory_ / "chunk");
        inMemory_.setByteOrder(byteOrder);
        inMemory_.appendData(bytes);
        inFile_.setByteOrder(byteOrder);
        inFile_.setFile(&reader_);
        inFile_.setDataLocation(3);
        inFile_.setDataLength(bytes.size());
    }
    std::vector<const KROAudioFileChunk*> both() const { return {&inMemory_, &inFile_}; }
    KROAudioFileChunk& inFile() { return inFile_; }

private:
    KROTemporaryDirectory directory_;
    KROFileReader reader_;
    KROAudioFileChunk inMemory_;
    KROAudioFileChunk inFile_;
};

KROData bytesOf(std::string_view text) {
    return KROData(text.begin(), text.end());
}

} // namespace

TEST(KROAudioFileChunk, ValuesFollowTheByteOrderAndReadZeroPastTheEnd) {
    const KROData bytes = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A};
    struct Case {
        const char* what;
        std::function<double(const KROAudioFileChunk&)> read;
        double little;
        double big;
    };
    const Case cases[] = {
        {"char", [](auto& c) { return c.charValueAtPosition(9); }, 0x0A, 0x0A},
        {"short", [](auto& c) { return c.shortValueAtPosition(1); }, 0x0302, 0x0203},
        {"int at the last place it fits", [](auto& c) { return c.intValueAtPosition(6); },
         0x0A090807, 0x0708090A},
        {"int one byte further", [](auto& c) { return c.intValueAtPosition(7); }, 0, 0},
        {"long long", [](auto& c) { return double(c.longLongValueAtPosition(0)); },
         double(0x0807060504030201), double(0x0102030405060708)},
        {"four-character code is always big-endian",
         [](auto& c) { return c.fourCharCodeAtPosition(0); }, 0x01020304, 0x01020304},
        {"float from its bits", [](auto& c) { return c.floatValueAtPosition(0); },
         double(std::bit_cast<float>(0x04030201u)), double(std::bit_cast<float>(0x01020304u))},
        {"char past the end", [](auto& c) { return c.charValueAtPosition(10); }, 0, 0},
    };
    for (const std::int64_t order :
         {KROAudioFileChunk::littleEndian, KROAudioFileChunk::bigEndian}) {
        ChunkViews views(bytes, order);
        for (const KROAudioFileChunk* chunk : views.both()) {
            for (const Case& c : cases) {
                SCOPED_TRACE(std::string(c.what) +
                             (chunk->fileReader() ? " in a file" : " in memory") +
                             (order == 1 ? ", little-endian" : ", big-endian"));
                EXPECT_EQ(c.read(*chunk), order == 1 ? c.little : c.big);
            }
        }
    }
}

TEST(KROAudioFileChunk, AnExtendedValueReadsAsADouble) {
    KROAudioFileChunk chunk;
    chunk.appendAsFloat80(44100.0);
    EXPECT_EQ(*chunk.data(), (KROData{0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(chunk.float80ValueAtPosition(0), 44100.0);
    EXPECT_EQ(chunk.float80ValueAtPosition(1), 0.0);
}

// Kept: the limit is an unsigned difference, so a chunk shorter than the
// value reads on into the file; in memory nothing is read past the data.
TEST(KROAudioFileChunk, AChunkShorterThanTheValueReadsOnIntoTheFile) {
    ChunkViews views({0x11, 0x22}, KROAudioFileChunk::bigEndian);
    EXPECT_EQ(views.both()[0]->intValueAtPosition(0), 0);
    EXPECT_EQ(views.inFile().intValueAtPosition(0), 0);
    views.inFile().setDataLocation(0);
    EXPECT_EQ(views.inFile().intValueAtPosition(0), std::int32_t(0xEEEEEE11));
}

TEST(KROAudioFileChunk, StringsEndAtZeroesLimitsAndTheChunksEnd) {
    const std::string longText(300, 'x');
    KROData bytes = bytesOf(std::string("\x03"
                                        "abc"
                                        "\x05"
                                        "ab") +
                            '\0' + "cd\xE9" + '\0');
    const KROData utf16 = {'h', 0, 0xE9, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0, 'z', 0};
    const std::size_t utf16At = bytes.size();
    bytes.insert(bytes.end(), utf16.begin(), utf16.end());
    const std::size_t longAt = bytes.size();
    bytes.insert(bytes.end(), longText.begin(), longText.end());
    const std::uint64_t end = bytes.size();
    using Text = std::optional<std::string>;
    struct Case {
        const char* what;
        std::function<Text(const KROAudioFileChunk&)> read;
        Text expected;
    };
    const Case cases[] = {
        {"Pascal string", [](auto& c) { return c.pascalStringAtPosition(0); }, "abc"},
        {"Pascal string of length 0",
         [=](auto& c) { return c.pascalStringAtPosition(utf16At + 9); }, std::nullopt},
        {"Pascal string passing the end",
         [=](auto& c) { return c.pascalStringAtPosition(end - 3); }, std::nullopt},
        {"Pascal length read as signed",
         [=](auto& c) { return c.pascalStringAtPosition(utf16At + 2); }, std::nullopt},
        {"C string to its zero", [](auto& c) { return c.cStringAtPosition(5); }, "ab"},
        {"C string with a byte ASCII lacks", [](auto& c) { return c.cStringAtPosition(8); },
         "cd\u00E9"},
        {"C string starting at a zero", [](auto& c) { return c.cStringAtPosition(7); },
         std::nullopt},
        {"C string cut at 256 bytes", [=](auto& c) { return c.cStringAtPosition(longAt); },
         std::string(256, 'x')},
        {"C string at the end", [=](auto& c) { return c.cStringAtPosition(end); }, std::nullopt},
        {"UTF-16 to its zero unit", [=](auto& c) { return c.unicharStringAtPosition(utf16At, 12); },
         "h\u00E9\U0001F600"},
        {"UTF-16 cut to whole units",
         [=](auto& c) { return c.unicharStringAtPosition(utf16At, 3); }, "h"},
        {"UTF-16 starting at a zero unit",
         [=](auto& c) { return c.unicharStringAtPosition(utf16At + 8, 4); }, std::nullopt},
        {"UTF-16 passing the end", [=](auto& c) { return c.unicharStringAtPosition(end - 2, 4); },
         std::nullopt},
        {"string of a length", [](auto& c) { return c.stringAtPosition(1, 2); }, "ab"},
        {"string to the end",
         [=](auto& c) { return c.stringAtPosition(end - 4, KROAudioFileChunk::toEnd); }, "xxxx"},
        {"string to the end from past it",
         [=](auto& c) { return c.stringAtPosition(end + 1, KROAudioFileChunk::toEnd); },
         std::nullopt},
    };
    ChunkViews views(bytes, KROAudioFileChunk::bigEndian);
    for (const KROAudioFileChunk* chunk : views.both()) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.what) + (chunk->fileReader() ? " in a file" : " in memory"));
            EXPECT_EQ(c.read(*chunk), c.expected);
        }
        EXPECT_EQ(chunk->dataAtPosition(1, 3), bytesOf("abc"));
        EXPECT_FALSE(chunk->dataAtPosition(end - 2, 3));
        EXPECT_FALSE(chunk->dataAtPosition(0, std::uint64_t{1} << 40));
    }
}

TEST(KROAudioFileChunk, StringsOfAStringTableAreFoundByIdentifier) {
    KROAudioFileChunk table;
    table.setType(kro::fourCC("strg"));
    table.appendInt(2);
    table.appendInt(7);
    table.appendLongLong(0);
    table.appendInt(9);
    table.appendLongLong(4);
    table.appendAsCString("one", false);
    table.appendAsCString("two", false);
    EXPECT_EQ(table.stringForID(7), "one");
    EXPECT_EQ(table.stringForID(9), "two");
    EXPECT_FALSE(table.stringForID(0));
    EXPECT_FALSE(table.stringForID(8));
    // A count that claims more entries than the chunk holds is not believed.
    table.replaceIntAtPosition(0, 0x7FFFFFFF);
    EXPECT_FALSE(table.stringForID(8));
    table.setType(kro::fourCC("info"));
    EXPECT_FALSE(table.stringForID(7));
}

TEST(KROAudioFileChunk, AppendsGiveExactlyTheseBytes) {
    const KROPropertyList number(12);
    struct Case {
        const char* what;
        std::function<void(KROAudioFileChunk&)> append;
        KROData little;
        KROData big;
    };
    const Case cases[] = {
        {"short", [](auto& c) { c.appendShort(0x0102); }, {2, 1}, {1, 2}},
        {"int", [](auto& c) { c.appendInt(0x01020304); }, {4, 3, 2, 1}, {1, 2, 3, 4}},
        {"double",
         [](auto& c) { c.appendDouble(1.0); },
         {0, 0, 0, 0, 0, 0, 0xF0, 0x3F},
         {0x3F, 0xF0, 0, 0, 0, 0, 0, 0}},
        {"four-character code", [](auto& c) { c.appendFourCharCode(kro::fourCC("fmt ")); },
         bytesOf("fmt "), bytesOf("fmt ")},
        {"Pascal string padded", [](auto& c) { c.appendAsPascalString("abc", true); },
         bytesOf("\x03"
                 "abc"),
         bytesOf("\x03"
                 "abc")},
        {"Pascal string with its pad",
         [](auto& c) { c.appendAsPascalString("ab", true); },
         {2, 'a', 'b', 0},
         {2, 'a', 'b', 0}},
        {"Pascal string of 256 bytes",
         [](auto& c) { c.appendAsPascalString(std::string(256, 'a'), true); },
         {},
         {}},
        {"C string with its pad",
         [](auto& c) { c.appendAsCString("ab", true); },
         {'a', 'b', 0, 0},
         {'a', 'b', 0, 0}},
        {"empty C string argument, never padded",
         [](auto& c) { c.appendAsCString(nullptr, true); },
         {0},
         {0}},
        {"C string cut to its field",
         [](auto& c) { c.appendAsCStringOfSize("abcdef", 4); },
         {'a', 'b', 'c', 0},
         {'a', 'b', 'c', 0}},
        {"C string filling its field", [](auto& c) { c.appendAsCStringOfSize("abcdef", 7); },
         bytesOf(std::string("abcdef") + '\0'), bytesOf(std::string("abcdef") + '\0')},
        {"C string in lossy ASCII", [](auto& c) { c.appendAsCString("\u00E9t\u00E9", false); },
         bytesOf(std::string("ete") + '\0'), bytesOf(std::string("ete") + '\0')},
        {"a number as its text",
         [&](auto& c) { c.appendAsCStringOfSize(&number, 3); },
         {'1', '2', 0},
         {'1', '2', 0}},
        {"UTF-16 with its terminator",
         [](auto& c) { c.appendAsUnicodeString("h\u00E9"); },
         {'h', 0, 0xE9, 0, 0, 0},
         {'h', 0, 0xE9, 0, 0, 0}},
        {"string cut to its character count",
         [](auto& c) { c.appendString("h\u00E9!"); },
         {'h', 0xC3, 0xA9},
         {'h', 0xC3, 0xA9}},
        {"string in a zero-filled field",
         [](auto& c) { c.appendStringOfSize("ab", 4); },
         {'a', 'b', 0, 0},
         {'a', 'b', 0, 0}},
        {"identifier tail needs data first", [](auto& c) { c.appendGUID(KROGUIDTail{1}); }, {}, {}},
        {"pad byte after odd data",
         [](auto& c) { c.appendByte(7), c.appendPadByte(), c.appendPadByte(); },
         {7, 0},
         {7, 0}},
        {"int replaced inside the data",
         [](auto& c) {
             c.appendPadOfLength(5), c.replaceIntAtPosition(1, 1), c.replaceIntAtPosition(2, 9);
         },
         {0, 1, 0, 0, 0},
         {0, 0, 0, 0, 1}},
    };
    for (const Case& c : cases) {
        for (const std::int64_t order :
             {KROAudioFileChunk::littleEndian, KROAudioFileChunk::bigEndian}) {
            SCOPED_TRACE(std::string(c.what) + (order == 1 ? ", little-endian" : ", big-endian"));
            KROAudioFileChunk chunk;
            chunk.setByteOrder(order);
            c.append(chunk);
            EXPECT_EQ(chunk.data().value_or(KROData{}), order == 1 ? c.little : c.big);
        }
    }
}

// Each chunk lands at the end of the file, with its header, and padding that
// its size does not count.
TEST(KROAudioFileChunk, AppendToFileWritesHeaderDataAndUncountedPadding) {
    const KROUUID uuid = {0xAA, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xBB};
    const KROGUIDTail tail = {0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1,
                              0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
    struct Case {
        const char* what;
        std::function<void(KROAudioFileChunk&)> configure;
        KROData expected;
    };
    const Case cases[] = {
        {"WAVE chunk of 3 bytes",
         [](auto& c) {
             c.setByteOrder(1), c.setByteCountMultiple(2), c.setType(kro::fourCC("abcd"));
         },
         KROTestBytes().text("abcd").le32(3).text("xyz").fill(1).data()},
        {"AIFF chunk", [](auto& c) { c.setByteCountMultiple(2), c.setType(kro::fourCC("abcd")); },
         KROTestBytes().text("abcd").be32(3).text("xyz").fill(1).data()},
        {"Wave64 chunk",
         [&](auto& c) {
             c.setByteOrder(1), c.setByteCountMultiple(8), c.setUsesLongLongSizes(true);
             c.setSizeIncludesNameAndSize(true), c.setType(kro::fourCC("fmt ")), c.setGUID(tail);
         },
         KROTestBytes()
             .text("fmt ")
             .bytes({tail.begin(), tail.end()})
             .le(27, 8)
             .text("xyz")
             .fill(5)
             .data()},
        {"CAF chunk with an identity",
         [&](auto& c) {
             c.setUsesLongLongSizes(true), c.setType(kro::fourCC("uuid")), c.setUUID(uuid);
         },
         KROTestBytes()
             .text("uuid")
             .be(19, 8)
             .bytes({uuid.begin(), uuid.end()})
             .text("xyz")
             .data()},
        {"raw bytes with no header", [](auto& c) { c.setByteCountMultiple(2); },
         KROTestBytes().text("xyz").fill(1).data()},
    };
    KROTemporaryDirectory directory;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto path = directory / "written";
        KROWriteTestFile(path, bytesOf("head"));
        KROFileWriter writer;
        ASSERT_TRUE(writer.initWithURL(path));
        writer.setPosition(0);
        KROAudioFileChunk chunk;
        chunk.setFile(&writer);
        chunk.appendString("xyz");
        c.configure(chunk);
        ASSERT_TRUE(chunk.appendToFile());
        ASSERT_TRUE(writer.flush());
        EXPECT_EQ(KROReadTestFile(path), KROTestBytes().text("head").bytes(c.expected).data());
    }
    KROErrorPtr error;
    EXPECT_FALSE(KROAudioFileChunk().appendToFile(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROFileError");
}

TEST(KROAudioFileChunk, ResetKeepsTheLayoutAndForgetsTheContents) {
    KROAudioFileChunk chunk;
    chunk.setByteOrder(1);
    chunk.setUsesLongLongSizes(true);
    chunk.setType(kro::fourCC("data"));
    chunk.setGUID(KROGUIDTail{1});
    chunk.setName("name");
    chunk.appendInt(5);
    chunk.reset();
    EXPECT_EQ(chunk.type(), 0u);
    EXPECT_FALSE(chunk.usesGUID());
    EXPECT_EQ(chunk.name(), "");
    EXPECT_EQ(chunk.dataLength(), 0u);
    EXPECT_EQ(chunk.byteOrder(), 1);
    EXPECT_TRUE(chunk.usesLongLongSizes());
    chunk.setType(kro::fourCC("fmt "));
    EXPECT_EQ(chunk.description(), "KROAudioFileChunk 'fmt ' 0 bytes (not loaded)");
    chunk.appendString("ab");
    EXPECT_EQ(chunk.description(), "KROAudioFileChunk 'fmt ' 2 bytes {length = 2, bytes = 0x6162}");
}
