// `kro info FILE [--json]`: the format of an audio file, its samples, length,
// labels and metadata; `kro info DIR [--json]` lists a folder by the files'
// headers. Exit 1 with a message for a file that is missing or
// that no handler reads.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class InfoCommand {
public:
    explicit InfoCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string file_;
    bool json_ = false;
};
