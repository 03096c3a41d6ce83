// `kro info`: text, JSON that python reads, and exit code 1 for a file nothing reads.
#include <gtest/gtest.h>

#include "../files/KROAudioTestSupport.h"
#include "KROTestCommand.h"

namespace {

KROCommandResult kro(const std::string& arguments) {
    return KRORunCommand("timeout -s KILL 30 " KRO_TOOL " " + arguments);
}

} // namespace

TEST(KROInfoCommand, ShowsFormatLengthLabelsAndMetadata) {
    KROTemporaryDirectory directory;
    const std::string path = (directory / "take.wav").string();
    writeWAVE(path, *KROAudioBufferList::bufferListWithChannels(2, 480),
              [](KROAudioFileWAVEContent& content) {
                  content.labels() = {testLabel("marker", 0.001, 0, {{"name", "Hit"}}),
                                      testLabel("region", 0.002, 0.003, {{"name", "Span"}})};
                  content.metadata().setObjectForKey("name", "Title");
                  content.metadata().setObjectForKey("description", "Desk");
              });
    const KROCommandResult text = kro("info " + path);
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.output, path + ": WAVE File\n"
                                  "  Samples:  16-bit integer, 2 channels at 48000 Hz\n"
                                  "  Frames:   480 (0.010000 s)\n"
                                  "  Labels:   2\n"
                                  "    marker  0.001000 s  id=1  name=Hit\n"
                                  "    region  0.002000 s + 0.003000 s  name=Span\n"
                                  "  Metadata: 2\n"
                                  "    description = Desk\n"
                                  "    name = Title\n");
    const KROCommandResult json = kro(
        "info --json " + path +
        " | /usr/bin/python3 -c 'import json, sys; d = json.load(sys.stdin); "
        "print(d[\"format\"], d[\"bitDepth\"], d[\"channels\"], d[\"frames\"], d[\"duration\"], "
        "[(l[\"type\"], l[\"length\"], l[\"metadata\"][\"name\"]) for l in d[\"labels\"]], "
        "d[\"metadata\"][\"description\"])'");
    EXPECT_EQ(json.output,
              "WAVE File 16 2 480 0.01 [('marker', 0, 'Hit'), ('region', 0.003, 'Span')] Desk\n");
}

TEST(KROInfoCommand, FilesThatDoNotReadAreAClearMessageAndExit1) {
    KROTemporaryDirectory directory;
    KROWriteTestFile(directory / "notes.txt", KROTestBytes().text("just words").data());
    KROWriteTestFile(directory / "broken.wav",
                     KROTestBytes().text("RIFF").le32(4).text("WAVE").data());
    const std::pair<std::string, std::string> cases[] = {
        {(directory / "missing.wav").string(),
         "kro: \"" + (directory / "missing.wav").string() + "\" is not a file.\n"},
        {(directory / "notes.txt").string(), "kro: \"" + (directory / "notes.txt").string() +
                                                 "\" is in no audio file format that kro reads.\n"},
        {(directory / "broken.wav").string(),
         "kro: Reading the audio file 'broken' failed because an error occurred (code 1).\n"},
    };
    for (const auto& [path, message] : cases) {
        const KROCommandResult result = kro("info " + path + " 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 1) << path;
        EXPECT_EQ(result.output, message);
    }
}
