// AIFF and AIFC: bytes, round trips, odd cases kept on purpose, codes of bad files.
#include <gtest/gtest.h>

#include "KROAudioFileAIFFContent.h"
#include "KROAudioTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

namespace {

void writeAIFF(const fs::path& path, const KROAudioBufferList& buffer,
               const std::function<void(KROAudioFileAIFFContent&)>& setUp = {}) {
    writeFile<KROAudioFileAIFFContent>(path, buffer, setUp);
}

// The data of the first chunk of the type in a file written here, or empty.
KROData chunkBytes(const KROData& file, std::string_view type) {
    for (std::size_t offset = 12; offset + 8 <= file.size();) {
        const std::size_t size = (std::size_t{file[offset + 4]} << 24) |
                                 (std::size_t{file[offset + 5]} << 16) |
                                 (std::size_t{file[offset + 6]} << 8) | file[offset + 7];
        if (std::string_view(reinterpret_cast<const char*>(&file[offset]), 4) == type) {
            return KROData(file.begin() + long(offset + 8), file.begin() + long(offset + 8 + size));
        }
        offset += 8 + size + size % 2;
    }
    return {};
}

// A FORM file of the chunks, each padded to an even length.
KROData formFile(const char* formType,
                 std::initializer_list<std::pair<const char*, KROData>> chunks) {
    KROTestBytes body;
    body.text(formType);
    for (const auto& [type, data] : chunks) {
        body.text(type).be32(data.size()).bytes(data).fill(data.size() % 2);
    }
    return KROTestBytes().text("FORM").be32(body.size()).bytes(body.data()).data();
}

// 'COMM' of one 16-bit channel at 8000 Hz, with the compression code when given.
KROData commonChunk(std::uint16_t channels = 1, const char* compression = nullptr) {
    KROTestBytes body;
    body.be(channels, 2).be32(0).be(16, 2).be(0x400B, 2).be(0xFA, 1).fill(7);
    if (compression) {
        body.text(compression).be(0, 2);
    }
    return body.data();
}

} // namespace

// The header as written: plain AIFF for big-endian integers, AIFC with 'sowt'
// for little-endian 16 bits, big-endian AIFF when little-endian is asked at
// 24 bits, AIFC 'fl32' for floats; the frame count patched into 'COMM', an
// odd data length padded outside the size.
TEST(KROAudioFileAIFFContent, HeadersAsWritten) {
    KROTemporaryDirectory directory;
    const struct {
        std::uint64_t bitDepth;
        std::int32_t byteOrder;
        bool isFloat;
        const char* form;
        const char* compression;
    } cases[] = {
        {16, 2, false, "AIFF", ""},    {16, 1, false, "AIFC", "sowt"}, {24, 1, false, "AIFF", ""},
        {32, 2, true, "AIFC", "fl32"}, {8, 2, false, "AIFF", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.bitDepth) + c.form);
        const fs::path path = directory / "header.aif";
        writeAIFF(path, *rampBuffer(1, 3, 0.01f), [&](KROAudioFileAIFFContent& content) {
            content.setBitDepth(c.bitDepth);
            content.setAudioDataByteOrder(c.byteOrder);
            content.setIsFloatingPoint(c.isFloat);
        });
        const KROData file = KROReadTestFile(path);
        EXPECT_EQ(std::string(file.begin() + 8, file.begin() + 12), c.form);
        const KROData common = chunkBytes(file, "COMM");
        ASSERT_GE(common.size(), 18u);
        EXPECT_EQ(common[5], 3) << "frame count";
        EXPECT_EQ(
            std::string(common.begin() + 18, common.begin() + 18 + long(strlen(c.compression))),
            c.compression);
        EXPECT_EQ(common.size(), c.compression[0] ? 24u : 18u);
        const std::uint64_t sampleBytes = 3 * (c.bitDepth / 8);
        EXPECT_EQ(chunkBytes(file, "SSND").size(), sampleBytes + 8);
        EXPECT_EQ(file.size(), 12 + 8 + common.size() + 16 + sampleBytes + sampleBytes % 2);
        EXPECT_EQ(KROTestBytes().be32(file.size() - 8).data(),
                  KROData(file.begin() + 4, file.begin() + 8));
    }
}

// Markers, regions, both loops and slices survive a round trip; the loop
// file chunks, the text chunks and the comment do too.
TEST(KROAudioFileAIFFContent, LabelsAndMetadataRoundTrip) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "labels.aif";
    writeAIFF(path, *rampBuffer(2, 4800, 1.0f / 128), [](KROAudioFileAIFFContent& content) {
        content.labels() = {
            testLabel("loop", 0.01, 0.02, {{"name", "Hold"}, {"loopType", "forwardBackward"}}),
            testLabel("loop", 0.05, 0.01, {{"loopPhase", "release"}}),
            testLabel("region", 0.02, 0.03, {{"name", "Intro"}}),
            testLabel("marker", 0.04, 0, {{"name", "Odd"}}),
            testLabel("slice", 0.03, 0),
            testLabel("slice", 0.01, 0)};
        // clang-format off
        content.metadata() = KROPropertyList::Dictionary{
            {"baseNote", 60}, {"detune", -7}, {"gain", -3}, {"lowNote", 1}, {"highNote", 99},
            {"lowVelocity", 2}, {"highVelocity", 126}, {"beats", 16}, {"musicalKey", "Eb"},
            {"musicalScale", "minor"}, {"meterNumerator", 3}, {"meterDenominator", 8},
            {"playbackType", "oneShot"}, {"instrument", "Keys>Piano"}, {"genre", "Jazz"},
            {"descriptors", KROPropertyList::Array{"Dry", "Clean"}}, {"collection", "Set"},
            {"theme", "Night"}, {"name", "Take"}, {"copyright", "2026 KRO"}, {"author", "Me"},
            {"annotation", "Note"}, {"comments", "Quiet"}};
        // clang-format on
    });
    const KROData file = KROReadTestFile(path);
    // Identifiers from 1: loops first, then the region, the marker last;
    // "Odd" has an even count with its length byte, so no pad follows.
    const KROData marks = chunkBytes(file, "MARK");
    EXPECT_EQ(KROData(marks.begin(), marks.begin() + 2), KROTestBytes().be(7, 2).data());
    const KROData lastMarker = KROTestBytes().be(7, 2).be32(1920).be(3, 1).text("Odd").data();
    EXPECT_EQ(KROData(marks.end() - long(lastMarker.size()), marks.end()), lastMarker);
    // The trns time stamp is little-endian: its high byte comes last.
    const KROData transients = chunkBytes(file, "trns");
    ASSERT_EQ(transients.size(), 76u + 2 * 24);
    EXPECT_EQ(transients[11], static_cast<std::uint8_t>(std::time(nullptr) >> 24));

    const auto read = parsedFile<KROAudioFileAIFFContent>(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(
        labelTexts(*read, 48000),
        (std::vector<std::string>{
            "marker 1920+0 id=7 name=Odd", "region 960+1440 name=Intro",
            "loop 480+960 name=Hold loopType=forwardBackward loopPhase=sustain",
            "loop 2400+480 loopType=forward loopPhase=release", "slice 480+0", "slice 1440+0"}));
    // clang-format off
    expectMetadata(*read, KROPropertyList::Dictionary{
        {"baseNote", 60}, {"detune", -7}, {"gain", -3}, {"lowNote", 1}, {"highNote", 99},
        {"lowVelocity", 2}, {"highVelocity", 126}, {"beats", 16}, {"musicalKey", "Eb"},
        {"musicalScale", "minor"}, {"meterNumerator", 3}, {"meterDenominator", 8},
        {"playbackType", "oneShot"}, {"instrument", "Keys>Piano"}, {"genre", "Jazz"},
        {"descriptors", KROPropertyList::Array{"Dry", "Clean"}}, {"collection", "Set"},
        {"theme", "Night"}, {"comments", "Quiet"}});
    // clang-format on
    // The texts are bare, and odd ones padded; the ID3 tag that also holds
    // them is read last and gives them as its frames do.
    for (const auto& [type, text] : {std::pair{"NAME", "Take"}, std::pair{"(c) ", "2026 KRO"},
                                     std::pair{"AUTH", "Me"}, std::pair{"ANNO", "Note"}}) {
        EXPECT_EQ(chunkBytes(file, type), KROTestBytes().text(text).data()) << type;
    }
    EXPECT_EQ(chunkBytes(file, "COMT"),
              KROTestBytes().be(1, 2).be32(0).be(0, 2).be(5, 2).text("Quiet").data());
}

// A lone release loop is written with 'MARK' identifiers 1 and 2 but 'INST'
// markers 3 and 4, so it does not come back: its two markers do.
TEST(KROAudioFileAIFFContent, LoneReleaseLoopIsLost) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "release.aif";
    writeAIFF(path, *rampBuffer(1, 100, 0.01f), [](KROAudioFileAIFFContent& content) {
        content.labels() = {
            testLabel("loop", 10.0 / 48000, 20.0 / 48000, {{"loopPhase", "release"}})};
    });
    const KROData instrument = chunkBytes(KROReadTestFile(path), "INST");
    EXPECT_EQ(KROData(instrument.begin() + 8, instrument.end()),
              KROTestBytes().be(0, 2).be(0, 2).be(0, 2).be(1, 2).be(3, 2).be(4, 2).data());
    EXPECT_EQ(labelTexts(*parsedFile<KROAudioFileAIFFContent>(path), 48000),
              (std::vector<std::string>{"marker 10+0 id=1", "marker 30+0 id=2"}));
}

// Files shaped by hand: codes of files the handler refuses, and the odd
// readings it keeps.
TEST(KROAudioFileAIFFContent, HandMadeFiles) {
    KROTemporaryDirectory directory;
    const KROData samples =
        KROTestBytes().be32(4).be32(0).fill(4).be(0x4000, 2).be(0xC000, 2).data();
    const struct {
        const char* name;
        KROData file;
        std::int64_t code;
        std::uint64_t frames;
    } cases[] = {
        {"no COMM", formFile("AIFF", {{"SSND", samples}}), 1, 0},
        {"unknown compression",
         formFile("AIFC", {{"COMM", commonChunk(1, "none")}, {"SSND", samples}}), 2, 0},
        {"COMM of 20 bytes",
         formFile("AIFC", {{"COMM", KROTestBytes().bytes(commonChunk()).fill(2).data()},
                           {"SSND", samples}}),
         2, 0},
        {"no SSND", formFile("AIFF", {{"COMM", commonChunk()}}), 3, 0},
        {"no channels", formFile("AIFF", {{"COMM", commonChunk(0)}, {"SSND", samples}}), 5, 0},
        // The offset field (4) is not honoured: the frames start at 8.
        {"SSND offset", formFile("AIFF", {{"COMM", commonChunk()}, {"SSND", samples}}), 0, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        KROWriteTestFile(directory / "hand.aif", c.file);
        KROErrorPtr error;
        const auto content = parsedFile<KROAudioFileAIFFContent>(directory / "hand.aif", &error);
        EXPECT_EQ(error ? error->code() : 0, c.code);
        if (content) {
            EXPECT_EQ(content->frames(), c.frames);
            EXPECT_EQ(samplesOf(*allAudio(*content)), (std::vector<float>{0, 0, 0.5f, -0.5f}));
        }
    }
    // 64-bit floats read as mu-law at 64 bits, which the converter refuses.
    KROWriteTestFile(directory / "double.aif",
                     formFile("AIFC", {{"COMM", commonChunk(1, "fl64")}, {"SSND", samples}}));
    const auto doubles = parsedFile<KROAudioFileAIFFContent>(directory / "double.aif");
    ASSERT_TRUE(doubles);
    EXPECT_EQ(doubles->encoding(), kro::fourCC("ulaw"));
    EXPECT_EQ(doubles->bitDepth(), 64u);
    EXPECT_TRUE(doubles->isFloatingPoint());
}
