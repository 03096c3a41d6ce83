// One buffer of a file player's ring: the frames of the file that its range
// names, and the role it plays ("current", "next" or "previous"). The render
// thread gives roles and ranges without a lock; the disk thread fills the
// buffer under its lock.
//
// The state word pairs a generation, raised each time the render thread gives
// the buffer a new range, with a ready bit that the disk thread sets when the
// samples of that very range are in place. The render thread plays a buffer
// only while it is ready, so a load that finishes after the range moved on
// never plays: the listener hears silence, never the frames of another place.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "KROAudioBufferList.h"

class KROAudioFileAudioGeneratorPlaybackBuffer : public KROAudioBufferList {
    KRO_DECLARE_CLASS(KROAudioFileAudioGeneratorPlaybackBuffer)

public:
    static constexpr std::string_view current = "current";
    static constexpr std::string_view next = "next";
    static constexpr std::string_view previous = "previous";

    static std::shared_ptr<KROAudioFileAudioGeneratorPlaybackBuffer>
    playbackBufferWithChannels(std::uint32_t channels, std::uint64_t frameCapacity,
                               KROErrorPtr* error = nullptr);

    // One of the three role strings; empty before the first.
    std::string_view role() const { return role_; }
    void setRole(std::string_view role) { role_ = role; }
    bool hasRole(std::string_view role) const { return role_ == role; }

    void lock() { lock_.lock(); }
    void unlock() { lock_.unlock(); }

    // Render thread: the buffer stands for other frames from now on; its
    // samples stop playing until a load of the new range is done. Clears it.
    void relocate(NSLongRange range);
    // The generation of the range now assigned, for a load to remember, and
    // the first frame of that range: read the generation first.
    std::uint64_t generation() const { return state_.load(std::memory_order_acquire) >> 1; }
    std::uint64_t loadLocation() const { return loadLocation_.load(std::memory_order_relaxed); }
    // Disk thread, after filling: marks the samples ready when the range is
    // still the one of that generation. False when it moved on meanwhile.
    bool markReady(std::uint64_t generation);
    bool isReady() const { return (state_.load(std::memory_order_acquire) & 1u) != 0; }

private:
    std::string_view role_;
    std::mutex lock_;
    std::atomic<std::uint64_t> loadLocation_{0};
    std::atomic<std::uint64_t> state_{0};
};
