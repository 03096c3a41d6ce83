// What the file commands share: a file opened by the handler that takes it,
// or as a generator of its frames, a one-line account of its samples, and the
// handler class that writes files with an extension.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KROAudioFileAudioGenerator.h"
#include "KROAudioFileContent.h"

// The parsed file, or null with a message for the user.
std::shared_ptr<KROAudioFileContent> openAudioFile(const std::string& path, std::string& message);

// A file played from its start by the library's file player, for the
// commands that pull it through processors.
struct AudioFileSource {
    std::shared_ptr<KROAudioFileAudioGenerator> generator;
    double sampleRate = 0;
    std::uint32_t channels = 0;
    std::uint64_t frames = 0;
};

// The opened file as a source, or none with a message for the user.
std::optional<AudioFileSource> openAudioFileSource(const std::string& path, std::string& message);

// "24-bit integer", "32-bit float", "8-bit mu-law" ...
std::string sampleFormatText(const KROAudioFileContent& content);

// The first handler with a format name whose extension is the path's; a
// path that ends in "/" names a directory, written as a DDP image.
std::optional<KROAudioFileContentClass> writerClassForPath(const std::string& path);
