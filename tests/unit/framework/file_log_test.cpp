#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "libvurohelper/logging.h"

namespace {

namespace fs = std::filesystem;
namespace lg = ::brenholt::monitoring_modules::liblog;
using ::brenholt::monitoring_modules::libvurohelper::logging::file_log;
using ::brenholt::monitoring_modules::libvurohelper::logging::flush_file_logs;

std::vector<std::string> lines_of(const fs::path& file) {
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

class file_log_test : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("file-log-test-" + std::to_string(::getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        setenv("VURO_LOG_DIR", dir_.c_str(), 1);
    }
    void TearDown() override {
        unsetenv("VURO_LOG_DIR");
        fs::remove_all(dir_);
    }
    fs::path dir_;
};

TEST_F(file_log_test, without_a_directory_nothing_is_kept_or_written) {
    unsetenv("VURO_LOG_DIR");
    file_log log("quiet.log");
    log.write(lg::error, "lost");
    EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(file_log_test, each_line_has_time_and_severity_and_holds_text_only) {
    file_log log("runtime.log");
    EXPECT_FALSE(fs::exists(dir_ / "runtime.log")) << "the file comes with the first line";
    log.write(lg::debug, "first");
    // A C string's terminator carried along goes; other control characters are escaped.
    log.write(lg::emergency, std::string("with a zero\0", 12));
    log.write(static_cast<lg::severity>(9), std::string("odd\a\r\0x\ttab", 11));
    flush_file_logs();
    const auto lines = lines_of(dir_ / "runtime.log");
    ASSERT_EQ(lines.size(), 3u);
    const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
    const char* const expected[] = {"DEBUG first", "EMERGENCY with a zero", "9 odd\\x07\\x0d\\x00x\ttab"};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_search(lines[i], stamp, std::regex_constants::match_continuous)) << lines[i];
        EXPECT_EQ(lines[i].substr(24), expected[i]);
    }
}

// Each check writes through a runtime log object of its own, beside the module's: the
// file shows the lines in the order they were written, not grouped by object.
TEST_F(file_log_test, lines_of_several_log_objects_keep_their_order_in_the_file) {
    file_log module_log("runtime.log");
    module_log.write(lg::debug, "begin");
    {
        file_log check_log("runtime.log");
        check_log.write(lg::debug, "check");
        module_log.write(lg::debug, "between");
        check_log.write(lg::emergency, "failed");
    }
    module_log.write(lg::debug, "end");
    flush_file_logs();
    std::vector<std::string> texts;
    for (const auto& line : lines_of(dir_ / "runtime.log")) texts.push_back(line.substr(24));
    EXPECT_EQ(texts, (std::vector<std::string>{"DEBUG begin", "DEBUG check", "DEBUG between", "EMERGENCY failed",
                                               "DEBUG end"}));
}

// Nobody has to flush: trace lines reach the file by themselves, soon after.
TEST_F(file_log_test, trace_lines_reach_the_file_without_a_flush) {
    file_log log("runtime.log");
    log.write(lg::debug, "on its own");
    std::vector<std::string> lines;
    for (int i = 0; i < 200 && lines.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        lines = lines_of(dir_ / "runtime.log");
    }
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(24), "DEBUG on its own");
}

// Several log objects share one file (each check gets its own runtime log) and several
// threads write at once: every line must arrive whole, none overwritten.
TEST_F(file_log_test, concurrent_writers_on_one_file_neither_tear_nor_lose_lines) {
    file_log a("shared.log"), b("shared.log");
    const std::string payload(300, 'x');
    std::vector<std::thread> writers;
    for (file_log* log : {&a, &b, &a, &b})
        writers.emplace_back([log, &payload] {
            for (int i = 0; i < 400; ++i) log->write(lg::info, payload);
        });
    for (auto& t : writers) t.join();
    flush_file_logs();
    const auto lines = lines_of(dir_ / "shared.log");
    EXPECT_EQ(lines.size(), 1600u);
    for (const auto& line : lines) ASSERT_EQ(line.substr(24), "INFO " + payload);
}

// Logs keep their file open, but thousands of sensor logs must not use up the
// descriptors of the process: past a bound, lines still arrive, each opening the file.
TEST_F(file_log_test, many_logs_keep_a_bounded_number_of_files_open) {
    auto open_descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{});
    };
    const auto before = open_descriptors();
    std::vector<std::unique_ptr<file_log>> logs;
    for (int i = 0; i < 200; ++i) {
        logs.push_back(std::make_unique<file_log>("sensor_" + std::to_string(i) + ".log"));
        logs.back()->write(lg::debug, "line " + std::to_string(i));
    }
    flush_file_logs();
    EXPECT_LE(open_descriptors() - before, 100);
    for (int i = 0; i < 200; i += 199) logs[static_cast<std::size_t>(i)]->write(lg::debug, "again");
    flush_file_logs();
    for (int i = 0; i < 200; i += 199) {
        const auto lines = lines_of(dir_ / ("sensor_" + std::to_string(i) + ".log"));
        ASSERT_EQ(lines.size(), 2u) << i;
        EXPECT_EQ(lines[0].substr(24), "DEBUG line " + std::to_string(i));
        EXPECT_EQ(lines[1].substr(24), "DEBUG again");
    }
    logs.clear();
    EXPECT_EQ(open_descriptors(), before);
}

// What a crash keeps: the lines of the calls before it, and every warning or failure
// with the trace that led to it. Only the trace after the last of those goes with it.
TEST_F(file_log_test, a_crash_keeps_finished_calls_and_every_warning_with_its_trace) {
    EXPECT_EXIT(
        {
            file_log log("crash.log");
            log.write(lg::debug, "call one");
            flush_file_logs();
            log.write(lg::debug, "trace of call two");
            log.write(lg::warning, "warning of call two");
            log.write(lg::debug, "lost with the crash");
            ::raise(SIGKILL);
        },
        ::testing::KilledBySignal(SIGKILL), "");
    // The last trace line is gone unless the flusher came first.
    const auto lines = lines_of(dir_ / "crash.log");
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0].substr(24), "DEBUG call one");
    EXPECT_EQ(lines[1].substr(24), "DEBUG trace of call two");
    EXPECT_EQ(lines[2].substr(24), "WARNING warning of call two");
}

}  // namespace
