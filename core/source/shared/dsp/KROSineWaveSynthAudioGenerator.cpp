#include "KROSineWaveSynthAudioGenerator.h"

#include <cmath>
#include <cstdint>

#include "KROAudioBufferList.h"
#include "KROAudioConnection.h"
#include "KROClassRegistry.h"
#include "KROSineWaveAudioGenerator.h"

KRO_REGISTER_CLASS(KROSineWaveSynthAudioGenerator, KROAudioGenerator)

bool KROSineWaveSynthAudioGenerator::init(KROErrorPtr* error) {
    if (!KROAudioGenerator::init(error)) {
        return false;
    }
    setFrequency(defaultFrequency);
    setLevel(silenceLevel);
    lastPhase_ = 0.0f;
    lastLevel_ = silenceLevel;
    return true;
}

bool KROSineWaveSynthAudioGenerator::initializeForRender(KROErrorPtr* /*error*/) {
    lastPhase_ = 0.0f;
    lastLevel_ = silenceLevel;
    return true;
}

bool KROSineWaveSynthAudioGenerator::reset(KROErrorPtr* error) {
    return initializeForRender(error);
}

float KROSineWaveSynthAudioGenerator::frequencyOfSemitone(float semitone) {
    const float octaves = (semitone - 69.0f) / 12.0f;
    return static_cast<float>(440.0 * std::exp2(static_cast<double>(octaves)));
}

void KROSineWaveSynthAudioGenerator::notesBegan(const KROMusicalNoteSet& notes) {
    notesChanged(notes);
}

void KROSineWaveSynthAudioGenerator::notesChanged(const KROMusicalNoteSet& notes) {
    // Any one note, the set's arbitrary first member; the others
    // are ignored.
    if (notes.empty() || !*notes.begin()) {
        return;
    }
    const KROMusicalNote& note = **notes.begin();
    setFrequency(frequencyOfSemitone(note.semitone()));
    setLevel(note.level());
}

void KROSineWaveSynthAudioGenerator::notesEnded(const KROMusicalNoteSet& /*notes*/) {
    setLevel(silenceLevel);
}

void KROSineWaveSynthAudioGenerator::render(KROAudioBufferList& buffer, KROAudioOutputBus& /*bus*/,
                                            KROAudioStreamRenderInfo& /*info*/) {
    buffer.clear();
    const float frequency = this->frequency();
    const KROAudioConnection* connection = outputConnection();
    const double sampleRate = connection ? connection->sampleRate() : 0.0;
    const double step =
        static_cast<double>(frequency) * KROSineWaveAudioGenerator::twoPi / sampleRate;
    const double phase = lastPhase_;
    const float startGain = ::powf(10.0f, lastLevel_ / 20.0f);
    const float endGain = ::powf(10.0f, level() / 20.0f);
    const std::uint64_t frames = buffer.frames();
    const auto blockFrames = static_cast<float>(frames);
    if (float* samples = buffer.channel(0)) {
        for (std::uint64_t i = 0; i < frames; ++i) {
            // The ramp reaches endGain only at the frame after the block.
            const float ramp =
                static_cast<float>(i) / blockFrames * (endGain - startGain) + startGain;
            samples[i] = static_cast<float>(std::sin(static_cast<double>(i) * step + phase) *
                                            static_cast<double>(ramp));
        }
    }
    // Copied into every channel from 0 up, channel 0 itself included: a
    // self-copy that leaves the data as it was.
    for (std::uint32_t channel = 0; channel < buffer.numberOfChannels(); ++channel) {
        buffer.copyChannel(0, buffer, channel);
    }
    lastPhase_ =
        KROSineWaveAudioGenerator::advancedPhase(lastPhase_, frames, sampleRate, this->frequency());
    lastLevel_ = level();
}
