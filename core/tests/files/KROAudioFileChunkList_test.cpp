// The walks of RIFF, IFF, Wave64 and CAF files, also damaged and hostile ones.
#include <gtest/gtest.h>

#include <chrono>

#include "KROAIFFChunkList.h"
#include "KROAllocationGuard.h"
#include "KROCAFChunkList.h"
#include "KROFileReader.h"
#include "KROFileTestSupport.h"
#include "KROStringHelpers.h"
#include "KROTestCommand.h"
#include "KROWAV64ChunkList.h"
#include "KROWAVEChunkList.h"

namespace {

// What a walk kept, as "type@dataLocation+dataLength" each.
template <typename List>
std::vector<std::string> walk(const std::filesystem::path& path, bool inMemory = false) {
    KROFileReader reader;
    EXPECT_TRUE(reader.initWithURL(path) && (!inMemory || reader.loadIntoMemory()));
    List list;
    EXPECT_TRUE(list.initWithFileReader(reader));
    std::vector<std::string> chunks;
    for (const auto& chunk : list.list()) {
        chunks.push_back(kro::stringWithFourCharCode(chunk->type()) + "@" +
                         std::to_string(chunk->dataLocation()) + "+" +
                         std::to_string(chunk->dataLength()));
    }
    return chunks;
}

// A RIFF or IFF file of the chunks, its form size the rest of the file.
KROData form(bool little, std::initializer_list<KROData> chunks, std::uint64_t formSize = 0) {
    KROTestBytes body;
    for (const KROData& chunk : chunks) {
        body.bytes(chunk);
    }
    KROTestBytes file;
    file.text(little ? "RIFF" : "FORM");
    const std::uint64_t size = formSize ? formSize : body.size() + 4;
    little ? file.le32(size) : file.be32(size);
    return file.text(little ? "WAVE" : "AIFF").bytes(body.data()).data();
}

KROData chunk(bool little, std::string_view type, std::uint64_t size, std::size_t bytes,
              bool pad = false) {
    KROTestBytes chunk;
    chunk.text(type);
    little ? chunk.le32(size) : chunk.be32(size);
    return chunk.fill(bytes, 'x').fill(pad ? bytes % 2 : 0).data();
}

KROData w(std::string_view type, std::uint64_t size, std::size_t bytes, bool pad = false) {
    return chunk(true, type, size, bytes, pad);
}
KROData a(std::string_view type, std::uint64_t size, std::size_t bytes) {
    return chunk(false, type, size, bytes);
}

} // namespace

// The walk finds the chunk after an odd one, pad byte or not.
TEST(KROAudioFileChunkList, RIFFAndIFFWalksKeepTheseChunks) {
    using Chunks = std::vector<std::string>;
    const struct {
        const char* what;
        bool little;
        KROData file;
        Chunks expected;
    } cases[] = {
        {"odd LIST, padded", true, form(true, {w("LIST", 5, 5, true), w("data", 4, 4)}),
         Chunks{"LIST@20+5", "data@34+4"}},
        {"two odd chunks, unpadded", true,
         form(true, {w("abcd", 3, 3), w("efgh", 3, 3), w("data", 2, 2)}),
         Chunks{"abcd@20+3", "efgh@31+3", "data@42+2"}},
        {"audio 7 bytes past the end", true, form(true, {w("fmt ", 2, 2), w("data", 11, 4)}),
         Chunks{"fmt @20+2", "data@30+11"}},
        {"audio 8 bytes past the end", true, form(true, {w("fmt ", 2, 2), w("data", 12, 4)}),
         Chunks{"fmt @20+2"}},
        {"WAVE drops empty, JUNK, free and short LIST chunks", true,
         form(true, {w("data", 0, 0), w("JUNK", 2, 2), w("free", 2, 2), w("LIST", 3, 3, true),
                     w("fmt ", 2, 2)}),
         Chunks{"fmt @60+2"}},
        {"AIFF keeps an empty SSND, drops a short APPL", false,
         form(false, {a("SSND", 0, 0), a("APPL", 2, 2), a("COMM", 2, 2)}),
         Chunks{"SSND@20+0", "COMM@38+2"}},
        {"a code that is not text ends it", false,
         form(false, {a("COMM", 2, 2), a("CO\x7FM", 2, 2), a("SSND", 2, 2)}), Chunks{"COMM@20+2"}},
        {"so does the end of the form", true, form(true, {w("fmt ", 2, 2), w("data", 2, 2)}, 14),
         Chunks{"fmt @20+2"}},
    };
    KROTemporaryDirectory directory;
    for (const auto& c : cases) {
        KROWriteTestFile(directory / "form", c.file);
        for (const bool inMemory : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (inMemory ? ", in memory" : ""));
            EXPECT_EQ(c.little ? walk<KROWAVEChunkList>(directory / "form", inMemory)
                               : walk<KROAIFFChunkList>(directory / "form", inMemory),
                      c.expected);
        }
    }
}

TEST(KROAudioFileChunkList, Wave64AndCAFWalksKeepTheseChunks) {
    const auto w64 = [](std::string_view code, std::uint64_t size, std::size_t bytes) {
        return KROTestBytes().text(code).fill(12, 0xA5).le(size, 8).fill(bytes, 'x').data();
    };
    const KROData w64Head = KROTestBytes().text("riff").fill(20).text("wave").fill(12).data();
    const auto caf = [](std::string_view type, std::uint64_t size, std::size_t bytes) {
        return KROTestBytes().text(type).be(size, 8).fill(bytes, 'x').data();
    };
    const KROData cafHead = KROTestBytes().text("caff").be(1, 4).data();
    const auto file = [](const KROData& head, std::initializer_list<KROData> chunks) {
        KROTestBytes bytes;
        bytes.bytes(head);
        for (const KROData& chunk : chunks) {
            bytes.bytes(chunk);
        }
        return bytes.data();
    };
    using Chunks = std::vector<std::string>;
    const struct {
        const char* what;
        bool wave64;
        KROData file;
        Chunks expected;
    } cases[] = {
        {"Wave64 sizes count the header; chunks align to 8", true,
         file(w64Head, {w64("fmt ", 27, 8), w64("JUNK", 24, 0), w64("data", 28, 4)}),
         Chunks{"fmt @64+3", "data@120+4"}},
        {"a Wave64 size of 0 ends the walk", true,
         file(w64Head, {w64("fmt ", 24, 0), w64("data", 0, 8)}), Chunks{"fmt @64+0"}},
        {"a CAF size of -1 runs to the end", false,
         file(cafHead, {caf("desc", 2, 2), caf("data", ~std::uint64_t{0}, 9)}),
         Chunks{"desc@20+2", "data@34+9"}},
        {"a CAF identity comes before the data", false,
         file(cafHead, {caf("uuid", 19, 19), caf("free", 1, 1), caf("pakt", 1, 1)}),
         Chunks{"uuid@36+3", "pakt@64+1"}},
        {"a CAF size past everything ends the walk", false,
         file(cafHead, {caf("data", std::uint64_t{1} << 63, 4), caf("desc", 2, 2)}),
         Chunks{"data@20+9223372036854775808"}},
    };
    KROTemporaryDirectory directory;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KROWriteTestFile(directory / "file", c.file);
        EXPECT_EQ(c.wave64 ? walk<KROWAV64ChunkList>(directory / "file")
                           : walk<KROCAFChunkList>(directory / "file"),
                  c.expected);
    }
}

// A million chunks, or entries claiming gigabytes, cost no more than the file.
TEST(KROAudioFileChunkList, HostileFilesCostNoMoreThanTheyHold) {
    KROTemporaryDirectory directory;
    KROTestBytes marks;
    marks.text("FORM").be32(0xFFFFFFFF).text("AIFF");
    for (int i = 0; i < 1000000; ++i) {
        marks.text("MARK").be32(0);
    }
    KROWriteTestFile(directory / "marks", marks.data());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(walk<KROAIFFChunkList>(directory / "marks").size(),
              KROAudioFileChunkList::maximumChunkCount);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

    KROWriteTestFile(
        directory / "lies",
        form(true,
             {KROTestBytes().text("LIST").le32(12).text("INFOINAM").le32(0x7FFFFFFF).data()}));
    KROFileReader reader;
    ASSERT_TRUE(reader.initWithURL(directory / "lies"));
    KROWAVEChunkList list;
    list.initWithFileReader(reader);
    const auto info = list.chunkOfType(kro::fourCC("LIST"));
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->byteCountMultiple(), 2u);
    EXPECT_FALSE(info->dataAtPosition(12, static_cast<std::uint32_t>(info->intValueAtPosition(8))));
    info->setDataLength(std::uint64_t{1} << 40);
    KRO_EXPECT_NO_ALLOCATION(info->loadFromFile());
    EXPECT_FALSE(info->data());
    EXPECT_EQ(info->stringAtPosition(4, KROAudioFileChunk::toEnd), "INAM\u00FF\u00FF\u00FF"
                                                                   "\x7F");
}

// The audio of sox's files lies where the walk says, as long as sox reports.
TEST(KROAudioFileChunkList, WalksFindTheAudioOfFilesSoxWrites) {
    const struct {
        const char* extension;
        std::vector<std::string> (*walk)(const std::filesystem::path&, bool);
        const char* audio;
        // Before the samples: AIFF's offset and block size, CAF's edit count.
        std::uint64_t extra;
    } cases[] = {
        {"wav", walk<KROWAVEChunkList>, "data", 0},
        {"aiff", walk<KROAIFFChunkList>, "SSND", 8},
        {"w64", walk<KROWAV64ChunkList>, "data", 0},
        {"caf", walk<KROCAFChunkList>, "data", 4},
    };
    KROTemporaryDirectory directory;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extension);
        const auto path = directory / (std::string("sox.") + c.extension);
        ASSERT_EQ(
            KRORunCommand("sox -n -r 8000 -c 3 -b 16 " + path.string() + " synth 0.1 sine 300")
                .status,
            0);
        const std::uint64_t bytes =
            std::stoull(KRORunCommand("soxi -s " + path.string()).output) * 6 + c.extra;
        const auto chunks = c.walk(path, false);
        const auto audio = std::find_if(chunks.begin(), chunks.end(),
                                        [&](auto& text) { return text.starts_with(c.audio); });
        ASSERT_NE(audio, chunks.end());
        EXPECT_TRUE(audio->ends_with(std::string(1, '+').append(std::to_string(bytes)))) << *audio;
        EXPECT_EQ(std::stoull(audio->substr(5)) + bytes, std::filesystem::file_size(path));
    }
}
