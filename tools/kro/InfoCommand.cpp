#include "InfoCommand.h"

#include <iomanip>
#include <iostream>
#include <sstream>

#include "AudioFileOpening.h"
#include "FolderListing.h"
#include "JSONText.h"
#include "KROStringHelpers.h"

namespace {

std::string seconds(double value) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(6) << value << " s";
    return out.str();
}

// A value as one line of text: dates and data as their descriptions.
std::string valueText(const KROPropertyList& value) {
    const std::string* text = value.stringValue();
    return text ? *text : value.description();
}

void printText(const std::string& file, const KROAudioFileContent& content) {
    const double duration =
        content.sampleRate() > 0 ? double(content.frames()) / content.sampleRate() : 0;
    std::cout << file << ": " << content.format() << "\n"
              << "  Samples:  " << sampleFormatText(content) << ", " << content.numberOfChannels()
              << (content.numberOfChannels() == 1 ? " channel at " : " channels at ")
              << content.sampleRate() << " Hz\n"
              << "  Frames:   " << content.frames() << " (" << seconds(duration) << ")\n"
              << "  Labels:   " << content.labels().size() << "\n";
    for (const auto& label : content.labels()) {
        std::cout << "    " << std::left << std::setw(7) << label->type() << " "
                  << seconds(label->location());
        if (label->length() != 0) {
            std::cout << " + " << seconds(label->length());
        }
        for (const auto& item : label->metadata()) {
            std::cout << "  " << item->key() << "="
                      << (item->value() ? valueText(*item->value()) : "");
        }
        std::cout << "\n";
    }
    std::cout << "  Metadata: " << content.metadata().count() << "\n";
    for (const std::string& key : content.metadata().allKeys()) {
        std::cout << "    " << key << " = " << valueText(*content.metadata().objectForKey(key))
                  << "\n";
    }
}

void printJSON(const std::string& file, const KROAudioFileContent& content) {
    std::cout << "{\"file\":" << jsonString(file) << ",\"format\":" << jsonString(content.format())
              << ",\"encoding\":" << jsonString(kro::stringWithFourCharCode(content.encoding()))
              << ",\"bitDepth\":" << content.bitDepth()
              << ",\"isFloatingPoint\":" << (content.isFloatingPoint() ? "true" : "false")
              << ",\"channels\":" << content.numberOfChannels()
              << ",\"sampleRate\":" << jsonNumber(content.sampleRate())
              << ",\"frames\":" << content.frames() << ",\"duration\":"
              << jsonNumber(
                     content.sampleRate() > 0 ? double(content.frames()) / content.sampleRate() : 0)
              << ",\"labels\":[";
    for (std::size_t index = 0; index < content.labels().size(); ++index) {
        const KROAudioLabel& label = *content.labels()[index];
        std::cout << (index ? "," : "") << "{\"type\":" << jsonString(label.type())
                  << ",\"location\":" << jsonNumber(label.location())
                  << ",\"length\":" << jsonNumber(label.length()) << ",\"metadata\":{";
        for (std::size_t item = 0; item < label.metadata().size(); ++item) {
            const auto& entry = *label.metadata()[item];
            std::cout << (item ? "," : "") << jsonString(entry.key()) << ":"
                      << (entry.value() ? jsonValue(*entry.value()) : "null");
        }
        std::cout << "}}";
    }
    std::cout << "],\"metadata\":" << jsonValue(content.metadata()) << "}\n";
}

} // namespace

InfoCommand::InfoCommand(CLI::App& app) {
    command_ =
        app.add_subcommand("info", "Show the format, length, labels and metadata of an audio file");
    command_->add_option("file", file_, "Audio file, or a folder to list by its headers")
        ->required();
    command_->add_flag("--json", json_, "Print JSON");
    command_->footer("Times are in seconds; dates print in UTC.\n\n"
                     "Examples:\n  kro info take.wav --json\n  kro info takes/ --json");
}

int InfoCommand::run() const {
    std::error_code ignored;
    if (std::filesystem::is_directory(file_, ignored)) {
        return listFolder(file_, json_);
    }
    std::string message;
    const auto content = openAudioFile(file_, message);
    if (!content) {
        std::cerr << "kro: " << message << "\n";
        return 1;
    }
    if (json_) {
        printJSON(file_, *content);
    } else {
        printText(file_, *content);
    }
    return 0;
}
