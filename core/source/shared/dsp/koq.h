// One channel of the linear-phase equaliser: a curve of amplitude gains on
// n/2 + 1 bins becomes a symmetric FIR filter through an inverse FFT and a
// Hann window, and the samples are convolved with it directly through a ring
// of the last n inputs. The audio is delayed by hmax, fixed by the maximum
// fidelity at creation, so that a lower fidelity (fewer taps) never moves it.
//
// Threads: setFidelity and setRequestedScalars design on the caller's thread
// and only swap the filter under fir_lock; process and processInPlace hold
// fir_lock for one block, allocate nothing, and belong to one render thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "KROObject.h"

class koq;

// The receiver of the blocks that process() completes.
class koqDelegate {
public:
    virtual ~koqDelegate() = default;
    // count filtered samples; timestamp is the input position of the first,
    // the filter's delay taken off, wrapping at 32 bits.
    virtual void koq(::koq& filter, const float* samples, std::uint32_t count,
                     std::uint32_t timestamp) = 0;
};

struct koq_internal_t;

class koq : public KROObject {
    KRO_DECLARE_CLASS(koq)

public:
    koq();
    ~koq() override;

    // n = 2^resolution. False, with a log line, when the filter cannot be
    // made: a resolution outside 1 .. 24 has no FFT.
    bool initWithResolution(std::uint32_t resolution, std::uint32_t samplesPerOutput,
                            float maxFidelity);

    std::uint32_t resolution() const;
    // The fidelity, clamped into 0 .. 1, sets the taps in use: 2h + 1 with
    // h = floor((n * fidelity - 1) / 2), at least one tap.
    void setFidelity(float fidelity);
    // n/2 + 1 gains from bin 0 to Nyquist, zero phase. A curve holding a
    // value that is not finite designs nothing: the filter in use stays.
    void setRequestedScalars(const float* scalars);
    // What the windowed filter does, n/2 + 1 gains.
    void getResultantScalars(float* scalars);

    // Filters count samples (at most samplesPerOutput) into out_array and
    // hands each full block of it to the delegate.
    void process(const float* samples, std::uint32_t count);
    // Filters count samples (at most samplesPerOutput) in place.
    void processInPlace(float* samples, std::uint32_t count);

    void setDelegate(koqDelegate* delegate);

    // Taps in use, the delay in frames, and the time spent filtering.
    std::uint32_t taps() const;
    std::uint32_t delay() const;
    std::uint64_t processNanoseconds() const;
    std::uint32_t processSamples() const;

private:
    void rebuildWindow(std::uint32_t h);
    void windowAndInstall(float fidelity, std::uint32_t h);
    void filter(const float* samples, std::uint32_t count, float* out);

    std::unique_ptr<koq_internal_t> me;
};
