#include "KROTestCommand.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>

KROCommandResult KRORunCommand(const std::string& command) {
    KROCommandResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) {
        return result;
    }
    std::array<char, 4096> buffer{};
    std::size_t count = 0;
    while ((count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.output.append(buffer.data(), count);
    }
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}
