#include "LoudnessCommand.h"

#include <cmath>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "AudioFileOpening.h"
#include "JSONText.h"
#include "LoudnessMeasurement.h"
#include "ProgressBar.h"

namespace {

struct FileFacts {
    double sampleRate;
    std::uint32_t channels;
    std::uint64_t frames;
};

// One decimal, or "-inf" for a reading of nothing at all.
std::string decibels(double value) {
    if (std::isinf(value) && value < 0.0) {
        return "-inf";
    }
    std::ostringstream out;
    out << std::fixed << std::setprecision(1) << value;
    return out.str();
}

void printText(const std::string& file, const FileFacts& facts, const LoudnessReport& report) {
    const auto line = [](const char* name, double value, const char* unit) {
        std::cout << "  " << std::left << std::setw(22) << name << std::right << std::setw(7)
                  << decibels(value) << " " << unit << "\n";
    };
    std::cout << file << ": " << facts.sampleRate << " Hz, " << facts.channels
              << (facts.channels == 1 ? " channel, " : " channels, ") << std::fixed
              << std::setprecision(1) << double(facts.frames) / facts.sampleRate << " s\n";
    line("Integrated loudness:", report.integrated, "LUFS");
    line("Loudness range:", report.range, "LU");
    line("Momentary maximum:", report.momentaryMaximum, "LUFS");
    line("Short-term maximum:", report.shortTermMaximum, "LUFS");
    line("Sample peak:", report.samplePeak, "dBFS");
}

void printJSON(const std::string& file, const FileFacts& facts, const LoudnessReport& report) {
    std::cout << "{\"file\":" << jsonString(file)
              << ",\"sampleRate\":" << jsonNumber(facts.sampleRate)
              << ",\"channels\":" << facts.channels
              << ",\"seconds\":" << jsonNumber(double(facts.frames) / facts.sampleRate)
              << ",\"integrated\":" << jsonNumber(report.integrated)
              << ",\"range\":" << jsonNumber(report.range)
              << ",\"momentaryMaximum\":" << jsonNumber(report.momentaryMaximum)
              << ",\"shortTermMaximum\":" << jsonNumber(report.shortTermMaximum)
              << ",\"samplePeak\":" << jsonNumber(report.samplePeak) << "}\n";
}

} // namespace

LoudnessCommand::LoudnessCommand(CLI::App& app) {
    command_ = app.add_subcommand("loudness", "Measure the loudness of an audio file");
    command_->add_option("file", file_, "Audio file (WAVE, AIFF, FLAC ...)")
        ->required()
        ->check(CLI::ExistingFile);
    command_->add_flag("--json", json_, "Print JSON");
    command_->footer(
        "Integrated loudness in LUFS (blocks of 400 ms gated at -70 LUFS and 10 LU\n"
        "below their mean, over the last 300 s of audible programme at most), loudness\n"
        "range in LU (short-term readings between their 10th and 95th percentiles),\n"
        "the loudest momentary (400 ms) and short-term (3 s) readings in LUFS, and the\n"
        "sample peak in dBFS. Up to five channels count: left, right, centre, left\n"
        "and right surround, in that order. JSON gives null for a reading of nothing.\n\n"
        "Example:\n  kro loudness speech.wav --json");
}

int LoudnessCommand::run() const {
    std::string message;
    const auto source = openAudioFileSource(file_, message);
    if (!source) {
        std::cerr << "kro: " << message << "\n";
        return 1;
    }
    const FileFacts facts{source->sampleRate, source->channels, source->frames};
    LoudnessReport report;
    ProgressBar bar("Measuring");
    KROErrorPtr error;
    if (!LoudnessMeasurement::measure(
            source->generator, facts.sampleRate, facts.channels, facts.frames, report,
            [&bar](double fraction) { bar.update(fraction); }, &error)) {
        bar.finish();
        std::cerr << "kro: "
                  << (error ? error->localizedDescription() : "The file could not be measured.")
                  << "\n";
        return 1;
    }
    bar.finish();
    if (json_) {
        printJSON(file_, facts, report);
    } else {
        printText(file_, facts, report);
    }
    return 0;
}
