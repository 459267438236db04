#include "common/progress.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace velmorin {

ProgressReporter::~ProgressReporter() {
    if (running_) finish();
}

ProgressReporter& ProgressReporter::forStandardError() {
    static ProgressReporter quiet;
    static ProgressReporter terminal(std::cerr);
    return isatty(STDERR_FILENO) ? terminal : quiet;
}

void ProgressReporter::begin(std::string label, std::ptrdiff_t total) {
    if (running_) finish();
    label_ = std::move(label);
    total_ = total;
    done_ = 0;
    lastDrawn_ = -1;
    running_ = true;
    draw();
}

void ProgressReporter::advance(std::ptrdiff_t steps) {
    if (!running_) return;
    done_ += steps;
    if (total_ > 0) done_ = std::min(done_, total_);
    draw();
}

void ProgressReporter::finish() {
    if (!running_) return;
    running_ = false;
    if (out_) *out_ << "\n" << std::flush;
}

void ProgressReporter::draw() {
    if (!out_) return;
    if (total_ <= 0) {
        *out_ << "\r" << label_ << " " << done_ << std::flush;
        return;
    }
    const int perMille = static_cast<int>(1000 * done_ / total_);
    if (perMille == lastDrawn_) return;
    lastDrawn_ = perMille;
    const int filled = static_cast<int>(static_cast<long long>(width_) * done_ / total_);
    *out_ << "\r" << label_ << " [" << std::string(filled, '#') << std::string(width_ - filled, '.')
          << "] " << perMille / 10 << "% (" << done_ << "/" << total_ << ")" << std::flush;
}

}  // namespace velmorin
