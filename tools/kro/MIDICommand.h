// `kro midi list [--json]`, `kro midi monitor [ENDPOINT]` and
// `kro midi send ENDPOINT BYTES...`: the MIDI endpoints of the JACK server,
// what an input receives as it arrives, and bytes sent to an output.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

class MIDICommand {
public:
    explicit MIDICommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    int list() const;
    int monitor() const;
    int send() const;

    CLI::App* command_ = nullptr;
    CLI::App* list_ = nullptr;
    CLI::App* monitor_ = nullptr;
    CLI::App* send_ = nullptr;
    bool json_ = false;
    std::string endpoint_;
    std::size_t count_ = 0;
    double seconds_ = 0.0;
    std::vector<std::string> bytes_;
};
