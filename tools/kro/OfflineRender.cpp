#include "OfflineRender.h"

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROOfflineWriterAudioProcessor.h"

// The library's offline head, storing nothing: each block goes to the
// observer.
class OfflineRenderHead : public KROOfflineWriterAudioProcessor {
public:
    OfflineRenderHead(double sampleRate, std::uint32_t channels, std::uint64_t blockFrames) {
        setSampleRate(sampleRate);
        setNumberOfChannels(channels);
        setRenderFrames(blockFrames);
    }

    bool initializeForRender(KROErrorPtr* error = nullptr) override { return prepareRender(error); }

    OfflineRender::BlockObserver afterBlock;

protected:
    bool storeBlock(const KROAudioBufferList& block, KROErrorPtr* /*error*/) override {
        done_ += block.frames();
        if (afterBlock) {
            afterBlock(block, done_);
        }
        return true;
    }
    bool finishWriting(KROErrorPtr* /*error*/) override { return true; }
    void abandonWriting(KROErrorPtr* /*error*/) override {}

private:
    std::uint64_t done_ = 0;
};

OfflineRender::OfflineRender(std::shared_ptr<KROAudioGenerator> source, double sampleRate,
                             std::uint32_t channels, std::uint64_t blockFrames)
    : source_(std::move(source)),
      head_(std::make_shared<OfflineRenderHead>(sampleRate, channels, blockFrames)) {}

OfflineRender::~OfflineRender() = default;

void OfflineRender::append(std::shared_ptr<KROAudioProcessor> processor) {
    processors_.push_back(std::move(processor));
}

bool OfflineRender::build(KROErrorPtr* error) {
    if (!head_->init(error) || !stream_.init()) {
        return false;
    }
    std::vector<std::shared_ptr<KROAudioProcessor>> chain{source_};
    chain.insert(chain.end(), processors_.begin(), processors_.end());
    chain.push_back(head_);
    for (const auto& processor : chain) {
        stream_.addProcessorsObject(processor);
    }
    for (std::size_t index = 0; index + 1 < chain.size(); ++index) {
        auto connection = std::make_shared<KROAudioConnection>();
        stream_.addConnectionsObject(connection);
        stream_.connectOutputBus(*chain[index]->outputBus(), *connection);
        stream_.connectInputBus(*chain[index + 1]->inputBus(), *connection);
    }
    stream_.setRenderHeadProcessor(head_.get());
    return stream_.initialize(error);
}

bool OfflineRender::run(std::uint64_t frames, const BlockObserver& afterBlock, KROErrorPtr* error) {
    head_->setRange(NSMakeDoubleRange(0.0, double(frames) / head_->sampleRate()));
    head_->afterBlock = afterBlock;
    if (!build(error) || !head_->start(error)) {
        return false;
    }
    return stream_.uninitialize(error);
}
