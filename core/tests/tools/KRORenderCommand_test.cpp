// `kro render`: a fader at half gain against sox's `vol 0.5`; Ctrl-C leaves no file.
#include <gtest/gtest.h>

#include <sndfile.h>

#include <cmath>
#include <filesystem>
#include <vector>

#include "../util/KROScratchDirectory.h"
#include "KROTestCommand.h"

namespace {

std::vector<float> samplesOf(const std::filesystem::path& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<float> samples(file ? std::size_t(info.frames * info.channels) : 0);
    if (file) {
        sf_readf_float(file, samples.data(), info.frames);
        sf_close(file);
    }
    return samples;
}

class KRORenderCommand : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(
            run("sox -n -r 48000 -c 2 -b 32 -e float tone.wav synth 30 sine 440 sine 660").status,
            0);
        std::filesystem::copy_file(std::filesystem::path(KRO_SOURCE_DIR) /
                                       "examples/file-through-fader.plist",
                                   directory_ / "graph.plist");
    }

    KROCommandResult run(const std::string& command) const {
        return KRORunCommand("cd " + directory_.path().string() + " && " + command + " 2>&1");
    }

    KROScratchDirectory directory_;
};

} // namespace

// Half gain, frame for frame what sox makes of the same file, and a second
// render to the same name is refused.
TEST_F(KRORenderCommand, RendersWhatSoxMakesOfTheFile) {
    const auto rendered = run(std::string(KRO_TOOL) + " render graph.plist out.wav --seconds 10");
    ASSERT_EQ(rendered.status, 0) << rendered.output;
    EXPECT_NE(rendered.output.find("Rendered 10 s to"), std::string::npos) << rendered.output;
    ASSERT_EQ(run("sox tone.wav -e float sox.wav trim 0 10 vol 0.5").status, 0);
    // sox works in 32-bit integers: the two agree to its resolution.
    const auto ours = samplesOf(directory_ / "out.wav");
    const auto theirs = samplesOf(directory_ / "sox.wav");
    ASSERT_EQ(ours.size(), 2u * 480000);
    ASSERT_EQ(ours.size(), theirs.size());
    float largest = 0.0f;
    for (std::size_t i = 0; i < ours.size(); ++i) {
        largest = std::max(largest, std::abs(ours[i] - theirs[i]));
    }
    EXPECT_LT(largest, 1e-7f);

    const auto again = run(std::string(KRO_TOOL) + " render graph.plist out.wav --seconds 1");
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.output.find("out.wav exists"), std::string::npos) << again.output;
}

// Ctrl-C in the middle of a long render: a failure, and neither OUT nor a
// working file is left.
TEST_F(KRORenderCommand, CtrlCLeavesNoFile) {
    // Past the file's end the render goes on in silence: long enough to be
    // interrupted once it runs, even in a sanitizer build.
    const auto cancelled = run("timeout -s INT 1.5 " + std::string(KRO_TOOL) +
                               " render graph.plist out.wav --seconds 100000");
    EXPECT_NE(cancelled.status, 0);
    EXPECT_NE(cancelled.output.find("cancelled"), std::string::npos) << cancelled.output;
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"graph.plist", "tone.wav"}));
}
