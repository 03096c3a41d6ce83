// `kro render DESCRIPTION OUT [--seconds N | --from S --seconds N]`: renders a
// stream description offline, faster than real time, into an audio file.
// The description's render head is replaced by a file writer; Ctrl-C
// cancels and leaves no file at OUT.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class RenderCommand {
public:
    explicit RenderCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string description_;
    std::string output_;
    double from_ = 0.0;
    double seconds_ = 0.0;
    double sampleRate_ = 0.0;
    unsigned channels_ = 0;
    unsigned bits_ = 32;
};
