#include "KROFMSynthAudioGenerator.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"

KRO_REGISTER_CLASS(KROFMSynthAudioGenerator, KROAudioGenerator)

namespace {

constexpr double kTwoPi = 6.28318530717959;
// 2 pi rounded to float: phases fold back below it at each block.
constexpr float kTwoPiFloat = 6.2831855f;

float frequencyOf(double semitone) {
    return float(440.0 * std::exp2((semitone - 69.0) / 12.0));
}

} // namespace

bool KROFMSynthAudioGenerator::init(KROErrorPtr* error) {
    if (!KROAudioGenerator::init(error)) {
        return false;
    }
    carriers_.clear();
    for (std::size_t i = 0; i < numberOfCarriers; ++i) {
        carriers_.push_back(std::make_shared<KROFMSynthCarrier>());
    }
    return true;
}

bool KROFMSynthAudioGenerator::setSettings(const KROPropertyList& settings, KROErrorPtr* error) {
    if (!KROAudioGenerator::setSettings(settings, error)) {
        return false;
    }
    if (const KROPropertyList* list = settings.objectForKey("carriers"); list && list->isArray()) {
        const std::size_t count = std::min(list->count(), carriers_.size());
        for (std::size_t i = 0; i < count; ++i) {
            carriers_[i]->setProperties(*list->objectAtIndex(i));
        }
    }
    auto number = [&](const char* key) {
        const KROPropertyList* value = settings.objectForKey(key);
        return value ? value->doubleValue() : 0.0;
    };
    setDistortion(float(number("distortion")));
    setDelayTime(number("delayTime"));
    setDelayFeedback(float(number("delayFeedback")));
    setTranspose(float(number("transpose")));
    return true;
}

void KROFMSynthAudioGenerator::setDistortion(float distortion) {
    distortion_.store(distortion > 0.0f ? distortion : 0.0f, std::memory_order_relaxed);
}

void KROFMSynthAudioGenerator::setDelayTime(double seconds) {
    delayTime_.store(std::min(seconds, 2.0), std::memory_order_relaxed);
}

void KROFMSynthAudioGenerator::setDelayFeedback(float feedback) {
    delayFeedback_.store(std::min(feedback, 1.0f), std::memory_order_relaxed);
}

bool KROFMSynthAudioGenerator::initializeForRender(KROErrorPtr* /*error*/) {
    modPhase_ = 0.0f;
    amp_ = nextAmp();
    const KROAudioConnection* output = outputConnection();
    const double rate = output ? output->sampleRate() : 0.0;
    const double frames = rate > 0.0 ? std::round(2.0 * rate) : 0.0;
    delayBuffer_.clear();
    delayIndex_ = 0;
    // A rate too high for two seconds of memory leaves the voice without a
    // delay rather than fail.
    if (frames < 1e8) {
        try {
            delayBuffer_.assign(std::size_t(frames), 0.0f);
        } catch (const std::bad_alloc&) {
            delayBuffer_.clear();
        }
    }
    return true;
}

bool KROFMSynthAudioGenerator::uninitialize(KROErrorPtr* /*error*/) {
    delayBuffer_ = {};
    return true;
}

std::shared_ptr<KROFMSynthCarrier>
KROFMSynthAudioGenerator::carrierAtIndex(std::size_t index) const {
    return index < carriers_.size() ? carriers_[index] : nullptr;
}

void KROFMSynthAudioGenerator::notesBegan(const KROMusicalNoteSet& notes) {
    notesChanged(notes);
    controlIndex_.store(0, std::memory_order_relaxed);
    releasing_.store(false, std::memory_order_relaxed);
}

void KROFMSynthAudioGenerator::notesChanged(const KROMusicalNoteSet& notes) {
    if (notes.empty() || !*notes.begin()) {
        return;
    }
    const KROMusicalNote& note = **notes.begin();
    // A pitch or a level that is not finite would hold every later block at
    // NaN through the phases and the delay line: such a note is ignored.
    if (!std::isfinite(note.semitone()) || std::isnan(note.level()) || note.level() > 1000.0f) {
        return;
    }
    const float semitone = note.semitone() + transpose();
    modFreq_.store(frequencyOf(semitone), std::memory_order_relaxed);
    for (const auto& carrier : carriers_) {
        carrier->setFrequency(frequencyOf(double(carrier->tuning()) + semitone));
    }
    nextAmp_.store(float(std::pow(10.0, double(note.level()) * 0.05)), std::memory_order_relaxed);
}

void KROFMSynthAudioGenerator::notesEnded(const KROMusicalNoteSet& /*notes*/) {
    releasing_.store(true, std::memory_order_relaxed);
    controlIndex_.store(0, std::memory_order_relaxed);
}

// One step of the envelopes and LFOs; during a release also the voice's
// amplitude a, which reaches 0 after 200 ticks.
void KROFMSynthAudioGenerator::controlTick(double ticksPerSecond, double lfoStep, float& a) {
    const std::uint64_t c = controlIndex_.fetch_add(1, std::memory_order_relaxed) + 1;
    const bool released = releasing();
    for (const auto& carrier : carriers_) {
        carrier->lfoPhase = float(carrier->lfoPhase + carrier->lfoFrequency() * lfoStep);
        carrier->lfoValue = carrier->lfoDepth() * std::sin(carrier->lfoPhase);
        const float sustain = carrier->sustainLength();
        if (!released) {
            const auto attack =
                std::uint64_t(std::max(0.0, carrier->attackLength() * ticksPerSecond));
            const auto decay =
                std::uint64_t(std::max(0.0, carrier->decayLength() * ticksPerSecond));
            if (c <= attack) {
                carrier->envelopeValue = float(c) / float(attack);
            } else if (c < attack + decay) {
                carrier->envelopeValue =
                    float(1.0 - (1.0 - sustain) * (double(c - attack) / double(decay)));
            } else {
                carrier->envelopeValue = sustain;
            }
        } else {
            const auto release =
                std::uint64_t(std::max(1.0, carrier->releaseLength() * ticksPerSecond));
            carrier->envelopeValue =
                float(std::max(0.0, sustain - (double(c) / double(release)) * sustain));
        }
    }
    if (released) {
        a = float(std::max(0.0, (double(c) / -200.0) * amp_ + amp_));
    }
}

float KROFMSynthAudioGenerator::delayed(float y, double sampleRate) {
    const double seconds = delayTime();
    const double length = seconds > 0.0 ? std::floor(seconds * sampleRate) : 0.0;
    if (!(length >= 1.0) || length > double(delayBuffer_.size())) {
        return y;
    }
    const auto l = std::uint64_t(length);
    // An index left past a shorter line by a change of time folds back here.
    const std::uint64_t next = (delayIndex_ + 1) % l;
    y += delayBuffer_[next] * delayFeedback();
    delayBuffer_[std::min<std::uint64_t>(delayIndex_, delayBuffer_.size() - 1)] = y;
    delayIndex_ = next;
    return y;
}

void KROFMSynthAudioGenerator::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                      KROAudioStreamRenderInfo& /*info*/) {
    const KROAudioConnection* output = outputConnection();
    const double sr = output ? output->sampleRate() : 0.0;
    const std::uint64_t frames = buffer.frames();
    float* const samples = buffer.channel(0);
    if (!samples || frames == 0) {
        return;
    }
    // Without a rate there is no pitch: silence rather than NaN phases.
    if (!(sr > 0.0) || !std::isfinite(sr)) {
        buffer.clear();
        return;
    }
    modPhase_ = std::fmod(modPhase_, kTwoPiFloat);
    for (const auto& carrier : carriers_) {
        carrier->phase = std::fmod(carrier->phase, kTwoPiFloat);
        carrier->lfoPhase = std::fmod(carrier->lfoPhase, kTwoPiFloat);
        carrier->lfoValue = 1.0f;
        carrier->envelopeValue = 0.0f;
    }
    float a = amp_;
    const float target = nextAmp();
    const float step = (target - amp_) / float(frames);
    const double dw = kTwoPi / sr;
    const double modulator = modFreq();
    const auto wm = float(modulator * dw);
    const double ticksPerSecond = float(sr * 0.03125);
    const double lfoStep = kTwoPi / (sr * 0.03125);
    const float drive = distortion();
    for (std::uint64_t i = 0; i < frames; ++i) {
        if (i % framesPerControlTick == 0) {
            controlTick(ticksPerSecond, lfoStep, a);
        }
        modPhase_ += wm;
        const auto mf = float(std::sin(modPhase_) * modulator);
        float sum = 0.0f;
        for (const auto& carrier : carriers_) {
            const float deviation =
                (carrier->modulationIndex() * carrier->envelopeValue + carrier->lfoValue) * mf;
            carrier->phase += float((carrier->frequency() + deviation) * dw);
            sum += carrier->mix() * std::sin(carrier->phase);
        }
        const auto x = float(sum + std::min(drive, 1.0f) * std::tanh(sum * drive));
        samples[i] = delayed((float(i) * step + a) * x, sr);
    }
    amp_ = target;
    for (std::uint32_t channel = 1; channel < buffer.numberOfChannels(); ++channel) {
        buffer.copyChannel(0, buffer, channel);
    }
}
