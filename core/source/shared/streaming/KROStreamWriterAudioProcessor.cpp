#include "KROStreamWriterAudioProcessor.h"

#include <algorithm>
#include <cmath>

#include "KROAudioConnection.h"
#include "KROClassRegistry.h"
#include "KRODiskThreads.h"
#include "KROErrorFamilies.h"
#include "KROFileWriter.h"
#include "KROLog.h"
#include "KROStringWithFormat.h"
#include "KROURLExtension.h"
#include "KROWaveform.h"

KRO_REGISTER_CLASS(KROStreamWriterAudioProcessor, KROAudioProcessor)

namespace {

struct WriteRequest {
    KROStreamWriterAudioProcessor* writer;
    std::size_t index;
};

void runWrite(void* /*context*/, const void* payload) {
    const auto& request = *static_cast<const WriteRequest*>(payload);
    request.writer->writeToFile(request.index);
}

const KROPropertyList* valueOf(const KROPropertyList& settings, const char* key, bool number) {
    const KROPropertyList* value = settings.objectForKey(key);
    if (!value) {
        return nullptr;
    }
    return (number ? value->isNumber() || value->isBoolean() : value->isString()) ? value : nullptr;
}

} // namespace

KROStreamWriterAudioProcessor::~KROStreamWriterAudioProcessor() {
    KRODiskThreads::drain(KRODiskThreads::recording(false));
}

bool KROStreamWriterAudioProcessor::setSettings(const KROPropertyList& settings,
                                                KROErrorPtr* error) {
    if (!KROAudioProcessor::setSettings(settings, error)) {
        return false;
    }
    if (const auto* value = valueOf(settings, "baseDirectory", false)) {
        baseDirectory_ = *value->stringValue();
    }
    if (const auto* value = valueOf(settings, "baseFilename", false)) {
        baseFilename_ = *value->stringValue();
    }
    if (const auto* value = valueOf(settings, "format", false)) {
        format_ = *value->stringValue();
    }
    if (const auto* value = valueOf(settings, "encoding", true)) {
        encoding_ = static_cast<std::uint32_t>(value->doubleValue());
    }
    if (const auto* value = valueOf(settings, "audioDataByteOrder", true)) {
        audioDataByteOrder_ = static_cast<std::int32_t>(value->doubleValue());
    }
    if (const auto* value = valueOf(settings, "bitDepth", true)) {
        bitDepth_ = static_cast<std::uint64_t>(value->doubleValue());
    }
    if (const auto* value = valueOf(settings, "isFloatingPoint", true)) {
        floatingPoint_ = value->boolValue();
    }
    if (const auto* value = valueOf(settings, "bitrate", true)) {
        bitrate_ = static_cast<std::uint64_t>(value->doubleValue());
    }
    if (const auto* value = valueOf(settings, "quality", true)) {
        quality_ = static_cast<float>(value->doubleValue());
    }
    if (const KROPropertyList* value = settings.objectForKey("waveformClasses");
        value && value->isArray()) {
        waveformClasses_.clear();
        for (const KROPropertyList& name : *value->arrayValue()) {
            if (name.isString()) {
                waveformClasses_.push_back(*name.stringValue());
            }
        }
    }
    return true;
}

bool KROStreamWriterAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* input = inputConnection()) {
        input->conformToConnection(outputConnection());
    }
    return true;
}

bool KROStreamWriterAudioProcessor::initializeForInput(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* output = outputConnection()) {
        output->conformToConnection(inputConnection());
    }
    return true;
}

bool KROStreamWriterAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    return true;
}

void KROStreamWriterAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                           KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* input = inputBus()) {
        input->render(buffer, info);
    }
    accumulateBuffer(buffer);
}

void KROStreamWriterAudioProcessor::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                          KROAudioStreamRenderInfo& info) {
    accumulateBuffer(buffer);
    if (KROAudioOutputBus* output = outputBus()) {
        output->input(buffer, info);
    }
}

std::filesystem::path
KROStreamWriterAudioProcessor::waveformURLForClassName(const std::string& className,
                                                       std::uint64_t channel) const {
    const KROAudioConnection* input = inputConnection();
    if (std::find(waveformClasses_.begin(), waveformClasses_.end(), className) ==
            waveformClasses_.end() ||
        !input || channel >= input->numberOfChannels()) {
        return {};
    }
    std::filesystem::path url = baseDirectory_ / baseFilename_;
    url +=
        KROStringWithFormatArguments(".%02lu.%@", static_cast<unsigned long>(channel), className);
    return url;
}

bool KROStreamWriterAudioProcessor::createSideFiles(KROErrorPtr* error) {
    const std::uint64_t channels = inputConnection()->numberOfChannels();
    for (const std::string& name : waveformClasses_) {
        for (std::uint64_t channel = 0; channel < channels; ++channel) {
            if (!kro::createFile(waveformURLForClassName(name, channel), error)) {
                return false;
            }
        }
    }
    return true;
}

bool KROStreamWriterAudioProcessor::startWriting(KROErrorPtr* error) {
    const KROAudioConnection* input = inputConnection();
    if (baseDirectory_.empty() || !kro::existsAsDirectory(baseDirectory_) ||
        baseFilename_.empty() || !input) {
        return false;
    }
    const auto contentClass = KROAudioFileContent::fileContentClassForFormat(format_);
    if (!contentClass) {
        return KROFailWithFormat<KROStreamWriterAudioProcessorError>(
            error, 1, "KROAudioProcessor_action_initializeForRender", className());
    }
    auto content = contentClass->makeContent();
    content->setWritingDirectory(baseDirectory_);
    content->setEncoding(encoding_);
    content->setSampleRate(input->sampleRate());
    content->setBitDepth(bitDepth_);
    content->setNumberOfChannels(input->numberOfChannels());
    content->setIsFloatingPoint(floatingPoint_);
    content->setAudioDataByteOrder(audioDataByteOrder_);
    content->setBitrate(bitrate_);
    content->setQuality(quality_);
    if (!content->beginWrite(error)) {
        return false;
    }
    fileContent_ = std::move(content);
    KRODiskThreads::recording();
    // Three seconds in whole overview blocks, so that only the last buffer
    // can end in a partial entry.
    const auto capacity =
        static_cast<std::uint64_t>(std::llround(input->sampleRate() * 3.0 / 256.0)) * 256;
    const auto channels = static_cast<std::uint32_t>(input->numberOfChannels());
    bool made = createSideFiles(error);
    for (auto& buffer : accumulateBuffer_) {
        buffer =
            made ? KROAudioBufferList::bufferListWithChannels(channels, capacity, error) : nullptr;
        made = made && buffer;
    }
    if (!made) {
        fileContent_->endWrite();
        kro::deleteItem(fileContent_->URL());
        releaseWriting();
        return false;
    }
    for (auto& posted : posted_) {
        posted.store(false);
    }
    currentAccumulateBufferIndex_ = 0;
    framesWritten_.store(0);
    framesDropped_.store(0);
    resultURL_.clear();
    writing_.store(true);
    return true;
}

void KROStreamWriterAudioProcessor::accumulateBuffer(const KROAudioBufferList& block) {
    if (!isWriting() || !accumulateLock_.try_lock()) {
        return;
    }
    std::uint64_t left = block.frames();
    std::uint64_t source = 0;
    while (left > 0) {
        const std::size_t index = currentAccumulateBufferIndex_;
        KROAudioBufferList& buffer = *accumulateBuffer_[index];
        if (posted_[index].load(std::memory_order_acquire)) {
            // Both buffers wait for the disk: this part of the block is lost.
            framesDropped_.fetch_add(left, std::memory_order_relaxed);
            break;
        }
        NSLongRange fill = buffer.range();
        const std::uint64_t count = std::min(buffer.frames() - fill.location, left);
        buffer.copyFrames(NSMakeLongRange(source, count), block, fill.location);
        fill.location += count;
        buffer.setRange(fill);
        if (fill.location == buffer.frames()) {
            posted_[index].store(true, std::memory_order_release);
            currentAccumulateBufferIndex_ = 1 - index;
            if (!KRODiskThreads::recording()->async(runWrite, nullptr, WriteRequest{this, index})) {
                // The disk thread's queue is full: this buffer's frames are
                // lost, and the buffer starts again empty.
                framesDropped_.fetch_add(fill.location, std::memory_order_relaxed);
                buffer.setRange(NSMakeLongRange(0, 0));
                posted_[index].store(false, std::memory_order_release);
            }
        }
        left -= count;
        source += count;
    }
    accumulateLock_.unlock();
}

bool KROStreamWriterAudioProcessor::writeSideFiles(const KROAudioBufferList& buffer,
                                                   KROErrorPtr* error) {
    for (const std::string& name : waveformClasses_) {
        for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
            const auto waveform = KROWaveform::waveformWithClassName(name);
            if (!waveform) {
                continue;
            }
            waveform->buildFromSamples(buffer.channel(channel), buffer.frames());
            KROFileWriter writer;
            if (!writer.initWithURL(waveformURLForClassName(name, channel), error) ||
                !writer.setPositionToEnd(error) || !writer.writeData(waveform->table(), error)) {
                return false;
            }
        }
    }
    return true;
}

void KROStreamWriterAudioProcessor::writeToFile(std::size_t index) {
    const std::shared_ptr<KROAudioBufferList> buffer = accumulateBuffer_[index];
    if (!buffer || !fileContent_) {
        return;
    }
    KROErrorPtr error;
    if (!buffer->setFrames(buffer->range().location, &error) ||
        !fileContent_->writeAudio(*buffer, &error)) {
        stopAfterError(error);
        return;
    }
    framesWritten_.fetch_add(buffer->frames(), std::memory_order_relaxed);
    if (!writeSideFiles(*buffer, &error)) {
        stopAfterError(error);
        return;
    }
    buffer->setFrames(buffer->frameCapacity());
    buffer->setRange(NSMakeLongRange(0, 0));
    posted_[index].store(false, std::memory_order_release);
    if (delegate_) {
        delegate_->streamWriterDidWrite(*this);
    }
}

void KROStreamWriterAudioProcessor::releaseWriting() {
    for (auto& buffer : accumulateBuffer_) {
        buffer.reset();
    }
    fileContent_.reset();
    writing_.store(false);
}

void KROStreamWriterAudioProcessor::stopAfterError(const KROErrorPtr& error) {
    KROLog("KROStreamWriterAudioProcessor stopped writing due to error: %@",
           error ? error->description() : std::string("?"));
    // stopWriting already holds the lock while it waits for its last write.
    if (stopping_) {
        releaseWriting();
        return;
    }
    const std::lock_guard guard(accumulateLock_);
    releaseWriting();
}

bool KROStreamWriterAudioProcessor::stopWriting(KROErrorPtr* error) {
    if (!isWriting()) {
        return true;
    }
    const std::lock_guard guard(accumulateLock_);
    stopping_ = true;
    const std::size_t index = currentAccumulateBufferIndex_;
    KRODiskThreads::recording()->sync([&] { writeToFile(index); });
    stopping_ = false;
    bool succeeded = false;
    if (!fileContent_) {
        // The last write failed and has been logged; nothing is moved.
        KROFail<KROStreamWriterAudioProcessorError>(
            error, 2, "KROStreamWriterAudioProcessor_action_stopWriting");
    } else if (fileContent_->endWrite(error)) {
        resultURL_ = baseDirectory_ / (baseFilename_ + "." + fileContent_->extension());
        succeeded = kro::moveTo(fileContent_->URL(), resultURL_, error);
    }
    releaseWriting();
    return succeeded;
}
