// `kro loudness` on the EBU test signals beside libebur128; its text and failures.
#include <gtest/gtest.h>

#include <ebur128.h>
#include <sndfile.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <vector>

#include "../util/KROScratchDirectory.h"
#include "KROTestCommand.h"

namespace {

// A stereo 1 kHz sine in pieces of a level in dBFS and a length in seconds.
std::vector<float> stereoSine(std::initializer_list<std::pair<double, double>> pieces,
                              double rate) {
    std::vector<float> interleaved;
    std::size_t frame = 0;
    for (const auto& [decibels, seconds] : pieces) {
        const double amplitude = std::pow(10.0, decibels / 20.0);
        for (std::size_t end = frame + std::size_t(seconds * rate); frame < end; ++frame) {
            const auto value = static_cast<float>(
                amplitude * std::sin(2.0 * M_PI * 1000.0 * double(frame) / rate));
            interleaved.insert(interleaved.end(), {value, value});
        }
    }
    return interleaved;
}

// A stereo float WAVE file of the samples, written by libsndfile.
std::filesystem::path writeFile(const std::filesystem::path& path,
                                const std::vector<float>& interleaved, int rate) {
    SF_INFO info{0, rate, 2, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0, 0};
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_NE(file, nullptr);
    sf_writef_float(file, interleaved.data(), sf_count_t(interleaved.size() / 2));
    sf_close(file);
    return path;
}

// libebur128's figures for the same samples, keyed as kro's JSON keys them.
std::map<std::string, double> libebur128(const std::vector<float>& interleaved, int rate) {
    ebur128_state* state = ebur128_init(
        2, unsigned(rate), EBUR128_MODE_LRA | EBUR128_MODE_I | EBUR128_MODE_SAMPLE_PEAK);
    std::map<std::string, double> figures{{"momentaryMaximum", -HUGE_VAL},
                                          {"shortTermMaximum", -HUGE_VAL}};
    const std::size_t step = std::size_t(rate) / 10;
    for (std::size_t frame = 0; frame < interleaved.size() / 2; frame += step) {
        ebur128_add_frames_float(state, interleaved.data() + 2 * frame,
                                 std::min(step, interleaved.size() / 2 - frame));
        double momentary = 0.0, shortTerm = 0.0;
        ebur128_loudness_momentary(state, &momentary);
        ebur128_loudness_shortterm(state, &shortTerm);
        figures["momentaryMaximum"] = std::max(figures["momentaryMaximum"], momentary);
        figures["shortTermMaximum"] = std::max(figures["shortTermMaximum"], shortTerm);
    }
    ebur128_loudness_global(state, &figures["integrated"]);
    ebur128_loudness_range(state, &figures["range"]);
    double left = 0.0, right = 0.0;
    ebur128_sample_peak(state, 0, &left);
    ebur128_sample_peak(state, 1, &right);
    figures["samplePeak"] = 20.0 * std::log10(std::max(left, right));
    ebur128_destroy(&state);
    return figures;
}

// The numbers of a flat JSON object.
std::map<std::string, double> numbersOf(const std::string& json) {
    std::map<std::string, double> numbers;
    const std::regex pair("\"(\\w+)\":(-?[0-9.e+-]+)");
    for (auto match = std::sregex_iterator(json.begin(), json.end(), pair);
         match != std::sregex_iterator(); ++match) {
        numbers[(*match)[1]] = std::stod((*match)[2]);
    }
    return numbers;
}

KROCommandResult kro(const std::string& arguments) {
    return KRORunCommand("timeout -s KILL 60 " KRO_TOOL " " + arguments + " 2>&1");
}

} // namespace

// Every figure within 0.1 of libebur128, the range within 1 LU of its signal.
TEST(KROLoudnessCommand, FiguresAgreeWithLibebur128) {
    const struct {
        const char* what;
        std::vector<float> samples;
        double integrated;
        double range;
    } cases[] = {
        // clang-format off
        {"-23 dBFS", stereoSine({{-23, 20}}, 48000), -23.0, 0.0},
        {"-72, -36, -23, -36, -72",
         stereoSine({{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}, 48000), -23.0, NAN},
        {"range 10", stereoSine({{-20, 20}, {-30, 20}}, 48000), NAN, 10.0},
        {"range 5", stereoSine({{-20, 20}, {-15, 20}}, 48000), NAN, 5.0},
        {"range 20", stereoSine({{-40, 20}, {-20, 20}}, 48000), NAN, 20.0},
        {"range 15",
         stereoSine({{-50, 20}, {-35, 20}, {-20, 20}, {-35, 20}, {-50, 20}}, 48000), NAN, 15.0},
        // clang-format on
    };
    KROScratchDirectory directory;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto path = writeFile(directory / "loudness.wav", c.samples, 48000);
        const KROCommandResult result = kro("loudness --json '" + path.string() + "'");
        ASSERT_EQ(result.status, 0) << result.output;
        const auto ours = numbersOf(result.output);
        const auto theirs = libebur128(c.samples, 48000);
        for (const auto& [key, value] : theirs) {
            EXPECT_NEAR(ours.at(key), value, key == "range" ? 0.2 : 0.1) << key;
        }
        if (!std::isnan(c.integrated)) {
            EXPECT_NEAR(ours.at("integrated"), c.integrated, 0.1);
        }
        if (!std::isnan(c.range)) {
            EXPECT_NEAR(ours.at("range"), c.range, 1.0);
        }
    }
}

// Text, JSON and failures; at 4 s the first three gating blocks, read before
// their window is full, take 0.2 LU off the integrated loudness.
TEST(KROLoudnessCommand, TextAndFailures) {
    KROScratchDirectory directory;
    const auto quiet = writeFile(directory / "quiet.wav", stereoSine({{-20, 4}}, 44100), 44100);
    const auto silent = writeFile(directory / "silent.wav", std::vector<float>(88200), 44100);
    const auto notAudio = directory / "not-audio.wav";
    std::ofstream(notAudio) << "not audio";
    const std::tuple<std::string, int, std::string> cases[] = {
        {"loudness '" + quiet.string() + "'", 0,
         quiet.string() + ": 44100 Hz, 2 channels, 4.0 s\n"
                          "  Integrated loudness:    -20.2 LUFS\n"
                          "  Loudness range:           0.0 LU\n"
                          "  Momentary maximum:      -20.0 LUFS\n"
                          "  Short-term maximum:     -20.0 LUFS\n"
                          "  Sample peak:            -20.0 dBFS\n"},
        {"loudness --json '" + silent.string() + "'", 0,
         "{\"file\":\"" + silent.string() +
             "\",\"sampleRate\":44100,\"channels\":2,\"seconds\":1,\"integrated\":null,"
             "\"range\":0,\"momentaryMaximum\":-96,\"shortTermMaximum\":-96,\"samplePeak\":null}"
             "\n"},
        {"loudness '" + notAudio.string() + "'", 1,
         "kro: \"" + notAudio.string() + "\" is in no audio file format that kro reads.\n"},
        {"loudness /nonexistent.wav", 105,
         "file: File does not exist: /nonexistent.wav\nRun with --help for more information.\n"},
    };
    for (const auto& [arguments, status, output] : cases) {
        SCOPED_TRACE(arguments);
        const KROCommandResult result = kro(arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output, output);
    }
}
