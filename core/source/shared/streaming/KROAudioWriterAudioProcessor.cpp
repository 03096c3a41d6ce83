#include "KROAudioWriterAudioProcessor.h"

#include <cmath>

#include "KROClassRegistry.h"
#include "KROErrorFamilies.h"
#include "KROStringWithFormat.h"
#include "KROURLExtension.h"
#include "KROWaveform.h"

KRO_REGISTER_CLASS(KROAudioWriterAudioProcessor, KROHeadAudioProcessor)

namespace {

std::string channelKey(std::uint64_t channel) {
    return KROStringWithFormatArguments("%02ld", static_cast<long>(channel));
}

std::string waveformKey(std::uint64_t channel, const std::string& className) {
    return KROStringWithFormatArguments("%02ld.%@", static_cast<long>(channel), className);
}

} // namespace

bool KROAudioWriterAudioProcessor::openFile(const std::string& key, KROErrorPtr* error) {
    std::filesystem::path url = baseDirectory_ / baseFilename_;
    url += ".";
    url += key;
    if (!kro::createFile(url, error)) {
        return false;
    }
    resultURLs_[key] = url;
    auto writer = std::make_shared<KROFileWriter>();
    if (!writer->initWithURL(url, error)) {
        return false;
    }
    writers_[key] = std::move(writer);
    return true;
}

bool KROAudioWriterAudioProcessor::initializeForRender(KROErrorPtr* error) {
    if (range_.length == 0.0) {
        return KROFailWithFormat<KROAudioWriterAudioProcessorError>(
            error, 2, "KROAudioProcessor_action_initializeForRender", className());
    }
    writers_.clear();
    resultURLs_.clear();
    for (std::uint64_t channel = 0; channel < numberOfChannels_; ++channel) {
        if (!openFile(channelKey(channel), error)) {
            abandonWriting(error);
            return false;
        }
    }
    for (const std::string& name : waveformClasses_) {
        for (std::uint64_t channel = 0; channel < numberOfChannels_; ++channel) {
            if (!openFile(waveformKey(channel, name), error)) {
                abandonWriting(error);
                return false;
            }
        }
    }
    if (renderFrames_ == 0) {
        renderFrames_ = static_cast<std::uint64_t>(sampleRate_);
    }
    if (!waveformClasses_.empty()) {
        renderFrames_ =
            static_cast<std::uint64_t>(std::llround(double(renderFrames_) / 256.0)) * 256;
    }
    return prepareRender(error);
}

bool KROAudioWriterAudioProcessor::uninitialize(KROErrorPtr* error) {
    writers_.clear();
    return KROOfflineWriterAudioProcessor::uninitialize(error);
}

bool KROAudioWriterAudioProcessor::storeBlock(const KROAudioBufferList& block, KROErrorPtr* error) {
    const auto channels = static_cast<std::uint32_t>(block.numberOfChannels());
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        if (!writers_[channelKey(channel)]->writeBuffer(block.bufferAtIndex(channel),
                                                        block.length(), error)) {
            return false;
        }
    }
    for (const std::string& name : waveformClasses_) {
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            const auto waveform = KROWaveform::waveformWithClassName(name);
            if (!waveform) {
                continue;
            }
            waveform->buildFromSamples(block.channel(channel), block.frames());
            // Kept: a side file that fails to take its entries does not stop
            // the render; the audio files are what counts.
            writers_[waveformKey(channel, name)]->writeData(waveform->table());
        }
    }
    return true;
}

bool KROAudioWriterAudioProcessor::finishWriting(KROErrorPtr* /*error*/) {
    for (const auto& [key, writer] : writers_) {
        writer->flush();
    }
    return true;
}

void KROAudioWriterAudioProcessor::abandonWriting(KROErrorPtr* /*error*/) {
    writers_.clear();
    for (const auto& [key, url] : resultURLs_) {
        kro::deleteItem(url);
    }
    resultURLs_.clear();
}
