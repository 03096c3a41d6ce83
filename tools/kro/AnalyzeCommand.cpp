#include "AnalyzeCommand.h"

#include <cmath>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>

#include "AudioFileOpening.h"
#include "JSONText.h"
#include "LoudnessMeasurement.h"
#include "ProgressBar.h"
#include "SignalAnalysis.h"

namespace {

struct Analysis {
    double sampleRate = 0.0;
    std::uint32_t channels = 0;
    std::uint64_t frames = 0;
    LoudnessReport loudness;
    SignalReport signal;
};

// A run of pitch steps that round to one semitone.
struct Note {
    double start, end, semitone;
    std::size_t steps;
};

std::vector<Note> notesOf(const SignalReport& report) {
    std::vector<Note> notes;
    for (const auto& step : report.pitch) {
        Note* last = notes.empty() ? nullptr : &notes.back();
        if (last && std::round(last->semitone) == std::round(step.semitone) &&
            step.seconds - last->end < report.stepSeconds * 1.5) {
            last->semitone += (step.semitone - last->semitone) / double(++last->steps);
            last->end = step.seconds;
        } else {
            notes.push_back({step.seconds, step.seconds, step.semitone, 1});
        }
    }
    return notes;
}

double hertzOf(double semitone) {
    return 440.0 * std::exp2((semitone - 69.0) / 12.0);
}

std::string noteName(double semitone) {
    static const char* const names[] = {"C",  "C#", "D",  "D#", "E",  "F",
                                        "F#", "G",  "G#", "A",  "A#", "B"};
    const auto whole = static_cast<long>(std::lround(semitone));
    const long octave = (whole >= 0 ? whole / 12 : (whole - 11) / 12) - 1;
    std::ostringstream out;
    out << names[((whole % 12) + 12) % 12] << octave;
    return out.str();
}

std::string fixed(double value, int digits) {
    if (std::isinf(value) && value < 0.0) {
        return "-inf";
    }
    std::ostringstream out;
    out << std::fixed << std::setprecision(digits) << value;
    return out.str();
}

void printText(const std::string& file, const Analysis& a) {
    std::cout << file << ": " << a.sampleRate << " Hz, " << a.channels
              << (a.channels == 1 ? " channel, " : " channels, ")
              << fixed(double(a.frames) / a.sampleRate, 1) << " s\n";
    std::cout << "  Levels (dBFS)          peak      RMS\n";
    for (std::size_t channel = 0; channel < a.signal.levels.size(); ++channel) {
        const auto& levels = a.signal.levels[channel];
        std::cout << "    Channel " << std::left << std::setw(10) << channel + 1 << std::right
                  << std::setw(9) << fixed(levels.peak, 1) << std::setw(9) << fixed(levels.rms, 1)
                  << "\n";
    }
    std::cout << "  Integrated loudness: " << std::setw(8) << fixed(a.loudness.integrated, 1)
              << " LUFS\n"
              << "  Loudness range:      " << std::setw(8) << fixed(a.loudness.range, 1) << " LU\n";
    const auto notes = notesOf(a.signal);
    std::cout << "  Pitch of channel 1:" << (notes.empty() ? " none found" : "") << "\n";
    for (const Note& note : notes) {
        std::cout << "    " << std::setw(8) << fixed(note.start, 2) << " - " << std::setw(8)
                  << fixed(note.end, 2) << " s  " << std::left << std::setw(4)
                  << noteName(note.semitone) << std::right << std::setw(9)
                  << fixed(hertzOf(note.semitone), 1) << " Hz\n";
    }
}

void printJSON(const std::string& file, const Analysis& a) {
    std::cout << "{\"file\":" << jsonString(file) << ",\"sampleRate\":" << jsonNumber(a.sampleRate)
              << ",\"channels\":" << a.channels
              << ",\"seconds\":" << jsonNumber(double(a.frames) / a.sampleRate) << ",\"levels\":[";
    for (std::size_t channel = 0; channel < a.signal.levels.size(); ++channel) {
        std::cout << (channel ? "," : "")
                  << "{\"peak\":" << jsonNumber(a.signal.levels[channel].peak)
                  << ",\"rms\":" << jsonNumber(a.signal.levels[channel].rms) << "}";
    }
    std::cout << "],\"loudness\":{\"integrated\":" << jsonNumber(a.loudness.integrated)
              << ",\"range\":" << jsonNumber(a.loudness.range)
              << ",\"momentaryMaximum\":" << jsonNumber(a.loudness.momentaryMaximum)
              << ",\"shortTermMaximum\":" << jsonNumber(a.loudness.shortTermMaximum)
              << ",\"samplePeak\":" << jsonNumber(a.loudness.samplePeak) << "}"
              << ",\"pitchStep\":" << jsonNumber(a.signal.stepSeconds) << ",\"pitch\":[";
    bool first = true;
    for (const auto& step : a.signal.pitch) {
        std::cout << (first ? "" : ",") << "{\"time\":" << jsonNumber(step.seconds)
                  << ",\"semitone\":" << jsonNumber(step.semitone)
                  << ",\"hertz\":" << jsonNumber(hertzOf(step.semitone)) << "}";
        first = false;
    }
    std::cout << "]}\n";
}

// A fresh reader of the file for each pass; null with the message printed.
std::shared_ptr<KROAudioGenerator> openSource(const std::string& file, Analysis& analysis) {
    std::string message;
    const auto source = openAudioFileSource(file, message);
    if (!source) {
        std::cerr << "kro: " << message << "\n";
        return nullptr;
    }
    analysis.sampleRate = source->sampleRate;
    analysis.channels = source->channels;
    analysis.frames = source->frames;
    return source->generator;
}

} // namespace

AnalyzeCommand::AnalyzeCommand(CLI::App& app) {
    command_ = app.add_subcommand("analyze", "Measure levels, loudness and pitch of an audio file");
    command_->add_option("file", file_, "Audio file (WAVE, AIFF, FLAC ...)")
        ->required()
        ->check(CLI::ExistingFile);
    command_->add_flag("--json", json_, "Print JSON");
    command_->footer(
        "The sample peak and RMS level of each channel in dBFS, the integrated loudness\n"
        "and loudness range as `kro loudness` gives them, and the pitch of the first\n"
        "channel, analysed every 1024 frames over windows of 2048. Text groups the\n"
        "pitch into notes; JSON lists every step that found a pitch, with its time in\n"
        "seconds, its MIDI note number (69 is 440 Hz) and its frequency.\n\n"
        "Example:\n  kro analyze melody.wav --json");
}

int AnalyzeCommand::run() const {
    Analysis analysis;
    auto source = openSource(file_, analysis);
    if (!source) {
        return 1;
    }
    ProgressBar bar("Analysing");
    KROErrorPtr error;
    bool measured = LoudnessMeasurement::measure(
        source, analysis.sampleRate, analysis.channels, analysis.frames, analysis.loudness,
        [&bar](double fraction) { bar.update(fraction * 0.5); }, &error);
    if (measured) {
        source = openSource(file_, analysis);
        measured =
            source &&
            SignalAnalysis::measure(
                source, analysis.sampleRate, analysis.channels, analysis.frames, analysis.signal,
                [&bar](double fraction) { bar.update(0.5 + fraction * 0.5); }, &error);
    }
    bar.finish();
    if (!measured) {
        if (source) {
            std::cerr << "kro: "
                      << (error ? error->localizedDescription() : "The file could not be measured.")
                      << "\n";
        }
        return 1;
    }
    json_ ? printJSON(file_, analysis) : printText(file_, analysis);
    return 0;
}
