// `kro convert`: samples, labels and metadata kept, progress, nothing left by a failure.
#include <gtest/gtest.h>

#include "../files/KROAudioTestSupport.h"
#include "KROTestCommand.h"

namespace fs = std::filesystem;

namespace {

KROCommandResult kro(const std::string& arguments) {
    return KRORunCommand("timeout -s KILL 60 " KRO_TOOL " " + arguments);
}

} // namespace

TEST(KROConvertCommand, KeepsSamplesLabelsAndMetadataInTheFormatAsked) {
    KROTemporaryDirectory directory;
    const fs::path input = directory / "in.wav";
    writeWAVE(input, *rampBuffer(2, 4800, 1.0f / 128), [](KROAudioFileWAVEContent& content) {
        content.setBitDepth(24);
        content.labels() = {testLabel("region", 0.01, 0.02, {{"name", "Chorus"}}),
                            testLabel("loop", 0.03, 0.01)};
        content.metadata().setObjectForKey("originator", "KROCore");
        content.metadata().setObjectForKey("tempo", 96.0);
        content.metadata().setObjectForKey("comments", "Converted");
    });
    const fs::path output = directory / "out.wav";
    const KROCommandResult result =
        kro("convert " + input.string() + " " + output.string() + " --format f32");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "Wrote " + output.string() +
                                 ": WAVE File, 32-bit float, 2 channels at 48000 Hz, 4800 frames, "
                                 "2 labels.\n");
    EXPECT_EQ(KRORunCommand("soxi -e " + output.string() + " 2>/dev/null").output,
              "Floating Point PCM\n");
    EXPECT_EQ(libsndfileSamples(output), libsndfileSamples(input));
    const auto in = parsedWAVE(input), out = parsedWAVE(output);
    ASSERT_TRUE(in && out);
    EXPECT_EQ(labelTexts(*out, 48000), labelTexts(*in, 48000));
    EXPECT_EQ(out->metadata(), in->metadata());
}

TEST(KROConvertCommand, ShowsProgressOnATerminalOnly) {
    KROTemporaryDirectory directory;
    const fs::path input = directory / "long.wav";
    ASSERT_EQ(
        KRORunCommand("sox -n -r 8000 -c 1 -b 8 " + input.string() + " synth 31 sine 300").status,
        0);
    const std::string convert =
        KRO_TOOL " convert " + input.string() + " " + (directory / "copy.wav").string();
    const KROCommandResult terminal =
        KRORunCommand("timeout -s KILL 60 script -qec '" + convert + "' /dev/null");
    EXPECT_EQ(terminal.status, 0);
    EXPECT_NE(terminal.output.find("\r[########################################] 100%"),
              std::string::npos)
        << terminal.output;
    const KROCommandResult piped = KRORunCommand(convert);
    EXPECT_EQ(piped.output.find('%'), std::string::npos) << piped.output;
}

TEST(KROConvertCommand, FailuresAreAClearMessageAndLeaveNoFile) {
    KROTemporaryDirectory directory;
    const fs::path input = directory / "in.wav";
    writeWAVE(input, *KROAudioBufferList::bufferListWithChannels(1, 10));
    const std::pair<std::string, std::string> cases[] = {
        {"convert " + input.string() + " " + (directory / "out.xyz").string(),
         "kro: no file format of kro writes files named \"" + (directory / "out.xyz").string() +
             "\".\n"},
        {"convert " + (directory / "none.wav").string() + " " + (directory / "out.wav").string(),
         "kro: \"" + (directory / "none.wav").string() + "\" is not a file.\n"},
        {"convert " + input.string() + " /nonexistent/krocore/out.wav",
         "kro: cannot write \"/nonexistent/krocore/out.wav\": No such file or directory.\n"},
    };
    for (const auto& [arguments, message] : cases) {
        const KROCommandResult result = kro(arguments + " 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 1) << arguments;
        EXPECT_EQ(result.output, message);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), fs::directory_iterator()), 1);
}

// Between the codec formats, what a format cannot hold is named; the
// lossless ones give back the samples bit for bit.
TEST(KROConvertCommand, NamesWhatTheOutputFormatCannotHold) {
    KROTemporaryDirectory directory;
    const fs::path input = directory / "in.wav";
    writeWAVE(input, *rampBuffer(2, 4800, 1.0f / 128), [](KROAudioFileWAVEContent& content) {
        content.setBitDepth(24);
        content.labels() = {testLabel("marker", 0.01, 0), testLabel("region", 0.02, 0.01),
                            testLabel("loop", 0.03, 0.01)};
        content.metadata() = KROPropertyList::Dictionary{{"name", "Take"}, {"originator", "Me"}};
    });
    const struct {
        const char* name;
        const char* dropped;
        bool lossless;
    } cases[] = {
        {"out.caf", "CAF File: 1 loop label; metadata originator", true},
        {"out.flac", "FLAC Audio File: 1 loop label; 1 region label; metadata originator", true},
        {"out.m4a",
         "M4A Audio File: 1 loop label; 1 marker label; 1 region label; metadata "
         "originator",
         true},
        {"out.ogg",
         "Ogg Vorbis Audio File: 1 loop label; 1 marker label; 1 region label; "
         "metadata originator",
         false},
        {"out.mp3",
         "MP3 Audio File: 1 loop label; 1 marker label; 1 region label; metadata "
         "originator",
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path output = directory / c.name;
        const KROCommandResult result = kro("convert " + input.string() + " " + output.string());
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.output.find(std::string("\nNot kept in ") + c.dropped + ".\n"),
                  std::string::npos)
            << result.output;
        const fs::path back = directory / "back.wav";
        EXPECT_EQ(kro("convert " + output.string() + " " + back.string()).status, 0);
        if (c.lossless) {
            EXPECT_EQ(libsndfileSamples(back), libsndfileSamples(input));
        }
        EXPECT_EQ(parsedWAVE(back)->frames(), 4800u);
    }
}

// Regions become tracks on a disc image and come back as regions.
TEST(KROConvertCommand, WritesADiscImageFromRegionsAndReadsItBack) {
    KROTemporaryDirectory directory;
    const fs::path input = directory / "album.wav";
    const auto audio = rampBuffer(2, 3 * 44100, 1.0f / 128);
    writeWAVE(input, *audio, [](KROAudioFileWAVEContent& content) {
        content.setSampleRate(44100);
        content.labels() = {testLabel("region", 0, 1, {{"name", "One"}}),
                            testLabel("region", 1, 2, {{"name", "Two"}})};
    });
    const fs::path image = directory / "album.ddp";
    const KROCommandResult written = kro("convert " + input.string() + " " + image.string() + "/");
    EXPECT_EQ(written.status, 0);
    EXPECT_EQ(written.output, "Wrote " + image.string() +
                                  "/: DDP, 16-bit integer, 2 channels at 44100 Hz, 132300 frames, "
                                  "2 labels.\n");
    const fs::path back = directory / "back.wav";
    EXPECT_EQ(kro("convert " + image.string() + " " + back.string()).status, 0);
    const auto read = parsedWAVE(back);
    ASSERT_TRUE(read);
    EXPECT_EQ(samplesOf(*allAudio(*read)), samplesOf(*audio));
    EXPECT_EQ(labelTexts(*read, 75),
              (std::vector<std::string>{"region 0+75 name=Track 1", "region 75+150 name=Track 2"}));

    // No resampling: audio at another rate is refused, not written too fast.
    const fs::path other = directory / "other.wav";
    writeWAVE(other, *audio);
    const KROCommandResult refused =
        kro("convert " + other.string() + " " + (directory / "other.ddp").string() + "/ 2>&1");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("a DDP image holds 44100 Hz audio; \"" + other.string() +
                                  "\" is at 48000 Hz."),
              std::string::npos)
        << refused.output;
    EXPECT_FALSE(fs::exists(directory / "other.ddp"));
}
