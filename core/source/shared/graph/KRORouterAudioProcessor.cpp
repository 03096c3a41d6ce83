#include "KRORouterAudioProcessor.h"

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KRORouterAudioProcessor, KROAudioProcessor)

namespace {

const KROPropertyList* numberForKey(const KROPropertyList& settings, const char* key) {
    const KROPropertyList* const value = settings.objectForKey(key);
    return value && value->isNumber() ? value : nullptr;
}

} // namespace

bool KRORouterAudioProcessor::init(KROErrorPtr* error) {
    if (!KROAudioProcessor::init(error)) {
        return false;
    }
    setRouter(KROAudioRouter::router());
    return true;
}

bool KRORouterAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioProcessor::setSettings(settings, error)) {
        return false;
    }
    if (const KROPropertyList* value = numberForKey(settings, "numberOfInputChannels")) {
        if (!setNumberOfInputChannels(static_cast<std::uint64_t>(value->longValue()), error)) {
            return false;
        }
    }
    if (const KROPropertyList* value = numberForKey(settings, "numberOfOutputChannels")) {
        if (!setNumberOfOutputChannels(static_cast<std::uint64_t>(value->longValue()), error)) {
            return false;
        }
    }
    const std::shared_ptr<KROAudioRouter> router = this->router();
    if (const KROPropertyList* value = settings.objectForKey("router"); value && router) {
        router->setProperties(*value);
    }
    if (settings.objectForKey("ties") && router) {
        router->setProperties(settings);
    }
    return true;
}

KROPropertyList KRORouterAudioProcessor::settings() const {
    KROPropertyList settings = KROAudioProcessor::settings();
    settings.setObjectForKey("numberOfInputChannels",
                             static_cast<std::int64_t>(numberOfInputChannels_));
    settings.setObjectForKey("numberOfOutputChannels",
                             static_cast<std::int64_t>(numberOfOutputChannels_));
    const std::shared_ptr<KROAudioRouter> router = this->router();
    settings.setObjectForKey("router", router ? router->properties() : KROPropertyList());
    return settings;
}

bool KRORouterAudioProcessor::setNumberOfInputChannels(std::uint64_t channels, KROErrorPtr* error) {
    if (isInitialized()) {
        return KROFail<KROAudioProcessorError>(error, 1,
                                               "KRORouterAudioProcessor_action_setInputChannels");
    }
    numberOfInputChannels_ = channels;
    return true;
}

bool KRORouterAudioProcessor::setNumberOfOutputChannels(std::uint64_t channels,
                                                        KROErrorPtr* error) {
    if (isInitialized()) {
        return KROFail<KROAudioProcessorError>(error, 1,
                                               "KRORouterAudioProcessor_action_setOutputChannels");
    }
    numberOfOutputChannels_ = channels;
    return true;
}

std::shared_ptr<KROAudioRouter> KRORouterAudioProcessor::router() const {
    const std::lock_guard guard(routerLock_);
    return router_;
}

void KRORouterAudioProcessor::setRouter(std::shared_ptr<KROAudioRouter> router) {
    const std::lock_guard guard(routerLock_);
    // The old router goes when the argument does, after the lock.
    router_.swap(router);
}

bool KRORouterAudioProcessor::prepare(std::uint64_t channels, const KROAudioConnection* from,
                                      KROAudioConnection* to, KROErrorPtr* error) {
    if (channels == 0) {
        return true;
    }
    buffer_ = KROAudioBufferList::bufferListWithChannels(static_cast<std::uint32_t>(channels),
                                                         from ? from->maxFrames() : 0, error);
    if (!buffer_) {
        return false;
    }
    if (to) {
        to->setSampleRate(from ? from->sampleRate() : 0.0);
        to->setMaxFrames(from ? from->maxFrames() : 0);
        to->setNumberOfChannels(channels);
    }
    return true;
}

bool KRORouterAudioProcessor::initializeForRender(KROErrorPtr* error) {
    return prepare(numberOfInputChannels_, outputConnection(), inputConnection(), error);
}

bool KRORouterAudioProcessor::initializeForInput(KROErrorPtr* error) {
    return prepare(numberOfOutputChannels_, inputConnection(), outputConnection(), error);
}

bool KRORouterAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    buffer_.reset();
    return true;
}

void KRORouterAudioProcessor::route(const KROAudioBufferList* inputs,
                                    KROAudioBufferList* outputs) const {
    const std::lock_guard guard(routerLock_);
    if (router_) {
        router_->routeInputs(inputs, outputs);
    }
}

void KRORouterAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                     KROAudioStreamRenderInfo& info) {
    buffer.clear();
    if (!buffer_ || !buffer_->setFrames(buffer.frames())) {
        return;
    }
    if (KROAudioInputBus* const input = inputBus()) {
        input->render(*buffer_, info);
    }
    route(buffer_.get(), &buffer);
}

void KRORouterAudioProcessor::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                    KROAudioStreamRenderInfo& info) {
    if (!buffer_) {
        return;
    }
    buffer_->clear();
    if (!buffer_->setFrames(buffer.frames())) {
        return;
    }
    route(&buffer, buffer_.get());
    if (KROAudioOutputBus* const output = outputBus()) {
        output->input(*buffer_, info);
    }
}
