// CAF files against libsndfile, sox and ffprobe: formats, labels, texts, damage.
#include <gtest/gtest.h>

#include "KROAudioFileCAFContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"
#include "KROTestCommand.h"

namespace fs = std::filesystem;

namespace {

// Writes the interleaved samples with libsndfile in the CAF subformat.
void writeWithLibsndfile(const fs::path& path, int subformat, int channels,
                         const std::vector<float>& samples) {
    SF_INFO info{};
    info.samplerate = 48000;
    info.channels = channels;
    info.format = SF_FORMAT_CAF | subformat;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(file) << sf_strerror(nullptr);
    sf_writef_float(file, samples.data(), static_cast<sf_count_t>(samples.size()) / channels);
    sf_close(file);
}

} // namespace

// Each sample format and byte order that libsndfile writes reads here with
// libsndfile's samples, and what is written here in the same format reads in
// libsndfile as here, and in sox and ffprobe with its encoding and length.
TEST(KROAudioFileCAFContent, EverySampleFormatMatchesLibsndfileBothWays) {
    KROTemporaryDirectory directory;
    const struct {
        int subformat;
        const char* encoding;
        std::uint64_t bitDepth;
        bool isFloat;
        const char* codec;
    } cases[] = {
        {SF_FORMAT_PCM_S8, "lpcm", 8, false, "pcm_s8"},
        {SF_FORMAT_PCM_16, "lpcm", 16, false, "pcm_s16"},
        {SF_FORMAT_PCM_24, "lpcm", 24, false, "pcm_s24"},
        {SF_FORMAT_PCM_32, "lpcm", 32, false, "pcm_s32"},
        {SF_FORMAT_FLOAT, "lpcm", 32, true, "pcm_f32"},
        {SF_FORMAT_DOUBLE, "lpcm", 64, true, "pcm_f64"},
        {SF_FORMAT_ULAW, "ulaw", 8, false, "pcm_mulaw"},
        {SF_FORMAT_ALAW, "alaw", 8, false, "pcm_alaw"},
    };
    const auto ramp = rampBuffer(3, 1001, 1.0f / 151);
    for (const auto& c : cases) {
        for (const bool little : {false, true}) {
            const bool companded = std::string_view(c.encoding) != "lpcm";
            if (little && companded) {
                continue;
            }
            SCOPED_TRACE(std::string(c.codec) + (little ? " little" : " big"));
            const fs::path theirs = directory / "theirs.caf";
            writeWithLibsndfile(theirs, c.subformat | (little ? SF_ENDIAN_LITTLE : SF_ENDIAN_BIG),
                                3, samplesOf(*ramp));
            const auto read = parsedFile<KROAudioFileCAFContent>(theirs);
            ASSERT_TRUE(read);
            EXPECT_EQ(read->bitDepth(), c.bitDepth);
            EXPECT_EQ(read->frames(), 1001u);
            const std::vector<float> expected = libsndfileSamples(theirs);
            EXPECT_EQ(samplesOf(*allAudio(*read)), expected);

            const fs::path ours = directory / "ours.caf";
            writeFile<KROAudioFileCAFContent>(ours, *ramp, [&](KROAudioFileCAFContent& content) {
                content.setEncoding(kro::fourCC(c.encoding));
                content.setBitDepth(c.bitDepth);
                content.setIsFloatingPoint(c.isFloat);
                content.setAudioDataByteOrder(little ? 1 : 2);
            });
            const auto back = parsedFile<KROAudioFileCAFContent>(ours);
            ASSERT_TRUE(back);
            EXPECT_EQ(libsndfileSamples(ours), samplesOf(*allAudio(*back)));
            const std::string codec = std::string(c.codec) + (companded || c.bitDepth == 8 ? ""
                                                              : little                     ? "le"
                                                                                           : "be");
            const std::string probe =
                peer("ffprobe -v error -show_entries stream=codec_name,channels,duration_ts "
                     "-of default=noprint_wrappers=1 " +
                     ours.string());
            EXPECT_EQ(probe, "codec_name=" + codec + "\nchannels=3\nduration_ts=1001\n");
            EXPECT_EQ(peer("soxi -s " + ours.string() + " && soxi -b " + ours.string()),
                      "1001\n" + std::to_string(c.bitDepth) + "\n");
        }
    }
}

// Markers and regions come back with their names; the info texts reach
// ffprobe as tags and come back as metadata; keys without an info name and
// loops, which CAF has no chunk for, are not written.
TEST(KROAudioFileCAFContent, LabelsAndInfoRoundTripAndReachFfprobe) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "labels.caf";
    writeFile<KROAudioFileCAFContent>(
        path, *rampBuffer(2, 4800, 1.0f / 128), [](KROAudioFileCAFContent& content) {
            content.setBitDepth(24);
            content.labels() = {testLabel("marker", 0.01, 0, {{"name", "Start"}}),
                                testLabel("region", 0.02, 0.03, {{"name", "Intro"}}),
                                testLabel("marker", 0.05, 0), testLabel("loop", 0.04, 0.02)};
            content.metadata() = KROPropertyList::Dictionary{
                {"name", "The take"},       {"artist", "The band"},
                {"trackNumber", 7},         {"tempo", 96.5},
                {"comments", "Quiet room"}, {"description", "not an info key"}};
        });
    const auto read = parsedFile<KROAudioFileCAFContent>(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(labelTexts(*read, 48000),
              (std::vector<std::string>{"marker 480+0 name=Start", "marker 2400+0",
                                        "region 960+1440 name=Intro"}));
    expectMetadata(*read, KROPropertyList::Dictionary{{"name", "The take"},
                                                      {"artist", "The band"},
                                                      {"trackNumber", "7"},
                                                      {"tempo", 96.5},
                                                      {"comments", "Quiet room"}});
    EXPECT_FALSE(read->metadata().objectForKey("description"));
    EXPECT_EQ(read->frames(), 4800u);

    const std::string probe = peer("ffprobe -v error -show_entries format_tags:stream=duration_ts "
                                   "-of default=noprint_wrappers=1 " +
                                   path.string());
    for (const char* line : {"duration_ts=4800", "TAG:title=The take", "TAG:artist=The band",
                             "TAG:track number=7", "TAG:tempo=96.5", "TAG:comments=Quiet room"}) {
        EXPECT_NE(probe.find(line), std::string::npos) << line << " not in\n" << probe;
    }
}

// Files of sox and ffmpeg read here with libsndfile's samples, and ffmpeg's
// tags come back as metadata.
TEST(KROAudioFileCAFContent, FilesOfSoxAndFfmpegReadHere) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "other.caf";
    const std::string file = path.string();
    for (const std::string& command :
         {"sox -n -r 44100 -c 2 -b 24 " + file + " synth 0.1 sine 300 vol 0.5",
          "ffmpeg -v error -f lavfi -i sine=sample_rate=22050:duration=0.1 -c:a pcm_s16le "
          "-metadata title=Sine -y " +
              file}) {
        SCOPED_TRACE(command);
        peer(command);
        const auto read = parsedFile<KROAudioFileCAFContent>(path);
        ASSERT_TRUE(read);
        EXPECT_EQ(samplesOf(*allAudio(*read)), libsndfileSamples(path));
        EXPECT_EQ(std::to_string(read->frames()) + "\n", peer("soxi -s " + file));
    }
    expectMetadata(*parsedFile<KROAudioFileCAFContent>(path),
                   KROPropertyList::Dictionary{{"name", "Sine"}});
    EXPECT_EQ(KROAudioFileContent::fileContentClassAtURL(path)->name(), "KROAudioFileCAFContent");
}

// Damaged files fail with the handler's codes; a data chunk of size -1 runs
// to the end of the file, and one that claims more than the file holds reads
// what is there.
TEST(KROAudioFileCAFContent, DamagedFilesFailWithTheirCodesOrReadWhatTheyHold) {
    KROTemporaryDirectory directory;
    const auto desc = [](const char* format, std::uint32_t flags, std::uint32_t bytes,
                         std::uint32_t channels, std::uint32_t bits) {
        KROTestBytes body;
        body.text("desc").be(32, 8).be(0x40BF400000000000, 8).text(format).be32(flags);
        body.be32(bytes).be32(1).be32(channels).be32(bits);
        return body.data();
    };
    const auto data = [](std::uint64_t size, std::size_t held) {
        return KROTestBytes().text("data").be(size, 8).be32(0).fill(held, 0x11).data();
    };
    const KROData header = KROTestBytes().text("caff").be(1, 2).be(0, 2).data();
    const struct {
        const char* name;
        std::vector<KROData> chunks;
        std::int64_t code;
        std::uint64_t frames;
    } cases[] = {
        {"no desc", {data(8, 4)}, 1, 0},
        {"aac", {desc("aac ", 0, 0, 2, 0), data(8, 4)}, 2, 0},
        {"no data", {desc("lpcm", 0, 4, 2, 16)}, 3, 0},
        {"no channels", {desc("lpcm", 0, 0, 0, 16), data(8, 4)}, 5, 0},
        {"packet size", {desc("lpcm", 0, 6, 2, 16), data(8, 4)}, 5, 0},
        {"to the end", {desc("lpcm", 0, 4, 2, 16), data(~std::uint64_t{0}, 40)}, 0, 10},
        {"cut short", {desc("lpcm", 0, 4, 2, 16), data(4 + 4000, 41)}, 0, 10},
        {"header only", {}, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        KROTestBytes bytes;
        bytes.bytes(header);
        for (const KROData& chunk : c.chunks) {
            bytes.bytes(chunk);
        }
        const fs::path path = directory / "damaged.caf";
        KROWriteTestFile(path, bytes.data());
        KROErrorPtr error;
        const auto read = parsedFile<KROAudioFileCAFContent>(path, &error);
        EXPECT_EQ(error ? error->code() : 0, c.code);
        if (error) {
            EXPECT_EQ(error->className(), "KROAudioFileCAFContentError");
            EXPECT_NE(error->description().find("'damaged'"), std::string::npos)
                << error->description();
        } else {
            ASSERT_TRUE(read);
            EXPECT_EQ(read->frames(), c.frames);
            EXPECT_EQ(allAudio(*read)->channel(0)[0], static_cast<float>(0x1111) / 32768);
        }
    }
}
