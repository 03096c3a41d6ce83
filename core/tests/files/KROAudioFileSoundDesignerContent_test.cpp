// The read-only handlers (Sound Designer I and II, VOX), each read as a peer reads it.
#include <gtest/gtest.h>

#include "KROAudioFileSDIIContent.h"
#include "KROAudioFileSFILContent.h"
#include "KROAudioFileVOXContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"

namespace fs = std::filesystem;

// Markers in use only, the sustain loop with its mode, no release loop
// (start -1); positions are bytes, so halved at 16 bits.
TEST(KROAudioFileSFILContent, HeaderLabelsAndSamples) {
    KROTemporaryDirectory directory;
    KROTestBytes header;
    header.be(0x0538, 2).fill(182).be32(6).fill(348 - 188);
    for (int marker = 0; marker < 10; ++marker) {
        KROTestBytes record;
        record.be(marker == 1 ? 0 : 1, 1).fill(1).be32(200 + marker * 2).be(3, 1).text("Hit");
        header.bytes(record.data()).fill(40 - record.size());
    }
    header.fill(4).be32(100).be32(300).fill(1020 - 760).be32(22050).fill(4).be(16, 2);
    header.fill(1324 - 1030).be32(0xFFFFFFFF).be32(0).be(2, 1).be(1, 1).fill(2);
    ASSERT_EQ(header.size(), 1336u);
    header.be(0x4000, 2).be(0xC000, 2).be(0x2000, 2);
    const fs::path path = directory / "take.sd";
    KROWriteTestFile(path, header.data());
    ASSERT_TRUE(KROAudioFileSFILContent().supportsURL(path));
    const auto content = parsedFile<KROAudioFileSFILContent>(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(content->bitrate(), 16u * 22050);
    EXPECT_EQ(samplesOf(*allAudio(*content)), (std::vector<float>{0.5f, -0.5f, 0.25f}));
    EXPECT_EQ(labelTexts(*content, 22050),
              (std::vector<std::string>{"marker 101+0 name=Hit",
                                        "loop 50+100 loopType=forwardBackward"}));
}

// libsndfile keeps the description in a fork beside the file.
TEST(KROAudioFileSDIIContent, LibsndfileFilesReadHere) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "take.sd2";
    SF_INFO format{0, 32000, 2, SF_FORMAT_SD2 | SF_FORMAT_PCM_24, 0, 0};
    SNDFILE* written = sf_open(path.c_str(), SFM_WRITE, &format);
    ASSERT_TRUE(written);
    std::vector<int> samples(2000);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<int>(i * 999331);
    }
    sf_write_int(written, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(written);
    ASSERT_TRUE(KROAudioFileSDIIContent().supportsURL(path));
    const auto content = parsedFile<KROAudioFileSDIIContent>(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(content->numberOfChannels(), 2u);
    EXPECT_EQ(content->bitDepth(), 24u);
    EXPECT_EQ(content->frames(), 1000u);
    EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(path));
    // Without its fork the file is no Sound Designer II file.
    fs::remove(directory / "._take.sd2");
    EXPECT_FALSE(KROAudioFileSDIIContent().supportsURL(path));
}

// 8000 bytes last a second, and read as sox reads raw mu-law.
TEST(KROAudioFileVOXContent, RawMuLawReadsAsSoxReadsIt) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "call.vox";
    peer("sox -n -r 8000 -c 1 -t ul " + path.string() + " synth 1 sine 300 vol 0.5");
    peer("sox -t ul -r 8000 -c 1 " + path.string() + " -e floating-point " +
         (directory / "call.wav").string());
    ASSERT_EQ(fs::file_size(path), 8000u);
    EXPECT_EQ(KROAudioFileContent::fileContentClassAtURL(path)->name(), "KROAudioFileVOXContent");
    const auto content = parsedFile<KROAudioFileVOXContent>(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(content->frames() / content->sampleRate(), 1.0);
    EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(directory / "call.wav"));
}
