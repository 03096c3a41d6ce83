// FLAC files both ways against flac, metaflac and ffprobe: samples, comments, cues, seeks.
#include <gtest/gtest.h>

#include "KROAudioFileFLACContent.h"
#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROTestCommand.h"

namespace fs = std::filesystem;

// What the flac program encodes from sox's noise reads here bit for bit as
// libsndfile reads the source, from the start and from any frame, with its
// tags as metadata.
TEST(KROAudioFileFLACContent, FilesOfTheFlacProgramReadBitExact) {
    KROTemporaryDirectory directory;
    const fs::path wave = directory / "source.wav";
    const fs::path flac = directory / "theirs.flac";
    for (const char* depth : {"16", "24"}) {
        SCOPED_TRACE(depth);
        peer("sox -n -r 44100 -c 2 -b " + std::string(depth) + " " + wave.string() +
             " synth 2.3 whitenoise vol 0.3");
        peer("flac -s -f -8 --tag=TITLE=Noise --tag=ARTIST='The band' --tag=TRACKNUMBER=3 "
             "--tag=MOOD=calm -o " +
             flac.string() + " " + wave.string());
        const auto read = parsedFile<KROAudioFileFLACContent>(flac);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->frames(), 101430u);
        EXPECT_EQ(read->bitDepth(), std::stoul(depth));
        const std::vector<float> expected = libsndfileSamples(wave);
        EXPECT_EQ(samplesOf(*allAudio(*read)), expected);
        // From the middle, in blocks that straddle the codec's frames.
        EXPECT_TRUE(std::equal(expected.begin() + 2 * 54321, expected.end(),
                               samplesFrom(*read, 54321, 1000).begin()));
        expectMetadata(*read, KROPropertyList::Dictionary{{"name", "Noise"},
                                                          {"artist", "The band"},
                                                          {"trackNumber", "3"},
                                                          {"MOOD", "calm"}});
    }
}

// What is written here decodes in the flac program to the same samples that
// this handler reads back, with a valid checksum; ffprobe sees the format,
// length, tags and the markers as chapters; every seek point lands on a
// frame; and level 8 makes a smaller file than level 0.
TEST(KROAudioFileFLACContent, OurFilesDecodeBitExactInFlacAndFfprobe) {
    KROTemporaryDirectory directory;
    const fs::path ours = directory / "ours.flac";
    const fs::path decoded = directory / "decoded.wav";
    const auto ramp = rampBuffer(2, 44100 * 25, 1.0f / 151);
    std::uintmax_t sizes[2] = {};
    for (const int level : {0, 8}) {
        for (const std::uint64_t depth : {16u, 24u}) {
            SCOPED_TRACE(std::to_string(level) + " " + std::to_string(depth));
            writeFile<KROAudioFileFLACContent>(ours, *ramp, [&](KROAudioFileFLACContent& content) {
                content.setSampleRate(44100);
                content.setBitDepth(depth);
                content.setValue(KROPropertyList(level), "compressionLevel");
                content.labels() = {testLabel("marker", 1.5, 0), testLabel("marker", 0.5, 0),
                                    testLabel("region", 2.0, 1.0)};
                content.metadata() = KROPropertyList::Dictionary{
                    {"name", "Ramp"}, {"artist", "KROCore"}, {"year", 2024}};
            });
            peer("flac -s -t " + ours.string());
            peer("flac -s -f -d -o " + decoded.string() + " " + ours.string());
            const auto read = parsedFile<KROAudioFileFLACContent>(ours);
            ASSERT_TRUE(read);
            EXPECT_EQ(samplesOf(*allAudio(*read)), libsndfileSamples(decoded));
            EXPECT_EQ(labelTexts(*read, 44100),
                      (std::vector<std::string>{"marker 22050+0", "marker 66150+0"}));
            expectLines(peer("ffprobe -v error -show_chapters -show_entries "
                             "stream=codec_name,bits_per_raw_sample,duration_ts:format_tags "
                             "-of default=noprint_wrappers=1 " +
                             ours.string()),
                        {"codec_name=flac", "bits_per_raw_sample=" + std::to_string(depth),
                         "duration_ts=1102500", "TAG:TITLE=Ramp", "TAG:ARTIST=KROCore",
                         "TAG:DATE=2024", "start=22050", "start=66150"});
            // "point N: sample=S, stream_offset=O, frame_samples=F", one every 10 s.
            const std::string table =
                peer("metaflac --list --block-type=SEEKTABLE " + ours.string());
            const KROData bytes = KROReadTestFile(ours);
            const std::uint64_t firstFrame = [&] {
                std::uint64_t position = 4;
                for (bool last = false; !last;
                     position += 4 + (bytes[position + 1] << 16 | bytes[position + 2] << 8 |
                                      bytes[position + 3])) {
                    last = bytes[position] & 0x80;
                }
                return position;
            }();
            std::size_t points = 0;
            for (std::size_t at = table.find("stream_offset="); at != std::string::npos;
                 at = table.find("stream_offset=", at + 1), ++points) {
                const std::uint64_t offset = firstFrame + std::stoull(table.substr(at + 14));
                ASSERT_LT(offset + 1, bytes.size());
                EXPECT_EQ(bytes[offset] << 8 | (bytes[offset + 1] & 0xFE), 0xFFF8) << offset;
            }
            EXPECT_EQ(points, 3u);
            if (depth == 16) {
                sizes[level == 8] = fs::file_size(ours);
            }
        }
    }
    EXPECT_LT(sizes[1], sizes[0]);
}

// A file that is no FLAC stream fails with code 1; a stream cut short
// reads in full length with silence where its frames are missing; damaged
// frames read without a crash.
TEST(KROAudioFileFLACContent, DamagedFilesFailOrReadWhatTheyHold) {
    KROTemporaryDirectory directory;
    const fs::path good = directory / "good.flac";
    const auto ramp = rampBuffer(1, 40000, 1.0f / 151);
    writeFile<KROAudioFileFLACContent>(
        good, *ramp, [](KROAudioFileFLACContent& content) { content.setSampleRate(44100); });
    const KROData bytes = KROReadTestFile(good);
    const fs::path path = directory / "damaged.flac";

    for (const std::size_t cut : {std::size_t{4}, std::size_t{30}}) {
        KROWriteTestFile(path, KROData(bytes.begin(), bytes.begin() + cut));
        KROErrorPtr error;
        EXPECT_FALSE(parsedFile<KROAudioFileFLACContent>(path, &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 1);
        EXPECT_EQ(error->className(), "KROAudioFileFLACContentError");
    }

    KROWriteTestFile(path, KROData(bytes.begin(), bytes.end() - bytes.size() / 3));
    auto read = parsedFile<KROAudioFileFLACContent>(path);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->frames(), 40000u);
    const std::vector<float> samples = samplesOf(*allAudio(*read));
    EXPECT_EQ(samples.back(), 0.0f);
    const std::vector<float> whole =
        samplesOf(*allAudio(*parsedFile<KROAudioFileFLACContent>(good)));
    EXPECT_TRUE(std::equal(whole.begin(), whole.begin() + 10000, samples.begin()));

    KROData damaged = bytes;
    for (std::size_t at = bytes.size() / 2; at < bytes.size() / 2 + 64; ++at) {
        damaged[at] ^= 0x5A;
    }
    KROWriteTestFile(path, damaged);
    read = parsedFile<KROAudioFileFLACContent>(path);
    ASSERT_TRUE(read);
    samplesFrom(*read, 0, 4096);
    samplesFrom(*read, 30000, 333);
}
