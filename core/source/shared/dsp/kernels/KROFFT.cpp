#include "KROFFT.h"

#include <fftw3.h>
#include <mutex>

namespace {

std::mutex& plannerLock() {
    static std::mutex lock;
    return lock;
}

} // namespace

std::unique_ptr<KROFFT> KROFFT::create(unsigned log2n) {
    if (log2n < 1 || log2n > maximumLog2n) {
        return nullptr;
    }
    std::unique_ptr<KROFFT> fft(new KROFFT);
    fft->log2n_ = log2n;
    fft->n_ = std::size_t(1) << log2n;
    if (!fft->plan()) {
        return nullptr;
    }
    return fft;
}

bool KROFFT::plan() {
    const std::size_t bins = n_ / 2 + 1;
    const std::lock_guard<std::mutex> guard(plannerLock());
    time_ = fftwf_alloc_real(n_);
    real_ = fftwf_alloc_real(bins);
    imaginary_ = fftwf_alloc_real(bins);
    if (!time_ || !real_ || !imaginary_) {
        return false;
    }
    fftwf_iodim dimension{static_cast<int>(n_), 1, 1};
    // Estimated plans: planning by measurement would take longer than most
    // transforms made with them, and would write over the buffers.
    forwardPlan_ = fftwf_plan_guru_split_dft_r2c(1, &dimension, 0, nullptr, time_, real_,
                                                 imaginary_, FFTW_ESTIMATE);
    inversePlan_ = fftwf_plan_guru_split_dft_c2r(1, &dimension, 0, nullptr, real_, imaginary_,
                                                 time_, FFTW_ESTIMATE);
    return forwardPlan_ && inversePlan_;
}

KROFFT::~KROFFT() {
    const std::lock_guard<std::mutex> guard(plannerLock());
    if (forwardPlan_) {
        fftwf_destroy_plan(forwardPlan_);
    }
    if (inversePlan_) {
        fftwf_destroy_plan(inversePlan_);
    }
    fftwf_free(time_);
    fftwf_free(real_);
    fftwf_free(imaginary_);
}

void KROFFT::forward() {
    fftwf_execute_split_dft_r2c(forwardPlan_, time_, real_, imaginary_);
}

void KROFFT::inverse() {
    fftwf_execute_split_dft_c2r(inversePlan_, real_, imaginary_, time_);
}
