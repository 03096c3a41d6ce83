#include "KRORemoveDCAudioProcessor.h"

#include <vector>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROBiquad.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KRORemoveDCAudioProcessor, KROAudioProcessor)

KRORemoveDCAudioProcessor::~KRORemoveDCAudioProcessor() {
    destroySetup();
}

void KRORemoveDCAudioProcessor::destroySetup() {
    kro_biquadm_destroy_setup(setup_);
    setup_ = nullptr;
}

bool KRORemoveDCAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (const KROPropertyList* value = settings.objectForKey("enabled");
        value && (value->isBoolean() || value->isNumber())) {
        setEnabled(value->boolValue());
    }
    return KROAudioProcessor::setSettings(settings, error);
}

KROPropertyList KRORemoveDCAudioProcessor::settings() const {
    KROPropertyList settings = KROAudioProcessor::settings();
    settings.setObjectForKey("enabled", isEnabled());
    return settings;
}

bool KRORemoveDCAudioProcessor::initializeForRender(KROErrorPtr* error) {
    destroySetup();
    const KROAudioConnection* const output = outputConnection();
    const double rate = output ? output->sampleRate() : 0.0;
    if (rate != 0.0) {
        const std::size_t channels = output->numberOfChannels();
        const double section[5] = {1.0, -1.0, 0.0, -poleForSampleRate(rate), 0.0};
        std::vector<double> coefficients;
        for (std::size_t channel = 0; channel < channels; ++channel) {
            coefficients.insert(coefficients.end(), section, section + 5);
        }
        setup_ = kro_biquadm_create_setup(coefficients.data(), 1, channels);
        channels_.assign(channels, nullptr);
        if (!setup_) {
            if (error) {
                *error = KROError::errorWithCode(1, "Constructing the KRORemoveDCAudioProcessor");
            }
            return false;
        }
    }
    if (KROAudioConnection* const input = inputConnection()) {
        input->conformToConnection(output);
    }
    return true;
}

bool KRORemoveDCAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    destroySetup();
    return true;
}

bool KRORemoveDCAudioProcessor::reset(KROErrorPtr* /*error*/) {
    kro_biquadm_reset_state(setup_);
    return true;
}

void KRORemoveDCAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                       KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* const input = inputBus()) {
        input->render(buffer, info);
    }
    if (!isEnabled() || !setup_) {
        return;
    }
    // A channel that the buffer lacks stays null, and the filter skips it.
    for (std::size_t channel = 0; channel < channels_.size(); ++channel) {
        channels_[channel] = buffer.channel(static_cast<std::uint32_t>(channel));
    }
    kro_biquadm(setup_, channels_.data(), 1, channels_.data(), 1, buffer.frames());
}
