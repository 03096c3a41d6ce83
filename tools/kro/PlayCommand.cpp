#include "PlayCommand.h"

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

#include "DeviceErrorMessage.h"
#include "KROAudioDevice.h"
#include "KROAudioStream.h"
#include "KROConductorAudioProcessor.h"
#include "KROLevelMeterAudioProcessor.h"
#include "KROOSXHardwareAudioProcessor.h"

namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

int fail(const std::string& message) {
    std::cerr << "kro: " << message << "\n";
    return 1;
}

std::string describe(const KROErrorPtr& error, const std::string& fallback) {
    return error ? deviceErrorMessage(*error) : fallback;
}

// The first processor of the class in the stream, or none.
template <typename T> std::shared_ptr<T> firstOf(const KROAudioStream& stream) {
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        if (auto found = std::dynamic_pointer_cast<T>(processor)) {
            return found;
        }
    }
    return nullptr;
}

// One channel as "-6.0 dB [#######       ]" over 60 dB.
std::string channelMeter(float level) {
    constexpr int width = 20;
    const double decibels = level > 0.0f ? 20.0 * std::log10(double(level)) : -120.0;
    const int filled = std::clamp(int(std::lround((decibels + 60.0) / 60.0 * width)), 0, width);
    std::ostringstream out;
    out << std::fixed << std::setprecision(1) << std::setw(6) << std::max(decibels, -99.9)
        << " dB [" << std::string(std::size_t(filled), '#')
        << std::string(std::size_t(width - filled), ' ') << "]";
    return out.str();
}

std::string meterLine(const KROLevelMeterAudioProcessor& meter, double elapsed) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(1) << std::setw(5) << elapsed << " s ";
    for (std::uint64_t channel = 0; channel < meter.numberOfChannels(); ++channel) {
        out << " " << channel + 1 << ":" << channelMeter(meter.levelOfChannel(channel));
    }
    out << (meter.isClipped() ? "  CLIP" : "");
    return out.str();
}

// The device named on the command line, or the default output device.
std::shared_ptr<KROAudioDevice> chooseDevice(const std::string& name, std::string& message) {
    KROErrorPtr error;
    if (name.empty()) {
        auto device = KROAudioDevice::defaultOutputDevice(&error);
        message = describe(error, "There is no audio output device.");
        return device;
    }
    auto device = KROAudioDevice::deviceWithName(name, &error);
    message = describe(error, "There is no audio device named \"" + name +
                                  "\"; `kro devices` lists the devices.");
    return device;
}

// Plays until the time is up, Ctrl-C, or the device goes away; false for
// the last.
bool playFor(double seconds, const KROAudioDevice& device,
             const KROLevelMeterAudioProcessor* meter) {
    const bool live = isatty(STDOUT_FILENO);
    const auto start = Clock::now();
    auto lastLine = start;
    while (!interrupted) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        if (seconds > 0.0 && elapsed >= seconds) {
            break;
        }
        if (!device.isValid()) {
            return false;
        }
        // A live line on a terminal, else one line a second.
        if (meter && (live || Clock::now() - lastLine >= std::chrono::seconds(1))) {
            std::cout << (live ? "\r" : "") << meterLine(*meter, elapsed) << (live ? "" : "\n")
                      << std::flush;
            lastLine = Clock::now();
        }
    }
    if (meter && live) {
        std::cout << "\n";
    }
    return true;
}

void printSummary(const KROAudioDevice& device, const KROAudioDeviceIOStatistics& statistics,
                  std::uint64_t frames) {
    std::cout << "Played on " << device.title().value_or("?") << " at " << device.sampleRate()
              << " Hz, " << frames << " frames a block: " << statistics.callbacks << " blocks, "
              << statistics.xruns << " xruns, DSP load " << std::fixed << std::setprecision(2)
              << statistics.averageLoad * 100.0 << " % on average, " << statistics.peakLoad * 100.0
              << " % at peak.\n";
}

} // namespace

PlayCommand::PlayCommand(CLI::App& app) {
    command_ = app.add_subcommand("play", "Play a stream description on an audio device");
    command_->add_option("description", description_, "Stream description (.plist)")
        ->required()
        ->check(CLI::ExistingFile);
    command_->add_option("--seconds", seconds_, "Stop after this many seconds (default: Ctrl-C)")
        ->check(CLI::NonNegativeNumber);
    command_->add_option("--device", device_, "Device name or unique id (see `kro devices`)");
    command_->add_option("--frames", frames_, "Buffer size of the device in frames")
        ->check(CLI::Range(16u, 8192u));
    command_->footer(
        "The description's render head is the device head; the stream plays until\n"
        "--seconds have passed or Ctrl-C, with live meters when the graph has a\n"
        "level meter, and ends with the blocks played, the xruns and the DSP load.\n\n"
        "Example:\n  kro play examples/sine-to-level-meter.plist --seconds 5 --frames 256");
}

int PlayCommand::run() const {
    KROErrorPtr error;
    KROAudioStream stream;
    if (!stream.initWithDescriptionFile(description_, &error)) {
        return fail(describe(error, "The description " + description_ + " could not be read."));
    }
    auto* head = dynamic_cast<KROOSXHardwareAudioProcessor*>(stream.renderHeadProcessor().get());
    if (!head) {
        return fail("The description " + description_ +
                    " has no device head: its render head must be of class "
                    "KROHardwareAudioProcessor.");
    }
    std::string message;
    const auto device = chooseDevice(device_, message);
    if (!device) {
        return fail(message);
    }
    head->setDevice(device);
    const std::uint64_t previousFrames = device->outputBufferFrames();
    if (frames_ != 0 && frames_ != previousFrames) {
        if (!device->setOutputBufferFrames(frames_, &error)) {
            return fail(describe(error, "The buffer size could not be set."));
        }
        // Let the server's notice of the new size pass before the head
        // listens, so that it does not rebuild the graph at once.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    if (!stream.initialize(&error) || !stream.start(&error)) {
        return fail(describe(error, "The stream could not be started."));
    }
    // A transport plays with the device.
    const auto transport = firstOf<KROConductorAudioProcessor>(stream);
    if (transport) {
        transport->start();
    }
    std::signal(SIGINT, onInterrupt);
    const bool deviceStayed =
        playFor(seconds_, *device, firstOf<KROLevelMeterAudioProcessor>(stream).get());
    const KROAudioDeviceIOStatistics statistics = head->statistics();
    const std::uint64_t frames = head->bufferFrames();
    stream.stop();
    stream.uninitialize();
    if (!deviceStayed) {
        return fail("The audio device went away while playing.");
    }
    if (frames_ != 0 && frames_ != previousFrames) {
        device->setOutputBufferFrames(previousFrames);
    }
    printSummary(*device, statistics, frames);
    if (transport) {
        std::cout << "The transport stood at " << std::fixed << std::setprecision(2)
                  << transport->location() << " s.\n";
    }
    return 0;
}
