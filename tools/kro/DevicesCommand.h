// `kro devices [--json]`: the audio devices, with their channels,
// rate and buffer size.
#pragma once

#include <CLI/CLI.hpp>

class DevicesCommand {
public:
    explicit DevicesCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    bool json_ = false;
};
