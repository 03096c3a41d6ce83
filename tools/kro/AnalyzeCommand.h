// `kro analyze FILE [--json]`: the levels of each channel, the loudness and
// the pitch track of an audio file.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class AnalyzeCommand {
public:
    explicit AnalyzeCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string file_;
    bool json_ = false;
};
