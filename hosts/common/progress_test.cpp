#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "common/progress.h"

namespace velmorin {
namespace {

TEST(ProgressReporter, DrawsABarThatRewritesItsLine) {
    std::ostringstream out;
    {
        ProgressReporter progress(out, 10);
        progress.begin("Writing", 4);
        progress.advance();
        progress.advance(2);
        progress.advance(5);  // past the end: held at the total
        progress.finish();
    }
    EXPECT_EQ(out.str(),
              "\rWriting [..........] 0% (0/4)"
              "\rWriting [##........] 25% (1/4)"
              "\rWriting [#######...] 75% (3/4)"
              "\rWriting [##########] 100% (4/4)\n");
}

TEST(ProgressReporter, RedrawsOnlyWhenTheShareChangesAndEndsItsLine) {
    std::ostringstream out;
    {
        ProgressReporter progress(out, 4);
        progress.begin("Frames", 100000);
        for (int i = 0; i < 100000; ++i)
            progress.advance();
        // Left running: the reporter ends the line as it goes.
    }
    const std::string text = out.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\r'), 1001);
    EXPECT_EQ(text.back(), '\n');

    std::ostringstream counted;
    ProgressReporter unknown(counted);
    unknown.begin("Evaluating", 0);
    unknown.advance(3);
    unknown.finish();
    EXPECT_EQ(counted.str(), "\rEvaluating 0\rEvaluating 3\n");
}

TEST(ProgressReporter, QuietDrawsNothing) {
    ProgressReporter quiet;
    EXPECT_FALSE(quiet.active());
    quiet.begin("Writing", 3);
    quiet.advance();
    quiet.finish();
    EXPECT_FALSE(quiet.active());
    // A bar only where someone watches: on a terminal, never into a file or a pipe.
    EXPECT_EQ(ProgressReporter::forStandardError().active(), isatty(STDERR_FILENO) != 0);
}

}  // namespace
}  // namespace velmorin
