// Ogg Vorbis and MP3 against oggdec/oggenc, mpg123/lame and ffprobe; tags; damaged files.
#include <gtest/gtest.h>

#include <cmath>

#include "KROAudioFileMP3Content.h"
#include "KROAudioFileVorbisContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROTestCommand.h"

namespace fs = std::filesystem;

namespace {

// The samples read here against the reference decoder's WAVE output: the
// same length, and within 1e-4 RMS.
void expectDecodedAsReference(const std::vector<float>& ours, const fs::path& reference) {
    const std::vector<float> theirs = libsndfileSamples(reference);
    ASSERT_EQ(ours.size(), theirs.size());
    EXPECT_LT(rmsDifference(ours, theirs), 1e-4);
}

// Two seconds of two tones at 44.1 kHz, not a multiple of any codec's frame.
std::shared_ptr<KROAudioBufferList> toneBuffer(std::uint32_t channels) {
    constexpr std::uint64_t frames = 88237;
    auto buffer = KROAudioBufferList::bufferListWithChannels(channels, frames);
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        for (std::uint64_t frame = 0; frame < frames; ++frame) {
            buffer->channel(channel)[frame] =
                0.4f * std::sin(float(frame) * 0.0627f * float(channel + 1));
        }
    }
    return buffer;
}

} // namespace

// oggenc's file reads here as oggdec decodes it, with its comments; what is
// written here decodes in oggdec to the same length and samples, ffprobe
// sees its tags, and a higher quality makes a larger file.
TEST(KROAudioFileVorbisContent, ReadsAndWritesAsOggencAndOggdec) {
    KROTemporaryDirectory directory;
    const fs::path wave = directory / "source.wav";
    const fs::path theirs = directory / "theirs.ogg";
    const fs::path decoded = directory / "decoded.wav";
    writeWAVE(wave, *toneBuffer(2));
    peer("oggenc -Q -q 4 -t Tones -a 'The band' -c MOOD=calm -o " + theirs.string() + " " +
         wave.string());
    peer("oggdec -Q -o " + decoded.string() + " " + theirs.string());
    auto read = parsedFile<KROAudioFileVorbisContent>(theirs);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->sampleRate(), 48000);
    const std::vector<float> whole = samplesOf(*allAudio(*read));
    expectDecodedAsReference(whole, decoded);
    expectMetadata(*read, KROPropertyList::Dictionary{
                              {"name", "Tones"}, {"artist", "The band"}, {"MOOD", "calm"}});
    // From the middle, as from the start.
    EXPECT_EQ(samplesFrom(*read, 40000), std::vector<float>(whole.begin() + 80000, whole.end()));

    std::uintmax_t sizes[2] = {};
    for (const float quality : {0.1f, 0.9f}) {
        SCOPED_TRACE(quality);
        const fs::path ours = directory / "ours.ogg";
        writeFile<KROAudioFileVorbisContent>(ours, *toneBuffer(2), [&](auto& content) {
            content.setSampleRate(44100);
            content.setQuality(quality);
            content.metadata() = KROPropertyList::Dictionary{{"name", "Ramp"}, {"trackNumber", 4}};
        });
        peer("oggdec -Q -o " + decoded.string() + " " + ours.string());
        read = parsedFile<KROAudioFileVorbisContent>(ours);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->frames(), 88237u);
        expectDecodedAsReference(samplesOf(*allAudio(*read)), decoded);
        expectLines(peer("ffprobe -v error -show_entries stream=codec_name,duration_ts:"
                         "stream_tags -of default=noprint_wrappers=1 " +
                         ours.string()),
                    {"codec_name=vorbis", "duration_ts=88237", "TAG:TITLE=Ramp", "TAG:track=4"});
        sizes[quality > 0.5f] = fs::file_size(ours);
    }
    EXPECT_LT(sizes[0], sizes[1]);
}

// lame's file reads here as mpg123 decodes it, gapless, with its ID3v2
// tag; what is written here at a constant and a variable bitrate decodes
// in mpg123 to the input's exact length and the same samples, and ffprobe
// sees the bitrate mode and tags.
TEST(KROAudioFileMP3Content, ReadsAndWritesAsLameAndMpg123) {
    KROTemporaryDirectory directory;
    const fs::path wave = directory / "source.wav";
    const fs::path theirs = directory / "theirs.mp3";
    const fs::path decoded = directory / "decoded.wav";
    writeWAVE(wave, *toneBuffer(2));
    peer("lame --quiet -V 2 --tt Tones --ta 'The band' --id3v2-only " + wave.string() + " " +
         theirs.string());
    peer("mpg123 -q -w " + decoded.string() + " " + theirs.string());
    auto read = parsedFile<KROAudioFileMP3Content>(theirs);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->frames(), 88237u);
    const std::vector<float> whole = samplesOf(*allAudio(*read));
    expectDecodedAsReference(whole, decoded);
    expectMetadata(*read, KROPropertyList::Dictionary{{"name", "Tones"}, {"artist", "The band"}});
    EXPECT_EQ(samplesFrom(*read, 40000), std::vector<float>(whole.begin() + 80000, whole.end()));

    const struct {
        std::uint64_t bitrate;
        const char* probe;
    } cases[] = {{128000, "bit_rate=128000"}, {0, "codec_name=mp3"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bitrate);
        const fs::path ours = directory / "ours.mp3";
        writeFile<KROAudioFileMP3Content>(ours, *toneBuffer(1), [&](auto& content) {
            content.setSampleRate(44100);
            content.setBitrate(c.bitrate);
            content.metadata() =
                KROPropertyList::Dictionary{{"name", "Ramp"}, {"artist", "KROCore"}};
        });
        peer("mpg123 -q -w " + decoded.string() + " " + ours.string());
        read = parsedFile<KROAudioFileMP3Content>(ours);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->frames(), 88237u);
        expectDecodedAsReference(samplesOf(*allAudio(*read)), decoded);
        expectMetadata(*read, KROPropertyList::Dictionary{{"name", "Ramp"}, {"artist", "KROCore"}});
        expectLines(peer("ffprobe -v error -show_entries stream=codec_name,bit_rate:format_tags "
                         "-of default=noprint_wrappers=1 " +
                         ours.string()),
                    {c.probe, "TAG:title=Ramp", "TAG:artist=KROCore"});
    }
}

// Files cut inside their headers fail with code 1; damaged streams cut
// short read without failing; MP3 refuses a third channel.
TEST(KROAudioFileLossyContent, DamagedFilesFailOrReadWhatTheyHold) {
    KROTemporaryDirectory directory;
    const fs::path ogg = directory / "good.ogg";
    const fs::path mp3 = directory / "good.mp3";
    // A sawtooth, whose harmonics fill pages enough to cut.
    const auto ramp = rampBuffer(1, 88237, 1.0f / 151);
    writeFile<KROAudioFileVorbisContent>(ogg, *ramp,
                                         [](auto& content) { content.setSampleRate(44100); });
    writeFile<KROAudioFileMP3Content>(mp3, *ramp,
                                      [](auto& content) { content.setSampleRate(44100); });
    const fs::path path = directory / "damaged";
    for (const fs::path& good : {ogg, mp3}) {
        SCOPED_TRACE(good.filename().string());
        const KROData bytes = KROReadTestFile(good);
        const bool isOgg = good == ogg;
        const auto parse = [&](KROErrorPtr* error) -> std::shared_ptr<KROAudioFileContent> {
            if (isOgg) {
                return parsedFile<KROAudioFileVorbisContent>(path, error);
            }
            return parsedFile<KROAudioFileMP3Content>(path, error);
        };
        KROWriteTestFile(path, KROData(bytes.begin(), bytes.begin() + 20));
        KROErrorPtr error;
        EXPECT_FALSE(parse(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 1);
        EXPECT_EQ(error->className(),
                  isOgg ? "KROAudioFileVorbisContentError" : "KROAudioFileMP3ContentError");

        KROData damaged(bytes.begin(), bytes.end() - bytes.size() / 3);
        // Past the headers, which hold Vorbis's code books.
        for (std::size_t at = damaged.size() * 3 / 4; at < damaged.size() * 3 / 4 + 50; ++at) {
            damaged[at] ^= 0x5A;
        }
        KROWriteTestFile(path, damaged);
        const auto read = parse(nullptr);
        ASSERT_TRUE(read);
        // An MP3 keeps the length of its LAME header and ends in silence; an
        // Ogg stream ends with its last whole page.
        const std::vector<float> samples = samplesOf(*allAudio(*read));
        EXPECT_EQ(samples.size(), read->frames());
        if (isOgg) {
            EXPECT_GT(read->frames(), 20000u);
            EXPECT_LT(read->frames(), 88237u);
        } else {
            EXPECT_EQ(read->frames(), 88237u);
            EXPECT_EQ(samples.back(), 0.0f);
        }
    }
    KROAudioFileMP3Content three;
    three.setSampleRate(44100);
    three.setNumberOfChannels(3);
    KROErrorPtr error;
    EXPECT_FALSE(three.beginWrite(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 2);
}
