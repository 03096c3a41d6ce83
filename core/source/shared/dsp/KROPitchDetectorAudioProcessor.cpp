#include "KROPitchDetectorAudioProcessor.h"

#include <cmath>
#include <limits>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROPitchDetectorAudioProcessor, KROAudioProcessor)

namespace {

// 2^(-69/12): semitone numbers are MIDI note numbers.
constexpr double kSemitoneZeroOfA4 = 0.018581361171917516;

void sstCallback(float semitone, float level, void* context, std::int64_t /*position*/,
                 std::int32_t /*event*/) {
    auto* detector = static_cast<KROPitchDetectorAudioProcessor*>(context);
    detector->didDetectSemitone(semitone);
    // The tracker's level is log2 of the mean square, read here as decibels:
    // the calibration displays have always shown.
    detector->didDetectPower(semitone == 0.0f ? 0.0f : std::pow(10.0f, level / 20.0f));
}

double rateOf(const KROAudioConnection* connection) {
    return connection ? connection->sampleRate() : 0.0;
}

} // namespace

KROPitchDetectorAudioProcessor::~KROPitchDetectorAudioProcessor() {
    if (sst_) {
        ko_sst__destroy(sst_);
    }
}

void KROPitchDetectorAudioProcessor::rebuild(double sampleRate) {
    if (sst_) {
        ko_sst__destroy(sst_);
        sst_ = nullptr;
    }
    const auto frames = std::int32_t(
        std::min<std::uint64_t>(analysisFrames_, std::numeric_limits<std::int32_t>::max()));
    if (ko_sst__create(sampleRate, float(referenceFrequency_ * kSemitoneZeroOfA4), frames, &sst_) ==
        0) {
        ko_sst__set_output_destination(sst_, sstCallback, this);
    }
}

bool KROPitchDetectorAudioProcessor::initializeForRender(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* input = inputConnection()) {
        input->conformToConnection(outputConnection());
    }
    const std::lock_guard<std::mutex> guard(lock_);
    rebuild(rateOf(outputConnection()));
    return true;
}

bool KROPitchDetectorAudioProcessor::initializeForInput(KROErrorPtr* /*error*/) {
    if (KROAudioConnection* output = outputConnection()) {
        output->conformToConnection(inputConnection());
    }
    const std::lock_guard<std::mutex> guard(lock_);
    rebuild(rateOf(inputConnection()));
    return true;
}

bool KROPitchDetectorAudioProcessor::uninitialize(KROErrorPtr* /*error*/) {
    const std::lock_guard<std::mutex> guard(lock_);
    if (sst_) {
        ko_sst__destroy(sst_);
        sst_ = nullptr;
    }
    return true;
}

bool KROPitchDetectorAudioProcessor::reset(KROErrorPtr* error) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        rebuild(rateOf(inputConnection()));
    }
    return KROAudioProcessor::reset(error);
}

void KROPitchDetectorAudioProcessor::setAnalysisFrames(std::uint64_t frames) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        analysisFrames_ = frames;
        rebuild(rateOf(inputConnection()));
    }
    KROAudioProcessor::reset(nullptr);
}

void KROPitchDetectorAudioProcessor::setReferenceFrequency(double hertz) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        referenceFrequency_ = hertz;
        rebuild(rateOf(inputConnection()));
    }
    KROAudioProcessor::reset(nullptr);
}

void KROPitchDetectorAudioProcessor::analyse(const KROAudioBufferList& buffer) {
    const std::uint64_t frames = buffer.frames();
    if (buffer.numberOfChannels() == 0 || frames == 0 ||
        frames > std::uint64_t(std::numeric_limits<std::int32_t>::max())) {
        return;
    }
    const std::lock_guard<std::mutex> guard(lock_);
    // Without a tracker the detector stays silent; the call would only log.
    if (sst_) {
        ko_sst__process_input_samples(sst_, buffer.channel(0), std::int32_t(frames), 0);
    }
}

void KROPitchDetectorAudioProcessor::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                            KROAudioStreamRenderInfo& info) {
    if (KROAudioInputBus* bus = inputBus()) {
        bus->render(buffer, info);
    }
    analyse(buffer);
}

void KROPitchDetectorAudioProcessor::input(KROAudioBufferList& buffer, KROAudioInputBus& /*bus*/,
                                           KROAudioStreamRenderInfo& info) {
    analyse(buffer);
    if (KROAudioOutputBus* bus = outputBus()) {
        bus->input(buffer, info);
    }
}

void KROPitchDetectorAudioProcessor::didDetectSemitone(float detected) {
    if (!isSemitoneSmoothingEnabled()) {
        semitone_.store(detected, std::memory_order_relaxed);
        return;
    }
    auto& ring = previousDetectedSemitones_;
    ring[cursor_] = detected;
    cursor_ = (cursor_ + 1) % ring.size();
    // The mode of the whole semitones, the first met winning a tie.
    float mode = 0.0f;
    std::size_t modeCount = 0;
    for (std::size_t i = 0; i < ring.size(); ++i) {
        const float candidate = std::round(ring[i]);
        std::size_t count = 0;
        for (const float value : ring) {
            count += std::round(value) == candidate ? 1 : 0;
        }
        if (count > modeCount) {
            mode = candidate;
            modeCount = count;
        }
    }
    float sum = 0.0f;
    std::size_t members = 0;
    for (const float value : ring) {
        if (std::round(value) == mode) {
            sum += value;
            ++members;
        }
    }
    const float mean = members ? sum / float(members) : 0.0f;
    const float published = semitone_.load(std::memory_order_relaxed);
    const float whole = std::round(mean);
    // Within the same semitone the fractions are averaged; across, it jumps.
    semitone_.store(whole == std::round(published)
                        ? (mean - whole) * 0.5f + (published - whole) * 0.5f + whole
                        : mean,
                    std::memory_order_relaxed);
}

void KROPitchDetectorAudioProcessor::didDetectPower(float detected) {
    if (!isPowerSmoothingEnabled()) {
        power_.store(detected, std::memory_order_relaxed);
        return;
    }
    const double rate = rateOf(outputConnection());
    const float previous = power_.load(std::memory_order_relaxed);
    power_.store(
        float(detected + (previous - detected) *
                             std::pow(0.01, (double(analysisFrames_) / rate) * 3.3333333333333335)),
        std::memory_order_relaxed);
}
