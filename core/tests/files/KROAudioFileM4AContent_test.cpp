// M4A (AAC, ALAC) files both ways against ffmpeg, the iTunes atoms, damaged files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "KROAudioFileM4AContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"
#include "KROTestCommand.h"

namespace fs = std::filesystem;

namespace {

// The interleaved floats that ffmpeg decodes from the file.
std::vector<float> ffmpegSamples(const fs::path& path) {
    const std::string bytes = peer("ffmpeg -v error -i " + path.string() + " -f f32le -");
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(float));
    return samples;
}

} // namespace

// ffmpeg's AAC and ALAC read here as ffmpeg decodes them, to the same
// length, and from any frame after a full read, with their atoms as
// metadata.
TEST(KROAudioFileM4AContent, FilesOfFfmpegReadAsFfmpegDecodesThem) {
    KROTemporaryDirectory directory;
    const fs::path wave = directory / "source.wav";
    // Tones: AAC fills noisy bands from the decoder's running noise generator,
    // which a seek cannot put back, so noise reads differently after a seek.
    peer("sox -n -r 44100 -c 2 -b 16 " + wave.string() +
         " synth 100003s sine 300 sine 1250 vol 0.5");
    for (const char* codec : {"alac", "aac -b:a 160k"}) {
        SCOPED_TRACE(codec);
        const fs::path path = directory / "theirs.m4a";
        peer("ffmpeg -v error -y -i " + wave.string() + " -c:a " + codec +
             " -metadata title=Ramp -metadata artist='The band' -metadata track=5 -metadata "
             "date=2024 " +
             path.string());
        const auto read = parsedFile<KROAudioFileM4AContent>(path);
        ASSERT_TRUE(read);
        const std::vector<float> theirs = ffmpegSamples(path);
        const std::vector<float> ours = samplesOf(*allAudio(*read));
        ASSERT_EQ(ours.size(), theirs.size());
        EXPECT_EQ(ours, theirs);
        const std::vector<float> tail = samplesFrom(*read, 54321, 3000);
        ASSERT_EQ(tail.size(), ours.size() - 2 * 54321);
        // ALAC exactly; AAC within its noise, far below a frame out of place.
        EXPECT_LT(rmsDifference(tail, std::vector<float>(ours.begin() + 2 * 54321, ours.end())),
                  std::string_view(codec) == "alac" ? 1e-9 : 1e-3);
        expectMetadata(*read, KROPropertyList::Dictionary{{"name", "Ramp"},
                                                          {"artist", "The band"},
                                                          {"trackNumber", "5"},
                                                          {"year", "2024"}});
    }
}

// ALAC written here at 16 and 24 bits decodes in ffmpeg to the source bit
// for bit; AAC to the same length as read here and within 1e-4 RMS of it;
// ffprobe sees the codec, depth and atoms.
TEST(KROAudioFileM4AContent, OurFilesDecodeInFfmpeg) {
    KROTemporaryDirectory directory;
    const auto ramp = rampBuffer(2, 100003, 1.0f / 211);
    const struct {
        const char* encoding;
        std::uint64_t bitDepth;
        const char* probe;
    } cases[] = {{"alac", 16, "bits_per_raw_sample=16"},
                 {"alac", 24, "bits_per_raw_sample=24"},
                 {"aac ", 16, "codec_name=aac"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.encoding) + std::to_string(c.bitDepth));
        KROAudioFileM4AContent content;
        content.setWritingDirectory(directory.path());
        content.setSampleRate(48000);
        content.setNumberOfChannels(2);
        content.setEncoding(kro::fourCC(c.encoding));
        content.setBitDepth(c.bitDepth);
        content.metadata() = KROPropertyList::Dictionary{
            {"name", "Ramp"}, {"artist", "KROCore"}, {"comments", "Quiet"}};
        KROErrorPtr error;
        ASSERT_TRUE(content.beginWrite(&error) && content.writeAudio(*ramp, &error) &&
                    content.endWrite(&error))
            << (error ? error->description() : "");
        const fs::path path = directory / "ours.m4a";
        fs::rename(content.URL(), path);

        const std::vector<float> theirs = ffmpegSamples(path);
        const auto read = parsedFile<KROAudioFileM4AContent>(path);
        ASSERT_TRUE(read);
        const std::vector<float> ours = samplesOf(*allAudio(*read));
        ASSERT_EQ(ours.size(), theirs.size());
        EXPECT_LT(rmsDifference(ours, theirs), 1e-4);
        if (std::string_view(c.encoding) == "alac") {
            const fs::path wave = directory / "same.wav";
            writeWAVE(wave, *ramp, [&](auto& same) { same.setBitDepth(c.bitDepth); });
            EXPECT_EQ(theirs, libsndfileSamples(wave));
        }
        expectLines(peer("ffprobe -v error -show_entries stream=codec_name,bits_per_raw_sample:"
                         "format_tags -of default=noprint_wrappers=1 " +
                         path.string()),
                    {c.probe, "TAG:title=Ramp", "TAG:artist=KROCore", "TAG:comment=Quiet"});
        expectMetadata(*read, KROPropertyList::Dictionary{{"name", "Ramp"}, {"comments", "Quiet"}});
    }
}

// A file cut inside its header fails with code 1, and one with no audio
// track too; a file cut inside its samples reads without failing.
TEST(KROAudioFileM4AContent, DamagedFilesFailOrReadWhatTheyHold) {
    KROTemporaryDirectory directory;
    const fs::path good = directory / "good.m4a";
    peer("ffmpeg -v error -f lavfi -i sine=sample_rate=44100:duration=1 -c:a alac " +
         good.string());
    const KROData bytes = KROReadTestFile(good);
    const fs::path path = directory / "damaged.m4a";
    KROWriteTestFile(path, KROData(bytes.begin(), bytes.begin() + 40));
    KROErrorPtr error;
    EXPECT_FALSE(parsedFile<KROAudioFileM4AContent>(path, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 1);
    EXPECT_EQ(error->className(), "KROAudioFileM4AContentError");

    // ffmpeg puts the index after the samples, so a cut loses the index.
    peer("ffmpeg -v error -f lavfi -i sine=sample_rate=44100:duration=1 -c:a alac -movflags "
         "+faststart -y " +
         good.string());
    const KROData indexed = KROReadTestFile(good);
    KROWriteTestFile(path, KROData(indexed.begin(), indexed.end() - indexed.size() / 3));
    const auto read = parsedFile<KROAudioFileM4AContent>(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(samplesOf(*allAudio(*read)).size(), read->frames());
}
