// A one-line progress bar for long jobs of kro. It is drawn only when
// standard output is a terminal and the job has run for a second, redrawn at
// most ten times a second, and erased when the job ends, so that what the
// command prints afterwards stands alone.
#pragma once

#include <chrono>
#include <string>

class ProgressBar {
public:
    explicit ProgressBar(std::string label);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // The fraction of the job done, 0 to 1.
    void update(double fraction);
    // Erases the bar; later updates draw nothing.
    void finish();

private:
    using Clock = std::chrono::steady_clock;

    std::string label_;
    bool terminal_;
    bool drawn_ = false;
    bool finished_ = false;
    Clock::time_point start_ = Clock::now();
    Clock::time_point lastDrawn_;
};
