// What `kro info` and `kro convert` share: a file opened by the handler that
// takes it, a one-line account of its samples, and the handler class that
// writes files with an extension.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "KROAudioFileContent.h"

// The parsed file, or null with a message for the user.
std::shared_ptr<KROAudioFileContent> openAudioFile(const std::string& path, std::string& message);

// "24-bit integer", "32-bit float", "8-bit mu-law" ...
std::string sampleFormatText(const KROAudioFileContent& content);

// The first handler with a format name whose extension is the path's; a
// path that ends in "/" names a directory, written as a DDP image.
std::optional<KROAudioFileContentClass> writerClassForPath(const std::string& path);
