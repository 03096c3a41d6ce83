// Changes the channel count of a connection by a table of ties kept in a
// KROAudioRouter: the one processor whose two connections carry different
// channel counts. On the pull path its input connection carries
// numberOfInputChannels; on the push path its output connection carries
// numberOfOutputChannels. With a count of 0 on the side in use it is not set
// up and renders silence.
//
// The router can be exchanged (setRouter) and its ties changed while audio
// runs: routing holds routerLock and the router's own lock, and allocates
// nothing.
//
// Settings: "numberOfInputChannels", "numberOfOutputChannels" (unsigned) and
// "router" (the router's properties). A "ties" array at the top level of the
// settings also reaches the router, so a tie list may stand without the
// "router" level.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "KROAudioProcessor.h"
#include "KROAudioRouter.h"

class KROAudioBufferList;

class KRORouterAudioProcessor : public KROAudioProcessor {
    KRO_DECLARE_CLASS(KRORouterAudioProcessor)

public:
    // Makes an empty router.
    bool init(KROErrorPtr* error = nullptr) override;
    bool setSettings(const KROPropertyList& settings, KROErrorPtr* error = nullptr) override;
    KROPropertyList settings() const override;

    // With numberOfInputChannels 0: true, and the input connection is left
    // as it is. Otherwise the input connection takes the output connection's
    // rate and block length with numberOfInputChannels channels.
    bool initializeForRender(KROErrorPtr* error = nullptr) override;
    // The mirror image, with numberOfOutputChannels on the output connection.
    bool initializeForInput(KROErrorPtr* error = nullptr) override;
    bool uninitialize(KROErrorPtr* error = nullptr) override;
    void render(KROAudioBufferList& buffer, KROAudioOutputBus& bus,
                KROAudioStreamRenderInfo& info) override;
    void input(KROAudioBufferList& buffer, KROAudioInputBus& bus,
               KROAudioStreamRenderInfo& info) override;

    std::uint64_t numberOfInputChannels() const { return numberOfInputChannels_; }
    std::uint64_t numberOfOutputChannels() const { return numberOfOutputChannels_; }
    // Refused once initialised: KROAudioProcessorError code 1.
    bool setNumberOfInputChannels(std::uint64_t channels, KROErrorPtr* error = nullptr);
    bool setNumberOfOutputChannels(std::uint64_t channels, KROErrorPtr* error = nullptr);

    std::shared_ptr<KROAudioRouter> router() const;
    // Any thread, also while audio runs.
    void setRouter(std::shared_ptr<KROAudioRouter> router);

private:
    // The buffer of one side, made for channels channels from the format of
    // the connection given; the other connection takes that format.
    bool prepare(std::uint64_t channels, const KROAudioConnection* from, KROAudioConnection* to,
                 KROErrorPtr* error);
    void route(const KROAudioBufferList* inputs, KROAudioBufferList* outputs) const;

    std::uint64_t numberOfInputChannels_ = 0;
    std::uint64_t numberOfOutputChannels_ = 0;
    std::shared_ptr<KROAudioRouter> router_;
    std::shared_ptr<KROAudioBufferList> buffer_;
    mutable std::mutex routerLock_;
};
