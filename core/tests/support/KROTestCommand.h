// Runs the programs the tests compare with (sox, python3, coreutils, JACK's
// tools) through the shell.
#pragma once

#include <string>

struct KROCommandResult {
    // The exit code, or -1 when the command could not run or did not exit.
    int status = -1;
    std::string output;
};

// Runs a shell command and collects its standard output.
KROCommandResult KRORunCommand(const std::string& command);
