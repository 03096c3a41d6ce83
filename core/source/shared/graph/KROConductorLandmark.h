// A position on the transport at which the conductor stops, jumps, turns
// round or calls an action, each for one direction of motion. A landmark at
// the playhead itself never fires, which is what lets playback go on from a
// stop. Subclasses run code at the landmark by overriding action and
// hasAction.
//
// The fields are read on the render thread during a pass, so they are
// relaxed atomics: a host may move a landmark while audio runs.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "KROObject.h"

class KROConductorLandmark : public KROObject {
    KRO_DECLARE_CLASS(KROConductorLandmark)

public:
    static std::shared_ptr<KROConductorLandmark> landmark() {
        return std::make_shared<KROConductorLandmark>();
    }

    // Runs on the render thread with the conductor's locks held: it must
    // return at once and may not stop, move or edit the landmarks of its
    // conductor. The base does nothing.
    virtual void action() {}
    // Whether action does something: a landmark with an action counts in
    // either direction even without a flag. A subclass that overrides action
    // answers true.
    virtual bool hasAction() const { return false; }

    // "location: %f, stop: %d/%d, jump: %d/%d, jumpLocation: %f,
    // reverseDirection: %d/%d", each pair forward then reverse.
    std::string description() const override;

    // Whether the landmark stops, jumps or turns round for the direction.
    bool hasFlagForDirection(bool reverse) const {
        return reverse ? stopWhenReverse() || jumpWhenReverse() || reverseDirectionWhenReverse()
                       : stopWhenForward() || jumpWhenForward() || reverseDirectionWhenForward();
    }

    // Seconds.
    double location() const { return location_.load(std::memory_order_relaxed); }
    void setLocation(double seconds) { location_.store(seconds, std::memory_order_relaxed); }
    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }
    bool stopWhenForward() const { return stopWhenForward_.load(std::memory_order_relaxed); }
    void setStopWhenForward(bool value) {
        stopWhenForward_.store(value, std::memory_order_relaxed);
    }
    bool stopWhenReverse() const { return stopWhenReverse_.load(std::memory_order_relaxed); }
    void setStopWhenReverse(bool value) {
        stopWhenReverse_.store(value, std::memory_order_relaxed);
    }
    bool jumpWhenForward() const { return jumpWhenForward_.load(std::memory_order_relaxed); }
    void setJumpWhenForward(bool value) {
        jumpWhenForward_.store(value, std::memory_order_relaxed);
    }
    bool jumpWhenReverse() const { return jumpWhenReverse_.load(std::memory_order_relaxed); }
    void setJumpWhenReverse(bool value) {
        jumpWhenReverse_.store(value, std::memory_order_relaxed);
    }
    bool reverseDirectionWhenForward() const {
        return reverseDirectionWhenForward_.load(std::memory_order_relaxed);
    }
    void setReverseDirectionWhenForward(bool value) {
        reverseDirectionWhenForward_.store(value, std::memory_order_relaxed);
    }
    bool reverseDirectionWhenReverse() const {
        return reverseDirectionWhenReverse_.load(std::memory_order_relaxed);
    }
    void setReverseDirectionWhenReverse(bool value) {
        reverseDirectionWhenReverse_.store(value, std::memory_order_relaxed);
    }
    // Seconds.
    double jumpLocation() const { return jumpLocation_.load(std::memory_order_relaxed); }
    void setJumpLocation(double seconds) {
        jumpLocation_.store(seconds, std::memory_order_relaxed);
    }

private:
    std::atomic<double> location_{0.0};
    std::atomic<bool> enabled_{true};
    std::atomic<bool> stopWhenForward_{false};
    std::atomic<bool> stopWhenReverse_{false};
    std::atomic<bool> jumpWhenForward_{false};
    std::atomic<bool> jumpWhenReverse_{false};
    std::atomic<bool> reverseDirectionWhenForward_{false};
    std::atomic<bool> reverseDirectionWhenReverse_{false};
    std::atomic<double> jumpLocation_{0.0};
};
