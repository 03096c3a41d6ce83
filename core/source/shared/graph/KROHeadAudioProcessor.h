// A head, the processor at which audio enters or leaves a graph and
// the only place where time is set. A render head owns the outermost buffer
// and pulls through its input bus on its clock; an input head pushes live
// audio through its output bus. Head classes override start and stop. A
// render head allocates its buffer at initializeForRender and writes
// sampleRate, numberOfChannels and maxFrames into its input connection (an
// input head into its output connection): the format of the whole chain
// comes from there. Each block it sets hostTime and the sample time on info
// before it pulls or pushes.
#pragma once

#include <atomic>
#include <memory>

#include "KROAudioProcessor.h"
#include "KROAudioStreamRenderInfo.h"

class KROHeadAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KROHeadAudioProcessor)

public:
    // Inherited init, then makes info.
    bool init(KROErrorPtr* error = nullptr) override;

    // The base versions return false and leave the error alone; every head
    // class overrides them.
    virtual bool start(KROErrorPtr* error = nullptr);
    virtual bool stop(KROErrorPtr* error = nullptr);

    // Inherited, then "isInputHead" and "isRenderHead" as booleans when
    // present. settings is not overridden: the flags are not written out, so
    // a copy is not a head of anything until told so.
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;

    bool isInputHead() const { return isInputHead_; }
    void setIsInputHead(bool isInputHead) { isInputHead_ = isInputHead; }
    bool isRenderHead() const { return isRenderHead_; }
    void setIsRenderHead(bool isRenderHead) { isRenderHead_ = isRenderHead; }

    // The record passed with every render and input; lives as long as the
    // head and is not reset between runs.
    KROAudioStreamRenderInfo* info() const { return info_.get(); }

    bool isRunning() const { return isRunning_.load(std::memory_order_relaxed); }
    // The library never writes it: 0.0 unless a head subclass fills it.
    float stress() const { return stress_.load(std::memory_order_relaxed); }

protected:
    // For subclasses: start sets running, stop clears it.
    void setRunning(bool running) { isRunning_.store(running, std::memory_order_relaxed); }
    void setStress(float stress) { stress_.store(stress, std::memory_order_relaxed); }

private:
    bool isInputHead_ = false;
    bool isRenderHead_ = false;
    std::shared_ptr<KROAudioStreamRenderInfo> info_;
    std::atomic<bool> isRunning_{false};
    std::atomic<float> stress_{0.0f};
};
