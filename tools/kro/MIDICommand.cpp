#include "MIDICommand.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>

#include "JSONText.h"
#include "KROMIDIController.h"
#include "KROMIDIInputReassembler.h"
#include "KROMIDIMessage.h"

namespace {

std::atomic<bool> interrupted{false};

void printEndpointsJSON(const char* key, const KROMIDIEndpointList& list) {
    std::cout << "\"" << key << "\":[";
    const auto& endpoints = list.endpoints();
    for (std::size_t i = 0; i < endpoints.size(); ++i) {
        const KROMIDIEndpoint& endpoint = *endpoints[i];
        std::cout << (i ? "," : "") << "{\"name\":" << jsonString(endpoint.name())
                  << ",\"displayName\":" << jsonString(endpoint.displayName())
                  << ",\"uniqueID\":" << endpoint.uniqueID()
                  << ",\"online\":" << (endpoint.isOnline() ? "true" : "false") << "}";
    }
    std::cout << "]";
}

void printEndpointsText(const char* title, const KROMIDIEndpointList& list) {
    std::cout << title << ":\n";
    for (const auto& endpoint : list.endpoints()) {
        char uniqueID[16];
        std::snprintf(uniqueID, sizeof uniqueID, "%08x", std::uint32_t(endpoint->uniqueID()));
        std::cout << "  " << endpoint->displayName() << "  (unique id " << uniqueID << ")\n";
    }
    if (list.countOfEndpoints() == 0) {
        std::cout << "  none\n";
    }
}

// Hex bytes, with or without 0x: "90", "0x3C".
bool parseBytes(const std::vector<std::string>& words, std::vector<std::uint8_t>& bytes) {
    for (const std::string& word : words) {
        std::size_t used = 0;
        unsigned long value = 0;
        try {
            value = std::stoul(word, &used, 16);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != word.size() || value > 0xFF) {
            std::cerr << "kro: not a byte in hex: " << word << "\n";
            return false;
        }
        bytes.push_back(std::uint8_t(value));
    }
    return true;
}

// The message's bytes in hex; a long sysex shows its first 16 and its length.
std::string hexBytes(const KROMIDIMessage& message) {
    std::string text;
    const std::size_t shown = std::min<std::size_t>(message.length(), 16);
    for (std::size_t i = 0; i < shown; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02X", message.bytes()[i]);
        text += (i ? " " : "") + std::string(byte);
    }
    if (shown < message.length()) {
        text += " ... (" + std::to_string(message.length()) + " bytes)";
    }
    return text;
}

// Prints each message as it arrives, with the seconds since monitoring began.
class Printer : public KROMIDIReceiver {
public:
    explicit Printer(std::size_t limit) : limit_(limit), start_(KROMIDIMessage::currentTime()) {}

    void midiInput(KROMIDIEndpoint& endpoint,
                   const std::shared_ptr<KROMIDIMessage>& message) override {
        const std::lock_guard guard(lock_);
        std::printf("%10.6f  %s  %s  [%s]\n", message->timestamp() - start_,
                    endpoint.displayName().c_str(), message->logDescription().c_str(),
                    hexBytes(*message).c_str());
        std::fflush(stdout);
        ++printed_;
        changed_.notify_all();
    }
    // Until the limit is reached, the time is up or the user interrupts.
    void wait(double seconds) {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::duration<double>(seconds > 0 ? seconds : 1e9);
        std::unique_lock guard(lock_);
        while (!interrupted.load() && (limit_ == 0 || printed_ < limit_) &&
               std::chrono::steady_clock::now() < deadline) {
            changed_.wait_for(guard, std::chrono::milliseconds(50));
        }
    }

private:
    std::size_t limit_;
    double start_;
    std::size_t printed_ = 0;
    std::mutex lock_;
    std::condition_variable changed_;
};

} // namespace

MIDICommand::MIDICommand(CLI::App& app) {
    command_ = app.add_subcommand("midi", "List, monitor and send to MIDI endpoints (JACK MIDI)");
    command_->require_subcommand(1);
    command_->footer("An endpoint is a JACK MIDI port that owns hardware, named by its client\n"
                     "and port: \"client port\".\n\n"
                     "Examples:\n  kro midi list --json\n  kro midi monitor \"keyboard midi_out\"\n"
                     "  kro midi send \"keyboard midi_in\" 90 3C 64");

    list_ = command_->add_subcommand("list", "List the MIDI inputs and outputs");
    list_->add_flag("--json", json_, "Print JSON");
    list_->footer("Example:\n  kro midi list --json");

    monitor_ = command_->add_subcommand("monitor", "Print MIDI messages as they arrive, decoded");
    monitor_->add_option("ENDPOINT", endpoint_, "The input to monitor; all inputs without one");
    monitor_->add_option("--count", count_, "Stop after this many messages");
    monitor_->add_option("--seconds", seconds_, "Stop after this many seconds");
    monitor_->footer("Runs until interrupted (Ctrl-C) unless told otherwise.\n\n"
                     "Example:\n  kro midi monitor \"keyboard midi_out\" --count 10");

    send_ = command_->add_subcommand("send", "Send bytes to a MIDI output, at once");
    send_->add_option("ENDPOINT", endpoint_, "The output")->required();
    send_->add_option("BYTES", bytes_, "Bytes in hex, one or more whole messages")->required();
    send_->footer("Example:\n  kro midi send \"keyboard midi_in\" 90 3C 64 F0 7D 01 02 F7");
}

int MIDICommand::run() const {
    if (list_->parsed()) {
        return list();
    }
    if (monitor_->parsed()) {
        return monitor();
    }
    return send();
}

int MIDICommand::list() const {
    KROMIDIController& controller = KROMIDIController::sharedController();
    const KROMIDIEndpointList inputs = controller.inputs();
    const KROMIDIEndpointList outputs = controller.outputs();
    std::vector<KROMIDIBackend::EndpointID> probe;
    if (KROMIDIBackend::sharedBackend()->sources(probe) != KROMIDIBackend::noError) {
        std::cerr << "kro: no JACK server is running\n";
        return 1;
    }
    if (json_) {
        std::cout << "{";
        printEndpointsJSON("inputs", inputs);
        std::cout << ",";
        printEndpointsJSON("outputs", outputs);
        std::cout << "}\n";
    } else {
        printEndpointsText("Inputs", inputs);
        printEndpointsText("Outputs", outputs);
    }
    return 0;
}

int MIDICommand::monitor() const {
    KROMIDIEndpointList inputs = KROMIDIController::sharedController().inputs();
    if (!endpoint_.empty()) {
        const auto endpoint = inputs.endpointWithName(endpoint_);
        if (!endpoint) {
            std::cerr << "kro: no MIDI input named " << endpoint_ << "\n";
            return 1;
        }
        inputs.removeAllEndpoints();
        inputs.addEndpointsObject(endpoint);
    }
    Printer printer(count_);
    KROErrorPtr error;
    if (!inputs.addReceiver(&printer, &error)) {
        std::cerr << "kro: " << (error ? error->description() : "the input did not start") << "\n";
        return 1;
    }
    std::signal(SIGINT, [](int) { interrupted.store(true); });
    std::signal(SIGTERM, [](int) { interrupted.store(true); });
    printer.wait(seconds_);
    inputs.removeReceiver(&printer);
    return 0;
}

int MIDICommand::send() const {
    std::vector<std::uint8_t> bytes;
    if (!parseBytes(bytes_, bytes)) {
        return 2;
    }
    const auto output = KROMIDIController::sharedController().outputs().endpointWithName(endpoint_);
    if (!output) {
        std::cerr << "kro: no MIDI output named " << endpoint_ << "\n";
        return 1;
    }
    // The bytes go through the same reassembly as received ones, so only
    // whole messages are sent.
    std::vector<std::shared_ptr<KROMIDIMessage>> messages;
    KROMIDIInputReassembler().input(
        bytes.data(), bytes.size(), 0.0,
        [&](const std::shared_ptr<KROMIDIMessage>& message) { messages.push_back(message); });
    if (messages.empty()) {
        std::cerr << "kro: the bytes hold no whole MIDI message\n";
        return 2;
    }
    KROErrorPtr error;
    if (!output->addSender(this, &error) || !output->sendMessages(messages, &error) ||
        KROMIDIBackend::sharedBackend()->waitUntilSent(2.0) != KROMIDIBackend::noError) {
        std::cerr << "kro: " << (error ? error->description() : "the messages were not sent")
                  << "\n";
        return 1;
    }
    std::cout << "Sent " << messages.size() << (messages.size() == 1 ? " message" : " messages")
              << " to " << output->displayName() << ".\n";
    return 0;
}
