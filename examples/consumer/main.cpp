// A program that uses an installed KROCore: it opens a stream description,
// renders one second of it offline through a head of its own, and prints the
// level that the description's level meter measured.
//
//   kro-consumer DESCRIPTION.plist
#include <KROCore.h>

#include <cmath>
#include <cstdio>
#include <memory>

// A render head that pulls blocks on the caller's thread, as fast as they
// come: hosts add their own head classes to the registry like this.
class ConsumerRenderHead : public KROHeadAudioProcessor {
    KRO_DECLARE_CLASS(ConsumerRenderHead)

public:
    static constexpr std::uint32_t channels = 2;
    static constexpr std::uint64_t blockFrames = 512;
    static constexpr double sampleRate = 48000.0;

    bool initializeForRender(KROErrorPtr* error = nullptr) override {
        buffer_ = KROAudioBufferList::bufferListWithChannels(channels, blockFrames, error);
        if (!buffer_) {
            return false;
        }
        if (KROAudioConnection* connection = inputConnection()) {
            connection->setSampleRate(sampleRate);
            connection->setNumberOfChannels(channels);
            connection->setMaxFrames(blockFrames);
        }
        info()->setRealtime(false);
        info()->setRunning(true);
        info()->setSampleTime(0);
        return true;
    }
    bool uninitialize(KROErrorPtr* = nullptr) override {
        buffer_.reset();
        return true;
    }
    bool start(KROErrorPtr* = nullptr) override {
        setRunning(true);
        return true;
    }
    bool stop(KROErrorPtr* = nullptr) override {
        setRunning(false);
        return true;
    }

    // Pulls frames through the graph, one block at a time.
    void render(std::uint64_t frames) {
        for (std::uint64_t done = 0; done < frames; done += blockFrames) {
            buffer_->setFrames(std::min(blockFrames, frames - done));
            if (KROAudioInputBus* bus = inputBus()) {
                bus->render(*buffer_, *info());
            }
            info()->setSampleTime(info()->sampleTime() + std::int64_t(buffer_->frames()));
        }
    }

private:
    std::shared_ptr<KROAudioBufferList> buffer_;
};

KRO_REGISTER_CLASS(ConsumerRenderHead, KROHeadAudioProcessor)

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DESCRIPTION.plist\n", argv[0]);
        return 2;
    }
    KROErrorPtr error;
    KROAudioStream stream;
    if (!stream.initWithDescriptionFile(argv[1], &error) || !stream.initialize(&error) ||
        !stream.start(&error)) {
        std::fprintf(stderr, "%s\n", error ? error->description().c_str() : "failed");
        return 1;
    }
    auto head = std::dynamic_pointer_cast<ConsumerRenderHead>(stream.renderHeadProcessor());
    auto meter = std::dynamic_pointer_cast<KROLevelMeterAudioProcessor>(
        stream.processorWithIdentifier("meter"));
    if (!head || !meter) {
        std::fprintf(stderr,
                     "the description needs a ConsumerRenderHead and a level meter \"meter\"\n");
        return 1;
    }
    head->render(std::uint64_t(ConsumerRenderHead::sampleRate));
    const float level = meter->level();
    std::printf("KROCore %s: rendered 1 s, level %.2f dB\n", KROCORE_VERSION_STRING,
                20.0 * std::log10(double(level)));
    stream.stop();
    stream.uninitialize();
    return 0;
}
