#pragma once
// The check most error tests make: running `run` throws an `Error` whose text is exactly `message`.

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

namespace velmorin::test {

template <class Error = std::invalid_argument>
void expectMessage(const std::function<void()>& run, const std::string& message) {
    try {
        run();
        ADD_FAILURE() << "no error: " << message;
    } catch (const Error& e) {
        EXPECT_EQ(e.what(), message);
    }
}

}  // namespace velmorin::test
