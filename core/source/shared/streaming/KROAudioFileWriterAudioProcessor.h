// An offline head that renders a range of a graph into one finished audio
// file. The handler writes a hidden working file in the target folder; only
// a complete render is moved to its final name, which never replaces an
// existing file (mix.wav taken gives mix-1.wav). A failure or a cancel
// deletes the working file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "KROAudioFileContent.h"
#include "KROOfflineWriterAudioProcessor.h"

class KROAudioFileWriterAudioProcessor : public KROOfflineWriterAudioProcessor {
    KRO_DECLARE_CLASS(KROAudioFileWriterAudioProcessor)

public:
    // Code 2 for an empty range, code 1 for an unknown format; then the
    // handler's beginWrite.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;

    // baseDirectory / baseFilename with the extension, or with "-1", "-2" ...
    // after the name when that exists.
    std::filesystem::path createResultURLWithExtension(const std::string& extension) const;
    // Moves the handler's working file to resultURL; the argument is not
    // used, the handler's URL is.
    bool replaceResultWithFileAtTemporaryURL(const std::filesystem::path& temporaryURL,
                                             KROErrorPtr* error = nullptr);

    const std::string& format() const { return format_; }
    void setFormat(std::string format) { format_ = std::move(format); }
    std::uint32_t encoding() const { return encoding_; }
    void setEncoding(std::uint32_t encoding) { encoding_ = encoding; }
    std::int32_t audioDataByteOrder() const { return audioDataByteOrder_; }
    void setAudioDataByteOrder(std::int32_t order) { audioDataByteOrder_ = order; }
    std::uint64_t bitDepth() const { return bitDepth_; }
    void setBitDepth(std::uint64_t bits) { bitDepth_ = bits; }
    bool isFloatingPoint() const { return floatingPoint_; }
    void setFloatingPoint(bool floatingPoint) { floatingPoint_ = floatingPoint; }
    std::uint64_t bitrate() const { return bitrate_; }
    void setBitrate(std::uint64_t bitrate) { bitrate_ = bitrate; }
    float quality() const { return quality_; }
    void setQuality(float quality) { quality_ = quality; }
    KROAudioFileContent::Labels& labels() { return labels_; }
    KROPropertyList& metadata() { return metadata_; }
    // Further handler settings by key.
    KROPropertyList& fileContentProperties() { return fileContentProperties_; }
    const std::filesystem::path& resultURL() const { return resultURL_; }

protected:
    bool storeBlock(const KROAudioBufferList& block, KROErrorPtr* error) override;
    bool finishWriting(KROErrorPtr* error) override;
    void abandonWriting(KROErrorPtr* error) override;
    void storeCancelError(KROErrorPtr* error) override;

private:
    bool configureHandler(KROErrorPtr* error);

    std::string format_;
    std::uint32_t encoding_ = 0;
    std::int32_t audioDataByteOrder_ = 0;
    std::uint64_t bitDepth_ = 0;
    bool floatingPoint_ = false;
    std::uint64_t bitrate_ = 0;
    float quality_ = 0.0f;
    KROAudioFileContent::Labels labels_;
    KROPropertyList metadata_ = KROPropertyList::dictionary();
    KROPropertyList fileContentProperties_ = KROPropertyList::dictionary();
    std::shared_ptr<KROAudioFileContent> fileContent_;
    std::filesystem::path resultURL_;
};
