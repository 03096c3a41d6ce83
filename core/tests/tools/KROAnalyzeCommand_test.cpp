// `kro analyze`: levels beside sox's stats, a melody's notes, the JSON track, failures.
#include <gtest/gtest.h>

#include <sndfile.h>

#include <cmath>
#include <fstream>
#include <regex>
#include <sstream>

#include "../util/KROScratchDirectory.h"
#include "KROTestCommand.h"

namespace {

// A stereo float WAVE file at 44.1 kHz: a melody of sines of (Hz, seconds)
// on the left, 0 Hz being silence, and the right at half the level.
std::filesystem::path writeMelody(const std::filesystem::path& path,
                                  std::initializer_list<std::pair<double, double>> notes) {
    std::vector<float> interleaved;
    for (const auto& [hertz, seconds] : notes) {
        for (std::size_t i = 0; i < std::size_t(seconds * 44100); ++i) {
            const auto value = float(0.5 * std::sin(2.0 * M_PI * hertz * double(i) / 44100.0));
            interleaved.insert(interleaved.end(), {value, value * 0.5f});
        }
    }
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_NE(file, nullptr);
    sf_writef_float(file, interleaved.data(), sf_count_t(interleaved.size() / 2));
    sf_close(file);
    return path;
}

KROCommandResult kro(const std::string& arguments) {
    return KRORunCommand("timeout -s KILL 60 " KRO_TOOL " " + arguments + " 2>&1");
}

// The numbers after a name in the output, in order.
std::vector<double> numbersAfter(const std::string& text, const std::string& name) {
    std::vector<double> numbers;
    const std::regex pattern("\"" + name + "\":(-?[0-9.e+-]+)");
    for (auto match = std::sregex_iterator(text.begin(), text.end(), pattern);
         match != std::sregex_iterator(); ++match) {
        numbers.push_back(std::stod((*match)[1]));
    }
    return numbers;
}

} // namespace

// Peak and RMS of each channel within 0.01 dB of sox; the pitch steps, 1024
// frames apart and timed at the middle of the newer half of their window of
// 2048, on the notes within 2 cents where the window holds one note only; a
// window of silence has no step.
TEST(KROAnalyzeCommand, LevelsAgreeWithSoxAndTheTrackFollowsTheMelody) {
    KROScratchDirectory directory;
    const auto path =
        writeMelody(directory / "melody.wav", {{440.0, 1.0}, {0.0, 0.5}, {659.26, 1.0}});
    const auto result = kro("analyze --json '" + path.string() + "'");
    ASSERT_EQ(result.status, 0) << result.output;
    const auto sox = KRORunCommand("sox '" + path.string() + "' -n stats 2>&1 | grep ' lev dB'");
    double overall = 0.0;
    std::vector<double> soxLevels(4);
    std::istringstream(std::regex_replace(sox.output, std::regex("[A-Za-z]+ lev dB"), "")) >>
        overall >> soxLevels[0] >> soxLevels[2] >> overall >> soxLevels[1] >> soxLevels[3];
    const auto peaks = numbersAfter(result.output, "peak");
    const auto rms = numbersAfter(result.output, "rms");
    ASSERT_EQ(peaks.size(), 2u);
    EXPECT_NEAR(peaks[0], soxLevels[0], 0.01);
    EXPECT_NEAR(rms[0], soxLevels[1], 0.01);
    EXPECT_NEAR(peaks[1], soxLevels[2], 0.01);
    EXPECT_NEAR(rms[1], soxLevels[3], 0.01);

    const auto times = numbersAfter(result.output, "time");
    const auto semitones = numbersAfter(result.output, "semitone");
    ASSERT_EQ(times.size(), semitones.size());
    ASSERT_GT(times.size(), 70u);
    EXPECT_DOUBLE_EQ(times.front(), 1536.0 / 44100.0);
    for (std::size_t i = 0; i < times.size(); ++i) {
        SCOPED_TRACE(times[i]);
        const double start = times[i] - 1536.0 / 44100.0, end = times[i] + 512.0 / 44100.0;
        EXPECT_FALSE(start >= 1.0 && end <= 1.5);
        if (end <= 1.0 || start >= 1.5) {
            EXPECT_NEAR(semitones[i], end <= 1.0 ? 69.0 : 76.0, 0.02);
        }
    }
}

TEST(KROAnalyzeCommand, TextAndFailures) {
    KROScratchDirectory directory;
    const auto melody =
        writeMelody(directory / "tune.wav", {{261.63, 0.5}, {0.0, 0.25}, {392.0, 0.5}});
    const auto silent = writeMelody(directory / "silent.wav", {{0.0, 0.2}});
    const auto notAudio = directory / "not-audio.wav";
    std::ofstream(notAudio) << "not audio";
    const std::tuple<std::string, int, std::string> cases[] = {
        {"analyze '" + melody.string() + "'", 0,
         melody.string() + ": 44100 Hz, 2 channels, 1.2 s\n"
                           "  Levels (dBFS)          peak      RMS\n"
                           "    Channel 1              -6.0    -10.0\n"
                           "    Channel 2             -12.0    -16.0\n"
                           "  Integrated loudness:    -10.6 LUFS\n"
                           "  Loudness range:           0.0 LU\n"
                           "  Pitch of channel 1:\n"
                           "        0.03 -     0.50 s  C4      261.7 Hz\n"
                           "        0.75 -     1.22 s  G4      392.0 Hz\n"},
        {"analyze '" + silent.string() + "'", 0,
         silent.string() + ": 44100 Hz, 2 channels, 0.2 s\n"
                           "  Levels (dBFS)          peak      RMS\n"
                           "    Channel 1              -inf     -inf\n"
                           "    Channel 2              -inf     -inf\n"
                           "  Integrated loudness:     -inf LUFS\n"
                           "  Loudness range:           0.0 LU\n"
                           "  Pitch of channel 1: none found\n"},
        {"analyze '" + notAudio.string() + "'", 1,
         "kro: \"" + notAudio.string() + "\" is in no audio file format that kro reads.\n"},
    };
    for (const auto& [arguments, status, output] : cases) {
        SCOPED_TRACE(arguments);
        const KROCommandResult result = kro(arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output, output);
    }
}
