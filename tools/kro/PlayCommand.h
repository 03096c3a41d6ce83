// `kro play DESCRIPTION.plist [--seconds N] [--device NAME] [--frames N]`:
// runs a stream description on an audio device, with a live level line when
// the graph has a level meter, and reports the DSP load at the end.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class PlayCommand {
public:
    explicit PlayCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string description_;
    double seconds_ = 0.0;
    std::string device_;
    unsigned frames_ = 0;
};
