#include "KROSpectralEQAudioProcessor.h"

#include <algorithm>
#include <cmath>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"
#include "KROErrorFamilies.h"
#include "KROVectorOps.h"

KRO_REGISTER_CLASS(KROSpectralEQAudioProcessor, KROAudioProcessor)

bool KROSpectralEQAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioProcessor::setSettings(settings, error)) {
        return false;
    }
    if (const KROPropertyList* value = settings.objectForKey("enabled");
        value && (value->isBoolean() || value->isNumber())) {
        setEnabled(value->boolValue());
    }
    if (const KROPropertyList* value = settings.objectForKey("resolution");
        value && value->isNumber()) {
        setResolution(std::uint64_t(std::max<std::int64_t>(value->longValue(), 0)));
    }
    if (const KROPropertyList* value = settings.objectForKey("quality");
        value && value->isNumber()) {
        setQuality(float(value->doubleValue()));
    }
    if (const KROPropertyList* value = settings.objectForKey("bands"); value && value->isArray()) {
        bands_.clear();
        for (const KROPropertyList& properties : *value->arrayValue()) {
            if (auto band = KROSpectralEQAudioProcessorBand::bandWithProperties(properties)) {
                addBand(band);
            }
        }
    }
    return true;
}

KROPropertyList KROSpectralEQAudioProcessor::settings() const {
    KROPropertyList settings = KROAudioProcessor::settings();
    settings.setObjectForKey("enabled", enabled());
    settings.setObjectForKey("resolution", std::int64_t(resolution_));
    settings.setObjectForKey("quality", double(quality_));
    KROPropertyList bands = KROPropertyList::array();
    for (const auto& band : bands_) {
        bands.addObject(band->properties());
    }
    settings.setObjectForKey("bands", std::move(bands));
    return settings;
}

bool KROSpectralEQAudioProcessor::initializeForRender(KROErrorPtr* error) {
    if (KROAudioConnection* input = inputConnection()) {
        input->conformToConnection(outputConnection());
    }
    return initialize(error);
}

bool KROSpectralEQAudioProcessor::initialize(KROErrorPtr* error) {
    const KROAudioConnection* output = outputConnection();
    const KROAudioConnection* input = inputConnection();
    for (const auto& bus : inputBuses()) {
        const KROAudioConnection* connection = bus->connection();
        if (connection &&
            (!output || connection->numberOfChannels() != output->numberOfChannels())) {
            return KROFail<KROSpectralEQAudioProcessorError>(
                error, 1, "KROSpectralEQAudioProcessor_action_initialize");
        }
    }
    eqs_.clear();
    const std::uint64_t channels = input ? input->numberOfChannels() : 0;
    const std::uint64_t maxFrames = output ? output->maxFrames() : 0;
    const bool resolutionInRange =
        resolution_ >= minimumResolution && resolution_ <= maximumResolution;
    for (std::uint64_t channel = 0; channel < channels; ++channel) {
        auto filter = std::make_shared<koq>();
        if (!resolutionInRange || maxFrames > UINT32_MAX ||
            !filter->initWithResolution(std::uint32_t(resolution_), std::uint32_t(maxFrames),
                                        maximumQuality_)) {
            // Render indexes the filters by channel: a short list cannot run.
            eqs_.clear();
            return KROFail<KROSpectralEQAudioProcessorError>(
                error, 1, "KROSpectralEQAudioProcessor_action_initialize");
        }
        filter->setFidelity(quality_);
        eqs_.push_back(std::move(filter));
    }
    const std::size_t bins = (std::size_t(1) << resolution_) / 2 + 1;
    requestedScalars_.assign(bins, 1.0f);
    actualScalars_.assign(bins, 1.0f);
    update();
    return true;
}

bool KROSpectralEQAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    shouldProcess_.store(false);
    requestedScalars_.clear();
    actualScalars_.clear();
    eqs_.clear();
    return true;
}

bool KROSpectralEQAudioProcessor::reset(KROErrorPtr* error) {
    uninitialize(error);
    return initialize(error);
}

std::uint64_t KROSpectralEQAudioProcessor::latency() const {
    if (!shouldProcess()) {
        return 0;
    }
    return std::uint64_t(float(std::uint64_t(1) << resolution_) * maximumQuality_ * 0.5f);
}

void KROSpectralEQAudioProcessor::update() {
    if (requestedScalars_.empty()) {
        return;
    }
    const std::size_t bins = requestedScalars_.size();
    const std::size_t half = bins - 1;
    std::vector<float>& curve = requestedScalars_;
    std::fill(curve.begin(), curve.end(), 1.0f);
    const KROAudioConnection* output = outputConnection();
    const double rate = output ? output->sampleRate() : 0.0;
    for (const auto& band : bands_) {
        if (!band->enabled()) {
            continue;
        }
        for (std::size_t i = 0; i <= half; ++i) {
            const double hertz = double(i) * rate * 0.5 / double(half);
            curve[i] = float(double(curve[i]) * band->scalarForFrequency(hertz));
        }
    }
    const bool changes =
        kro_minv(curve.data(), bins) != 1.0f || kro_maxv(curve.data(), bins) != 1.0f;
    // Also for a flat curve, so that every filter is back to an impulse.
    for (const auto& filter : eqs_) {
        filter->setRequestedScalars(curve.data());
    }
    if (!changes) {
        std::fill(actualScalars_.begin(), actualScalars_.end(), 1.0f);
    } else if (!eqs_.empty()) {
        eqs_.front()->getResultantScalars(actualScalars_.data());
    }
    shouldProcess_.store(changes);
}

void KROSpectralEQAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                         KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* bus = inputBus()) {
        bus->render(buffer, info);
    }
    if (!enabled() || !shouldProcess()) {
        return;
    }
    const std::uint32_t channels =
        std::min<std::uint32_t>(buffer.numberOfChannels(), std::uint32_t(eqs_.size()));
    const auto frames = std::uint32_t(std::min<std::uint64_t>(buffer.frames(), UINT32_MAX));
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
        eqs_[channel]->processInPlace(buffer.channel(channel), frames);
    }
}

void KROSpectralEQAudioProcessor::addBand(
    const std::shared_ptr<KROSpectralEQAudioProcessorBand>& band) {
    band->setProcessor(this);
    bands_.push_back(band);
}

void KROSpectralEQAudioProcessor::removeBand(const KROSpectralEQAudioProcessorBand& band) {
    std::erase_if(bands_, [&](const auto& held) { return held.get() == &band; });
}
