// Moves the upstream work of a real-time pull to a worker queue at the price
// of a fixed latency of 512 frames. In each real-time block the hinge hands
// the upstream render of the block to its queue, which stores the result
// 512 frames ahead in a ring, and at once hands on what the ring holds for
// the present frame, without waiting: the first 512 frames after a start are
// the ring's silence. An offline pull, or a disabled hinge, passes straight
// through in place, with no latency.
//
// The ring holds twice the block length. With blocks of 512 frames or more
// the stored and the delivered frames never meet, and the delay is exactly
// 512; below that the ring is shorter than the latency, so the store lands
// on frames still to be delivered in the same pass of the ring, and the audio
// comes out with less delay than latency() says. Both constants are fixed on
// purpose: hosts size their compensation by the 512.
//
// Threads. The render thread takes renderBufferLock only to set the block
// length, so a slow upstream render blocks the callback there rather than
// leave a gap. The worker holds it across its whole upstream render. The
// ring has no lock: the distance between the frame stored and the frame
// delivered protects it. Each block carries its own copy of the render
// info's fields to the worker, which sets them on its render info there, so
// the two threads never share a record.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "KROAudioProcessor.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROSerialQueue.h"

class KROAudioBufferList;
class KROAudioRingBufferList;

class KROHingeAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROHingeAudioProcessor)

public:
    static constexpr std::uint64_t decoupledLatency = 512;
    static constexpr const char* queueLabel = "com.krotect.KROHingeAudioProcessor";

    // Enabled; the queue runs at high priority where the system allows it.
    bool init(KROErrorPtr* error = nullptr) override;
    // The input connection takes the output connection's format; the render
    // buffer and a ring of twice maxFrames are made. A failed allocation is
    // not looked at: the hinge then renders silence. Always true.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // Frees both; a block still queued then does nothing.
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;

    // 512 while decoupled, 0 while passing through; set by each block.
    std::uint64_t latency() const override { return latency_.load(std::memory_order_relaxed); }
    bool isEnabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }
    // The worker queue, made by init; sync on it waits until every block
    // handed over has been rendered.
    KROSerialQueue* queue() const { return queue_.get(); }

private:
    // What a block hands to the worker: its ring frame and the fields of the
    // render info at the time.
    struct Block {
        std::uint64_t frame;
        std::uint64_t hostTime;
        std::int64_t sampleTime;
        KROConductorAudioProcessor* conductor;
        bool realtime;
        bool running;
        bool reverse;
    };

    static void renderUpstream(void* hinge, const void* block);
    void renderUpstream(const Block& block);

    KROAudioStreamRenderInfo renderInfo_;
    std::shared_ptr<KROAudioBufferList> renderBuffer_;
    std::shared_ptr<KROAudioRingBufferList> ringBuffer_;
    std::mutex renderBufferLock_;
    std::uint64_t ringBufferFrame_ = 0;
    std::atomic<bool> enabled_{true};
    std::atomic<std::uint64_t> latency_{0};
    // Last, so that it is the first to go: its worker finishes the queued
    // blocks while the rest of the hinge still exists.
    std::unique_ptr<KROSerialQueue> queue_;
};
