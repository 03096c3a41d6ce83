#include "OfflineRender.h"

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROHeadAudioProcessor.h"

// A render head that is not a device: it pulls when told, never in real time.
class OfflineRenderHead : public KROHeadAudioProcessor {
public:
    OfflineRenderHead(double sampleRate, std::uint32_t channels, std::uint64_t blockFrames)
        : sampleRate_(sampleRate), channels_(channels), blockFrames_(blockFrames) {}

    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer_ = KROAudioBufferList::bufferListWithChannels(channels_, blockFrames_, error);
        if (!buffer_) {
            return false;
        }
        if (KROAudioConnection* connection = inputConnection()) {
            connection->setSampleRate(sampleRate_);
            connection->setNumberOfChannels(channels_);
            connection->setMaxFrames(blockFrames_);
        }
        info()->setRealtime(false);
        info()->setRunning(true);
        info()->setSampleTime(0);
        return true;
    }
    bool start(KROErrorPtr* /*error*/ = nullptr) override { return true; }
    bool stop(KROErrorPtr* /*error*/ = nullptr) override { return true; }

    const KROAudioBufferList& renderBlock(std::uint64_t frames) {
        buffer_->setFrames(frames);
        if (KROAudioInputBus* bus = inputBus()) {
            bus->render(*buffer_, *info());
        }
        info()->setSampleTime(info()->sampleTime() + static_cast<std::int64_t>(frames));
        return *buffer_;
    }

private:
    double sampleRate_;
    std::uint32_t channels_;
    std::uint64_t blockFrames_;
    std::shared_ptr<KROAudioBufferList> buffer_;
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
    if (!build(error)) {
        return false;
    }
    const std::uint64_t blockFrames = head_->inputConnection()->maxFrames();
    for (std::uint64_t done = 0; done < frames;) {
        const std::uint64_t length = std::min(blockFrames, frames - done);
        const KROAudioBufferList& block = head_->renderBlock(length);
        done += length;
        if (afterBlock) {
            afterBlock(block, done);
        }
    }
    return stream_.uninitialize(error);
}
