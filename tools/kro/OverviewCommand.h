// `kro overview FILE OUT.png [--width W --height H]`: the waveform picture of
// an audio file, the largest and smallest value under each column, one lane
// per channel, drawn from overview tables rather than from every sample.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class OverviewCommand {
public:
    explicit OverviewCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string file_;
    std::string picture_;
    unsigned width_ = 1200;
    unsigned height_ = 300;
};
