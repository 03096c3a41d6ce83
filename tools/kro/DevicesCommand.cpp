#include "DevicesCommand.h"

#include <iostream>

#include "DeviceErrorMessage.h"
#include "JSONText.h"
#include "KROAudioDevice.h"

namespace {

void printJSON(const KROAudioDevice::Devices& devices) {
    std::cout << "[";
    for (std::size_t i = 0; i < devices.size(); ++i) {
        const KROAudioDevice& device = *devices[i];
        std::cout << (i ? "," : "") << "{\"id\":" << device.deviceID()
                  << ",\"name\":" << jsonString(device.title().value_or(""))
                  << ",\"uid\":" << jsonString(device.UID().value_or(""))
                  << ",\"sampleRate\":" << device.sampleRate() << ",\"inputChannels\":"
                  << jsonStrings(device.inputChannelTitles().value_or(std::vector<std::string>{}))
                  << ",\"outputChannels\":"
                  << jsonStrings(device.outputChannelTitles().value_or(std::vector<std::string>{}))
                  << ",\"bufferFrames\":" << device.outputBufferFrames() << "}";
    }
    std::cout << "]\n";
}

void printChannels(const char* label, const std::vector<std::string>& titles) {
    std::cout << "    " << label << ": " << titles.size();
    for (std::size_t i = 0; i < titles.size(); ++i) {
        std::cout << (i ? ", " : " (") << titles[i];
    }
    std::cout << (titles.empty() ? "" : ")") << "\n";
}

void printText(const KROAudioDevice::Devices& devices) {
    const auto defaultOutput = KROAudioDevice::defaultOutputDevice();
    for (const auto& device : devices) {
        const bool isDefault = defaultOutput && defaultOutput->isEqual(*device);
        std::cout << device->title().value_or("?") << (isDefault ? " (default output)" : "")
                  << "\n    unique id: " << device->UID().value_or("?")
                  << "\n    sample rate: " << device->sampleRate() << " Hz"
                  << "\n    buffer: " << device->outputBufferFrames() << " frames\n";
        printChannels("inputs", device->inputChannelTitles().value_or(std::vector<std::string>{}));
        printChannels("outputs",
                      device->outputChannelTitles().value_or(std::vector<std::string>{}));
    }
    if (devices.empty()) {
        std::cout << "No audio devices.\n";
    }
}

} // namespace

DevicesCommand::DevicesCommand(CLI::App& app) {
    command_ = app.add_subcommand("devices", "List the audio devices (JACK)");
    command_->add_flag("--json", json_, "Print JSON");
    command_->footer("A device is a JACK client that owns physical ports: its capture ports are\n"
                     "its inputs, its playback ports its outputs.\n\n"
                     "Example:\n  kro devices --json");
}

int DevicesCommand::run() const {
    KROErrorPtr error;
    const KROAudioDevice::Devices devices = KROAudioDevice::devices(&error);
    if (error) {
        std::cerr << "kro: " << deviceErrorMessage(*error) << "\n";
        return 1;
    }
    if (json_) {
        printJSON(devices);
    } else {
        printText(devices);
    }
    return 0;
}
