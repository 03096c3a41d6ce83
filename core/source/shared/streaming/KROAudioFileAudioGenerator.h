// Plays an audio file through a graph. In a real-time render the render
// thread never touches the disk: a ring of three buffers ("current", "next",
// "previous") is filled ahead by one disk thread shared by every player of
// the process, and a forward jump landmark of the conductor is foreseen, so
// that the buffer after the jump is loaded before the playhead lands there.
// A frame that is not in memory when the render thread needs it plays as
// silence; the render thread neither waits, nor locks, nor allocates (apart
// from nothing: a load is posted through a ring of slots). An offline render
// reads the file directly.
//
// Settings: "audioFileURL" (a path; the file is opened when the settings are
// given, and a file that cannot be read fails them), "antiClickOnStart" and
// "antiClickOnStop" (booleans).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include "KROAudioFileAudioGeneratorPlaybackBuffer.h"
#include "KROAudioFileReader.h"
#include "KROAudioGenerator.h"

class KROConductorAudioProcessor;

class KROAudioFileAudioGenerator : public KROAudioGenerator {
    KRO_DECLARE_CLASS(KROAudioFileAudioGenerator)

public:
    ~KROAudioFileAudioGenerator() override;

    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;
    KROPropertyList settings() const override;

    // Silent with no file; fails with code 1 when the file's channels differ
    // from the output connection's.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // Clears the three buffers and empties their ranges; roles stay.
    bool reset(KROErrorPtr* error = nullptr) override;
    // Waits for the loads still queued for this player, then frees the ring.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    const std::shared_ptr<KROAudioFileReader>& audioFile() const { return audioFile_; }
    // Set-up thread. Also picks the read-ahead: 1 s for a file on a local
    // disk, 10 s on a network volume or when that cannot be told.
    void setAudioFile(std::shared_ptr<KROAudioFileReader> audioFile);
    // Back reference, not owned: the conductor whose jump landmarks are
    // foreseen.
    KROConductorAudioProcessor* conductor() const { return conductor_; }
    void setConductor(KROConductorAudioProcessor* conductor) { conductor_ = conductor; }
    bool antiClickOnStart() const { return antiClickOnStart_; }
    void setAntiClickOnStart(bool value) { antiClickOnStart_ = value; }
    bool antiClickOnStop() const { return antiClickOnStop_; }
    void setAntiClickOnStop(bool value) { antiClickOnStop_ = value; }
    // Seconds of audio in each buffer of the ring.
    double playbackBufferLength() const { return playbackBufferLength_; }

    // The ring, in array order; none before initializeForRender.
    KROAudioFileAudioGeneratorPlaybackBuffer* playbackBuffer(std::size_t index) const {
        return playbackBuffer_[index].get();
    }
    KROAudioFileAudioGeneratorPlaybackBuffer* playbackBufferForRole(std::string_view role) const;
    // The first buffer, in array order, whose range holds the frame.
    KROAudioFileAudioGeneratorPlaybackBuffer* playbackBufferForFrame(std::int64_t frame) const;
    // Any thread: posts a load to the disk thread without waiting.
    void asynchronouslyLoadPlaybackBuffer(KROAudioFileAudioGeneratorPlaybackBuffer* buffer);
    // Disk thread, or set-up thread: reads the buffer's range from the file.
    // A failed read leaves the buffer silent.
    void loadPlaybackBuffer(KROAudioFileAudioGeneratorPlaybackBuffer* buffer);
    // Set-up thread: lays the ring out around the frame and loads the buffer
    // that holds it before returning; the other two load behind.
    void prepareForPlaybackFromLocation(double seconds);
    void prepareForPlaybackFromFrame(std::int64_t frame);

    // Returns when every load posted so far, by any player, is done.
    static void waitForDiskThread();

private:
    using Buffer = KROAudioFileAudioGeneratorPlaybackBuffer;

    std::uint64_t capacity() const;
    // Lays the ring out with buffer 0 at the frame's head; true when the
    // frame lies in buffer 0.
    bool layOutRing(std::int64_t frame);
    void playRealtime(KROAudioBufferList& output, std::int64_t frame, std::int64_t total,
                      const KROAudioStreamRenderInfo& info);
    void recoverFromMiss(std::int64_t frame);
    void rotateBackward(Buffer& found);
    void rotateForward(Buffer& found);
    std::uint64_t forwardTarget(const Buffer& found) const;
    void copyFromCurrent(KROAudioBufferList& output, std::int64_t frame, std::uint64_t frames,
                         std::uint64_t position) const;
    bool applyAudioFileSettings(const KROPropertyList& settings, KROErrorPtr* error);

    std::shared_ptr<KROAudioFileReader> audioFile_;
    KROConductorAudioProcessor* conductor_ = nullptr;
    bool antiClickOnStart_ = false;
    bool antiClickOnStop_ = false;
    std::array<std::shared_ptr<Buffer>, 3> playbackBuffer_;
    // Where the disk thread reads before it publishes into a buffer of the
    // ring; only the disk thread and prepareForPlaybackFromFrame use it.
    std::shared_ptr<KROAudioBufferList> loadBuffer_;
    double playbackBufferLength_ = 10.0;
    bool lastRunningState_ = false;
    std::mutex audioFileLock_;
};
