// WAVE files as written and read here: bytes, labels, metadata, foreign chunks, damage.
#include <gtest/gtest.h>

#include <numeric>

#include "KROAudioTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

namespace {

bool contains(const KROData& bytes, std::string_view text) {
    return std::search(bytes.begin(), bytes.end(), text.begin(), text.end()) != bytes.end();
}

} // namespace

// With no metadata a file is the header, 'fmt ' and 'data', with a pad byte
// after odd sample data that the data size does not count.
TEST(KROAudioFileWAVEContent, PlainSamplesGiveHeaderFormatAndData) {
    KROTemporaryDirectory directory;
    const struct {
        std::uint32_t channels, bitDepth, frames;
        std::uint8_t silence;
    } cases[] = {{1, 24, 3, 0x00}, {3, 8, 1, 0x80}, {2, 16, 2, 0x00}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bitDepth);
        const auto buffer = KROAudioBufferList::bufferListWithChannels(c.channels, c.frames);
        writeWAVE(directory / "plain.wav", *buffer,
                  [&](KROAudioFileWAVEContent& content) { content.setBitDepth(c.bitDepth); });
        const std::uint32_t blockAlign = c.channels * c.bitDepth / 8;
        const std::uint32_t dataBytes = blockAlign * c.frames;
        KROTestBytes expected;
        expected.text("RIFF").le32(36 + dataBytes + dataBytes % 2).text("WAVE");
        expected.text("fmt ").le32(16).le(1, 2).le(c.channels, 2).le32(48000);
        expected.le32(blockAlign * 48000).le(blockAlign, 2).le(c.bitDepth, 2);
        expected.text("data").le32(dataBytes).fill(dataBytes, c.silence).fill(dataBytes % 2);
        EXPECT_EQ(KROReadTestFile(directory / "plain.wav"), expected.data());
    }
}

// Labels come back in place, regions after markers, and cue identifiers go on
// from those of the loops.
TEST(KROAudioFileWAVEContent, LabelsRoundTrip) {
    KROTemporaryDirectory directory;
    const auto buffer = KROAudioBufferList::bufferListWithChannels(1, 480);
    writeWAVE(directory / "labels.wav", *buffer, [](KROAudioFileWAVEContent& content) {
        content.labels() = {
            testLabel("marker", 0.5, 0, {{"name", "Verse"}}),
            testLabel("region", 1.0, 0.25, {{"name", "Chorus"}}),
            testLabel("marker", 0, 0),
            testLabel("loop", 0.1, 0.1, {{"loopType", "forwardBackward"}}),
            testLabel("loop", 0.3, 0.1, {{"loopType", "backward"}}),
            testLabel("loop", 0.5, 0.1),
            testLabel("slice", 0.75, 0),
            testLabel("slice", 0.25, 0),
        };
    });
    // A name's size counts its terminator and the pad byte after it.
    EXPECT_TRUE(
        contains(KROReadTestFile(directory / "labels.wav"), "labl\x0c\0\0\0\x06\0\0\0Chorus\0\0"));
    const auto content = parsedWAVE(directory / "labels.wav");
    ASSERT_TRUE(content);
    EXPECT_EQ(labelTexts(*content, 48000),
              (std::vector<std::string>{
                  "marker 24000+0 id=4 name=Verse",
                  "marker 0+0 id=5",
                  "region 48000+12000 name=Chorus",
                  "loop 4800+4800 loopType=forwardBackward loopPhase=sustain",
                  "loop 14400+4800 loopType=backward loopPhase=sustain",
                  "loop 24000+4800 loopType=forward loopPhase=sustain",
                  "slice 12000+0",
                  "slice 36000+0",
              }));
    // Slices bring the tempo chunk with its defaults.
    EXPECT_EQ(content->metadata().objectForKey("tempo")->doubleValue(), 120.0);
}

// Every metadata key written reads back; writing consumes all but the
// identifier; a coding history is read back cut to 256 bytes.
TEST(KROAudioFileWAVEContent, MetadataRoundTrips) {
    KROTemporaryDirectory directory;
    KROData umid(64);
    std::iota(umid.begin(), umid.end(), std::uint8_t(1));
    std::string history;
    while (history.size() < 300) {
        history += "A=PCM,F=48000,W=24,M=mono,T=KROCore\r\n";
    }
    history.resize(300);
    // clang-format off
    KROPropertyList written = KROPropertyList::Dictionary{
        {"description", "Take 12, room mic"}, {"originator", "KROCore"},
        {"originatorReference", "REF-0042"}, {"originationDate", utcDate(2024, 3, 5)},
        {"originationTime", utcDate(2000, 1, 1, 13, 14, 15)}, {"timeReference", 2.5},
        {"smpteUMID", umid}, {"codingHistory", history}, {"baseNote", 60}, {"detune", -12},
        {"gain", -6}, {"lowNote", 36}, {"highNote", 96}, {"lowVelocity", 1},
        {"highVelocity", 127}, {"musicalKey", "F#"}, {"tempo", 98.5}, {"meterNumerator", 7},
        {"meterDenominator", 8}, {"beats", 14}, {"playbackType", "loop"},
        {"creationDate", utcDate(2023, 11, 22, 10, 20, 30)}, {"isrc", "GBAYE2400001"}};
    for (const char* key : {"name", "genre", "keywords", "author", "originalArtist",
             "originalMedium", "originalDimensions", "digitizationSource", "commissionedBy",
             "sourceSupplier", "engineers", "digitizer", "cropped", "archivalLocation", "product",
             "copyright", "softwarePackage", "comments", "annotation", "subject"}) {
        written.setObjectForKey(key, std::string("the ") + key);
    }
    // clang-format on
    KROAudioFileWAVEContent consumer;
    consumer.setWritingDirectory(directory.path());
    consumer.setSampleRate(48000);
    consumer.setNumberOfChannels(1);
    consumer.setBitDepth(16);
    consumer.metadata() = written;
    ASSERT_TRUE(consumer.beginWrite() && consumer.endWrite());
    EXPECT_EQ(consumer.metadata().allKeys(), std::vector<std::string>{"isrc"});

    const auto buffer = KROAudioBufferList::bufferListWithChannels(1, 9);
    writeWAVE(directory / "metadata.wav", *buffer, [&](KROAudioFileWAVEContent& content) {
        content.metadata() = written;
        content.setBitDepth(24);
    });
    const auto content = parsedWAVE(directory / "metadata.wav");
    ASSERT_TRUE(content);
    KROPropertyList expected = written;
    expected.setObjectForKey("codingHistory", history.substr(0, 256));
    // The ID3 tag is read after axml and keeps its frame's terminator.
    expected.setObjectForKey("isrc", std::string("GBAYE2400001", 13));
    EXPECT_EQ(content->metadata().count(), expected.count());
    expectMetadata(*content, expected);
}

// A one-shot loses its beats, a file with no key reads with none, and a
// broadcast chunk with no UMID has version 0 and reads with none.
TEST(KROAudioFileWAVEContent, KeptQuirksOfTempoAndBroadcastChunks) {
    KROTemporaryDirectory directory;
    const auto buffer = KROAudioBufferList::bufferListWithChannels(1, 4);
    writeWAVE(directory / "shot.wav", *buffer, [](KROAudioFileWAVEContent& content) {
        content.metadata().setObjectForKey("playbackType", "oneShot");
        content.metadata().setObjectForKey("beats", 8);
        content.metadata().setObjectForKey("description", "shot");
    });
    const KROData bytes = KROReadTestFile(directory / "shot.wav");
    // bext's version lies 346 bytes into its data, after its 8-byte header at 12.
    EXPECT_EQ(bytes.at(12 + 8 + 346), 0);
    const auto content = parsedWAVE(directory / "shot.wav");
    ASSERT_TRUE(content);
    for (const char* key : {"beats", "musicalKey", "smpteUMID"}) {
        EXPECT_FALSE(content->metadata().objectForKey(key)) << key;
    }
    EXPECT_EQ(*content->metadata().objectForKey("playbackType")->stringValue(), "oneShot");
}

// Chunks only other writers make are read (region list, cart, odd cue points
// and loops, bext v2 without its UMID) but cart and regn are not written back.
TEST(KROAudioFileWAVEContent, ChunksOfOtherWritersAreReadButNotWritten) {
    KROTemporaryDirectory directory;
    KROTestBytes cue;
    cue.le32(1).le32(1).le32(0).text("data").le32(0).le32(0).le32(800);
    cue.le32(2).le32(1600).text("data").le32(0).le32(0).le32(1600);
    KROTestBytes adtl;
    adtl.text("adtl").text("labl").le32(10).le32(2).text("Kept").fill(2);
    adtl.text("ltxt").le32(20).le32(2).le32(0).text("rgn ").fill(8);
    KROTestBytes regn;
    regn.le(1, 8).fill(12).le(400, 8).le(1200, 8).fill(24).le(3, 1).text("Old").fill(32);
    KROTestBytes bext;
    bext.text("Foreign").fill(338 - 7).le(0, 8).le(2, 2).fill(64, 7).fill(190);
    KROTestBytes cart;
    cart.text("0101").text("Cart Title").fill(438).text("2020-02-29").fill(2048 - 462);
    KROData cartBytes = cart.data();
    cartBytes[680] = 0x00, cartBytes[681] = 0x40; // 16384 of 32768: half scale
    KROTestBytes smpl;
    smpl.fill(28).le32(2).le32(0);
    smpl.le32(1).le32(0xFFFFFFFF).le32(80).le32(160).le32(0).le32(0);
    smpl.le32(2).le32(7).le32(240).le32(320).le32(0).le32(0);
    KROTestBytes strc;
    strc.le32(28).le32(2).le32(65).le32(5).le32(1).le32(0).le32(0);
    strc.le32(2).le32(0).le32(100).le32(0).le32(0).fill(12);
    strc.le32(0).le32(0).le32(200).le32(0).le32(200).fill(12);
    KROWriteTestFile(
        directory / "foreign.wav",
        riffWAVE({formatChunk(), wavChunk("data", KROData(4)), wavChunk("cue ", cue.data()),
                  wavChunk("LIST", adtl.data()), wavChunk("regn", regn.data()),
                  wavChunk("bext", bext.data()), wavChunk("cart", cartBytes),
                  wavChunk("smpl", smpl.data()), wavChunk("strc", strc.data())}));

    const auto content = parsedWAVE(directory / "foreign.wav");
    ASSERT_TRUE(content);
    EXPECT_EQ(labelTexts(*content, 8000),
              (std::vector<std::string>{"region 400+800 name=Old", "marker 800+0 id=1",
                                        "marker 1600+0 id=2 name=Kept",
                                        "loop 80+80 loopType=none loopPhase=sustain",
                                        "loop 240+80 loopPhase=sustain", "slice 200+0"}));
    const KROPropertyList& metadata = content->metadata();
    EXPECT_EQ(*metadata.objectForKey("description")->stringValue(), "Foreign");
    EXPECT_FALSE(metadata.objectForKey("smpteUMID"));
    EXPECT_EQ(*metadata.objectForKey("title")->stringValue(), "Cart Title");
    EXPECT_EQ(*metadata.objectForKey("startDate")->dateValue(), utcDate(2020, 2, 29));
    EXPECT_NEAR(metadata.objectForKey("levelReference")->doubleValue(), -6.0206, 1e-4);

    const auto samples = allAudio(*content);
    writeWAVE(directory / "again.wav", *samples, [&](KROAudioFileWAVEContent& again) {
        again.labels() = content->labels();
        again.metadata() = content->metadata();
    });
    const KROData rewritten = KROReadTestFile(directory / "again.wav");
    EXPECT_FALSE(contains(rewritten, "cart"));
    EXPECT_FALSE(contains(rewritten, "regn"));
    EXPECT_TRUE(contains(rewritten, "Old"));
}

// Damaged files fail with their codes or, when only optional chunks lie,
// read with what could be read, whatever the counts claim.
TEST(KROAudioFileWAVEContent, DamagedFilesFailWithTheirCodesOrReadWhatTheyHold) {
    KROTemporaryDirectory directory;
    const KROData data = wavChunk("data", KROData(8));
    KROTestBytes cue, loops, slices, regions, list;
    cue.text("cue ").le32(28).le32(0x7FFFFFFF).le32(1).fill(20);
    loops.text("smpl").le32(60).fill(28).le32(0x7FFFFFFF).fill(28);
    slices.text("strc").le32(28).le32(28).le32(0xFFFFFFFF).fill(20);
    regions.text("regn").le32(8).le(~0ull, 8);
    list.text("LIST").le32(20).text("INFOINAM").le32(0xFFFFFFF0).text("ab").fill(2);
    const struct {
        const char* what;
        KROData bytes;
        std::int64_t code;
        std::size_t labels;
    } cases[] = {
        {"no format chunk", riffWAVE({wavChunk("abcd", KROData(4))}), 1, 0},
        {"ADPCM", riffWAVE({formatChunk(2), data}), 2, 0},
        {"no data chunk", riffWAVE({formatChunk()}), 3, 0},
        {"a data size of 0", riffWAVE({formatChunk(), wavChunk("data", {})}), 3, 0},
        {"data cut short by 8 bytes",
         riffWAVE({formatChunk(), KROTestBytes().text("data").le32(16).fill(8).data()}), 3, 0},
        {"no channels", riffWAVE({formatChunk(1, 0), data}), 5, 0},
        {"counts and sizes that lie",
         riffWAVE({formatChunk(), data, cue.data(), loops.data(), slices.data(), regions.data(),
                   list.data()}),
         0, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KROWriteTestFile(directory / "damaged.wav", c.bytes);
        KROErrorPtr error;
        const auto content = parsedWAVE(directory / "damaged.wav", &error);
        EXPECT_EQ(error ? error->code() : 0, c.code);
        if (error) {
            EXPECT_EQ(error->className(), "KROAudioFileWAVEContentError");
            EXPECT_NE(error->description().find("Reading the audio file 'damaged'"),
                      std::string::npos)
                << error->description();
        } else {
            ASSERT_TRUE(content);
            EXPECT_EQ(content->labels().size(), c.labels);
            EXPECT_EQ(content->frames(), 4u);
        }
    }
}

// A file cut short by another program after it was opened reads what is left,
// and silence where it ends, never the samples of an earlier read.
TEST(KROAudioFileWAVEContent, AFileCutShortWhileOpenReadsSilencePastItsEnd) {
    KROTemporaryDirectory directory;
    const auto written = KROAudioBufferList::bufferListWithChannels(1, 1000);
    std::fill_n(written->channel(0), 1000, 0.5f);
    const struct {
        std::uint64_t bitDepth;
        bool isFloat;
    } formats[] = {{16, false}, {32, false}, {32, true}};
    for (const auto& format : formats) {
        SCOPED_TRACE(testing::Message()
                     << format.bitDepth << (format.isFloat ? "-bit float" : "-bit"));
        writeWAVE(directory / "cut.wav", *written, [&](KROAudioFileWAVEContent& content) {
            content.setBitDepth(format.bitDepth);
            content.setIsFloatingPoint(format.isFloat);
        });
        const auto content = parsedWAVE(directory / "cut.wav");
        ASSERT_TRUE(content);
        EXPECT_EQ(allAudio(*content)->channel(0)[999], 0.5f);
        fs::resize_file(directory / "cut.wav",
                        fs::file_size(directory / "cut.wav") - format.bitDepth / 8 * 400);
        const auto samples = allAudio(*content);
        EXPECT_EQ(std::count(samples->channel(0), samples->channel(0) + 600, 0.5f), 600);
        EXPECT_EQ(std::count(samples->channel(0) + 600, samples->channel(0) + 1000, 0.0f), 400);
    }
}
