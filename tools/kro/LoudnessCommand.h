// `kro loudness FILE [--json]`: the integrated loudness of an audio file, its
// loudness range, the loudest momentary and short-term readings and the
// sample peak.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class LoudnessCommand {
public:
    explicit LoudnessCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string file_;
    bool json_ = false;
};
