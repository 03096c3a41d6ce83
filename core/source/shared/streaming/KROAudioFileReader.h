// Frame-addressed reading of one parsed audio file, with a read cache of one
// second: a run of small reads at increasing frames touches the disk once a
// second. Reads ask for any frame, before the file's start or past its end
// included; what lies outside the file reads as silence. One thread reads at
// a time (the playback disk thread, or an offline render).
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "KROAudioBufferList.h"
#include "KROAudioFileContent.h"
#include "KROObject.h"

class KROAudioFileReader : public KROObject {
    KRO_DECLARE_CLASS(KROAudioFileReader)

public:
    // Finds the handler that takes the file, and parses it. False, with the
    // error of the handler search or of the parse, when the file cannot be
    // read.
    bool initWithURL(const std::filesystem::path& url, KROErrorPtr* error = nullptr);
    static std::shared_ptr<KROAudioFileReader> readerWithURL(const std::filesystem::path& url,
                                                             KROErrorPtr* error = nullptr);
    // Over a handler that the caller has already parsed.
    void initWithFileContent(std::shared_ptr<KROAudioFileContent> fileContent);

    // Fills the whole of buffer with the frames from frame on; frames before
    // 0 and from the file's end on stay silent. On a failed read the buffer
    // is silent and the cache is dropped.
    bool getAudio(KROAudioBufferList& buffer, std::int64_t frame, KROErrorPtr* error = nullptr);

    const std::shared_ptr<KROAudioFileContent>& fileContent() const { return fileContent_; }
    const std::filesystem::path& URL() const { return fileContent_->URL(); }
    std::uint64_t fileSize() const { return fileContent_->fileSize(); }
    std::uint32_t encoding() const { return fileContent_->encoding(); }
    double sampleRate() const { return fileContent_->sampleRate(); }
    std::uint64_t bitDepth() const { return fileContent_->bitDepth(); }
    std::uint64_t numberOfChannels() const { return fileContent_->numberOfChannels(); }
    std::uint64_t frames() const { return fileContent_->frames(); }
    std::uint64_t bitrate() const { return fileContent_->bitrate(); }
    bool isFloatingPoint() const { return fileContent_->isFloatingPoint(); }
    const KROAudioFileContent::Labels& labels() const { return fileContent_->labels(); }
    const KROPropertyList& metadata() const { return fileContent_->metadata(); }
    // The format name of the handler's class ("WAVE File").
    std::string format() const { return fileContent_->format(); }
    // In seconds.
    double length() const;

private:
    bool fillReadBuffer(std::uint64_t frame, KROErrorPtr* error);

    std::shared_ptr<KROAudioFileContent> fileContent_;
    std::shared_ptr<KROAudioBufferList> readBuffer_;
};
