#include "OverviewCommand.h"

#include <iostream>

#include "AudioFileOpening.h"
#include "KROAudioFileReader.h"
#include "WaveformPicture.h"

OverviewCommand::OverviewCommand(CLI::App& app) {
    command_ =
        app.add_subcommand("overview", "Draw the waveform of an audio file as a PNG picture");
    command_->add_option("file", file_, "Audio file")->required()->check(CLI::ExistingFile);
    command_->add_option("picture", picture_, "The PNG file to write")->required();
    command_->add_option("--width", width_, "Width in pixels, one column each (default 1200)")
        ->check(CLI::Range(16u, 20000u));
    command_
        ->add_option("--height", height_, "Height in pixels, shared by the channels (default 300)")
        ->check(CLI::Range(16u, 20000u));
    command_->footer(
        "Each column shows the largest and smallest sample of the stretch of audio it\n"
        "covers, from min-max overview tables of 256 frames an entry; the channels\n"
        "are stacked in lanes from the top.\n\n"
        "Example:\n  kro overview take.wav take.png --width 800 --height 200");
}

int OverviewCommand::run() const {
    std::string message;
    const auto content = openAudioFile(file_, message);
    if (!content) {
        std::cerr << "kro: " << message << "\n";
        return 1;
    }
    if (content->numberOfChannels() == 0 || height_ < 8 * content->numberOfChannels()) {
        std::cerr << "kro: " << height_ << " pixels are too few for " << content->numberOfChannels()
                  << " channels.\n";
        return 1;
    }
    KROAudioFileReader reader;
    reader.initWithFileContent(content);
    const auto columns = waveformColumns(reader, width_, message);
    if (!columns || !writeWaveformPicture(*columns, height_, picture_, message)) {
        std::cerr << "kro: " << message << "\n";
        return 1;
    }
    std::cout << "Drew " << picture_ << ": " << width_ << " x " << height_ << " pixels, "
              << content->numberOfChannels() << " channels, " << (content->frames() + 255) / 256
              << " overview entries each.\n";
    return 0;
}
