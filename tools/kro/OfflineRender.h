// Renders a chain of processors over a source to its end as fast as it goes,
// in blocks of one length: how kro measures a file. The processors pass the
// audio on; they stand in the order given, the first next to the source.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "KROAudioGenerator.h"
#include "KROAudioStream.h"

class OfflineRenderHead;

class OfflineRender {
public:
    // After each block: the block as it reached the head, and the frames
    // rendered so far.
    using BlockObserver = std::function<void(const KROAudioBufferList& block, std::uint64_t done)>;

    OfflineRender(std::shared_ptr<KROAudioGenerator> source, double sampleRate,
                  std::uint32_t channels, std::uint64_t blockFrames);
    ~OfflineRender();
    OfflineRender(const OfflineRender&) = delete;
    OfflineRender& operator=(const OfflineRender&) = delete;

    void append(std::shared_ptr<KROAudioProcessor> processor);

    // Builds and initialises the stream, then pulls blocks until frames have
    // been rendered, the last block as short as needed.
    bool run(std::uint64_t frames, const BlockObserver& afterBlock, KROErrorPtr* error = nullptr);

private:
    bool build(KROErrorPtr* error);

    std::shared_ptr<KROAudioGenerator> source_;
    std::vector<std::shared_ptr<KROAudioProcessor>> processors_;
    std::shared_ptr<OfflineRenderHead> head_;
    KROAudioStream stream_;
};
