// AIFF and AIFC both ways against libsndfile, sndfile-info, sox, soxi, ffmpeg and ffprobe.
#include <gtest/gtest.h>

#include "KROAudioFileAIFFContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

namespace {

void writeAIFF(const fs::path& path, const KROAudioBufferList& buffer,
               const std::function<void(KROAudioFileAIFFContent&)>& setUp = {}) {
    writeFile<KROAudioFileAIFFContent>(path, buffer, setUp);
}

} // namespace

// Each sample format reads back as libsndfile reads it and writes back to
// the same file byte for byte; soxi and ffprobe see its encoding, depth and
// length.
TEST(KROAudioFileAIFFContent, EverySampleFormatRoundTripsAsPeersReadIt) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "first.aif";
    const struct {
        std::uint64_t bitDepth;
        std::int32_t byteOrder;
        bool isFloat;
        const char* soxEncoding;
        const char* codec;
    } cases[] = {
        {8, 2, false, "Signed Integer PCM", "pcm_s8"},
        {16, 2, false, "Signed Integer PCM", "pcm_s16be"},
        {16, 1, false, "Signed Integer PCM", "pcm_s16le"},
        {24, 2, false, "Signed Integer PCM", "pcm_s24be"},
        {32, 2, false, "Signed Integer PCM", "pcm_s32be"},
        {32, 2, true, "Floating Point PCM", "pcm_f32be"},
    };
    const auto ramp = rampBuffer(3, 1001, 1.0f / 151);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.codec);
        const auto setUp = [&](KROAudioFileAIFFContent& content) {
            content.setBitDepth(c.bitDepth);
            content.setAudioDataByteOrder(c.byteOrder);
            content.setIsFloatingPoint(c.isFloat);
        };
        writeAIFF(path, *ramp, setUp);
        const std::string file = path.string();
        EXPECT_EQ(peer("soxi -e " + file + " && soxi -b " + file + " && soxi -s " + file +
                       " && soxi -c " + file),
                  std::string(c.soxEncoding) + "\n" + std::to_string(c.bitDepth) + "\n1001\n3\n");
        expectLines(peer("ffprobe -v error -show_entries stream=codec_name,duration_ts "
                         "-of default=noprint_wrappers=1 " +
                         file),
                    {std::string("codec_name=") + c.codec, "duration_ts=1001"});

        const auto read = parsedFile<KROAudioFileAIFFContent>(path);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->bitDepth(), c.bitDepth);
        EXPECT_EQ(read->isFloatingPoint(), c.isFloat);
        const auto samples = allAudio(*read);
        EXPECT_EQ(samplesOf(*samples), libsndfileSamples(path));
        writeAIFF(directory / "second.aif", *samples, setUp);
        EXPECT_EQ(KROReadTestFile(directory / "second.aif"), KROReadTestFile(path));
    }
}

// libsndfile and sndfile-info see the markers, the loops with their modes,
// the base note and the texts written here.
TEST(KROAudioFileAIFFContent, LibsndfileReadsOurLabelsAndMetadata) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "ours.aif";
    writeAIFF(path, *rampBuffer(2, 4800, 1.0f / 128), [](KROAudioFileAIFFContent& content) {
        content.setBitDepth(24);
        content.labels() = {testLabel("loop", 0.01, 0.02, {{"loopType", "forwardBackward"}}),
                            testLabel("loop", 0.05, 0.01, {{"loopPhase", "release"}}),
                            testLabel("marker", 0.04, 0, {{"name", "Cue"}})};
        content.metadata() = KROPropertyList::Dictionary{
            {"baseNote", 60}, {"name", "Take"}, {"copyright", "2026 KRO"}, {"annotation", "Note"}};
    });
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_TRUE(file) << sf_strerror(nullptr);
    EXPECT_EQ(info.format, SF_FORMAT_AIFF | SF_FORMAT_PCM_24);
    SF_INSTRUMENT instrument{};
    ASSERT_EQ(sf_command(file, SFC_GET_INSTRUMENT, &instrument, sizeof instrument), SF_TRUE);
    EXPECT_EQ(instrument.basenote, 60);
    ASSERT_EQ(instrument.loop_count, 2);
    EXPECT_EQ(instrument.loops[0].start, 480u);
    EXPECT_EQ(instrument.loops[0].end, 1440u);
    EXPECT_EQ(instrument.loops[1].start, 2400u);
    EXPECT_EQ(sf_get_string(file, SF_STR_TITLE), std::string("Take"));
    EXPECT_EQ(sf_get_string(file, SF_STR_COPYRIGHT), std::string("2026 KRO"));
    sf_close(file);
    expectLines(peer("sndfile-info " + path.string()),
                // The play modes as stored, 800 added: 2 forward-backward, 1 forward.
                {"Sustain\n   mode  : 802", "Release\n   mode  : 801", "Count : 5",
                 "Mark ID  : 5\n   Position : 1920\n   Name     : Cue", "Frames      : 4800",
                 "Channels    : 2", "Sample Rate : 48000"});
    expectLines(peer("ffprobe -v error -show_entries format_tags -of default=noprint_wrappers=1 " +
                     path.string()),
                {"TAG:title=Take", "TAG:copyright=2026 KRO", "TAG:comment=Note"});
}

// sox's, ffmpeg's and libsndfile's AIFF and AIFC files, with each
// compression type they write, read here with the samples libsndfile reads.
TEST(KROAudioFileAIFFContent, FilesOfSoxFfmpegAndLibsndfileReadHere) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "other.aif";
    const std::string file = path.string();
    const std::string ffmpeg =
        "ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a ";
    const std::string sox = "sox -n -r 8000 -c 2 ";
    const std::string soxTail = " " + file + " synth 0.05 sine 300 vol 0.5";
    const struct {
        std::string command;
        const char* encoding;
        std::uint64_t bitDepth;
        bool isFloat;
    } cases[] = {
        {ffmpeg + "pcm_s16be -y " + file, "lpcm", 16, false},
        {ffmpeg + "pcm_s24be -y " + file, "lpcm", 24, false},
        {ffmpeg + "pcm_s16le -y " + file, "lpcm", 16, false},
        {ffmpeg + "pcm_f32be -y " + file, "lpcm", 32, true},
        {ffmpeg + "pcm_mulaw -y " + file, "ulaw", 8, false},
        {ffmpeg + "pcm_alaw -y " + file, "alaw", 8, false},
        {sox + "-b 8 -t aiff" + soxTail, "lpcm", 8, false},
        {sox + "-b 32 -t aiff" + soxTail, "lpcm", 32, false},
        {sox + "-b 16 -t aifc" + soxTail, "lpcm", 16, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        peer(c.command);
        const auto content = parsedFile<KROAudioFileAIFFContent>(path);
        ASSERT_TRUE(content);
        EXPECT_EQ(content->encoding(), kro::fourCC(c.encoding));
        EXPECT_EQ(content->bitDepth(), c.bitDepth);
        EXPECT_EQ(content->isFloatingPoint(), c.isFloat);
        EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(path));
    }
    // libsndfile's own, with a title; it writes no markers or loops in AIFF.
    SF_INFO info{0, 44100, 1, SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* written = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(written);
    sf_set_string(written, SF_STR_TITLE, "Titled");
    std::vector<short> samples(4410);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<short>(i * 7);
    }
    sf_write_short(written, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(written);
    const auto content = parsedFile<KROAudioFileAIFFContent>(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(path));
    expectMetadata(*content, KROPropertyList::Dictionary{{"name", "Titled"}});
}
