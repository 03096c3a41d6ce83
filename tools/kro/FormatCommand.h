// `kro format time|db|note VALUE [--style S] [--parse] [--json]`: shows how a
// number of seconds, decibels or a MIDI note number reads in a style, or with
// --parse reads a text back into the number. Exit 1 with a message for an
// unknown kind or style, a value that is not a number, a value the style
// cannot show, or a text that does not read.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

class FormatCommand {
public:
    explicit FormatCommand(CLI::App& app);

    bool parsed() const { return command_->parsed(); }
    int run() const;

    struct Options {
        std::string kind;
        std::string value;
        std::string style;
        bool parse = false;
        bool json = false;
        double sampleRate = 48000;
        double tempo = 120;
        unsigned meter = 4;
        bool position = false;
        unsigned precision = 1;
    };

private:
    CLI::App* command_ = nullptr;
    Options options_;
};
