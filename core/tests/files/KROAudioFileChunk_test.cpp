// Chunks read from files and memory, built, and written with their headers.
#include <gtest/gtest.h>

#include <functional>

#include "KROAudioFileChunk.h"
#include "KROError.h"
#include "KROFileReader.h"
#include "KROFileTestSupport.h"
#include "KROFileWriter.h"
#include "KROPropertyList.h"
#include "KROStringHelpers.h"

namespace {

// The same bytes behind two chunks: in memory, and at offset 3 of a file.
struct ChunkViews {
    ChunkViews(const KROData& bytes, std::int64_t byteOrder) {
        KROWriteTestFile(directory / "chunk", KROTestBytes().fill(3, 0xEE).bytes(bytes).data());
        reader.initWithURL(directory / "chunk");
        inMemory.setByteOrder(byteOrder);
        inMemory.appendData(bytes);
        inFile.setByteOrder(byteOrder);
        inFile.setFile(&reader);
        inFile.setDataLocation(3);
        inFile.setDataLength(bytes.size());
    }
    KROTemporaryDirectory directory;
    KROFileReader reader;
    KROAudioFileChunk inMemory;
    KROAudioFileChunk inFile;
};

} // namespace

TEST(KROAudioFileChunk, ValuesFollowTheByteOrderAndReadZeroPastTheEnd) {
    using Read = std::function<double(const KROAudioFileChunk&)>;
    const struct {
        const char* what;
        Read read;
        double little, big;
    } cases[] = {
        {"short", [](auto& c) { return c.shortValueAtPosition(1); }, 0x0302, 0x0203},
        {"int where it just fits", [](auto& c) { return c.intValueAtPosition(6); }, 0x0A090807,
         0x0708090A},
        {"int a byte further", [](auto& c) { return c.intValueAtPosition(7); }, 0, 0},
        {"long long", [](auto& c) { return double(c.longLongValueAtPosition(2)); },
         double(0x0A09080706050403), double(0x030405060708090A)},
        {"code, always big-endian", [](auto& c) { return c.fourCharCodeAtPosition(0); }, 0x01020304,
         0x01020304},
        {"float", [](auto& c) { return c.floatValueAtPosition(0); },
         std::bit_cast<float>(0x04030201u), std::bit_cast<float>(0x01020304u)},
    };
    const KROData bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    for (const std::int64_t order :
         {KROAudioFileChunk::littleEndian, KROAudioFileChunk::bigEndian}) {
        ChunkViews views(bytes, order);
        for (const KROAudioFileChunk* chunk : {&views.inMemory, &views.inFile}) {
            for (const auto& c : cases) {
                SCOPED_TRACE(std::string(c.what) + (chunk->fileReader() ? ", file" : ", memory") +
                             (order == 1 ? ", little-endian" : ", big-endian"));
                EXPECT_EQ(c.read(*chunk), order == 1 ? c.little : c.big);
            }
        }
    }
    // Kept: a file chunk shorter than the value reads on into the file; memory never does.
    ChunkViews shorter({0x11, 0x22}, KROAudioFileChunk::bigEndian);
    EXPECT_EQ(shorter.inMemory.intValueAtPosition(0), 0);
    shorter.inFile.setDataLocation(0);
    EXPECT_EQ(shorter.inFile.intValueAtPosition(0), std::int32_t(0xEEEEEE11));
}

TEST(KROAudioFileChunk, StringsEndAtZeroesLimitsAndTheChunksEnd) {
    KROData bytes = bytesOf(std::string("\x03"
                                        "abc"
                                        "\x05"
                                        "ab") +
                            '\0' + "cd\xE9" + '\0');
    const std::size_t utf16 = bytes.size();
    const KROData units = {'h', 0, 0xE9, 0, 0x3D, 0xD8, 0x00, 0xDE, 0, 0, 'z', 0};
    bytes.insert(bytes.end(), units.begin(), units.end());
    const std::size_t text = bytes.size();
    bytes.resize(bytes.size() + 300, 'x');
    const std::uint64_t end = bytes.size();
    using Text = std::optional<std::string>;
    const struct {
        const char* what;
        std::function<Text(const KROAudioFileChunk&)> read;
        Text expected;
    } cases[] = {
        {"Pascal", [](auto& c) { return c.pascalStringAtPosition(0); }, "abc"},
        {"Pascal, length read as signed",
         [=](auto& c) { return c.pascalStringAtPosition(utf16 + 2); }, std::nullopt},
        {"C string", [](auto& c) { return c.cStringAtPosition(5); }, "ab"},
        {"C string, a byte ASCII lacks", [](auto& c) { return c.cStringAtPosition(8); },
         "cd\u00E9"},
        {"C string cut at 256", [=](auto& c) { return c.cStringAtPosition(text); },
         std::string(256, 'x')},
        {"UTF-16", [=](auto& c) { return c.unicharStringAtPosition(utf16, 12); },
         "h\u00E9\U0001F600"},
        {"UTF-16 in whole units", [=](auto& c) { return c.unicharStringAtPosition(utf16, 3); },
         "h"},
        {"string to the end", [=](auto& c) { return c.stringAtPosition(end - 2, c.toEnd); }, "xx"},
        {"to the end from past it", [=](auto& c) { return c.stringAtPosition(end + 1, c.toEnd); },
         std::nullopt},
    };
    ChunkViews views(bytes, KROAudioFileChunk::bigEndian);
    for (const KROAudioFileChunk* chunk : {&views.inMemory, &views.inFile}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.what) + (chunk->fileReader() ? ", file" : ", memory"));
            EXPECT_EQ(c.read(*chunk), c.expected);
        }
        EXPECT_EQ(chunk->dataAtPosition(1, 3), bytesOf("abc"));
        EXPECT_FALSE(chunk->dataAtPosition(0, std::uint64_t{1} << 40));
    }
}

TEST(KROAudioFileChunk, StringTablesAreSearchedOnlyAsFarAsTheyGo) {
    KROAudioFileChunk table;
    table.setType(kro::fourCC("strg"));
    table.appendInt(2);
    table.appendInt(7), table.appendLongLong(0);
    table.appendInt(9), table.appendLongLong(4);
    table.appendAsCString("one", false), table.appendAsCString("two", false);
    EXPECT_EQ(table.stringForID(9), "two");
    EXPECT_FALSE(table.stringForID(0));
    table.replaceIntAtPosition(0, 0x7FFFFFFF);
    EXPECT_FALSE(table.stringForID(8));
}

TEST(KROAudioFileChunk, AppendsGiveExactlyTheseBytes) {
    const KROPropertyList number(12);
    const struct {
        const char* what;
        std::function<void(KROAudioFileChunk&)> append;
        KROData little;
        std::optional<KROData> big = std::nullopt; // none: as little-endian
    } cases[] = {
        {"int", [](auto& c) { c.appendInt(0x01020304); }, {4, 3, 2, 1}, KROData{1, 2, 3, 4}},
        {"extended",
         [](auto& c) { c.appendAsFloat80(44100); },
         {0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}},
        {"Pascal, padded", [](auto& c) { c.appendAsPascalString("ab", true); }, {2, 'a', 'b', 0}},
        {"Pascal of 256", [](auto& c) { c.appendAsPascalString(std::string(256, 'a'), true); }, {}},
        {"C string, padded", [](auto& c) { c.appendAsCString("\u00E9t", true); }, {'e', 't', 0, 0}},
        {"empty C string, unpadded", [](auto& c) { c.appendAsCString(nullptr, true); }, {0}},
        {"C string cut to its field",
         [](auto& c) { c.appendAsCStringOfSize("abcdef", 4); },
         {'a', 'b', 'c', 0}},
        {"a number in its field",
         [&](auto& c) { c.appendAsCStringOfSize(&number, 3); },
         {'1', '2', 0}},
        {"UTF-16", [](auto& c) { c.appendAsUnicodeString("h\u00E9"); }, {'h', 0, 0xE9, 0, 0, 0}},
        {"kept: cut to its character count",
         [](auto& c) { c.appendString("h\u00E9!"); },
         {'h', 0xC3, 0xA9}},
        {"int replaced only inside",
         [](auto& c) {
             c.appendPadOfLength(5), c.replaceIntAtPosition(1, 1), c.replaceIntAtPosition(2, 9);
         },
         {0, 1, 0, 0, 0},
         KROData{0, 0, 0, 0, 1}},
    };
    for (const auto& c : cases) {
        for (const std::int64_t order :
             {KROAudioFileChunk::littleEndian, KROAudioFileChunk::bigEndian}) {
            SCOPED_TRACE(std::string(c.what) + (order == 1 ? ", little-endian" : ", big-endian"));
            KROAudioFileChunk chunk;
            chunk.setByteOrder(order);
            c.append(chunk);
            EXPECT_EQ(chunk.data().value_or(KROData{}),
                      order == 1 ? c.little : c.big.value_or(c.little));
        }
    }
}

TEST(KROAudioFileChunk, AppendToFileWritesHeaderDataAndUncountedPadding) {
    const KROUUID uuid = {0xAA, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 0xBB};
    const KROGUIDTail tail = {0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
    const KROData xyz = bytesOf("xyz");
    const struct {
        const char* what;
        std::function<void(KROAudioFileChunk&)> configure;
        KROData expected;
    } cases[] = {
        {"WAVE",
         [](auto& c) {
             c.setByteOrder(1), c.setByteCountMultiple(2), c.setType(kro::fourCC("abcd"));
         },
         KROTestBytes().text("abcd").le32(3).bytes(xyz).fill(1).data()},
        {"Wave64",
         [&](auto& c) {
             c.setByteOrder(1), c.setByteCountMultiple(8), c.setUsesLongLongSizes(true);
             c.setSizeIncludesNameAndSize(true), c.setType(kro::fourCC("fmt ")), c.setGUID(tail);
         },
         KROTestBytes()
             .text("fmt ")
             .bytes({tail.begin(), tail.end()})
             .le(27, 8)
             .bytes(xyz)
             .fill(5)
             .data()},
        {"CAF with an identity",
         [&](auto& c) {
             c.setUsesLongLongSizes(true), c.setType(kro::fourCC("uuid")), c.setUUID(uuid);
         },
         KROTestBytes().text("uuid").be(19, 8).bytes({uuid.begin(), uuid.end()}).bytes(xyz).data()},
    };
    KROTemporaryDirectory directory;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KROWriteTestFile(directory / "written", bytesOf("head"));
        KROFileWriter writer;
        ASSERT_TRUE(writer.initWithURL(directory / "written"));
        KROAudioFileChunk chunk;
        chunk.setFile(&writer);
        chunk.appendString("xyz");
        c.configure(chunk);
        ASSERT_TRUE(chunk.appendToFile() && writer.flush());
        EXPECT_EQ(KROReadTestFile(directory / "written"),
                  KROTestBytes().text("head").bytes(c.expected).data());
    }
    KROAudioFileChunk described;
    described.setType(kro::fourCC("fmt "));
    EXPECT_EQ(described.description(), "KROAudioFileChunk 'fmt ' 0 bytes (not loaded)");
    described.appendString("ab");
    EXPECT_EQ(described.description(),
              "KROAudioFileChunk 'fmt ' 2 bytes {length = 2, bytes = 0x6162}");
    KROErrorPtr error;
    EXPECT_FALSE(KROAudioFileChunk().appendToFile(&error));
    EXPECT_EQ(error->className(), "KROFileError");
}
