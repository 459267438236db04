#pragma once
// Checks the editing tests share: points equal within a tolerance, and the message a call fails
// with.

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/vec3.h"

namespace velmorin::test {

inline void expectNear(const Vec3f& a, const Vec3f& b, float tolerance = 1e-5f) {
    EXPECT_NEAR(a.x, b.x, tolerance);
    EXPECT_NEAR(a.y, b.y, tolerance);
    EXPECT_NEAR(a.z, b.z, tolerance);
}

inline void expectNear(const std::vector<Vec3f>& a, const std::vector<Vec3f>& b,
                       float tolerance = 1e-5f) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i)
        expectNear(a[i], b[i], tolerance);
}

// What `call` throws as std::invalid_argument, or "no error", so that tables can list calls that
// must succeed beside those that must fail.
inline std::string messageOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "no error";
}

}  // namespace velmorin::test
