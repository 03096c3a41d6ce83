#include "KROAudioRouter.h"

#include <algorithm>
#include <functional>

#include "KROAudioBufferList.h"
#include "KROClassRegistry.h"
#include "KROVectorOps.h"

KRO_REGISTER_CLASS(KROAudioRouter, KROObject)
KRO_REGISTER_CLASS(KROAudioRouterTie, KROObject)

namespace {

std::uint64_t channelForKey(const KROPropertyList& properties, const char* key) {
    const KROPropertyList* const value = properties.objectForKey(key);
    return value && value->isNumber() ? static_cast<std::uint64_t>(value->longValue()) : 0;
}

} // namespace

// The tie.

std::shared_ptr<KROAudioRouterTie>
KROAudioRouterTie::tieForInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel) {
    auto tie = std::make_shared<KROAudioRouterTie>();
    tie->setInputChannel(inputChannel);
    tie->setOutputChannel(outputChannel);
    return tie;
}

std::shared_ptr<KROAudioRouterTie>
KROAudioRouterTie::tieWithProperties(const KROPropertyList& properties) {
    return tieForInputChannel(channelForKey(properties, "inputChannel"),
                              channelForKey(properties, "outputChannel"));
}

KROPropertyList KROAudioRouterTie::properties() const {
    KROPropertyList properties;
    properties.setObjectForKey("inputChannel", static_cast<std::int64_t>(inputChannel_));
    properties.setObjectForKey("outputChannel", static_cast<std::int64_t>(outputChannel_));
    return properties;
}

std::string KROAudioRouterTie::description() const {
    return KROStringWithFormatArguments("input channel %ld -> output channel %ld",
                                        static_cast<long>(inputChannel_),
                                        static_cast<long>(outputChannel_));
}

bool KROAudioRouterTie::isEqual(const KROObject& other) const {
    const auto* const tie = dynamic_cast<const KROAudioRouterTie*>(&other);
    return tie && tie->inputChannel_ == inputChannel_ && tie->outputChannel_ == outputChannel_;
}

std::size_t KROAudioRouterTie::hash() const {
    return std::hash<std::uint64_t>{}(inputChannel_ * 31 + outputChannel_);
}

// The router.

std::shared_ptr<KROAudioRouter>
KROAudioRouter::routerWithProperties(const KROPropertyList& properties) {
    auto router = KROAudioRouter::router();
    router->setProperties(properties);
    return router;
}

std::string KROAudioRouter::description() const {
    const std::lock_guard guard(lock_);
    std::string text = "{(";
    for (std::size_t index = 0; index < ties_.size(); ++index) {
        text += (index == 0 ? "\n    " : ",\n    ") + ties_[index]->description();
    }
    return text + "\n)}";
}

std::shared_ptr<KROAudioRouterTie> KROAudioRouter::findTie(std::uint64_t inputChannel,
                                                           std::uint64_t outputChannel) const {
    for (const auto& tie : ties_) {
        if (tie->inputChannel() == inputChannel && tie->outputChannel() == outputChannel) {
            return tie;
        }
    }
    return nullptr;
}

std::shared_ptr<KROAudioRouterTie>
KROAudioRouter::tieForInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel) const {
    const std::lock_guard guard(lock_);
    return findTie(inputChannel, outputChannel);
}

KROAudioRouter::ChannelSet
KROAudioRouter::inputChannelsTiedToOutputChannel(std::uint64_t outputChannel) const {
    const std::lock_guard guard(lock_);
    ChannelSet channels;
    for (const auto& tie : ties_) {
        if (tie->outputChannel() == outputChannel) {
            channels.insert(tie->inputChannel());
        }
    }
    return channels;
}

KROAudioRouter::ChannelSet
KROAudioRouter::outputChannelsTiedToInputChannel(std::uint64_t inputChannel) const {
    const std::lock_guard guard(lock_);
    ChannelSet channels;
    for (const auto& tie : ties_) {
        if (tie->inputChannel() == inputChannel) {
            channels.insert(tie->outputChannel());
        }
    }
    return channels;
}

std::size_t KROAudioRouter::countOfTies() const {
    const std::lock_guard guard(lock_);
    return ties_.size();
}

void KROAudioRouter::tieInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel) {
    auto tie = KROAudioRouterTie::tieForInputChannel(inputChannel, outputChannel);
    const std::lock_guard guard(lock_);
    if (!findTie(inputChannel, outputChannel)) {
        ties_.push_back(std::move(tie));
    }
}

void KROAudioRouter::untieInputChannel(std::uint64_t inputChannel, std::uint64_t outputChannel) {
    std::shared_ptr<KROAudioRouterTie> removed;
    const std::lock_guard guard(lock_);
    for (auto tie = ties_.begin(); tie != ties_.end(); ++tie) {
        if ((*tie)->inputChannel() == inputChannel && (*tie)->outputChannel() == outputChannel) {
            removed = std::move(*tie);
            ties_.erase(tie);
            return;
        }
    }
}

void KROAudioRouter::clearTies() {
    std::vector<std::shared_ptr<KROAudioRouterTie>> removed;
    const std::lock_guard guard(lock_);
    removed.swap(ties_);
}

bool KROAudioRouter::routeInputs(const KROAudioBufferList* inputs, KROAudioBufferList* outputs,
                                 KROErrorPtr* /*error*/) const {
    if (!outputs) {
        return false;
    }
    outputs->clear();
    if (!inputs) {
        return true;
    }
    const std::uint64_t frames = outputs->frames();
    if (inputs->frames() != frames) {
        return false;
    }
    const std::lock_guard guard(lock_);
    for (const auto& tie : ties_) {
        if (tie->inputChannel() >= inputs->numberOfChannels() ||
            tie->outputChannel() >= outputs->numberOfChannels()) {
            continue;
        }
        float* const out = outputs->channel(static_cast<std::uint32_t>(tie->outputChannel()));
        const float* const in = inputs->channel(static_cast<std::uint32_t>(tie->inputChannel()));
        if (out && in) {
            kro_vadd(in, out, out, frames);
        }
    }
    return true;
}

KROPropertyList KROAudioRouter::properties() const {
    KROPropertyList ties = KROPropertyList::array();
    {
        const std::lock_guard guard(lock_);
        for (const auto& tie : ties_) {
            ties.addObject(tie->properties());
        }
    }
    KROPropertyList properties;
    properties.setObjectForKey("ties", std::move(ties));
    return properties;
}

void KROAudioRouter::setProperties(const KROPropertyList& properties) {
    const KROPropertyList* const ties = properties.objectForKey("ties");
    if (!ties || !ties->isArray()) {
        return;
    }
    std::vector<std::shared_ptr<KROAudioRouterTie>> replacements;
    for (const KROPropertyList& element : *ties->arrayValue()) {
        auto tie = KROAudioRouterTie::tieWithProperties(element);
        const bool known = std::any_of(replacements.begin(), replacements.end(),
                                       [&tie](const auto& other) { return other->isEqual(*tie); });
        // A set: a tie listed twice is held once.
        if (!known) {
            replacements.push_back(std::move(tie));
        }
    }
    const std::lock_guard guard(lock_);
    replacements.swap(ties_);
}
