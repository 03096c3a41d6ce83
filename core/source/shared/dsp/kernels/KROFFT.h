// A real FFT of 2^log2n points over FFTW single precision, on buffers it owns.
// Plans are made and destroyed under one process-wide lock, since the FFTW
// planner is not thread-safe; executing them takes no lock and allocates
// nothing, so forward and inverse may run on the render thread.
//
// The spectrum is split: real and imaginary parts of bins 0 .. n/2, the true
// DFT with no factor. The inverse is unnormalised: inverse(forward(x)) is
// n * x.
#pragma once

#include <cstddef>
#include <memory>

struct fftwf_plan_s;

class KROFFT {
public:
    // None when log2n lies outside 1 .. maximumLog2n or FFTW cannot plan it.
    static std::unique_ptr<KROFFT> create(unsigned log2n);
    static constexpr unsigned maximumLog2n = 24;

    ~KROFFT();
    KROFFT(const KROFFT&) = delete;
    KROFFT& operator=(const KROFFT&) = delete;

    std::size_t size() const { return n_; }
    unsigned log2n() const { return log2n_; }

    // n samples: the input of forward, the output of inverse.
    float* time() { return time_; }
    // n/2 + 1 bins each: the output of forward, the input of inverse, which
    // overwrites them.
    float* real() { return real_; }
    float* imaginary() { return imaginary_; }

    void forward();
    void inverse();

private:
    KROFFT() = default;
    bool plan();

    std::size_t n_ = 0;
    unsigned log2n_ = 0;
    float* time_ = nullptr;
    float* real_ = nullptr;
    float* imaginary_ = nullptr;
    fftwf_plan_s* forwardPlan_ = nullptr;
    fftwf_plan_s* inversePlan_ = nullptr;
};
