// kro beside a private JACK server: devices as JACK's tools list them, play, bad input.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "KROJACKServerTest.h"
#include "KROTestCommand.h"

namespace {

const std::string example = KRO_SOURCE_DIR "/examples/sine-to-level-meter.plist";

// kro with the arguments under the environment settings, killed after 30 s.
KROCommandResult kro(const std::string& arguments, const std::string& environment = "") {
    return KRORunCommand("timeout -s KILL 30 env " + environment + " " KRO_TOOL " " + arguments);
}

class KROCommandLine : public KROJACKServerTest {};

} // namespace

TEST_F(KROCommandLine, DevicesAsJSONAgreeWithJACKsOwnTools) {
    // Name, capture and playback channels, rate and buffer size of the device.
    const std::string fields = kro("devices --json | /usr/bin/python3 -c 'import json, sys; "
                                   "d = json.load(sys.stdin)[0]; print(d[\"name\"], "
                                   "len(d[\"inputChannels\"]), len(d[\"outputChannels\"]), "
                                   "d[\"sampleRate\"], d[\"bufferFrames\"])'")
                                   .output;
    // jack_lsp -p puts each port's properties on the line after its name.
    const std::string jack =
        KRORunCommand("echo system"
                      " $(jack_lsp -p system | grep -c output,physical)"
                      " $(jack_lsp -p system | grep -c input,physical)"
                      " $(jack_samplerate) $(jack_bufsize | grep -o '^[0-9]*')")
            .output;
    EXPECT_EQ(fields, jack);
    EXPECT_EQ(jack, "system 2 2 48000 256\n");
}

TEST_F(KROCommandLine, PlayRunsTheDescriptionAtTheBufferSizeAskedForAndPutsTheSizeBack) {
    const KROCommandResult play = kro("play " + example + " --seconds 2.5 --frames 128");
    EXPECT_EQ(play.status, 0);
    // Not a terminal: one meter line a second, the sine at 0 dB peak.
    EXPECT_NE(play.output.find(" 1:  -0.0 dB [####"), std::string::npos) << play.output;
    EXPECT_NE(play.output.find("Played on system at 48000 Hz, 128 frames a block"),
              std::string::npos)
        << play.output;
    EXPECT_EQ(KRORunCommand("jack_bufsize | grep -o '^[0-9]*'").output, "256\n");
}

// Each failure's exit status and all of standard error; a hang is killed.
TEST_F(KROCommandLine, EveryFailureEndsWithItsStatusAndExactMessage) {
    // A description whose render head is a plain head.
    const std::string noHead = KRO_SOURCE_DIR "/examples/dock-chain.plist";
    const std::string noServer = "JACK_DEFAULT_SERVER=" + KROJACKTestServer::uniqueName();
    const std::string start = "Start a JACK server (jackd) or PipeWire's JACK, then try again.\n";
    // Environment, arguments, status, message.
    const std::tuple<std::string, std::string, int, std::string> cases[] = {
        {"", "play " + example + " --device 'no such'", 1,
         "kro: There is no audio device named \"no such\"; `kro devices` lists the devices.\n"},
        {"", "play " + noHead, 1,
         "kro: The description " + noHead +
             " has no device head: its render head must be of class KROHardwareAudioProcessor.\n"},
        {"", "play /nonexistent/description.plist", 105,
         "description: File does not exist: /nonexistent/description.plist\n"
         "Run with --help for more information.\n"},
        {noServer, "play " + example, 1,
         "kro: Finding the default output device failed because no audio server is running.\n" +
             start},
        {noServer, "devices", 1,
         "kro: Reading the list of audio devices failed because no audio server is running.\n" +
             start},
    };
    for (const auto& [environment, arguments, status, message] : cases) {
        SCOPED_TRACE(arguments);
        const KROCommandResult result = kro(arguments + " 2>&1 >/dev/null", environment);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output, message);
    }
    // The server goes away while kro plays.
    std::thread endServer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        server_.stop();
    });
    const KROCommandResult playing = kro("play " + example + " --seconds 60 2>&1 >/dev/null");
    endServer.join();
    EXPECT_EQ(playing.status, 1);
    EXPECT_EQ(playing.output, "kro: The audio device went away while playing.\n");
}

TEST_F(KROCommandLine, PlayStartsTheTransportOfTheMixingExample) {
    const KROCommandResult play =
        kro("play " KRO_SOURCE_DIR "/examples/two-generators-mixed.plist --seconds 2");
    ASSERT_EQ(play.status, 0) << play.output;
    // The sine at half scale, the noise still far down its fade.
    EXPECT_NE(play.output.find("1:  -6.0 dB"), std::string::npos) << play.output;
    const std::size_t at = play.output.find("The transport stood at ");
    ASSERT_NE(at, std::string::npos) << play.output;
    EXPECT_GT(std::stod(play.output.substr(at + 23)), 0.5);
}
