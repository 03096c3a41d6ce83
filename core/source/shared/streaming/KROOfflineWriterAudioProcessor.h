// The common part of the two offline heads that store a graph's output: a
// render over a range of the timeline, pulled faster than real time on the
// caller's thread inside start, optionally followed by a decaying tail, and
// cancelled through an operation polled between blocks. Subclasses store
// each block, finish, and clean up after a failure.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "KROAudioBufferList.h"
#include "KROHeadAudioProcessor.h"
#include "KROOperation.h"
#include "KRORange.h"

class KROOfflineWriterAudioProcessor : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(KROOfflineWriterAudioProcessor)

public:
    // Renders until the range (and tail) is done, storing every block; runs
    // synchronously. A cancel or failure leaves no output behind.
    bool start(KROErrorPtr* error = nullptr) override;
    // Does nothing.
    bool stop(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;

    const std::filesystem::path& baseDirectory() const { return baseDirectory_; }
    void setBaseDirectory(std::filesystem::path directory) {
        baseDirectory_ = std::move(directory);
    }
    const std::string& baseFilename() const { return baseFilename_; }
    void setBaseFilename(std::string name) { baseFilename_ = std::move(name); }
    double sampleRate() const { return sampleRate_; }
    void setSampleRate(double rate) { sampleRate_ = rate; }
    std::uint64_t numberOfChannels() const { return numberOfChannels_; }
    void setNumberOfChannels(std::uint64_t channels) { numberOfChannels_ = channels; }
    // Seconds of the timeline. After a render with a tail, length holds the
    // absolute end (not the duration): kept, since hosts read it so.
    NSDoubleRange range() const { return range_; }
    void setRange(NSDoubleRange range) { range_ = range; }
    // Frames per pull; 0 means one second.
    std::uint64_t renderFrames() const { return renderFrames_; }
    void setRenderFrames(std::uint64_t frames) { renderFrames_ = frames; }
    bool retainTail() const { return retainTail_; }
    void setRetainTail(bool retain) { retainTail_ = retain; }
    double maximumTailLength() const { return maximumTailLength_; }
    void setMaximumTailLength(double seconds) { maximumTailLength_ = seconds; }
    float minimumTailLevel() const { return minimumTailLevel_; }
    void setMinimumTailLevel(float level) { minimumTailLevel_ = level; }
    const std::shared_ptr<KROOperation>& operation() const { return operation_; }
    void setOperation(std::shared_ptr<KROOperation> operation) {
        operation_ = std::move(operation);
    }
    // 0 to 1; any thread may poll it.
    float progress() const { return progress_.load(std::memory_order_relaxed); }

protected:
    // The tail of initializeForRender that both classes share: the pull
    // buffer, the input connection's format and the render info.
    bool prepareRender(KROErrorPtr* error);
    virtual bool storeBlock(const KROAudioBufferList& block, KROErrorPtr* error) = 0;
    virtual bool finishWriting(KROErrorPtr* error) = 0;
    // Removes whatever was written; error holds the cause, or is empty.
    virtual void abandonWriting(KROErrorPtr* error) = 0;
    virtual void storeCancelError(KROErrorPtr* /*error*/) {}

    std::filesystem::path baseDirectory_;
    std::string baseFilename_;
    double sampleRate_ = 0.0;
    std::uint64_t numberOfChannels_ = 0;
    NSDoubleRange range_{};
    std::uint64_t renderFrames_ = 0;
    bool retainTail_ = false;
    double maximumTailLength_ = 0.0;
    float minimumTailLevel_ = 0.0f;
    std::shared_ptr<KROOperation> operation_;
    std::shared_ptr<KROAudioBufferList> buffer_;
    std::atomic<float> progress_{0.0f};

private:
    bool failAfter(KROErrorPtr* error);
};
