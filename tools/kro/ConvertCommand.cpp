#include "ConvertCommand.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <sstream>

#include "AudioFileOpening.h"
#include "KROError.h"
#include "KROStringHelpers.h"

namespace {

namespace fs = std::filesystem;

// A sample format as the user names it.
struct SampleFormat {
    const char* name;
    const char* encoding;
    std::uint64_t bitDepth;
    bool isFloat;
};
constexpr SampleFormat sampleFormats[] = {
    {"u8", "lpcm", 8, false},   {"s16", "lpcm", 16, false}, {"s24", "lpcm", 24, false},
    {"s32", "lpcm", 32, false}, {"f32", "lpcm", 32, true},  {"ulaw", "ulaw", 8, false},
};

// Files longer than this show a progress bar on a terminal.
constexpr double progressSeconds = 30.0;
// Blocks of at most this many bytes of floats, so that files of many
// channels convert in little memory.
constexpr std::uint64_t blockBytes = std::uint64_t{1} << 22;

int fail(const std::string& message) {
    std::cerr << "kro: " << message << "\n";
    return 1;
}

std::string errorText(const KROErrorPtr& error) {
    return error ? error->description() : "the file could not be written.";
}

void showProgress(std::uint64_t done, std::uint64_t total) {
    constexpr std::uint64_t width = 40;
    const std::uint64_t filled = total ? done * width / total : width;
    std::cout << "\r[" << std::string(filled, '#') << std::string(width - filled, ' ') << "] "
              << (total ? done * 100 / total : 100) << "%" << std::flush;
}

// Copies the samples block by block; false with the error of the failing step.
bool copyAudio(KROAudioFileContent& input, KROAudioFileContent& output, KROErrorPtr* error) {
    const bool progress =
        ::isatty(STDOUT_FILENO) && double(input.frames()) > progressSeconds * input.sampleRate();
    const auto channels = static_cast<std::uint32_t>(input.numberOfChannels());
    const std::uint64_t blockFrames =
        std::clamp<std::uint64_t>(blockBytes / (4 * channels), 1, 65536);
    const auto buffer = KROAudioBufferList::bufferListWithChannels(channels, blockFrames);
    for (std::uint64_t frame = 0; frame < input.frames(); frame += buffer->frames()) {
        buffer->setFrames(blockFrames);
        if (!input.getAudio(*buffer, frame, error) || !output.writeAudio(*buffer, error)) {
            return false;
        }
        if (progress) {
            showProgress(frame + buffer->frames(), input.frames());
        }
    }
    if (progress) {
        std::cout << "\n";
    }
    return true;
}

// Moves the finished file (or image directory) to its name; across file
// systems by a copy.
bool moveIntoPlace(const fs::path& from, const fs::path& to, std::string& message) {
    std::error_code failure;
    fs::rename(from, to, failure);
    if (failure) {
        failure.clear();
        fs::copy(from, to, fs::copy_options::overwrite_existing | fs::copy_options::recursive,
                 failure);
        fs::remove_all(from);
    }
    message = failure ? "cannot write \"" + to.string() + "\": " + failure.message() + "." : "";
    return !failure;
}

// What the written file does not hold of the input: labels by type and
// metadata keys, as "1 loop label, metadata originator, tempo"; empty when
// it holds everything.
std::string droppedText(const KROAudioFileContent::Labels& sent, const KROPropertyList& metadata,
                        const KROAudioFileContent& written) {
    std::vector<std::string> parts;
    std::map<std::string, long> labels;
    for (const auto& label : sent) {
        ++labels[label->type()];
    }
    for (const auto& label : written.labels()) {
        --labels[label->type()];
    }
    for (const auto& [type, count] : labels) {
        if (count > 0) {
            parts.push_back(std::to_string(count) + " " + type +
                            (count == 1 ? " label" : " labels"));
        }
    }
    std::string keys;
    for (const std::string& key : metadata.allKeys()) {
        if (!written.metadata().objectForKey(key)) {
            keys += (keys.empty() ? "metadata " : ", ") + key;
        }
    }
    if (!keys.empty()) {
        parts.push_back(keys);
    }
    std::string text;
    for (const std::string& part : parts) {
        text += (text.empty() ? "" : "; ") + part;
    }
    return text;
}

// Disc images mark tracks and indexes; other files mark regions and
// markers. Each kind becomes its counterpart in the other.
std::shared_ptr<KROAudioLabel> convertedLabel(const KROAudioLabel& label, bool toDiscImage) {
    auto copy = label.copy();
    if (toDiscImage && label.type() == "region") {
        copy->setType("track");
    } else if (!toDiscImage && label.type() == "track") {
        copy->setType("region");
    } else if (!toDiscImage && label.type() == "index") {
        copy->setType("marker");
    }
    return copy;
}

} // namespace

ConvertCommand::ConvertCommand(CLI::App& app) {
    command_ = app.add_subcommand(
        "convert", "Write an audio file again in another format, with its labels and metadata");
    command_->add_option("input", input_, "Audio file to read")->required();
    command_
        ->add_option("output", output_,
                     "File to write; its extension names the file format, and a final \"/\" "
                     "a DDP image directory")
        ->required();
    std::vector<std::string> names;
    for (const SampleFormat& format : sampleFormats) {
        names.emplace_back(format.name);
    }
    command_->add_option("--format", format_, "Sample format (default: the input's)")
        ->check(CLI::IsMember(names));
    command_->footer("The output appears only when it is whole; a long conversion shows its\n"
                     "progress when standard output is a terminal.\n\n"
                     "Example:\n  kro convert take.wav take-float.wav --format f32");
}

int ConvertCommand::run() const {
    std::string message;
    const auto input = openAudioFile(input_, message);
    if (!input) {
        return fail(message);
    }
    const auto writerClass = writerClassForPath(output_);
    const auto output = writerClass ? writerClass->makeContent() : nullptr;
    if (!output) {
        return fail("no file format of kro writes files named \"" + output_ + "\".");
    }
    fs::path target = fs::absolute(output_);
    if (!target.has_filename()) {
        target = target.parent_path();
    }
    output->setWritingDirectory(target.parent_path());
    output->setSampleRate(input->sampleRate());
    output->setNumberOfChannels(input->numberOfChannels());
    output->setEncoding(input->encoding());
    output->setBitDepth(input->bitDepth());
    output->setIsFloatingPoint(input->isFloatingPoint());
    // Samples decoded from a codec go on as linear PCM, unless the writer's
    // own codec takes them.
    const bool companded =
        input->encoding() == kro::fourCC("ulaw") || input->encoding() == kro::fourCC("alaw");
    if (!companded && input->encoding() != kro::fourCC("lpcm")) {
        output->setEncoding(kro::fourCC("lpcm"));
    }
    for (const SampleFormat& format : sampleFormats) {
        if (format_ == format.name) {
            output->setEncoding(kro::fourCC(format.encoding));
            output->setBitDepth(format.bitDepth);
            output->setIsFloatingPoint(format.isFloat);
        }
    }
    const bool toDiscImage = output->format() == "DDP";
    // A disc plays 44.1 kHz; kro does not resample.
    if (toDiscImage && input->sampleRate() != 44100.0) {
        std::ostringstream rate;
        rate << input->sampleRate();
        return fail("a DDP image holds 44100 Hz audio; \"" + input_ + "\" is at " + rate.str() +
                    " Hz.");
    }
    for (const auto& label : input->labels()) {
        output->labels().push_back(convertedLabel(*label, toDiscImage));
    }
    // The labels as sent, before the writer may consume any.
    const KROAudioFileContent::Labels sentLabels = output->labels();
    output->metadata() = input->metadata();

    KROErrorPtr error;
    if (!output->beginWrite(&error) || !copyAudio(*input, *output, &error) ||
        !output->endWrite(&error)) {
        output->endWrite();
        std::error_code ignored;
        fs::remove_all(output->URL(), ignored);
        return fail(errorText(error));
    }
    if (!moveIntoPlace(output->URL(), target, message)) {
        return fail(message);
    }
    std::cout << "Wrote " << output_ << ": " << output->format() << ", "
              << sampleFormatText(*output) << ", " << output->numberOfChannels()
              << (output->numberOfChannels() == 1 ? " channel at " : " channels at ")
              << output->sampleRate() << " Hz, " << output->frames() << " frames, "
              << output->labels().size() << " labels.\n";
    // Read back, so that what the format could not hold is named.
    if (const auto written = openAudioFile(target.string(), message)) {
        const std::string dropped = droppedText(sentLabels, input->metadata(), *written);
        if (!dropped.empty()) {
            std::cout << "Not kept in " << output->format() << ": " << dropped << ".\n";
        }
    }
    return 0;
}
