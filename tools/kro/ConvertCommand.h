// `kro convert IN OUT [--format F]`: writes an audio file again, in the file
// format of OUT's extension and the sample format F (u8, s16, s24, s32, f32,
// ulaw; the input's by default), keeping its labels and metadata. The new
// file appears at OUT only when it is whole. On a terminal a progress bar
// runs while long files are written. Exit 1 with a message for a file that
// does not read, an extension no handler writes, or a failed write.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class ConvertCommand {
public:
    explicit ConvertCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

private:
    CLI::App* command_ = nullptr;
    std::string input_;
    std::string output_;
    std::string format_;
};
