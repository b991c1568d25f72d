#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "liblog/log.h"

namespace {

namespace lg = ::brenholt::monitoring_modules::liblog;

std::string texts(const lg::memory_logger& log) {
    std::string out;
    for (const auto& [level, text] : log.entries()) out += std::to_string(level) + ":" + text + ";";
    return out;
}

TEST(multiplex_logger, children_get_lines_up_to_their_limit_and_are_held_weakly) {
    auto all = std::make_shared<lg::memory_logger>();
    auto errors = std::make_shared<lg::memory_logger>();
    auto mortal = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(all, lg::info);
    mux.add(all, lg::debug);  // adding again keeps one entry, with the second limit
    mux.add(errors, lg::error);
    mux.add(mortal, lg::debug);
    mux.add(nullptr, lg::debug);
    EXPECT_EQ(mux.size(), 3u);
    for (lg::severity s : {lg::emergency, lg::error, lg::warning, lg::info, lg::debug}) mux.write(s, "x");
    EXPECT_EQ(texts(*all), "0:x;3:x;4:x;6:x;7:x;");
    EXPECT_EQ(texts(*errors), "0:x;3:x;");

    mortal.reset();  // the multiplexer holds nobody alive
    EXPECT_EQ(mux.size(), 3u) << "only a write prunes a dead child";
    mux.write(lg::info, "after");
    EXPECT_EQ(mux.size(), 2u);
}

struct throwing_logger : lg::log_interface {
    void write(lg::severity, const std::string&) override { throw std::runtime_error("sink broken"); }
};

TEST(multiplex_logger, a_throwing_child_releases_the_lock) {
    auto bad = std::make_shared<throwing_logger>();
    auto good = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(bad, lg::debug);
    EXPECT_THROW(mux.write(lg::debug, "x"), std::runtime_error);
    // Would deadlock if the exception had left the mutex held.
    mux.remove(bad);
    mux.add(good, lg::debug);
    mux.write(lg::debug, "y");
    EXPECT_EQ(texts(*good), "7:y;");
}

}  // namespace
