// Records everything that flows through it to a file while a graph runs in
// real time, with overview tables beside it, and passes the audio on
// unchanged. The render thread only copies into one of two buffers of about
// three seconds and only tries the lock (a block that finds it taken is left
// out of the recording); one disk thread shared by every recorder of the
// process encodes and writes a full buffer while the other fills. When the
// disk falls a whole buffer behind, blocks are dropped rather than waited
// for.
//
// Settings (write-only): "baseDirectory" (a path), "baseFilename", "format",
// "encoding", "audioDataByteOrder", "bitDepth", "isFloatingPoint",
// "bitrate", "quality", "waveformClasses" (array of class names).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "KROAudioFileContent.h"
#include "KROAudioProcessor.h"

class KROStreamWriterAudioProcessor;

// Told on the disk thread after each buffer reached the file.
class KROStreamWriterAudioProcessorDelegate {
public:
    virtual ~KROStreamWriterAudioProcessorDelegate() = default;
    virtual void streamWriterDidWrite(KROStreamWriterAudioProcessor& /*writer*/) {}
};

class KROStreamWriterAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROStreamWriterAudioProcessor)

public:
    ~KROStreamWriterAudioProcessor() override;

    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;

    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    // Writing goes on independently of the render state.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

    // Host thread. Fails with no error object when the folder or the name is
    // missing, with code 1 for an unknown format.
    bool startWriting(KROErrorPtr* error = nullptr);
    // Host thread: writes what is left, finishes the file and moves it to
    // baseDirectory / baseFilename.extension. Succeeds at once when not
    // writing.
    bool stopWriting(KROErrorPtr* error = nullptr);
    // Render thread: copies the block into the filling buffer.
    void accumulateBuffer(const KROAudioBufferList& block);

    // baseDirectory / "take.01.KROMinMaxWaveform"; empty for a class not
    // asked for or a channel the input does not have.
    std::filesystem::path waveformURLForClassName(const std::string& className,
                                                  std::uint64_t channel) const;

    KROStreamWriterAudioProcessorDelegate* delegate() const { return delegate_; }
    void setDelegate(KROStreamWriterAudioProcessorDelegate* delegate) { delegate_ = delegate; }
    const std::filesystem::path& baseDirectory() const { return baseDirectory_; }
    void setBaseDirectory(std::filesystem::path directory) {
        baseDirectory_ = std::move(directory);
    }
    const std::string& baseFilename() const { return baseFilename_; }
    void setBaseFilename(std::string name) { baseFilename_ = std::move(name); }
    const std::string& format() const { return format_; }
    void setFormat(std::string format) { format_ = std::move(format); }
    void setEncoding(std::uint32_t encoding) { encoding_ = encoding; }
    void setAudioDataByteOrder(std::int32_t order) { audioDataByteOrder_ = order; }
    void setBitDepth(std::uint64_t bits) { bitDepth_ = bits; }
    void setFloatingPoint(bool floatingPoint) { floatingPoint_ = floatingPoint; }
    void setBitrate(std::uint64_t bitrate) { bitrate_ = bitrate; }
    void setQuality(float quality) { quality_ = quality; }
    const std::vector<std::string>& waveformClasses() const { return waveformClasses_; }
    void setWaveformClasses(std::vector<std::string> names) { waveformClasses_ = std::move(names); }

    bool isWriting() const { return writing_.load(std::memory_order_relaxed); }
    std::uint64_t framesWritten() const { return framesWritten_.load(std::memory_order_relaxed); }
    // Frames that reached the recorder while both buffers were full.
    std::uint64_t framesDropped() const { return framesDropped_.load(std::memory_order_relaxed); }
    const std::filesystem::path& resultURL() const { return resultURL_; }

    // Disk thread: writes one accumulate buffer (by index) to the file and
    // the side files.
    void writeToFile(std::size_t index);

private:
    bool createSideFiles(KROErrorPtr* error);
    bool writeSideFiles(const KROAudioBufferList& buffer, KROErrorPtr* error);
    void releaseWriting();
    void stopAfterError(const KROErrorPtr& error);

    KROStreamWriterAudioProcessorDelegate* delegate_ = nullptr;
    std::filesystem::path baseDirectory_;
    std::string baseFilename_;
    std::string format_;
    std::uint32_t encoding_ = 0;
    std::int32_t audioDataByteOrder_ = 1;
    std::uint64_t bitDepth_ = 32;
    bool floatingPoint_ = true;
    std::uint64_t bitrate_ = 0;
    float quality_ = 0.0f;
    std::vector<std::string> waveformClasses_;
    std::shared_ptr<KROAudioFileContent> fileContent_;
    std::filesystem::path resultURL_;
    std::atomic<bool> writing_{false};
    std::atomic<std::uint64_t> framesWritten_{0};
    std::atomic<std::uint64_t> framesDropped_{0};
    // In an accumulate buffer range.location is the fill count.
    std::array<std::shared_ptr<KROAudioBufferList>, 2> accumulateBuffer_;
    // Set when a buffer is handed to the disk thread, cleared when it is
    // written and empty again.
    std::array<std::atomic<bool>, 2> posted_{};
    std::size_t currentAccumulateBufferIndex_ = 0;
    std::mutex accumulateLock_;
    // Set while stopWriting holds accumulateLock for the last write.
    bool stopping_ = false;
};
