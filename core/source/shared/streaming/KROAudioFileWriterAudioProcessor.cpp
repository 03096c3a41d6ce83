#include "KROAudioFileWriterAudioProcessor.h"

#include "KROClassRegistry.h"
#include "KROErrorFamilies.h"
#include "KROURLExtension.h"

KRO_REGISTER_CLASS(KROAudioFileWriterAudioProcessor, KROHeadAudioProcessor)

namespace {

// The system's code for a job the user cancelled.
constexpr std::int64_t kUserCancelled = 3072;

} // namespace

bool KROAudioFileWriterAudioProcessor::initializeForRender(KROErrorPtr* error) {
    if (range_.length == 0.0) {
        return KROFailWithFormat<KROAudioFileWriterAudioProcessorError>(
            error, 2, "KROAudioProcessor_action_initializeForRender", className());
    }
    const auto contentClass = KROAudioFileContent::fileContentClassForFormat(format_);
    fileContent_ = contentClass ? contentClass->makeContent() : nullptr;
    if (!fileContent_) {
        return KROFailWithFormat<KROAudioFileWriterAudioProcessorError>(
            error, 1, "KROAudioProcessor_action_initializeForRender", className());
    }
    if (!configureHandler(error) || !fileContent_->beginWrite(error)) {
        fileContent_.reset();
        return false;
    }
    return prepareRender(error);
}

bool KROAudioFileWriterAudioProcessor::configureHandler(KROErrorPtr* /*error*/) {
    KROAudioFileContent& content = *fileContent_;
    // The working file stands on the target's volume, so the final move is
    // a rename.
    content.setWritingDirectory(baseDirectory_);
    content.setEncoding(encoding_);
    content.setSampleRate(sampleRate_);
    content.setBitDepth(bitDepth_);
    content.setNumberOfChannels(numberOfChannels_);
    content.setIsFloatingPoint(floatingPoint_);
    content.setAudioDataByteOrder(audioDataByteOrder_);
    content.setBitrate(bitrate_);
    content.setQuality(quality_);
    content.labels().insert(content.labels().end(), labels_.begin(), labels_.end());
    for (const std::string& key : metadata_.allKeys()) {
        content.metadata().setObjectForKey(key, *metadata_.objectForKey(key));
    }
    for (const std::string& key : fileContentProperties_.allKeys()) {
        content.setValue(*fileContentProperties_.objectForKey(key), key);
    }
    return true;
}

bool KROAudioFileWriterAudioProcessor::uninitialize(KROErrorPtr* error) {
    fileContent_.reset();
    return KROOfflineWriterAudioProcessor::uninitialize(error);
}

bool KROAudioFileWriterAudioProcessor::storeBlock(const KROAudioBufferList& block,
                                                  KROErrorPtr* error) {
    return fileContent_->writeAudio(block, error);
}

bool KROAudioFileWriterAudioProcessor::finishWriting(KROErrorPtr* error) {
    if (!fileContent_->endWrite(error)) {
        kro::deleteItem(fileContent_->URL());
        return false;
    }
    resultURL_ = createResultURLWithExtension(fileContent_->extension());
    if (!replaceResultWithFileAtTemporaryURL(fileContent_->URL(), error)) {
        kro::deleteItem(fileContent_->URL());
        return false;
    }
    return true;
}

void KROAudioFileWriterAudioProcessor::abandonWriting(KROErrorPtr* /*error*/) {
    fileContent_->endWrite();
    kro::deleteItem(fileContent_->URL());
}

void KROAudioFileWriterAudioProcessor::storeCancelError(KROErrorPtr* error) {
    if (error) {
        *error = KROCocoaError::errorWithCode(kUserCancelled, "Writing an audio file");
    }
}

std::filesystem::path
KROAudioFileWriterAudioProcessor::createResultURLWithExtension(const std::string& extension) const {
    for (long number = 0;; ++number) {
        const std::string name =
            number == 0 ? baseFilename_ : baseFilename_ + "-" + std::to_string(number);
        std::filesystem::path url = baseDirectory_ / name;
        if (!extension.empty()) {
            url += ".";
            url += extension;
        }
        if (!kro::exists(url)) {
            return url;
        }
    }
}

bool KROAudioFileWriterAudioProcessor::replaceResultWithFileAtTemporaryURL(
    const std::filesystem::path& /*temporaryURL*/, KROErrorPtr* error) {
    const bool accessing = kro::startAccessingSecurityScopedResource(baseDirectory_);
    const bool moved = kro::moveTo(fileContent_->URL(), resultURL_, error);
    if (accessing) {
        kro::stopAccessingSecurityScopedResource(baseDirectory_);
    }
    return moved;
}
