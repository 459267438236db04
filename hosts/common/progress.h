#pragma once
// A progress bar for long work (an evaluation, a frame loop), drawn on one line that rewrites
// itself. Whoever runs the work calls begin, advance and finish; a reporter made quiet (the
// default, and what a host gives when its messages go to a file or a pipe) draws nothing, so the
// loops can call it unconditionally.

#include <cstddef>
#include <ostream>
#include <string>

namespace velmorin {

class ProgressReporter {
  public:
    ProgressReporter() = default;  // quiet
    // Draws on `out`; the bar is `width` characters wide.
    explicit ProgressReporter(std::ostream& out, int width = 30) : out_(&out), width_(width) {}
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;
    ~ProgressReporter();

    // A reporter on standard error when it is a terminal, else a quiet one.
    static ProgressReporter& forStandardError();

    bool active() const { return out_ != nullptr; }

    // Starts a task of `total` steps (0 or less: a task of unknown length, drawn as a count).
    void begin(std::string label, std::ptrdiff_t total);
    void advance(std::ptrdiff_t steps = 1);
    // Ends the line of the current task; the next output starts on a fresh line.
    void finish();

  private:
    void draw();

    std::ostream* out_ = nullptr;
    int width_ = 30;
    std::string label_;
    std::ptrdiff_t total_ = 0;
    std::ptrdiff_t done_ = 0;
    int lastDrawn_ = -1;  // per mille drawn last: the line is redrawn only when it changes
    bool running_ = false;
};

}  // namespace velmorin
