#pragma once

#include <string>

#include <gtest/gtest.h>

namespace test_support {

// The what() of the E that f throws; a test failure and "" when f returns. Other exceptions pass through.
template <typename E, typename F>
std::string what_of(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

}  // namespace test_support
