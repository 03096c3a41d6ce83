// Running the programs that the file tests compare with.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KROTestCommand.h"

// The standard output of a command that must succeed. Warnings on standard
// error are not the answer: soxi warns of things written so on purpose.
inline std::string peer(const std::string& command) {
    const KROCommandResult result = KRORunCommand(command);
    EXPECT_EQ(result.status, 0) << command << "\n" << result.output;
    return result.output;
}

inline void expectLines(const std::string& output, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        EXPECT_NE(output.find(line), std::string::npos) << line << " not in\n" << output;
    }
}
