#include "KROFaderAudioProcessor.h"

#include <algorithm>
#include <cmath>

#include "KROAudioAutomation.h"
#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROAudioStreamRenderInfo.h"
#include "KROClassRegistry.h"
#include "KROSampleFrames.h"

KRO_REGISTER_CLASS(KROFaderAudioProcessor, KROAudioProcessor)

namespace {

constexpr const char* kScalar = "scalar";
constexpr const char* kGain = "gain";
// The largest float, written as the double that it is.
constexpr double kLargestFloat = 3.4028234663852886e+38;

KROPropertyList parameterDescription(const char* name, double minimum, const char* units) {
    KROPropertyList description;
    description.setObjectForKey("name", name);
    description.setObjectForKey("minimum", minimum);
    description.setObjectForKey("maximum", kLargestFloat);
    if (units) {
        description.setObjectForKey("units", units);
    }
    description.setObjectForKey("isGettable", true);
    description.setObjectForKey("isSettable", true);
    return description;
}

// frame - sampleTime as a place in a block of frames, kept inside it.
std::uint64_t placeInBlock(std::int64_t frame, std::int64_t sampleTime, std::uint64_t frames) {
    std::int64_t place = 0;
    if (__builtin_sub_overflow(frame, sampleTime, &place)) {
        place = frame < 0 ? INT64_MIN : INT64_MAX;
    }
    return static_cast<std::uint64_t>(std::clamp<std::int64_t>(
        place, 0, static_cast<std::int64_t>(std::min<std::uint64_t>(frames, INT64_MAX))));
}

std::int64_t saturatingSum(std::int64_t a, std::int64_t b) {
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return a < 0 ? INT64_MIN : INT64_MAX;
    }
    return sum;
}

NSLongRange rangeBetween(std::uint64_t from, std::uint64_t to) {
    return NSMakeLongRange(from, to > from ? to - from : 0);
}

} // namespace

bool KROFaderAudioProcessor::init(KROErrorPtr* error) {
    if (!KROAudioProcessor::init(error)) {
        return false;
    }
    KROPropertyList parameters;
    parameters.setObjectForKey(kScalar, parameterDescription("Scalar", 0.0, nullptr));
    parameters.setObjectForKey(kGain, parameterDescription("Gain", -kLargestFloat, "dB"));
    setParameters(parameters);
    scalar_.store(1.0f, std::memory_order_relaxed);
    nextScalar_.store(1.0f, std::memory_order_relaxed);
    setEnabled(true);
    return true;
}

bool KROFaderAudioProcessor::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioProcessor::setSettings(settings, error)) {
        return false;
    }
    if (const KROPropertyList* value = settings.objectForKey(kScalar); value && value->isNumber()) {
        setScalar(static_cast<float>(value->doubleValue()));
    }
    if (const KROPropertyList* value = settings.objectForKey("enabled");
        value && (value->isBoolean() || value->isNumber())) {
        setEnabled(value->boolValue());
    }
    return true;
}

KROPropertyList KROFaderAudioProcessor::settings() const {
    KROPropertyList settings = KROAudioProcessor::settings();
    settings.setObjectForKey(kScalar, static_cast<double>(scalar()));
    settings.setObjectForKey("enabled", isEnabled());
    return settings;
}

bool KROFaderAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* const input = inputConnection()) {
        input->conformToConnection(outputConnection());
    }
    scalar_.store(nextScalar_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return true;
}

bool KROFaderAudioProcessor::initializeForInput(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* const output = outputConnection()) {
        output->conformToConnection(inputConnection());
    }
    scalar_.store(nextScalar_.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return true;
}

void KROFaderAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                    KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* const input = inputBus()) {
        input->render(buffer, info);
    }
    if (isEnabled()) {
        process(buffer, info);
    }
}

void KROFaderAudioProcessor::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                   KROAudioStreamRenderInfo& info) {
    if (isEnabled()) {
        process(buffer, info);
    }
    if (KROAudioOutputBus* const output = outputBus()) {
        output->input(buffer, info);
    }
}

std::optional<KROPropertyList>
KROFaderAudioProcessor::valueForParameterKey(const std::string& key) const {
    if (key == kScalar) {
        return KROPropertyList(static_cast<double>(scalar()));
    }
    if (key == kGain) {
        return KROPropertyList(static_cast<double>(gain()));
    }
    return std::nullopt;
}

void KROFaderAudioProcessor::setValue(const KROPropertyList& value, const std::string& key) {
    if (!value.isNumber()) {
        return;
    }
    if (key == kScalar) {
        setScalar(static_cast<float>(value.doubleValue()));
    } else if (key == kGain) {
        setGain(static_cast<float>(value.doubleValue()));
    }
}

void KROFaderAudioProcessor::setScalar(float scalar) {
    const std::lock_guard guard(scalarLock_);
    nextScalar_.store(scalar, std::memory_order_relaxed);
}

float KROFaderAudioProcessor::gain() const {
    return 20.0f * std::log10(scalar());
}

void KROFaderAudioProcessor::setGain(float gain) {
    setScalar(std::pow(10.0f, gain / 20.0f));
}

double KROFaderAudioProcessor::outputSampleRate() const {
    const KROAudioConnection* const output = outputConnection();
    return output ? output->sampleRate() : 0.0;
}

void KROFaderAudioProcessor::process(KROAudioBufferList& buffer, KROAudioStreamRenderInfo& info) {
    const std::lock_guard automations(automationsLock());
    const std::lock_guard guard(scalarLock_);
    const std::uint64_t frames = buffer.frames();
    const double rate = outputSampleRate();
    bool overlapped = false;
    if (rate > 0.0) {
        const double t0 = static_cast<double>(info.sampleTime()) / rate;
        for (const auto& automation : automations_) {
            const auto overlap = overlapOf(*automation, info.sampleTime(), frames, rate);
            if (!overlap) {
                continue;
            }
            overlapped = true;
            applyAutomation(buffer, info, *overlap, t0, rate);
            scalar_.store(nextScalar_.load(std::memory_order_relaxed), std::memory_order_relaxed);
        }
    }
    if (!overlapped) {
        // The click protection: a new gain is reached over one block.
        const float next = nextScalar_.load(std::memory_order_relaxed);
        buffer.scaleWithRampStart(scalar_.load(std::memory_order_relaxed), next);
        scalar_.store(next, std::memory_order_relaxed);
    }
}

std::optional<KROFaderAudioProcessor::Overlap>
KROFaderAudioProcessor::overlapOf(const KROAudioAutomation& automation, std::int64_t sampleTime,
                                  std::uint64_t frames, double rate) const {
    const std::string& key = automation.parameterKey();
    if (!automation.isEnabled() || (key != kScalar && key != kGain)) {
        return std::nullopt;
    }
    const double a = automation.location();
    const double e = a + automation.length();
    const double t0 = static_cast<double>(sampleTime) / rate;
    const double duration = static_cast<double>(frames) / rate;
    const double t1 = t0 + duration;
    const NSDoubleRange meeting = NSIntersectionDoubleRange(
        NSMakeDoubleRange(a, automation.length()), NSMakeDoubleRange(t0, duration));
    if (!(meeting.length > 0.0)) {
        return std::nullopt;
    }
    const std::int64_t start = KROFrameForSeconds(a, rate);
    const std::int64_t end = saturatingSum(start, KROFrameForSeconds(automation.length(), rate));
    const bool startsInside = t0 <= a && a <= t1;
    const bool endsInside = t0 <= e && e <= t1;
    const std::uint64_t from = startsInside ? placeInBlock(start, sampleTime, frames) : 0;
    const std::uint64_t to =
        endsInside ? std::max(from, placeInBlock(end, sampleTime, frames)) : frames;
    Overlap overlap{};
    overlap.automation = &automation;
    overlap.inDecibels = key == kGain;
    overlap.before = rangeBetween(0, from);
    overlap.automated = rangeBetween(from, to);
    overlap.after = rangeBetween(to, frames);
    overlap.start = startsInside ? a : t0;
    overlap.end = endsInside ? e : t1;
    return overlap;
}

void KROFaderAudioProcessor::applyAutomation(KROAudioBufferList& buffer,
                                             const KROAudioStreamRenderInfo& info,
                                             const Overlap& overlap, double t0, double rate) {
    const KROAudioAutomation& automation = *overlap.automation;
    const double first = automation.location();
    const double last = first + automation.length();
    const auto gainAt = [&](double seconds) {
        // A frame that rounding puts a hair outside the stretch takes the
        // value at its edge, not the 0 of outside, which would click.
        const float value = automation.valueForLocation(std::min(std::max(seconds, first), last));
        return overlap.inDecibels ? std::pow(10.0f, value / 20.0f) : value;
    };
    if (overlap.before.length != 0) {
        buffer.scale(scalar_.load(std::memory_order_relaxed), overlap.before);
    }
    if (info.isRealtime() || !info.isRunning()) {
        // One linear ramp for the block; a standing transport holds the
        // value at the start.
        const float start = gainAt(overlap.start);
        const float end = info.isRunning() ? gainAt(overlap.end) : start;
        buffer.scaleWithRampStart(start, end, overlap.automated);
    } else {
        const NSLongRange range = overlap.automated;
        for (std::uint64_t frame = range.location; frame < range.location + range.length; ++frame) {
            const float gain = gainAt(t0 + static_cast<double>(frame) / rate);
            for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
                if (float* const samples = buffer.channel(channel)) {
                    samples[frame] *= gain;
                }
            }
        }
    }
    if (overlap.after.length != 0) {
        buffer.scale(nextScalar_.load(std::memory_order_relaxed), overlap.after);
    }
}
