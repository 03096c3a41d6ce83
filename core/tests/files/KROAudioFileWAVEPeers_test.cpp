// WAVE files both ways against libsndfile, sox, ffmpeg/ffprobe and exiftool.
#include <gtest/gtest.h>

#include <cstring>

#include "KROAudioTestSupport.h"
#include "KROPeerTestSupport.h"
#include "KROStringHelpers.h"

namespace fs = std::filesystem;

namespace {

// Stereo 24-bit at 48 kHz, 4800 frames, a marker, a region and a
// ping-pong loop, broadcast, instrument and INFO metadata.
void writeLabelledFile(const fs::path& path) {
    writeWAVE(path, *rampBuffer(2, 4800, 1.0f / 128), [](KROAudioFileWAVEContent& content) {
        content.setBitDepth(24);
        content.labels() = {testLabel("marker", 0.01, 0, {{"name", "Start"}}),
                            testLabel("region", 0.02, 0.03, {{"name", "Intro"}}),
                            testLabel("loop", 0.04, 0.02, {{"loopType", "forwardBackward"}})};
        // clang-format off
        content.metadata() = KROPropertyList::Dictionary{
            {"description", "Room tone"}, {"originator", "KROCore"},
            {"originatorReference", "KRO-0001"}, {"originationDate", utcDate(2024, 3, 5)},
            {"originationTime", utcDate(2000, 1, 1, 13, 14, 15)}, {"timeReference", 1.5},
            {"codingHistory", "A=PCM,F=48000,W=24,M=stereo\r\n"}, {"baseNote", 60}, {"gain", 3},
            {"lowNote", 10}, {"highNote", 100}, {"lowVelocity", 5}, {"highVelocity", 120},
            {"name", "The take"}, {"originalArtist", "The band"}, {"comments", "Quiet room"},
            {"copyright", "2024 KROCore"}, {"genre", "Ambient"}};
        // clang-format on
    });
}

std::string text(const char* field, std::size_t size) {
    return std::string(field, strnlen(field, size));
}

std::string ffprobe(const fs::path& path) {
    return peer("ffprobe -v error -show_entries stream=codec_name,duration_ts:format_tags "
                "-of default=noprint_wrappers=1 " +
                path.string());
}

} // namespace

// libsndfile sees the loop, base note and broadcast fields written here;
// cue points, INFO texts and the other broadcast fields are checked with
// sndfile-info and ffprobe below.
TEST(KROAudioFileWAVEContent, LibsndfileReadsOurLabelsAndMetadata) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "ours.wav";
    writeLabelledFile(path);
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_TRUE(file) << sf_strerror(nullptr);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_24);

    SF_INSTRUMENT instrument{};
    ASSERT_EQ(sf_command(file, SFC_GET_INSTRUMENT, &instrument, sizeof instrument), SF_TRUE);
    EXPECT_EQ(instrument.basenote, 60);
    ASSERT_EQ(instrument.loop_count, 1);
    EXPECT_EQ(instrument.loops[0].mode, SF_LOOP_ALTERNATING);
    EXPECT_EQ(instrument.loops[0].start, 1920u);
    // libsndfile's end lies one past the last frame that the chunk stores.
    EXPECT_EQ(instrument.loops[0].end, 2881u);

    SF_BROADCAST_INFO broadcast{};
    ASSERT_EQ(sf_command(file, SFC_GET_BROADCAST_INFO, &broadcast, sizeof broadcast), SF_TRUE);
    EXPECT_EQ(text(broadcast.description, 256), "Room tone");
    EXPECT_EQ(broadcast.version, 0);
    EXPECT_EQ(text(broadcast.coding_history, 256), "A=PCM,F=48000,W=24,M=stereo\r\n");
    sf_close(file);
    EXPECT_EQ(samplesOf(*allAudio(*parsedWAVE(path))), libsndfileSamples(path));
}

// sndfile-info, ffprobe and exiftool see the same format, length, chunks,
// broadcast fields, sampler and INFO texts.
TEST(KROAudioFileWAVEContent, SndfileInfoFfprobeAndExiftoolAgree) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "ours.wav";
    writeLabelledFile(path);
    expectLines(peer("sndfile-info " + path.string()),
                {"bext : 632", "Loop Count   : 1",
                 "Cue ID :  1  Type :  1  Start :  1920  End :  2880", "Cue ID :  2  Pos :   480",
                 "Cue ID :  3  Pos :   960", "labl : 2 : Start", "labl : 3 : Intro", "ltxt : 20",
                 "INAM : The take", "ICMT : Quiet room", "inst : 7", "Frames      : 4800",
                 "Channels    : 2"});
    expectLines(ffprobe(path),
                {"codec_name=pcm_s24le", "duration_ts=4800", "TAG:title=The take",
                 "TAG:artist=The band", "TAG:copyright=2024 KROCore", "TAG:genre=Ambient",
                 "TAG:encoded_by=KROCore", "TAG:originator_reference=KRO-0001",
                 "TAG:date=2024-03-05", "TAG:creation_time=13:14:15", "TAG:time_reference=72000"});
    expectLines(peer("exiftool -S -n " + path.string()),
                {"NumChannels: 2", "SampleRate: 48000", "BitsPerSample: 24",
                 "Description: Room tone", "OriginatorReference: KRO-0001",
                 "DateTimeOriginal: 2024:03:05 13:14:15", "TimeReference: 72000",
                 "NumSampleLoops: 1", "UnshiftedNote: 60", "HighVelocity: 120",
                 "CuePointLabel: 2 Start", "Title: The take", "Comment: Quiet room"});
}

// Each sample format reads back as libsndfile reads it and writes back to the
// same file byte for byte; soxi and ffprobe see its encoding, depth and
// length. Mu-law is always 8 bits and floats always 32.
TEST(KROAudioFileWAVEContent, EverySampleFormatRoundTripsAsPeersReadIt) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "first.wav";
    const struct {
        const char* encoding;
        std::uint64_t askedDepth;
        bool isFloat;
        std::uint64_t bitDepth;
        const char* soxEncoding;
        const char* codec;
    } cases[] = {
        {"lpcm", 8, false, 8, "Unsigned Integer PCM", "pcm_u8"},
        {"lpcm", 16, false, 16, "Signed Integer PCM", "pcm_s16le"},
        {"lpcm", 24, false, 24, "Signed Integer PCM", "pcm_s24le"},
        {"lpcm", 32, false, 32, "Signed Integer PCM", "pcm_s32le"},
        {"lpcm", 64, true, 32, "Floating Point PCM", "pcm_f32le"},
        {"ulaw", 16, false, 8, "u-law", "pcm_mulaw"},
    };
    const auto ramp = rampBuffer(3, 1001, 1.0f / 151);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.codec);
        const auto setUp = [&](KROAudioFileWAVEContent& content) {
            content.setEncoding(kro::fourCC(c.encoding));
            content.setBitDepth(c.askedDepth);
            content.setIsFloatingPoint(c.isFloat);
        };
        writeWAVE(path, *ramp, setUp);
        const std::string file = path.string();
        EXPECT_EQ(peer("soxi -e " + file + " && soxi -b " + file + " && soxi -s " + file +
                       " && soxi -c " + file),
                  std::string(c.soxEncoding) + "\n" + std::to_string(c.bitDepth) + "\n1001\n3\n");
        expectLines(ffprobe(path), {std::string("codec_name=") + c.codec, "duration_ts=1001"});

        const auto read = parsedWAVE(path);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->bitDepth(), c.bitDepth);
        EXPECT_EQ(read->isFloatingPoint(), c.isFloat);
        EXPECT_EQ(read->encoding(), kro::fourCC(c.encoding));
        const auto samples = allAudio(*read);
        EXPECT_EQ(samplesOf(*samples), libsndfileSamples(path));
        writeWAVE(directory / "second.wav", *samples, setUp);
        EXPECT_EQ(KROReadTestFile(directory / "second.wav"), KROReadTestFile(path));
    }
}

// ffmpeg's broadcast chunk and INFO list, and its and sox's sample formats,
// read here as ffmpeg wrote them and as libsndfile reads the samples. A-law
// is not a WAVE format of this library, and the extensible form reads as
// integers whatever its subformat, so ffmpeg's extensible doubles do not
// read as floats.
TEST(KROAudioFileWAVEContent, FilesOfFfmpegAndSoxReadHere) {
    KROTemporaryDirectory directory;
    const fs::path bwf = directory / "ffmpeg.wav";
    peer("ffmpeg -v error -f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.1 "
         "-c:a pcm_s24le -write_bext 1 -metadata description='From ffmpeg' "
         "-metadata originator=ffmpeg -metadata originator_reference=FF-7 "
         "-metadata origination_date=2024-01-02 -metadata origination_time=03:04:05 "
         "-metadata time_reference=96000 -metadata coding_history='A=PCM' "
         "-metadata title='ff title' -metadata artist='ff artist' -metadata comment='ff note' " +
         bwf.string());
    const auto content = parsedWAVE(bwf);
    ASSERT_TRUE(content);
    EXPECT_EQ(content->frames(), 4800u);
    EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(bwf));
    // clang-format off
    expectMetadata(*content, KROPropertyList::Dictionary{
        {"description", "From ffmpeg"}, {"originator", "ffmpeg"}, {"originatorReference", "FF-7"},
        {"originationDate", utcDate(2024, 1, 2)}, {"originationTime", utcDate(2000, 1, 1, 3, 4, 5)},
        {"timeReference", 2.0}, {"name", "ff title"}, {"originalArtist", "ff artist"},
        {"comments", "ff note"}});
    // clang-format on
    const KROPropertyList* history = content->metadata().objectForKey("codingHistory");
    ASSERT_TRUE(history && history->stringValue());
    EXPECT_EQ(history->stringValue()->rfind("A=PCM", 0), 0u);

    const struct {
        const char* command;
        std::int64_t code;
        bool isFloat;
    } others[] = {
        // clang-format off
        {"ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a pcm_mulaw", 0, false},
        {"ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a pcm_f64le", 0, false},
        {"ffmpeg -v error -f lavfi -i sine=sample_rate=8000:duration=0.05 -c:a pcm_alaw", 2, false},
        {"sox -n -r 8000 -c 3 -e u-law", 0, false},
        {"sox -n -r 8000 -c 2 -e floating-point -b 64", 0, true},
        {"sox -n -r 8000 -c 1 -e floating-point -b 32", 0, true},
        // clang-format on
    };
    for (const auto& [command, code, isFloat] : others) {
        SCOPED_TRACE(command);
        const fs::path path = directory / "other.wav";
        const std::string file = path.string();
        const std::string tail = std::string(command).starts_with("sox")
                                     ? " " + file + " synth 0.05 sine 300 vol 0.5"
                                     : " -y " + file;
        peer(command + tail);
        KROErrorPtr error;
        const auto other = parsedWAVE(path, &error);
        EXPECT_EQ(error ? error->code() : 0, code);
        if (other && other->bitDepth() <= 32) {
            EXPECT_EQ(samplesOf(*allAudio(*other)), libsndfileSamples(path));
        }
        EXPECT_EQ(other && other->isFloatingPoint(), isFloat);
    }
}

// A file that libsndfile writes with cue points, a loop, broadcast and cart
// fields and a title reads here with all of them. libsndfile stores a loop's
// end as its last frame, one before the end it was given, and writes no
// names of cue points and no 'inst' chunk, so no instrument keys.
TEST(KROAudioFileWAVEContent, LibsndfileLabelsAndMetadataReadHere) {
    KROTemporaryDirectory directory;
    const fs::path path = directory / "libsndfile.wav";
    SF_INFO info{0, 44100, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_TRUE(file);
    SF_CUES cues{};
    cues.cue_count = 2;
    cues.cue_points[0] = {1, 441, 0x61746164, 0, 0, 441, ""};
    cues.cue_points[1] = {2, 882, 0x61746164, 0, 0, 882, ""};
    sf_command(file, SFC_SET_CUE, &cues, sizeof cues);
    SF_INSTRUMENT instrument{};
    instrument.loop_count = 1;
    instrument.loops[0] = {SF_LOOP_BACKWARD, 100, 300, 0};
    sf_command(file, SFC_SET_INSTRUMENT, &instrument, sizeof instrument);
    SF_BROADCAST_INFO broadcast{};
    std::strcpy(broadcast.description, "From libsndfile");
    std::strcpy(broadcast.originator, "libsndfile");
    std::memcpy(broadcast.origination_date, "2023-06-07", 10);
    std::memcpy(broadcast.origination_time, "08:09:10", 8);
    broadcast.time_reference_low = 44100 * 3;
    sf_command(file, SFC_SET_BROADCAST_INFO, &broadcast, sizeof broadcast);
    SF_CART_INFO cart{};
    std::memcpy(cart.version, "0101", 4);
    std::strcpy(cart.title, "Cart title");
    std::strcpy(cart.artist, "Cart artist");
    cart.level_reference = 8192;
    sf_command(file, SFC_SET_CART_INFO, &cart, sizeof cart);
    sf_set_string(file, SF_STR_TITLE, "Titled");
    std::vector<short> samples(4410);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] = static_cast<short>(i * 7);
    }
    sf_write_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);

    const auto content = parsedWAVE(path);
    ASSERT_TRUE(content);
    EXPECT_EQ(samplesOf(*allAudio(*content)), libsndfileSamples(path));
    EXPECT_EQ(labelTexts(*content, 44100),
              (std::vector<std::string>{"marker 441+0 id=1", "marker 882+0 id=2",
                                        "loop 100+199 loopType=backward loopPhase=sustain"}));
    // clang-format off
    expectMetadata(*content, KROPropertyList::Dictionary{
        {"description", "From libsndfile"}, {"originator", "libsndfile"},
        {"originationDate", utcDate(2023, 6, 7)}, {"originationTime", utcDate(2000, 1, 1, 8, 9, 10)},
        {"timeReference", 3.0}, {"title", "Cart title"}, {"artist", "Cart artist"},
        {"name", "Titled"}});
    // clang-format on
    // 8192 of 32768 at 16 bits: a quarter of full scale.
    EXPECT_NEAR(content->metadata().objectForKey("levelReference")->doubleValue(), -12.0412, 1e-4);
}
