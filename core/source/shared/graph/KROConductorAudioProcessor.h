// The transport of a graph. Standing on a render chain, it gives everything
// upstream a clock of its own: a playhead in frames that advances while
// running, can be set, and can run backward. Each request from the head is
// cut at the landmarks that lie inside it, so that a stop, a jump or a turn
// is exact to the frame inside a block. Upstream processors see, for each
// piece, the piece's lowest frame as the sample time, the direction as
// reverse, and this conductor on the render info; they render forward and
// the conductor turns a reverse piece round itself.
//
// The transport can stand still while the graph runs: start and stop here
// are separate from the heads'. It stops by itself at a stop landmark, or
// when a pass does not move the playhead (a jump back to where the piece
// began, or a request of no frames); the delegate is told then, on the render
// thread, under runLock.
//
// Locks. runLock is held for a whole render call; setLocation and stop take
// it, so they wait for the block to end and never move the playhead in
// mid-block. start takes none. landmarksLock is held for one pass, upstream
// render included; the landmark edits take it, so they wait for a piece to
// finish, and the reads take no lock (a landmark's action may read). Neither
// a landmark's action nor the delegate may stop, move or edit this conductor.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "KROAudioProcessor.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROConductorLandmark.h"

class KROAudioBufferList;
class KROConductorAudioProcessor;

// Told when the transport stops by itself. Optional: the default does nothing.
class KROConductorDelegate {
public:
    virtual ~KROConductorDelegate() = default;
    virtual void conductorDidStop(KROConductorAudioProcessor& /*conductor*/) {}
};

class KROConductorAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROConductorAudioProcessor)

public:
    using Landmarks = std::vector<std::shared_ptr<KROConductorLandmark>>;

    KROConductorAudioProcessor();

    // Keeps the position in seconds when the rate changes; the input
    // connection takes the output connection's format; the piece buffer is
    // made (a failed allocation leaves the transport silent). Always true.
    // The position survives uninitialize.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // The playhead in seconds; 0 at a rate of 0.
    double location() const;
    // Waits for the block, then puts the playhead on the nearest frame,
    // halves away from zero.
    void setLocation(double seconds);
    // Starts the transport. Takes no lock.
    void start();
    // Stops the transport without telling the delegate; waits for the block.
    void stop();
    bool isRunning() const { return running_.load(std::memory_order_relaxed); }
    // Plain access: unlike start, the render info upstream does not learn of
    // it until the transport is started or stopped.
    void setRunning(bool running) { running_.store(running, std::memory_order_relaxed); }
    bool isReverse() const { return reverse_.load(std::memory_order_relaxed); }
    // Takes effect at the next pass.
    void setReverse(bool reverse) { reverse_.store(reverse, std::memory_order_relaxed); }
    // Not owned.
    KROConductorDelegate* delegate() const { return delegate_.load(std::memory_order_relaxed); }
    void setDelegate(KROConductorDelegate* delegate) {
        delegate_.store(delegate, std::memory_order_relaxed);
    }

    // The playhead in frames; it can go negative in reverse.
    std::int64_t currentSampleFrame() const {
        return currentSampleFrame_.load(std::memory_order_relaxed);
    }
    double currentSampleRate() const { return currentSampleRate_.load(std::memory_order_relaxed); }

    // The landmarks in the caller's order; nothing sorts them. Reads take no
    // lock, edits take landmarksLock.
    std::size_t countOfLandmarks() const { return landmarks_.size(); }
    const Landmarks& enumeratorOfLandmarks() const { return landmarks_; }
    // None when out of range.
    std::shared_ptr<KROConductorLandmark> objectInLandmarksAtIndex(std::size_t index) const;
    std::optional<std::size_t> indexOfObjectInLandmarks(const KROConductorLandmark& landmark) const;
    // An index past the end appends.
    void insertObjectInLandmarksAtIndex(std::shared_ptr<KROConductorLandmark> landmark,
                                        std::size_t index);
    // Inserts so that each ends at its index.
    void insertLandmarksAtIndexes(const Landmarks& landmarks, const std::set<std::size_t>& indexes);
    // Indexes past the end are ignored.
    void removeObjectFromLandmarksAtIndex(std::size_t index);
    void removeLandmarksAtIndexes(const std::set<std::size_t>& indexes);

private:
    // The landmark nearest ahead within reach, for one pass.
    struct Selection {
        KROConductorLandmark* landmark = nullptr;
        std::int64_t distance = 0;
    };

    Selection selectLandmark(bool reverse, std::int64_t playhead, std::uint64_t reach,
                             double rate) const;
    // Renders count frames upstream at the playhead and copies them into the
    // head's buffer at done; answers the frame after the piece.
    std::int64_t renderPiece(KROAudioBufferList& buffer, std::uint64_t done, std::uint64_t count,
                             std::int64_t playhead, bool reverse);
    // What a selected landmark does; answers the next frame.
    std::int64_t applyLandmark(KROConductorLandmark& landmark, bool reverse, std::int64_t next,
                               double rate);
    // The transport stopped by itself.
    void stoppedByItself();

    std::atomic<KROConductorDelegate*> delegate_{nullptr};
    std::atomic<bool> running_{false};
    // Whether the render info upstream says running: start and stop set it,
    // setRunning does not. Copied into conductorInfo_ under runLock.
    std::atomic<bool> infoRunning_{false};
    std::atomic<bool> reverse_{false};
    std::mutex runLock_;
    Landmarks landmarks_;
    std::mutex landmarksLock_;
    KROAudioStreamRenderInfo conductorInfo_;
    std::atomic<std::int64_t> currentSampleFrame_{0};
    std::atomic<double> currentSampleRate_{44100.0};
    std::shared_ptr<KROAudioBufferList> renderBuffer_;
};
