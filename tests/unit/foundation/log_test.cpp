#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "liblog/log.h"

namespace {

namespace lg = ::brenholt::monitoring_modules::liblog;

std::string texts(const lg::memory_logger& log) {
    std::string out;
    for (const auto& [level, text] : log.entries()) out += std::to_string(level) + ":" + text + ";";
    return out;
}

TEST(MemoryLoggerTest, KeepsEntriesInOrderUntilCleared) {
    lg::memory_logger log;
    log.write(lg::debug, "first");
    log.write(lg::emergency, "second");
    EXPECT_EQ(texts(log), "7:first;0:second;");
    EXPECT_EQ(log.entries(), log.entries());  // taking them leaves them
    log.clear();
    EXPECT_TRUE(log.entries().empty());
}

TEST(MultiplexLoggerTest, ChildrenGetLinesUpToTheirLimit) {
    auto all = std::make_shared<lg::memory_logger>();
    auto info = std::make_shared<lg::memory_logger>();
    auto errors = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(all, lg::debug);
    mux.add(info, lg::info);
    mux.add(errors, lg::error);
    for (lg::severity s : {lg::emergency, lg::error, lg::warning, lg::info, lg::debug}) mux.write(s, "x");
    EXPECT_EQ(texts(*all), "0:x;3:x;4:x;6:x;7:x;");
    EXPECT_EQ(texts(*info), "0:x;3:x;4:x;6:x;");
    EXPECT_EQ(texts(*errors), "0:x;3:x;");
}

TEST(MultiplexLoggerTest, AddingAChildAgainKeepsOneEntryWithTheSecondLimit) {
    auto child = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(child, lg::error);
    mux.add(child, lg::debug);
    EXPECT_EQ(mux.size(), 1u);
    mux.write(lg::debug, "d");
    EXPECT_EQ(texts(*child), "7:d;");

    mux.add(child, lg::error);  // lowering works as well
    child->clear();
    mux.write(lg::info, "i");
    EXPECT_TRUE(child->entries().empty());
}

TEST(MultiplexLoggerTest, DeadChildIsPrunedOnlyByWrite) {
    auto keeper = std::make_shared<lg::memory_logger>();
    auto mortal = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(keeper, lg::debug);
    mux.add(mortal, lg::debug);
    std::weak_ptr<lg::memory_logger> watch = mortal;
    mortal.reset();
    EXPECT_TRUE(watch.expired());  // the multiplexer holds nobody alive
    EXPECT_EQ(mux.size(), 2u);
    mux.add(keeper, lg::info);
    mux.remove(std::make_shared<lg::memory_logger>());
    EXPECT_EQ(mux.size(), 2u);
    mux.write(lg::info, "after");
    EXPECT_EQ(mux.size(), 1u);
    EXPECT_EQ(texts(*keeper), "6:after;");
}

TEST(MultiplexLoggerTest, EmptyPointersAndUnknownChildrenChangeNothing) {
    auto child = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(nullptr, lg::debug);
    EXPECT_EQ(mux.size(), 0u);
    mux.write(lg::debug, "nobody");  // an empty entry would crash here
    mux.add(child, lg::debug);
    mux.remove(nullptr);
    mux.remove(std::make_shared<lg::memory_logger>());
    EXPECT_EQ(mux.size(), 1u);
    mux.remove(child);
    EXPECT_EQ(mux.size(), 0u);
    mux.write(lg::debug, "gone");
    EXPECT_TRUE(child->entries().empty());
}

struct throwing_logger : lg::log_interface {
    void write(lg::severity, const std::string&) override { throw std::runtime_error("sink broken"); }
};

TEST(MultiplexLoggerTest, ThrowingChildReleasesTheLock) {
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

TEST(NullLoggerTest, OneProcessWideInstance) {
    const auto a = lg::null_logger::instance();
    std::shared_ptr<lg::log_interface> b;
    std::thread other([&] { b = lg::null_logger::instance(); });
    other.join();
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_NE(dynamic_cast<lg::null_logger*>(a.get()), nullptr);
    a->write(lg::emergency, "dropped");
}

}  // namespace
