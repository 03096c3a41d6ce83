// The kro program as a user runs it: `kro devices` beside JACK's own tools,
// and `kro play` on a private dummy JACK server, with every kind of bad input
// ending in a clear message and a clean exit, never a hang.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KROJACKServerTest.h"
#include "KROJACKTestServer.h"
#include "KROTestCommand.h"

namespace {

namespace fs = std::filesystem;
constexpr unsigned watchdogSeconds = KROJACKServerTest::watchdogSeconds;

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

fs::path scratch(const std::string& name) {
    return fs::path(KRO_TEST_BINARY_DIR) / ("kro-tool-" + std::to_string(getpid()) + "-" + name);
}

std::string example() {
    return (fs::path(KRO_SOURCE_DIR) / "examples" / "sine-to-level-meter.plist").string();
}

// Starts kro with the arguments, its output going to files.
pid_t launch(const std::vector<std::string>& arguments, const fs::path& out, const fs::path& err) {
    const pid_t child = fork();
    if (child == 0) {
        dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
        std::vector<char*> argv{const_cast<char*>(KRO_TOOL)};
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(KRO_TOOL, argv.data());
        _exit(127);
    }
    return child;
}

// Waits for kro at most timeout; a kro that has not ended by then is killed
// and reported as exit code -1.
Outcome finish(pid_t child, const fs::path& out, const fs::path& err,
               std::chrono::seconds timeout) {
    Outcome outcome;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            status = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (status != -1 && WIFEXITED(status)) {
        outcome.exitCode = WEXITSTATUS(status);
    }
    outcome.out = readFile(out);
    outcome.err = readFile(err);
    fs::remove(out);
    fs::remove(err);
    return outcome;
}

Outcome runKro(const std::vector<std::string>& arguments,
               std::chrono::seconds timeout = std::chrono::seconds(30)) {
    const fs::path out = scratch("out");
    const fs::path err = scratch("err");
    return finish(launch(arguments, out, err), out, err, timeout);
}

// Standard output of a shell command (JACK's tools, python3).
std::string shell(const std::string& command) {
    return KRORunCommand(command).output;
}

class KROCommandLine : public KROJACKServerTest {};

} // namespace

TEST_F(KROCommandLine, DevicesAsJSONAgreeWithJACKsOwnTools) {
    const Outcome devices = runKro({"devices", "--json"});
    ASSERT_EQ(devices.exitCode, 0) << devices.err;
    const fs::path json = scratch("devices.json");
    std::ofstream(json) << devices.out;
    // name, inputs, outputs, rate, frames of the first device, by python3.
    const std::string fields =
        shell("/usr/bin/python3 -c 'import json,sys; d=json.load(open(sys.argv[1]))[0]; "
              "print(d[\"name\"], len(d[\"inputChannels\"]), len(d[\"outputChannels\"]), "
              "d[\"sampleRate\"], d[\"bufferFrames\"])' " +
              json.string());
    fs::remove(json);
    // jack_lsp -p lists each port with its properties on the next line.
    const std::string ports = shell("jack_lsp -p system");
    std::size_t capture = 0;
    std::size_t playback = 0;
    std::istringstream lines(ports);
    for (std::string line; std::getline(lines, line);) {
        capture += line.find("output,physical") != std::string::npos ? 1 : 0;
        playback += line.find("input,physical") != std::string::npos ? 1 : 0;
    }
    const std::string rate = shell("jack_samplerate");
    const std::string frames = shell("jack_bufsize");
    EXPECT_EQ(fields, "system " + std::to_string(capture) + " " + std::to_string(playback) + " " +
                          std::to_string(std::stoi(rate)) + " 256\n");
    EXPECT_EQ(capture, 2u);
    EXPECT_NE(frames.find("256"), std::string::npos) << frames;
}

TEST_F(KROCommandLine, PlayRunsTheDescriptionAtTheBufferSizeAskedForAndPutsTheSizeBack) {
    const Outcome play = runKro({"play", example(), "--seconds", "2.5", "--frames", "128"});
    ASSERT_EQ(play.exitCode, 0) << play.err;
    EXPECT_NE(play.out.find("Played on system at 48000 Hz, 128 frames a block"), std::string::npos)
        << play.out;
    // Not a terminal: one meter line a second, both channels of the sine at
    // 0 dB peak on the "peak" meter of the example.
    EXPECT_NE(play.out.find("1:  -0.0 dB"), std::string::npos) << play.out;
    EXPECT_NE(shell("jack_bufsize").find("256"), std::string::npos);
}

TEST_F(KROCommandLine, PlayStartsTheTransportOfTheMixingExample) {
    const fs::path mixed = fs::path(KRO_SOURCE_DIR) / "examples" / "two-generators-mixed.plist";
    const Outcome play = runKro({"play", mixed.string(), "--seconds", "2"});
    ASSERT_EQ(play.exitCode, 0) << play.err;
    // The sine at half scale, the noise still far down its fade.
    EXPECT_NE(play.out.find("1:  -6.0 dB"), std::string::npos) << play.out;
    const std::size_t at = play.out.find("The transport stood at ");
    ASSERT_NE(at, std::string::npos) << play.out;
    EXPECT_GT(std::stod(play.out.substr(at + 23)), 0.5);
}

TEST_F(KROCommandLine, AnUnknownDeviceNameIsAClearErrorAndExit1) {
    const Outcome play = runKro({"play", example(), "--seconds", "1", "--device", "no such"});
    EXPECT_EQ(play.exitCode, 1);
    EXPECT_EQ(
        play.err,
        "kro: There is no audio device named \"no such\"; `kro devices` lists the devices.\n");
}

TEST_F(KROCommandLine, ADescriptionWithoutADeviceHeadIsAClearErrorAndExit1) {
    const fs::path description = scratch("no-head.plist");
    std::ofstream(description) << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>processors</key><array><dict>
<key>class</key><string>KROSineWaveAudioGenerator</string>
<key>identifier</key><string>sine</string>
</dict></array></dict></plist>
)";
    const Outcome play = runKro({"play", description.string(), "--seconds", "1"});
    fs::remove(description);
    EXPECT_EQ(play.exitCode, 1);
    EXPECT_EQ(play.err, "kro: The description " + description.string() +
                            " has no device head: its render head must be of class "
                            "KROHardwareAudioProcessor.\n");
}

TEST_F(KROCommandLine, AMissingDescriptionFileIsRefusedBeforeAnythingRuns) {
    const Outcome play = runKro({"play", "/nonexistent/description.plist"});
    EXPECT_NE(play.exitCode, 0);
    EXPECT_NE(play.err.find("/nonexistent/description.plist"), std::string::npos) << play.err;
}

TEST_F(KROCommandLine, AServerThatGoesAwayWhilePlayingEndsPlayWithAClearError) {
    const fs::path out = scratch("out");
    const fs::path err = scratch("err");
    const pid_t child = launch({"play", example(), "--seconds", "60"}, out, err);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    server_.stop();
    const Outcome play = finish(child, out, err, std::chrono::seconds(15));
    EXPECT_EQ(play.exitCode, 1);
    EXPECT_EQ(play.err, "kro: The audio device went away while playing.\n");
}

TEST(KROCommandLineNoServer, NoServerIsAClearErrorAndExit1WithoutAHang) {
    alarm(watchdogSeconds);
    setenv("JACK_DEFAULT_SERVER", KROJACKTestServer::uniqueName().c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    const Outcome play = runKro({"play", example(), "--seconds", "1"});
    const Outcome devices = runKro({"devices"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(play.exitCode, 1);
    EXPECT_EQ(play.err, "kro: Finding the default output device failed because no audio server "
                        "is running.\nStart a JACK server (jackd) or PipeWire's JACK, then try "
                        "again.\n");
    EXPECT_EQ(devices.exitCode, 1);
    EXPECT_EQ(devices.err, "kro: Reading the list of audio devices failed because no audio "
                           "server is running.\nStart a JACK server (jackd) or PipeWire's JACK, "
                           "then try again.\n");
    alarm(0);
}
