#include "AudioFileOpening.h"

#include <filesystem>

#include "KROError.h"
#include "KROStringHelpers.h"

std::shared_ptr<KROAudioFileContent> openAudioFile(const std::string& path, std::string& message) {
    std::error_code ignored;
    // A disc image is a directory of files.
    if (!std::filesystem::is_regular_file(path, ignored) &&
        !std::filesystem::is_directory(path, ignored)) {
        message = "\"" + path + "\" is not a file.";
        return nullptr;
    }
    KROErrorPtr error;
    const auto handler = KROAudioFileContent::fileContentClassAtURL(path, &error);
    auto content = handler ? handler->makeContent() : nullptr;
    if (!content) {
        message = "\"" + path + "\" is in no audio file format that kro reads.";
        return nullptr;
    }
    content->setURL(path);
    if (!content->parse(&error)) {
        message = error ? error->description() : "\"" + path + "\" could not be read.";
        return nullptr;
    }
    return content;
}

std::optional<AudioFileSource> openAudioFileSource(const std::string& path, std::string& message) {
    const auto content = openAudioFile(path, message);
    if (!content) {
        return std::nullopt;
    }
    auto reader = std::make_shared<KROAudioFileReader>();
    reader->initWithFileContent(content);
    AudioFileSource source{std::make_shared<KROAudioFileAudioGenerator>(), reader->sampleRate(),
                           static_cast<std::uint32_t>(reader->numberOfChannels()),
                           reader->frames()};
    source.generator->init();
    source.generator->setAudioFile(reader);
    return source;
}

std::string sampleFormatText(const KROAudioFileContent& content) {
    const std::string bits = std::to_string(content.bitDepth()) + "-bit ";
    if (content.encoding() == kro::fourCC("ulaw")) {
        return bits + "mu-law";
    }
    if (content.encoding() != kro::fourCC("lpcm")) {
        return bits + kro::stringWithFourCharCode(content.encoding());
    }
    if (content.isFloatingPoint()) {
        return bits + "float";
    }
    return bits + (content.bitDepth() == 8 ? "unsigned integer" : "integer");
}

std::optional<KROAudioFileContentClass> writerClassForPath(const std::string& path) {
    if (path.ends_with('/')) {
        return KROAudioFileContent::fileContentClassForFormat("DDP");
    }
    std::string extension = std::filesystem::path(path).extension().string();
    if (extension.empty()) {
        return std::nullopt;
    }
    extension = kro::lowercaseASCII(extension.substr(1));
    for (const KROAudioFileContentClass& handler : KROAudioFileContent::fileContentClasses()) {
        if (!handler.format().empty() && handler.extension() == extension) {
            return handler;
        }
    }
    return std::nullopt;
}
