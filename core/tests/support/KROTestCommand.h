// Runs the programs the tests compare with through the shell.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

struct KROCommandResult {
    // The exit code, or -1 when the command could not run or did not exit.
    int status = -1;
    std::string output;
};

// Runs a shell command and collects its standard output.
inline KROCommandResult KRORunCommand(const std::string& command) {
    KROCommandResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) {
        return result;
    }
    std::array<char, 4096> buffer{};
    for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
        result.output.append(buffer.data(), count);
    }
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}
