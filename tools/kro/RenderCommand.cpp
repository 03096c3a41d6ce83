#include "RenderCommand.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <thread>

#include "AudioFileOpening.h"
#include "KROAudioConnection.h"
#include "KROAudioFileAudioGenerator.h"
#include "KROAudioFileWriterAudioProcessor.h"
#include "KROAudioStream.h"
#include "KROAudioStreamBasicDescription.h"
#include "KROConductorAudioProcessor.h"
#include "ProgressBar.h"

namespace {

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

int fail(const std::string& message) {
    std::cerr << "kro: " << message << "\n";
    return 1;
}

// The rate and channels of the first file the graph plays, else 48 kHz stereo.
std::pair<double, unsigned> naturalFormat(const KROAudioStream& stream) {
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        const auto* file = dynamic_cast<const KROAudioFileAudioGenerator*>(processor.get());
        if (file && file->audioFile()) {
            return {file->audioFile()->sampleRate(),
                    static_cast<unsigned>(file->audioFile()->numberOfChannels())};
        }
    }
    return {48000.0, 2};
}

// Puts the writer where the render head stood.
void replaceRenderHead(KROAudioStream& stream,
                       std::shared_ptr<KROAudioFileWriterAudioProcessor> writer) {
    const auto head = stream.renderHeadProcessor();
    KROAudioConnection* connection = head ? head->inputConnection() : nullptr;
    if (head) {
        if (head->inputBus()) {
            stream.disconnectInputBus(*head->inputBus());
        }
        stream.removeProcessorsObject(head.get());
    }
    stream.addProcessorsObject(writer);
    if (connection) {
        stream.connectInputBus(*writer->inputBus(), *connection);
    }
    stream.setRenderHeadProcessor(writer.get());
}

// Runs the render on a worker while the bar moves; Ctrl-C cancels it.
bool renderWithProgress(KROAudioFileWriterAudioProcessor& writer, KROErrorPtr& error) {
    const auto operation = std::make_shared<KROOperation>();
    writer.setOperation(operation);
    bool succeeded = false;
    std::atomic<bool> done{false};
    std::thread worker([&] {
        succeeded = writer.start(&error);
        done = true;
    });
    const auto previous = std::signal(SIGINT, onInterrupt);
    {
        ProgressBar bar("Rendering");
        while (!done) {
            if (interrupted) {
                operation->cancel();
            }
            bar.update(writer.progress());
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        worker.join();
    }
    std::signal(SIGINT, previous);
    return succeeded;
}

} // namespace

RenderCommand::RenderCommand(CLI::App& app) {
    command_ = app.add_subcommand("render", "Render a stream description into an audio file");
    command_->add_option("description", description_, "Stream description (.plist)")
        ->required()
        ->check(CLI::ExistingFile);
    command_->add_option("output", output_, "The audio file to write (.wav ...)")->required();
    command_->add_option("--seconds", seconds_, "Length of the render in seconds")
        ->required()
        ->check(CLI::PositiveNumber);
    command_->add_option("--from", from_, "Start of the render on the timeline, in seconds")
        ->check(CLI::NonNegativeNumber);
    command_
        ->add_option("--rate", sampleRate_,
                     "Sample rate (default: the first file played, else 48000)")
        ->check(CLI::PositiveNumber);
    command_
        ->add_option("--channels", channels_, "Channels (default: the first file played, else 2)")
        ->check(CLI::Range(1u, 64u));
    command_->add_option("--bits", bits_, "16 or 24-bit integers, or 32-bit float (default)")
        ->check(CLI::IsMember({16u, 24u, 32u}));
    command_->footer(
        "The description's render head (a device head, say) is replaced by a file\n"
        "writer; every other processor renders as it would play, faster than real\n"
        "time. An existing OUT is never replaced. Ctrl-C cancels and leaves no file.\n\n"
        "Example:\n  kro render examples/file-through-fader.plist mix.wav --seconds 10");
}

int RenderCommand::run() const {
    const std::filesystem::path output = std::filesystem::absolute(output_).lexically_normal();
    if (std::filesystem::exists(output)) {
        return fail(output_ + " exists; kro render never replaces a file.");
    }
    const auto handler = writerClassForPath(output_);
    if (!handler) {
        return fail("No file handler writes files named like " + output_ + ".");
    }
    KROErrorPtr error;
    KROAudioStream stream;
    if (!stream.initWithDescriptionFile(description_, &error)) {
        return fail(error ? error->localizedDescription()
                          : "The description " + description_ + " could not be read.");
    }
    const auto [naturalRate, naturalChannels] = naturalFormat(stream);
    auto writer = std::make_shared<KROAudioFileWriterAudioProcessor>();
    writer->init();
    writer->setBaseDirectory(output.parent_path());
    writer->setBaseFilename(output.stem().string());
    writer->setFormat(handler->format());
    writer->setEncoding(kAudioFormatLinearPCM);
    writer->setBitDepth(bits_);
    writer->setFloatingPoint(bits_ == 32);
    writer->setAudioDataByteOrder(1);
    writer->setSampleRate(sampleRate_ > 0.0 ? sampleRate_ : naturalRate);
    writer->setNumberOfChannels(channels_ > 0 ? channels_ : naturalChannels);
    writer->setRange(NSMakeDoubleRange(from_, seconds_));
    replaceRenderHead(stream, writer);
    if (!stream.initialize(&error)) {
        return fail(error ? error->localizedDescription() : "The stream could not be prepared.");
    }
    // A transport plays with the render, as it plays with a device.
    for (const auto& processor : stream.enumeratorOfProcessors()) {
        if (auto* transport = dynamic_cast<KROConductorAudioProcessor*>(processor.get())) {
            transport->start();
        }
    }
    const auto start = std::chrono::steady_clock::now();
    const bool rendered = renderWithProgress(*writer, error);
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    stream.uninitialize();
    if (!rendered) {
        return fail(error ? error->localizedDescription() : "The render was cancelled.");
    }
    if (writer->resultURL() != output) {
        // Someone made OUT while the render ran; the result kept its own name.
        std::cout << output_ << " appeared meanwhile; the render is "
                  << writer->resultURL().string() << "\n";
    }
    std::cout << "Rendered " << seconds_ << " s to " << writer->resultURL().string() << " in "
              << std::fixed << std::setprecision(2) << elapsed << " s (" << std::setprecision(0)
              << seconds_ / std::max(elapsed, 1e-6) << " times real time).\n";
    return 0;
}
