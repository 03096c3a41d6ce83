// The header probe beside soxi and ffprobe, with its own tolerances and codes.
#include <gtest/gtest.h>

#include "KROAudioFileInfo.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

// Format, encoding, depth, channels, rate and length of each file as soxi
// and ffprobe see them. A Wave64 length counts the 24 header bytes of its
// data chunk, 6 frames of 4 bytes here, on purpose.
TEST(KROAudioFileInfo, AgreesWithSoxiAndFfprobe) {
    KROTemporaryDirectory directory;
    const std::string sox = "sox -n -r 22050 -c 2 ";
    const std::string ffmpeg = "ffmpeg -v error -f lavfi -i sine=sample_rate=16000:duration=0.25 ";
    const struct {
        const char* name;
        std::string command;
        const char* format;
        const char* encoding;
        std::uint64_t bitDepth;
        bool isFloat;
        std::uint64_t extraFrames;
    } cases[] = {
        {"a.wav", sox + "-b 16", "WAVE", "lpcm", 16, false, 0},
        {"b.wav", sox + "-e floating-point -b 32", "WAVE", "lpcm", 32, true, 0},
        {"c.wav", ffmpeg + "-c:a pcm_mulaw", "WAVE", "ulaw", 8, false, 0},
        {"d.aif", sox + "-b 24", "AIFF", "lpcm", 24, false, 0},
        {"e.aif", ffmpeg + "-c:a pcm_f32be", "AIFF", "lpcm", 32, true, 0},
        {"f.w64", sox + "-b 16", "Wave64", "lpcm", 16, false, 6},
        {"g.au", sox + "-e u-law", "AU", "ulaw", 8, false, 0},
        {"h.au", sox + "-e a-law", "AU", "alaw", 8, false, 0},
        {"i.au", sox + "-b 16", "AU", "lpcm", 16, false, 0},
        {"j.flac", sox + "-b 24", "FLAC", "flac", 24, false, 0},
        {"k.ogg", sox, "Ogg Vorbis", "vorb", 0, false, 0},
        {"l.caf", ffmpeg + "-c:a pcm_s16le", "CAF", "lpcm", 16, false, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string file = (directory / c.name).string();
        peer(c.command.starts_with("sox") ? c.command + " " + file + " synth 0.25 sine 300 vol 0.5"
                                          : c.command + " -y " + file);
        KROAudioFileInfo info;
        KROErrorPtr error;
        ASSERT_TRUE(info.initWithURL(file, &error));
        EXPECT_FALSE(error) << error->description();
        EXPECT_EQ(info.format(), c.format);
        EXPECT_EQ(kro::stringWithFourCharCode(info.encoding()), c.encoding);
        EXPECT_EQ(info.bitDepth(), c.bitDepth);
        EXPECT_EQ(info.floatingPoint(), c.isFloat);
        EXPECT_EQ(info.fileSize(), fs::file_size(file));
        const std::string channels = std::to_string(info.numberOfChannels());
        const std::string rate = std::to_string(std::llround(info.sampleRate()));
        const std::string frames = std::to_string(info.frames() - c.extraFrames);
        EXPECT_EQ(peer("ffprobe -v error -show_entries stream=sample_rate,channels,duration_ts "
                       "-of csv=p=0 " +
                       file),
                  rate + "," + channels + "," + frames + "\n");
        if (!std::string(c.name).ends_with(".caf")) {
            EXPECT_EQ(peer("soxi -c " + file + " && soxi -r " + file + " && soxi -s " + file),
                      channels + "\n" + rate + "\n" + frames + "\n");
        }
        EXPECT_DOUBLE_EQ(info.length(), info.frames() / info.sampleRate());
    }
}

// What the probe tolerates, and its codes: a file under 4 bytes fails with
// 1; a chunked file without its sample chunk answers with zero frames and
// the error set; an unknown WAVE tag or unknown content fails with 2; any
// content named .vox is VOX unless its magic comes first; a file with a
// resource fork and no magic of its own is Sound Designer II.
TEST(KROAudioFileInfo, ToleranceAndCodes) {
    KROTemporaryDirectory directory;
    const KROData common = KROTestBytes()
                               .text("COMM")
                               .be32(18)
                               .be(1, 2)
                               .be32(0)
                               .be(16, 2)
                               .be(0x400B, 2)
                               .be(0xFA, 1)
                               .fill(7)
                               .data();
    const KROData wave = KROTestBytes().text("RIFF").be32(0).text("WAVE").data();
    const struct {
        const char* name;
        KROData bytes;
        bool succeeds;
        std::int64_t code;
        const char* format;
        std::uint64_t frames;
    } cases[] = {
        {"short.wav", KROTestBytes().text("RIF").data(), false, 1, "", 0},
        {"nosound.aif", KROTestBytes().text("FORM").be32(30).text("AIFF").bytes(common).data(),
         true, 1, "AIFF", 0},
        {"tag.wav",
         KROTestBytes().bytes(wave).text("fmt ").le32(16).le(2, 2).fill(14).fill(8).data(), false,
         2, "WAVE", 0},
        {"noise.bin", KROData(64, 0x55), false, 2, "", 0},
        {"any.vox", KROData(8000, 0x55), true, 0, "VOX", 8000},
        {"riff.vox", KROTestBytes().bytes(wave).fill(8).data(), true, 1, "WAVE", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        KROWriteTestFile(directory / c.name, c.bytes);
        KROAudioFileInfo info;
        KROErrorPtr error;
        EXPECT_EQ(info.initWithURL(directory / c.name, &error), c.succeeds);
        EXPECT_EQ(error ? error->code() : 0, c.code);
        EXPECT_EQ(info.format(), c.format);
        EXPECT_EQ(info.frames(), c.frames);
    }
    // libsndfile keeps the description of a Sound Designer II file in a fork beside it.
    const fs::path path = directory / "take.sd2";
    SF_INFO format{0, 32000, 2, SF_FORMAT_SD2 | SF_FORMAT_PCM_24, 0, 0};
    SNDFILE* written = sf_open(path.c_str(), SFM_WRITE, &format);
    ASSERT_TRUE(written);
    std::vector<int> samples(2000, 1 << 20);
    sf_write_int(written, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(written);
    KROAudioFileInfo info;
    ASSERT_TRUE(info.initWithURL(path));
    EXPECT_EQ(info.format(), "Sound Designer II File");
    EXPECT_EQ(info.numberOfChannels(), 2u);
    EXPECT_EQ(info.bitDepth(), 24u);
    EXPECT_EQ(info.sampleRate(), 32000);
    EXPECT_EQ(info.frames(), 1000u);
    EXPECT_EQ(info.bitrate(), 2u * 24 * 32000);
}
