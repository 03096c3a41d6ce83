// A handler class as the registry hands it out: its name and what the class
// answers about itself (format name, extension, whether it takes a file),
// asked of a fresh instance. makeContent creates the handler that reads or
// writes.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

class KROAudioFileContent;

class KROAudioFileContentClass {
public:
    // The prototype answers the class-level questions.
    explicit KROAudioFileContentClass(std::shared_ptr<const KROAudioFileContent> prototype);

    std::string name() const;
    std::string format() const;
    std::string extension() const;
    bool supportsURL(const std::filesystem::path& url) const;
    // A new, unconfigured handler of the class; null if the class is gone.
    std::shared_ptr<KROAudioFileContent> makeContent() const;

    bool operator==(const KROAudioFileContentClass& other) const { return name() == other.name(); }

private:
    std::shared_ptr<const KROAudioFileContent> prototype_;
};
