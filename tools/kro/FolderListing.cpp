#include "FolderListing.h"

#include <algorithm>
#include <iostream>
#include <vector>

#include "JSONText.h"
#include "KROAudioFileInfo.h"
#include "KROStringHelpers.h"

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& folder,
                                           std::error_code& failure) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder, failure)) {
        std::error_code ignored;
        if (entry.is_regular_file(ignored) && !entry.path().filename().string().starts_with(".")) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

void printJSON(const std::filesystem::path& file, const KROAudioFileInfo* info,
               const KROErrorPtr& error) {
    std::cout << "{\"file\":" << jsonString(file.filename().string());
    if (!info) {
        std::cout << ",\"error\":" << jsonString(error ? error->description() : "") << "}";
        return;
    }
    std::cout << ",\"format\":" << jsonString(info->format())
              << ",\"encoding\":" << jsonString(kro::stringWithFourCharCode(info->encoding()))
              << ",\"bitDepth\":" << info->bitDepth()
              << ",\"isFloatingPoint\":" << (info->floatingPoint() ? "true" : "false")
              << ",\"channels\":" << info->numberOfChannels()
              << ",\"sampleRate\":" << jsonNumber(info->sampleRate())
              << ",\"frames\":" << info->frames() << ",\"duration\":" << jsonNumber(info->length())
              << ",\"fileSize\":" << info->fileSize() << "}";
}

void printText(const std::filesystem::path& file, const KROAudioFileInfo* info,
               const KROErrorPtr& error) {
    std::cout << file.filename().string() << ": ";
    if (!info) {
        std::cout << (error ? error->description() : "not read") << "\n";
        return;
    }
    std::cout << info->format() << ", " << kro::stringWithFourCharCode(info->encoding()) << " "
              << info->bitDepth() << "-bit, " << info->numberOfChannels() << " ch, "
              << info->sampleRate() << " Hz, " << info->frames() << " frames (" << info->length()
              << " s)\n";
}

} // namespace

int listFolder(const std::filesystem::path& folder, bool json) {
    std::error_code failure;
    const auto files = filesOf(folder, failure);
    if (failure) {
        std::cerr << "kro: cannot list \"" << folder.string() << "\": " << failure.message()
                  << "\n";
        return 1;
    }
    if (json) {
        std::cout << "[";
    }
    for (std::size_t index = 0; index < files.size(); ++index) {
        KROAudioFileInfo info;
        KROErrorPtr error;
        const bool read = info.initWithURL(files[index], &error);
        if (json) {
            std::cout << (index ? ",\n" : "\n");
            printJSON(files[index], read ? &info : nullptr, error);
        } else {
            printText(files[index], read ? &info : nullptr, error);
        }
    }
    if (json) {
        std::cout << "\n]\n";
    }
    return 0;
}
