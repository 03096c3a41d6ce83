// A table of ties from input channels to output channels, and the routing
// that applies it: one input tied to several outputs copies, several inputs
// tied to one output sum at unity gain, an output with no tie is silent, and
// a tie naming a channel that the buffers lack is stepped over. A router and
// its ties are one family and share this file.
//
// The ties change under the router's lock, and routing holds the same lock,
// so ties may change while audio runs; routing allocates nothing. The reads
// take the lock too, except from inside routing.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "KROError.h"
#include "KROObject.h"
#include "KROPropertyList.h"

class KROAudioBufferList;

class KROAudioRouterTie : public KROObject {
    KRO_DECLARE_CLASS(KROAudioRouterTie)

public:
    static std::shared_ptr<KROAudioRouterTie> tieForInputChannel(std::uint64_t inputChannel,
                                                                 std::uint64_t outputChannel);
    // "inputChannel" and "outputChannel"; a missing key leaves 0.
    static std::shared_ptr<KROAudioRouterTie> tieWithProperties(const KROPropertyList& properties);

    KROPropertyList properties() const;
    // "input channel %ld -> output channel %ld".
    std::string description() const override;
    // Ties are equal when they join the same two channels.
    bool isEqual(const KROObject& other) const override;
    std::size_t hash() const override;

    std::uint64_t inputChannel() const { return inputChannel_; }
    void setInputChannel(std::uint64_t channel) { inputChannel_ = channel; }
    std::uint64_t outputChannel() const { return outputChannel_; }
    void setOutputChannel(std::uint64_t channel) { outputChannel_ = channel; }

private:
    std::uint64_t inputChannel_ = 0;
    std::uint64_t outputChannel_ = 0;
};

class KROAudioRouter : public KROObject {
    KRO_DECLARE_CLASS(KROAudioRouter)

public:
    using ChannelSet = std::set<std::uint64_t>;

    static std::shared_ptr<KROAudioRouter> router() { return std::make_shared<KROAudioRouter>(); }
    static std::shared_ptr<KROAudioRouter> routerWithProperties(const KROPropertyList& properties);

    // The ties, as a set describes itself.
    std::string description() const override;

    // The tie joining the two channels, or none.
    std::shared_ptr<KROAudioRouterTie> tieForInputChannel(std::uint64_t inputChannel,
                                                          std::uint64_t outputChannel) const;
    bool isInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel) const {
        return tieForInputChannel(inputChannel, outputChannel) != nullptr;
    }
    ChannelSet inputChannelsTiedToOutputChannel(std::uint64_t outputChannel) const;
    ChannelSet outputChannelsTiedToInputChannel(std::uint64_t inputChannel) const;
    std::size_t countOfTies() const;

    // Adds the tie unless it exists.
    void tieInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel);
    // Removes the tie if it exists.
    void untieInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel);
    void clearTies();

    // Clears the outputs, then adds each tied input channel into its output
    // channel over the output's frames. False with no outputs, or when the
    // two lists' frames differ (the outputs then stay silent); true with no
    // inputs. The error is never set. Render thread.
    bool routeInputs(const KROAudioBufferList* inputs, KROAudioBufferList* outputs,
                     KROErrorPtr* error = nullptr) const;

    // "ties": an array of tie dictionaries.
    KROPropertyList properties() const;
    // Nothing unless "ties" is present; then it replaces every tie.
    void setProperties(const KROPropertyList& properties);

private:
    std::shared_ptr<KROAudioRouterTie> findTie(std::uint64_t inputChannel,
                                               std::uint64_t outputChannel) const;

    std::vector<std::shared_ptr<KROAudioRouterTie>> ties_;
    mutable std::mutex lock_;
};
