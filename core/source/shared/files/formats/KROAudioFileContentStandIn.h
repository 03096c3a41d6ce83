// Holds the place of a handler class that this build does not have yet. It
// is registered under the handler's name, recognises no file and answers no
// format, so the registry passes over it as over a missing name, and a
// writer that asks for the format is told there is none. A real handler
// registered under the name replaces it, whatever the order of loading.
#pragma once

#include <string>
#include <vector>

#include "KROAudioFileContent.h"

class KROAudioFileContentStandIn : public KROAudioFileContent {
public:
    static std::string staticClassName() { return "KROAudioFileContentStandIn"; }

    explicit KROAudioFileContentStandIn(std::string name) : name_(std::move(name)) {}

    // The handler's name, under which the stand-in is registered.
    std::string className() const override { return name_; }

    // The handlers still to come, in registry order. A handler that arrives
    // leaves this list.
    static const std::vector<std::string>& standInNames();

private:
    std::string name_;
};
