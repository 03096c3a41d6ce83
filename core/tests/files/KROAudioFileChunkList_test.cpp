// The walks of RIFF, IFF, Wave64 and CAF files: what each keeps, where, and
// how each ends on damaged and hostile files.
#include <gtest/gtest.h>

#include <chrono>

#include "KROAIFFChunkList.h"
#include "KROCAFChunkList.h"
#include "KROFileReader.h"
#include "KROFileTestSupport.h"
#include "KROStringHelpers.h"
#include "KROTestCommand.h"
#include "KROWAV64ChunkList.h"
#include "KROWAVEChunkList.h"

namespace {

// What a walk keeps of a chunk: "type@location+dataLength".
std::vector<std::string> walked(KROAudioFileChunkList& list) {
    std::vector<std::string> chunks;
    for (const auto& chunk : list.list()) {
        chunks.push_back(kro::stringWithFourCharCode(chunk->type()) + "@" +
                         std::to_string(chunk->dataLocation()) + "+" +
                         std::to_string(chunk->dataLength()));
    }
    return chunks;
}

template <typename List>
std::vector<std::string> walk(const std::filesystem::path& path, const KROData& bytes,
                              bool inMemory = false) {
    KROWriteTestFile(path, bytes);
    KROFileReader reader;
    EXPECT_TRUE(reader.initWithURL(path));
    if (inMemory) {
        EXPECT_TRUE(reader.loadIntoMemory());
    }
    List list;
    EXPECT_TRUE(list.initWithFileReader(reader));
    return walked(list);
}

// A RIFF or IFF file of the given chunks, its form size the rest of the file.
KROData form(bool little, std::initializer_list<KROData> chunks) {
    KROTestBytes body;
    for (const KROData& chunk : chunks) {
        body.bytes(chunk);
    }
    KROTestBytes file;
    file.text(little ? "RIFF" : "FORM");
    little ? file.le32(body.size() + 4) : file.be32(body.size() + 4);
    return file.text(little ? "WAVE" : "AIFF").bytes(body.data()).data();
}

KROData chunk(bool little, std::string_view type, std::uint64_t size, std::size_t bytes,
              bool pad = false) {
    KROTestBytes chunk;
    chunk.text(type);
    little ? chunk.le32(size) : chunk.be32(size);
    return chunk.fill(bytes, 'x').fill(pad ? bytes % 2 : 0).data();
}

} // namespace

// The walk steps by the sizes alone and finds the chunk after an odd one
// whether its pad byte is there or not.
TEST(KROAudioFileChunkList, RIFFAndIFFWalksKeepTheseChunks) {
    struct Case {
        const char* what;
        bool little;
        KROData file;
        std::vector<std::string> expected;
    };
    const bool W = true;
    const bool A = false;
    const Case cases[] = {
        {"odd LIST with its pad",
         W,
         form(W, {chunk(W, "LIST", 5, 5, true), chunk(W, "data", 4, 4)}),
         {"LIST@20+5", "data@34+4"}},
        {"odd LIST without its pad",
         W,
         form(W, {chunk(W, "LIST", 5, 5), chunk(W, "data", 4, 4)}),
         {"LIST@20+5", "data@33+4"}},
        {"two odd chunks without pads",
         W,
         form(W, {chunk(W, "abcd", 3, 3), chunk(W, "efgh", 3, 3), chunk(W, "data", 2, 2)}),
         {"abcd@20+3", "efgh@31+3", "data@42+2"}},
        {"audio up to 7 bytes past the end",
         W,
         form(W, {chunk(W, "fmt ", 2, 2), chunk(W, "data", 11, 4)}),
         {"fmt @20+2", "data@30+11"}},
        {"audio 8 bytes past the end",
         W,
         form(W, {chunk(W, "fmt ", 2, 2), chunk(W, "data", 12, 4)}),
         {"fmt @20+2"}},
        {"WAVE drops empty, JUNK, free and short LIST chunks",
         W,
         form(W, {chunk(W, "data", 0, 0), chunk(W, "JUNK", 2, 2), chunk(W, "free", 2, 2),
                  chunk(W, "LIST", 3, 3, true), chunk(W, "fmt ", 2, 2)}),
         {"fmt @60+2"}},
        {"AIFF keeps an empty SSND and drops a short APPL",
         A,
         form(A, {chunk(A, "SSND", 0, 0), chunk(A, "APPL", 2, 2), chunk(A, "COMM", 2, 2)}),
         {"SSND@20+0", "COMM@38+2"}},
        {"a code that is not text ends the walk",
         A,
         form(A, {chunk(A, "COMM", 2, 2), chunk(A, "CO\x01M", 2, 2), chunk(A, "SSND", 2, 2)}),
         {"COMM@20+2"}},
        {"a form size shorter than the file ends the walk there",
         W,
         KROTestBytes()
             .text("RIFF")
             .le32(14)
             .text("WAVE")
             .bytes(chunk(W, "fmt ", 2, 2))
             .bytes(chunk(W, "data", 2, 2))
             .data(),
         {"fmt @20+2"}},
    };
    KROTemporaryDirectory directory;
    for (const Case& c : cases) {
        for (const bool inMemory : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (inMemory ? " in memory" : ""));
            const auto path = directory / "form";
            EXPECT_EQ(c.little ? walk<KROWAVEChunkList>(path, c.file, inMemory)
                               : walk<KROAIFFChunkList>(path, c.file, inMemory),
                      c.expected);
        }
    }
}

TEST(KROAudioFileChunkList, Wave64AndCAFWalksKeepTheseChunks) {
    const auto w64Chunk = [](std::string_view code, std::uint64_t size, std::size_t bytes) {
        return KROTestBytes().text(code).fill(12, 0xA5).le(size, 8).fill(bytes, 'x').data();
    };
    const KROData w64Head =
        KROTestBytes().text("riff").fill(12).le(0, 8).text("wave").fill(12).data();
    const auto cafChunk = [](std::string_view type, std::uint64_t size, std::size_t bytes) {
        return KROTestBytes().text(type).be(size, 8).fill(bytes, 'x').data();
    };
    const KROData cafHead = KROTestBytes().text("caff").be(1, 2).be(0, 2).data();
    struct Case {
        const char* what;
        bool wave64;
        KROData file;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"Wave64 sizes count the header and chunks align to 8",
         true,
         KROTestBytes()
             .bytes(w64Head)
             .bytes(w64Chunk("fmt ", 27, 8))
             .bytes(w64Chunk("JUNK", 24, 0))
             .bytes(w64Chunk("data", 28, 4))
             .data(),
         {"fmt @64+3", "data@120+4"}},
        {"a Wave64 size of 0 ends the walk",
         true,
         KROTestBytes()
             .bytes(w64Head)
             .bytes(w64Chunk("fmt ", 24, 0))
             .bytes(w64Chunk("data", 0, 8))
             .data(),
         {"fmt @64+0"}},
        {"a Wave64 size near 2^64 ends the walk",
         true,
         KROTestBytes()
             .bytes(w64Head)
             .bytes(w64Chunk("data", ~std::uint64_t{0}, 8))
             .bytes(w64Chunk("fmt ", 24, 0))
             .data(),
         {"data@64+18446744073709551591"}},
        {"a CAF size of -1 runs to the end of the file",
         false,
         KROTestBytes()
             .bytes(cafHead)
             .bytes(cafChunk("desc", 2, 2))
             .bytes(cafChunk("data", ~std::uint64_t{0}, 9))
             .data(),
         {"desc@20+2", "data@34+9"}},
        {"a CAF identity comes before the data",
         false,
         KROTestBytes()
             .bytes(cafHead)
             .bytes(cafChunk("uuid", 19, 19))
             .bytes(cafChunk("free", 1, 1))
             .bytes(cafChunk("pakt", 1, 1))
             .data(),
         {"uuid@36+3", "pakt@64+1"}},
        {"a CAF size past the end of everything ends the walk",
         false,
         KROTestBytes()
             .bytes(cafHead)
             .bytes(cafChunk("data", std::uint64_t{1} << 63, 4))
             .bytes(cafChunk("desc", 2, 2))
             .data(),
         {"data@20+9223372036854775808"}},
    };
    KROTemporaryDirectory directory;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto path = directory / "file";
        EXPECT_EQ(c.wave64 ? walk<KROWAV64ChunkList>(path, c.file)
                           : walk<KROCAFChunkList>(path, c.file),
                  c.expected);
    }
}

TEST(KROAudioFileChunkList, SearchesAnswerTheFirstMatch) {
    KROTemporaryDirectory directory;
    KROWriteTestFile(directory / "list.wav",
                     form(true, {KROTestBytes().text("LIST").le32(6).text("adtlxy").data(),
                                 KROTestBytes().text("LIST").le32(6).text("INFOxy").data(),
                                 chunk(true, "LIST", 4, 4)}));
    KROFileReader reader;
    ASSERT_TRUE(reader.initWithURL(directory / "list.wav"));
    KROWAVEChunkList list;
    list.initWithFileReader(reader);
    ASSERT_EQ(list.list().size(), 3u);
    list.list()[1]->setChunkID(7);
    list.list()[2]->setChunkID(7);
    list.list()[2]->setName("named");
    const auto LIST = kro::fourCC("LIST");
    EXPECT_EQ(list.chunkOfType(LIST), list.list()[0]);
    EXPECT_EQ(list.chunkOfTypeSubtype(LIST, kro::fourCC("INFO")), list.list()[1]);
    EXPECT_EQ(list.chunkOfTypeChunkID(LIST, 7), list.list()[1]);
    EXPECT_EQ(list.chunkOfTypeName(LIST, "named"), list.list()[2]);
    EXPECT_EQ(list.chunkOfType(kro::fourCC("data")), nullptr);
    EXPECT_EQ(list.list()[1]->stringAtPosition(4, 2), "xy");

    KROWriteTestFile(directory / "ids.caf", KROTestBytes()
                                                .text("caff")
                                                .be(1, 4)
                                                .text("uuid")
                                                .be(16, 8)
                                                .fill(16, 1)
                                                .text("uuid")
                                                .be(16, 8)
                                                .fill(16, 2)
                                                .data());
    KROFileReader cafReader;
    ASSERT_TRUE(cafReader.initWithURL(directory / "ids.caf"));
    KROCAFChunkList caf;
    caf.initWithFileReader(cafReader);
    KROUUID second;
    second.fill(2);
    ASSERT_EQ(caf.list().size(), 2u);
    EXPECT_EQ(caf.chunkWithUUID(second), caf.list()[1]);
}

// Millions of chunks, sizes that lie and lists that claim more than the file
// has: every walk ends within the file, and reads stay within it.
TEST(KROAudioFileChunkList, HostileFilesEndTheirWalksQuickly) {
    KROTemporaryDirectory directory;
    KROTestBytes tiny;
    tiny.text("FORM").be32(0xFFFFFFFF).text("AIFF");
    for (int i = 0; i < 1000000; ++i) {
        tiny.text("MARK").be32(0);
    }
    const auto start = std::chrono::steady_clock::now();
    const auto marks = walk<KROAIFFChunkList>(directory / "marks.aif", tiny.data());
    EXPECT_EQ(marks.size(), KROAudioFileChunkList::maximumChunkCount);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    // A LIST whose entries claim gigabytes reads as empty, without allocating them.
    KROWriteTestFile(directory / "lies.wav", form(true, {KROTestBytes()
                                                             .text("LIST")
                                                             .le32(12)
                                                             .text("INFO")
                                                             .text("INAM")
                                                             .le32(0x7FFFFFFF)
                                                             .data()}));
    KROFileReader reader;
    ASSERT_TRUE(reader.initWithURL(directory / "lies.wav"));
    KROWAVEChunkList list;
    list.initWithFileReader(reader);
    const auto info = list.chunkOfType(kro::fourCC("LIST"));
    ASSERT_NE(info, nullptr);
    const auto entrySize = static_cast<std::uint32_t>(info->intValueAtPosition(8));
    EXPECT_EQ(entrySize, 0x7FFFFFFFu);
    EXPECT_FALSE(info->dataAtPosition(12, entrySize));
    EXPECT_FALSE(info->cStringAtPosition(12));
    info->setDataLength(std::uint64_t{1} << 40);
    info->loadFromFile();
    EXPECT_FALSE(info->data());
    EXPECT_EQ(info->stringAtPosition(4, KROAudioFileChunk::toEnd), "INAM\u00FF\u00FF\u00FF"
                                                                   "\x7F");
}

// The audio chunks of files that sox writes lie where their headers say and
// hold as many bytes as sox reports samples.
TEST(KROAudioFileChunkList, WalksFindTheAudioOfFilesSoxWrites) {
    struct Case {
        const char* extension;
        std::function<std::vector<std::string>(const std::filesystem::path&)> walk;
        const char* audio;
        // Bytes of the audio chunk before the samples: AIFF's offset and
        // block size, CAF's edit count.
        std::uint64_t extra;
    };
    const auto walkFile = [](auto list) {
        return [list](const std::filesystem::path& path) mutable {
            KROFileReader reader;
            EXPECT_TRUE(reader.initWithURL(path));
            list.initWithFileReader(reader);
            return walked(list);
        };
    };
    const Case cases[] = {
        {"wav", walkFile(KROWAVEChunkList()), "data", 0},
        {"aiff", walkFile(KROAIFFChunkList()), "SSND", 8},
        {"w64", walkFile(KROWAV64ChunkList()), "data", 0},
        {"caf", walkFile(KROCAFChunkList()), "data", 4},
    };
    KROTemporaryDirectory directory;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.extension);
        const auto path = directory / (std::string("sox.") + c.extension);
        ASSERT_EQ(
            KRORunCommand("sox -n -r 8000 -c 3 -b 16 " + path.string() + " synth 0.1 sine 300")
                .status,
            0);
        const auto samples = KRORunCommand("soxi -s " + path.string());
        const std::uint64_t bytes = std::stoull(samples.output) * 3 * 2;
        const auto chunks = c.walk(path);
        const auto audio = std::find_if(chunks.begin(), chunks.end(), [&](const std::string& text) {
            return text.starts_with(c.audio);
        });
        ASSERT_NE(audio, chunks.end());
        // The audio ends at the end of the file in all four.
        const std::uint64_t extra = c.extra;
        EXPECT_TRUE(audio->ends_with("+" + std::to_string(bytes + extra))) << *audio;
        const std::uint64_t at = std::stoull(audio->substr(5));
        EXPECT_EQ(at + bytes + extra, std::filesystem::file_size(path));
    }
}
