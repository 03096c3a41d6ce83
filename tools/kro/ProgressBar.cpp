#include "ProgressBar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace {

constexpr auto delayBeforeShowing = std::chrono::seconds(1);
constexpr auto redrawInterval = std::chrono::milliseconds(100);
constexpr int barWidth = 40;

} // namespace

ProgressBar::ProgressBar(std::string label)
    : label_(std::move(label)), terminal_(isatty(STDOUT_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
    finish();
}

void ProgressBar::update(double fraction) {
    if (!terminal_ || finished_) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now - start_ < delayBeforeShowing || (drawn_ && now - lastDrawn_ < redrawInterval)) {
        return;
    }
    fraction = std::clamp(fraction, 0.0, 1.0);
    const int filled = static_cast<int>(fraction * barWidth);
    std::printf("\r%s [%s%s] %3d%%", label_.c_str(), std::string(std::size_t(filled), '#').c_str(),
                std::string(std::size_t(barWidth - filled), ' ').c_str(),
                static_cast<int>(fraction * 100.0));
    std::fflush(stdout);
    drawn_ = true;
    lastDrawn_ = now;
}

void ProgressBar::finish() {
    if (drawn_ && !finished_) {
        // Spaces over the whole line, then back to its start.
        const std::size_t width = label_.size() + barWidth + 8;
        std::printf("\r%s\r", std::string(width, ' ').c_str());
        std::fflush(stdout);
    }
    finished_ = true;
}
