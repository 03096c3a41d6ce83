// What the tag tests share: a content frame whose file size a test may set,
// metadata as text, and running python3 with mutagen on a script the test
// writes.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "KROAudioFileContent.h"
#include "KROFileTestSupport.h"
#include "KROTestCommand.h"

class KROTagTestContent : public KROAudioFileContent {
public:
    using KROAudioFileContent::setFileSize;
};

// Each key of the dictionary with the description of its value, in key order.
inline std::map<std::string, std::string> KRODescriptionsOf(const KROPropertyList& dictionary) {
    std::map<std::string, std::string> descriptions;
    for (const auto& [key, value] : *dictionary.dictionaryValue()) {
        descriptions[key] = value.description();
    }
    return descriptions;
}

// The standard output of the script run by the system's python3 with the
// arguments; empty, with a failure, when it exits with an error.
inline std::string KRORunPythonScript(const KROTemporaryDirectory& directory,
                                      const std::string& script, const std::string& arguments) {
    const auto path = directory / "script.py";
    std::ofstream(path) << script;
    const KROCommandResult result =
        KRORunCommand("/usr/bin/python3 '" + path.string() + "' " + arguments);
    EXPECT_EQ(result.status, 0) << script;
    return result.status == 0 ? result.output : std::string();
}
