// AU: every encoding round trip as sox and libsndfile read it; files of sox and ffmpeg.
#include <gtest/gtest.h>

#include "KROAudioFileAUContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

namespace {

void writeAU(const fs::path& path, const KROAudioBufferList& buffer,
             const std::function<void(KROAudioFileAUContent&)>& setUp = {}) {
    writeFile<KROAudioFileAUContent>(path, buffer, setUp);
}

} // namespace

TEST(KROAudioFileAUContent, EveryEncodingRoundTripsAsPeersReadIt) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "first.au";
    const struct {
        const char* encoding;
        std::uint64_t bitDepth;
        bool isFloat;
        const char* soxEncoding;
        std::uint8_t code;
    } cases[] = {
        {"ulaw", 8, false, "u-law", 1},
        {"lpcm", 8, false, "Signed Integer PCM", 2},
        {"lpcm", 16, false, "Signed Integer PCM", 3},
        {"lpcm", 24, false, "Signed Integer PCM", 4},
        {"lpcm", 32, false, "Signed Integer PCM", 5},
        {"lpcm", 32, true, "Floating Point PCM", 6},
        {"alaw", 8, false, "A-law", 27},
    };
    const auto ramp = rampBuffer(2, 1001, 1.0f / 151);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.soxEncoding + std::to_string(c.bitDepth));
        const auto setUp = [&](KROAudioFileAUContent& content) {
            content.setEncoding(kro::fourCC(c.encoding));
            content.setBitDepth(c.bitDepth);
            content.setIsFloatingPoint(c.isFloat);
        };
        writeAU(path, *ramp, setUp);
        const KROData file = KROReadTestFile(path);
        const std::uint64_t bytes = 1001 * 2 * c.bitDepth / 8;
        // The header: offset 24, the sample bytes without the pad, the code,
        // 48000 Hz, two channels; an odd length gets one pad byte.
        EXPECT_EQ(KROData(file.begin(), file.begin() + 24), KROTestBytes()
                                                                .text(".snd")
                                                                .be32(24)
                                                                .be32(bytes)
                                                                .be32(c.code)
                                                                .be32(48000)
                                                                .be32(2)
                                                                .data());
        EXPECT_EQ(file.size(), 24 + bytes + bytes % 2);
        const std::string name = path.string();
        EXPECT_EQ(peer("soxi -e " + name + " && soxi -b " + name + " && soxi -s " + name),
                  std::string(c.soxEncoding) + "\n" + std::to_string(c.bitDepth) + "\n" +
                      std::to_string(1001 + bytes % 2 / 2) + "\n");
        const auto read = parsedFile<KROAudioFileAUContent>(path);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->encoding(), kro::fourCC(c.encoding));
        EXPECT_EQ(read->bitrate(), 2 * c.bitDepth * 48000);
        const auto samples = allAudio(*read);
        EXPECT_EQ(samplesOf(*samples), libsndfileSamples(path));
        writeAU(directory / "second.au", *samples, setUp);
        EXPECT_EQ(KROReadTestFile(directory / "second.au"), file);
    }
}

// A data offset of 28 is honoured, and the frames run to the end of the
// file whatever the size field says; an unknown encoding code is code 1.
TEST(KROAudioFileAUContent, HeaderFieldsAsRead) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "hand.au";
    KROWriteTestFile(path, KROTestBytes()
                               .text(".snd")
                               .be32(28)
                               .be32(2)
                               .be32(3)
                               .be32(8000)
                               .be32(1)
                               .fill(4, 0x7F)
                               .be(0x4000, 2)
                               .be(0xC000, 2)
                               .be(0x2000, 2)
                               .data());
    const auto content = parsedFile<KROAudioFileAUContent>(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(samplesOf(*allAudio(*content)), (std::vector<float>{0.5f, -0.5f, 0.25f}));
    KROWriteTestFile(
        path, KROTestBytes().text(".snd").be32(24).be32(0).be32(7).be32(8000).be32(1).data());
    KROErrorPtr error;
    EXPECT_FALSE(parsedFile<KROAudioFileAUContent>(path, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->className(), "KROAudioFileAUContentError");
    EXPECT_EQ(error->code(), 1);
}

TEST(KROAudioFileAUContent, FilesOfSoxAndFfmpegReadHere) {
    KROTemporaryDirectory directory;
    const std::string file = (directory / "other.au").string();
    for (const std::string& command :
         {"sox -n -r 8000 -c 2 -b 16 " + file + " synth 0.05 sine 300 vol 0.5",
          "sox -n -r 8000 -c 1 -e a-law " + file + " synth 0.05 sine 300",
          "ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a pcm_s24be -y " +
              file,
          "ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a pcm_mulaw -y " +
              file}) {
        SCOPED_TRACE(command);
        peer(command);
        const auto content = parsedFile<KROAudioFileAUContent>(file);
        ASSERT_TRUE(content);
        EXPECT_EQ(content->frames(), 400u);
        EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(file));
    }
}
