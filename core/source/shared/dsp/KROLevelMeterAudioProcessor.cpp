#include "KROLevelMeterAudioProcessor.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <limits>
#include <new>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROLevelMeterAudioProcessor, KROAudioProcessor)

namespace {

// -24 dB, given as bits 0x3d813855 (the decimal 0.06309573 would
// round to the next float up).
constexpr float minus24Decibels = std::bit_cast<float>(0x3d813855u);

// Seconds from the Unix epoch to the reference date, 2001-01-01 UTC.
constexpr double referenceDateOffset = 978307200.0;

} // namespace

const std::vector<KROLevelMeterAudioProcessor::Ballistic>&
KROLevelMeterAudioProcessor::ballistics() {
    // The nearest floats of the written decimals.
    static const std::vector<Ballistic> table = {
        {"vu", 0.01f, 0.3f, 0.01f, 0.3f, false, 0.0f},
        {"digital", 0.333f, 0.0017f, 0.1f, 0.85f, false, 0.0f},
        {"ppmType1", 0.333f, 0.0017f, 0.1f, 1.7f, false, 0.0f},
        {"ppmType2", 0.333f, 0.0017f, minus24Decibels, 2.8f, true, 0.1f},
        {"nordic", 0.2f, 0.005f, 0.1f, 1.5f, false, 0.0f},
        {"bbcebu", 0.2f, 0.005f, minus24Decibels, 2.85f, false, 0.0f},
        {"peakHoldShort", 0.001f, 0.0f, 0.001f, 0.3f, true, 0.7f},
        {"peakHoldLong", 0.001f, 0.0f, 0.001f, 0.3f, true, 2.0f},
        {"peakHoldInfinite", 0.001f, 0.0f, 0.001f, 0.3f, true,
         std::numeric_limits<float>::infinity()},
        {"none", 0.01f, 0.0f, 0.01f, 0.0f, false, 0.0f},
    };
    return table;
}

double KROLevelMeterAudioProcessor::referenceDateNow() {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(sinceEpoch).count() - referenceDateOffset;
}

bool KROLevelMeterAudioProcessor::init(KROErrorPtr* error) {
    if (!KROAudioProcessor::init(error)) {
        return false;
    }
    setValue(KROPropertyList("vu"), ballisticsKey);
    setValue(KROPropertyList("peak"), measurementKey);
    setValue(KROPropertyList(3.0), clipHoldLengthKey);
    return true;
}

bool KROLevelMeterAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* connection = inputConnection()) {
        connection->conformToConnection(outputConnection());
    }
    const KROAudioConnection* output = outputConnection();
    allocateForChannels(output ? output->numberOfChannels() : 0);
    return true;
}

bool KROLevelMeterAudioProcessor::initializeForInput(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* connection = outputConnection()) {
        connection->conformToConnection(inputConnection());
    }
    const KROAudioConnection* input = inputConnection();
    allocateForChannels(input ? input->numberOfChannels() : 0);
    return true;
}

bool KROLevelMeterAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    freeArrays();
    return true;
}

bool KROLevelMeterAudioProcessor::reset(KROErrorPtr* /*error*/) {
    if (levels_ && clipTimes_) {
        const std::uint64_t channels = numberOfChannels();
        for (std::uint64_t channel = 0; channel < channels; ++channel) {
            levels_[channel].store(0.0f, std::memory_order_relaxed);
            clipTimes_[channel].store(0.0, std::memory_order_relaxed);
        }
    }
    return true;
}

void KROLevelMeterAudioProcessor::allocateForChannels(std::uint64_t channels) {
    freeArrays();
    // Zeroed by value-initialisation. Initialisation cannot fail:
    // without memory the meter simply has no arrays and measures nothing.
    levels_.reset(new (std::nothrow) std::atomic<float>[channels]());
    clipTimes_.reset(new (std::nothrow) std::atomic<double>[channels]());
    if (!levels_ || !clipTimes_) {
        freeArrays();
        return;
    }
    numberOfChannels_.store(channels, std::memory_order_relaxed);
}

void KROLevelMeterAudioProcessor::freeArrays() {
    numberOfChannels_.store(0, std::memory_order_relaxed);
    levels_.reset();
    clipTimes_.reset();
}

void KROLevelMeterAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                         KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* bus = inputBus()) {
        bus->render(buffer, info);
    }
    calculateLevelsForBuffer(buffer);
}

void KROLevelMeterAudioProcessor::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                        KROAudioStreamRenderInfo& info) {
    calculateLevelsForBuffer(buffer);
    if (KROAudioOutputBus* bus = outputBus()) {
        bus->input(buffer, info);
    }
}

std::optional<KROPropertyList>
KROLevelMeterAudioProcessor::valueForParameterKey(const std::string& key) const {
    if (key == ballisticsKey) {
        return KROPropertyList(ballistic_);
    }
    if (key == measurementKey) {
        return KROPropertyList(measurement_);
    }
    if (key == clipHoldLengthKey) {
        return KROPropertyList(clipHoldLength());
    }
    return std::nullopt;
}

void KROLevelMeterAudioProcessor::setValue(const KROPropertyList& value, const std::string& key) {
    if (key == ballisticsKey) {
        if (const std::string* name = value.stringValue()) {
            setBallistic(*name);
        }
    } else if (key == measurementKey) {
        if (const std::string* name = value.stringValue()) {
            setMeasurement(*name);
        }
    } else if (key == clipHoldLengthKey) {
        if (value.isNumber() || value.isBoolean()) {
            setClipHoldLength(value.doubleValue());
        }
    }
}

void KROLevelMeterAudioProcessor::setBallistic(const std::string& name) {
    ballistic_ = name;
    // The empty string selects the first row, "vu".
    const std::string& wanted = name.empty() ? std::string(ballistics().front().name) : name;
    const auto& table = ballistics();
    const auto row = std::find_if(table.begin(), table.end(),
                                  [&](const Ballistic& entry) { return wanted == entry.name; });
    // A name not in the table keeps the earlier numbers.
    if (row == table.end()) {
        return;
    }
    riseAmount_.store(row->riseAmount, std::memory_order_relaxed);
    riseTime_.store(row->riseTime, std::memory_order_relaxed);
    fallAmount_.store(row->fallAmount, std::memory_order_relaxed);
    fallTime_.store(row->fallTime, std::memory_order_relaxed);
    // Stored and never applied to the levels; rows without a hold
    // of their own leave the last value.
    if (row->setsHoldTime) {
        holdTime_.store(row->holdTime, std::memory_order_relaxed);
    }
}

void KROLevelMeterAudioProcessor::setMeasurement(const std::string& name) {
    measurement_ = name;
    Measurement kind = Measurement::Other;
    if (name.empty() || name == "peak") {
        kind = Measurement::Peak;
    } else if (name == "rms") {
        kind = Measurement::Rms;
    } else if (name == "aes17") {
        kind = Measurement::Aes17;
    }
    measurementKind_.store(kind, std::memory_order_relaxed);
}

float KROLevelMeterAudioProcessor::measureOfChannel(const KROAudioBufferList& buffer,
                                                    std::uint32_t channel, float magnitude) const {
    switch (measurementKind_.load(std::memory_order_relaxed)) {
    case Measurement::Peak:
        return magnitude;
    case Measurement::Rms:
        return buffer.rmsOfChannel(channel);
    case Measurement::Aes17:
        // The float RMS times the double constant, the product kept as float.
        return static_cast<float>(static_cast<double>(buffer.rmsOfChannel(channel)) * aes17Factor);
    case Measurement::Other:
        break;
    }
    return 0.0f;
}

void KROLevelMeterAudioProcessor::calculateLevelsForBuffer(const KROAudioBufferList& buffer) {
    if (!levels_ || !clipTimes_) {
        return;
    }
    const KROAudioConnection* connection = inputConnection();
    const double sampleRate = connection ? connection->sampleRate() : 0.0;
    // The division in double, then kept as float for the exponent.
    const auto seconds = static_cast<float>(static_cast<double>(buffer.frames()) / sampleRate);
    const std::uint64_t channels = numberOfChannels();
    for (std::uint64_t channel = 0; channel < channels; ++channel) {
        // A channel that the buffer lacks reads as silence.
        const auto index = static_cast<std::uint32_t>(
            std::min<std::uint64_t>(channel, std::numeric_limits<std::uint32_t>::max()));
        const float magnitude = buffer.magnitudeOfChannel(index);
        applyLaw(channel, measureOfChannel(buffer, index, magnitude), seconds);
        // A clip is strictly more than full scale, whatever the
        // measurement.
        if (magnitude > 1.0f) {
            clipTimes_[channel].store(now(), std::memory_order_relaxed);
        }
    }
}

void KROLevelMeterAudioProcessor::applyLaw(std::uint64_t channel, float measure, float seconds) {
    // Bad input must not stick: a NaN measure (a NaN sample in an RMS) leaves
    // the level alone, and an infinite one counts as the largest float, from
    // which the level falls back by the law.
    if (std::isnan(measure)) {
        return;
    }
    measure = std::min(measure, std::numeric_limits<float>::max());
    const float old = levels_[channel].load(std::memory_order_relaxed);
    const bool rising = old <= measure;
    const float time = rising ? riseTime() : fallTime();
    const float amount = rising ? riseAmount() : fallAmount();
    float next = measure;
    if (time != 0.0f) {
        const float k = ::powf(amount, (1.0f / time) * seconds);
        next = (old - measure) * k + measure;
    }
    // A law that cannot be computed (a sample rate of 0) jumps to the measure.
    if (!std::isfinite(next)) {
        next = measure;
    }
    levels_[channel].store(next, std::memory_order_relaxed);
}

float KROLevelMeterAudioProcessor::level() const {
    if (!levels_) {
        return noLevel;
    }
    const std::uint64_t channels = numberOfChannels();
    float largest = 0.0f;
    for (std::uint64_t channel = 0; channel < channels; ++channel) {
        largest = std::max(largest, levels_[channel].load(std::memory_order_relaxed));
    }
    return largest;
}

float KROLevelMeterAudioProcessor::levelOfChannel(std::uint64_t channel) const {
    if (!levels_ || channel >= numberOfChannels()) {
        return noLevel;
    }
    return levels_[channel].load(std::memory_order_relaxed);
}

bool KROLevelMeterAudioProcessor::isClipped() const {
    if (!clipTimes_) {
        return false;
    }
    const std::uint64_t channels = numberOfChannels();
    for (std::uint64_t channel = 0; channel < channels; ++channel) {
        if (isClippedForChannel(channel)) {
            return true;
        }
    }
    return false;
}

double KROLevelMeterAudioProcessor::clipTimeOfChannel(std::uint64_t channel) const {
    if (!clipTimes_ || channel >= numberOfChannels()) {
        return 0.0;
    }
    return clipTimes_[channel].load(std::memory_order_relaxed);
}

bool KROLevelMeterAudioProcessor::isClippedForChannel(std::uint64_t channel) const {
    if (!clipTimes_ || channel >= numberOfChannels()) {
        return false;
    }
    const double clipTime = clipTimes_[channel].load(std::memory_order_relaxed);
    const double hold = clipHoldLength();
    // A negative hold shows the first clip until reset.
    if (hold < 0.0) {
        return clipTime != 0.0;
    }
    return now() - clipTime < hold;
}
