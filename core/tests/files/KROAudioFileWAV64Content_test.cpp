// Wave64: layout, round trips, and files of sox, ffmpeg and libsndfile read here.
#include <gtest/gtest.h>

#include "KROAudioFileWAV64Content.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

namespace {

void writeW64(const fs::path& path, const KROAudioBufferList& buffer,
              const std::function<void(KROAudioFileWAV64Content&)>& setUp = {}) {
    writeFile<KROAudioFileWAV64Content>(path, buffer, setUp);
}

std::uint64_t le64At(const KROData& bytes, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 8; i-- > 0;) {
        value = (value << 8) | bytes[offset + i];
    }
    return value;
}

} // namespace

// Three sample bytes are padded with five zeros that the data size of 27
// does not count; the total size is the file's length.
TEST(KROAudioFileWAV64Content, SamplesArePaddedToEightBytes) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "odd.w64";
    writeW64(path, *rampBuffer(1, 3, 0.01f),
             [](KROAudioFileWAV64Content& content) { content.setBitDepth(8); });
    const KROData file = KROReadTestFile(path);
    EXPECT_EQ(le64At(file, 16), file.size());
    // riff header 40, 'fmt ' 24 + 16, then 'data'.
    ASSERT_EQ(file.size(), 80u + 24 + 8);
    EXPECT_EQ(std::string(file.begin() + 80, file.begin() + 84), "data");
    EXPECT_EQ(le64At(file, 96), 27u);
    EXPECT_EQ(KROData(file.end() - 5, file.end()), KROData(5, 0));
    const auto read = parsedFile<KROAudioFileWAV64Content>(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->frames(), 3u);
    // Only a file named .w64, in any case, is taken for one.
    fs::copy_file(path, directory / "odd.wav");
    fs::copy_file(path, directory / "ODD.W64");
    EXPECT_TRUE(KROAudioFileWAV64Content().supportsURL(directory / "ODD.W64"));
    EXPECT_FALSE(KROAudioFileWAV64Content().supportsURL(directory / "odd.wav"));
    EXPECT_EQ(KROAudioFileContent::fileContentClassAtURL(path)->name(), "KROAudioFileWAV64Content");
}

// Each sample format reads back as libsndfile reads it, and soxi and ffprobe
// see it, with markers, regions, loops and the summary and broadcast texts.
// sox, ffmpeg and libsndfile read the samples to the end of the file: the
// padding after them and any acid or slice chunk would count as frames, so
// these files have whole multiples of 8 bytes and no such chunk.
TEST(KROAudioFileWAV64Content, EverySampleFormatRoundTripsAsPeersReadIt) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "take.w64";
    const struct {
        const char* encoding;
        std::uint64_t bitDepth;
        bool isFloat;
        const char* codec;
    } cases[] = {
        {"lpcm", 16, false, "pcm_s16le"},
        {"lpcm", 24, false, "pcm_s24le"},
        {"lpcm", 32, true, "pcm_f32le"},
        {"ulaw", 8, false, "pcm_mulaw"},
    };
    const auto ramp = rampBuffer(2, 1000, 1.0f / 151);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.codec);
        writeW64(path, *ramp, [&](KROAudioFileWAV64Content& content) {
            content.setEncoding(kro::fourCC(c.encoding));
            content.setBitDepth(c.bitDepth);
            content.setIsFloatingPoint(c.isFloat);
            content.labels() = {testLabel("marker", 0.001, 0, {{"name", "Cue"}}),
                                testLabel("loop", 0.004, 0.002, {{"loopType", "forward"}})};
            content.metadata() =
                KROPropertyList::Dictionary{{"name", "Take"}, {"description", "Room"}};
        });
        const std::string file = path.string();
        EXPECT_EQ(peer("soxi -s " + file + " && soxi -c " + file), "1000\n2\n");
        expectLines(peer("ffprobe -v error -show_entries stream=codec_name,duration_ts "
                         "-of default=noprint_wrappers=1 " +
                         file),
                    {std::string("codec_name=") + c.codec, "duration_ts=1000"});
        const auto read = parsedFile<KROAudioFileWAV64Content>(path);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->bitDepth(), c.bitDepth);
        EXPECT_EQ(read->encoding(), kro::fourCC(c.encoding));
        EXPECT_EQ(samplesOf(*allAudio(*read)), libsndfileSamples(path));
    }
}

// Markers with names beyond ASCII, regions, loops, slices, the loop-file
// keys and the summary and broadcast texts survive; broadcast dates read
// back as text.
TEST(KROAudioFileWAV64Content, LabelsAndMetadataRoundTrip) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "labels.w64";
    writeW64(path, *rampBuffer(2, 999, 1.0f / 151), [](KROAudioFileWAV64Content& content) {
        content.labels() = {testLabel("marker", 0.001, 0, {{"name", "Café"}}),
                            testLabel("region", 0.002, 0.003, {{"name", "Intro"}}),
                            testLabel("loop", 0.004, 0.002, {{"loopType", "backward"}}),
                            testLabel("slice", 0.005, 0)};
        // clang-format off
        content.metadata() = KROPropertyList::Dictionary{
            {"name", "Take"}, {"comments", "Quiet"}, {"description", "Room"},
            {"originationDate", "2024-03-05"}, {"beats", 8}, {"tempo", 90.0},
            {"musicalKey", "D"}};
        // clang-format on
    });
    const auto read = parsedFile<KROAudioFileWAV64Content>(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(labelTexts(*read, 48000),
              (std::vector<std::string>{
                  "marker 48+0 id=2 name=Café", "region 96+144 id=3 name=Intro",
                  "loop 192+96 loopType=backward loopPhase=sustain", "slice 240+0"}));
    // clang-format off
    expectMetadata(*read, KROPropertyList::Dictionary{
        {"name", "Take"}, {"comments", "Quiet"}, {"description", "Room"},
        {"originationDate", "2024-03-05"}, {"beats", 8}, {"tempo", 90.0}});
    // clang-format on
    // The root note is written but not read back.
    EXPECT_FALSE(read->metadata().objectForKey("musicalKey"));
}

// Files that sox, ffmpeg and libsndfile write read here with the samples
// libsndfile reads.
TEST(KROAudioFileWAV64Content, FilesOfSoxFfmpegAndLibsndfileReadHere) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "other.w64";
    const std::string file = path.string();
    for (const std::string& command :
         {"sox -n -r 8000 -c 2 -b 16 " + file + " synth 0.05 sine 300 vol 0.5",
          "sox -n -r 8000 -c 1 -e floating-point -b 32 " + file + " synth 0.05 sine 300",
          "ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a pcm_s24le -y " +
              file}) {
        SCOPED_TRACE(command);
        peer(command);
        const auto content = parsedFile<KROAudioFileWAV64Content>(path);
        ASSERT_TRUE(content);
        EXPECT_EQ(content->frames(), 400u);
        EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(path));
    }
    SF_INFO info{0, 44100, 1, SF_FORMAT_W64 | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* written = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(written);
    std::vector<short> samples(4410);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<short>(i * 7);
    }
    sf_write_short(written, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(written);
    const auto content = parsedFile<KROAudioFileWAV64Content>(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(path));
}
