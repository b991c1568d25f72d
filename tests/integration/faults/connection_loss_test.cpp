// Connections lost the way plants lose them: a server killed outright and started again,
// a path that goes silent while new connections pass, connections reset, and a server
// that hangs and then resumes. opcua-sim runs as a process of its own here, so that it
// can be killed and stopped; the silent cut and the reset come from a proxy in front of
// it. Every scan and check answers once, burns no CPU while it waits, writes a bounded
// number of log lines, and the first one after the fault is over is good.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "integration/check_session.h"
#include "integration/sensor_session.h"
#include "support/fault_proxy.h"
#include "support/child_process.h"

using namespace integration;

namespace {

double thread_cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

int free_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// What one scan or check came to.
struct outcome {
    int code = -1;  // response code of the one result, or 0 / 3 for a check's success
    double cpu = 0;
    double wall = 0;
    std::size_t log_lines = 0;
};

class ConnectionLoss : public sensor_session {
protected:
    void SetUp() override {
        sensor_session::SetUp();
        port_ = free_port();
        start_server();
    }
    void TearDown() override {
        sensor_session::TearDown();
        server_.reset();
    }

    void start_server() {
        server_.reset();
        server_ = std::make_unique<test_support::child_process>(
            OPCUA_SIM_EXECUTABLE,
            std::vector<std::string>{"--port", std::to_string(port_), "--address-space", "custom"});
        ASSERT_TRUE(server_->line(std::chrono::seconds(20))) << "opcua-sim did not start on port " << port_;
    }

    // The custom sensor on one channel, in security mode none: every new UA_Client makes
    // a 4096-bit key, which is what the CPU limits below must see.
    brenholt::vuro::wire::SensorData one_channel(int port) { return custom_data(port, {{1, "ns=2;s=Double"}}); }

    template <typename Call>
    outcome measured(Call call) {
        const std::size_t lines_before = runtime_log().size();
        host_->take_messages();
        const double cpu0 = thread_cpu_seconds();
        const auto wall0 = std::chrono::steady_clock::now();
        outcome o;
        o.code = call();
        o.cpu = thread_cpu_seconds() - cpu0;
        o.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
        o.log_lines = runtime_log().size() - lines_before;
        // The figures of each fault, for whoever reads the test's output.
        std::printf("  %-60s code %d, %5.2f s, %5.3f s CPU, %zu log lines\n",
                    ::testing::UnitTest::GetInstance()->current_test_info()->name(), o.code, o.wall, o.cpu,
                    o.log_lines);
        return o;
    }

    outcome timed_scan(int id) {
        return measured([&] {
            EXPECT_EQ(host_->scan(id), 0);
            const auto results = take().results;
            EXPECT_EQ(results.size(), 1u) << "one result a scan";
            return results.empty() ? -1 : results.front().at("response_code").get<int>();
        });
    }

    outcome timed_check(const std::string& kind, int port) {
        return measured([&] {
            EXPECT_EQ(host_->check(7, test_support::credential_data(kind, port)), 0);
            int results = 0, code = -1;
            for (const auto& m : host_->take_messages())
                if (m.type == "CHECK_RESULT") {
                    ++results;
                    code = m.body.at("success").get<bool>() ? 0 : 3;
                }
            EXPECT_EQ(results, 1) << "one result a check";
            return code;
        });
    }

    // A failed scan or check waits without burning CPU and writes a bounded log.
    static void expect_quiet_failure(const outcome& o, const std::string& what) {
        EXPECT_LT(o.cpu, 0.1 * o.wall) << what << ": " << o.cpu << " s CPU in " << o.wall << " s";
        EXPECT_LT(o.log_lines, 400u) << what;
    }

    int port_ = 0;
    std::unique_ptr<test_support::child_process> server_;
};

TEST_F(ConnectionLoss, AServerKilledAndBackBeforeTheNextScanCostsNoScan) {
    ASSERT_EQ(host_->create_sensor(1, one_channel(port_)), 0);
    ASSERT_EQ(timed_scan(1).code, 0);
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE(cycle);
        server_->signal(SIGKILL);
        start_server();
        const outcome o = timed_scan(1);
        EXPECT_EQ(o.code, 0);
        EXPECT_LT(o.log_lines, 400u);
        // Both checks on the sensor's client, killed and back in between as well.
        server_->signal(SIGKILL);
        start_server();
        EXPECT_EQ(timed_check("connection_check", port_).code, 0);
        EXPECT_EQ(timed_check("endpoint_validation_check", port_).code, 0);
    }
}

TEST_F(ConnectionLoss, ASilentCutCostsAtMostTheScanThatMeetsIt) {
    test_support::fault_proxy proxy(port_);
    ASSERT_EQ(host_->create_sensor(1, one_channel(proxy.port())), 0);
    ASSERT_EQ(timed_scan(1).code, 0);
    int failed = 0;
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE(cycle);
        proxy.cut_silently();
        const outcome met = timed_scan(1);
        if (met.code != 0) {
            ++failed;
            expect_quiet_failure(met, "the scan that met the cut");
        }
        EXPECT_EQ(timed_scan(1).code, 0) << "the scan after the cut";
    }
    // The checks share the sensor's client: at most the first meets the cut.
    proxy.cut_silently();
    const outcome met = timed_check("connection_check", proxy.port());
    if (met.code != 0) expect_quiet_failure(met, "the check that met the cut");
    EXPECT_EQ(timed_check("connection_check", proxy.port()).code, 0);
    EXPECT_EQ(timed_check("endpoint_validation_check", proxy.port()).code, 0);
    EXPECT_EQ(timed_scan(1).code, 0);
    RecordProperty("failed_scans", failed);
}

TEST_F(ConnectionLoss, AResetConnectionCostsNoScan) {
    test_support::fault_proxy proxy(port_);
    ASSERT_EQ(host_->create_sensor(1, one_channel(proxy.port())), 0);
    ASSERT_EQ(timed_scan(1).code, 0);
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE(cycle);
        proxy.reset();
        EXPECT_EQ(timed_scan(1).code, 0);
    }
    proxy.reset();
    EXPECT_EQ(timed_check("connection_check", proxy.port()).code, 0);
}

TEST_F(ConnectionLoss, AHungServerFailsScansAndChecksWithoutBurningCpuAndTheFirstAfterIsGood) {
    ASSERT_EQ(host_->create_sensor(1, one_channel(port_)), 0);
    ASSERT_EQ(timed_scan(1).code, 0);
    server_->stop();
    for (int n = 0; n < 3; ++n) {
        SCOPED_TRACE(n);
        const outcome o = timed_scan(1);
        EXPECT_EQ(o.code, 3);
        expect_quiet_failure(o, "a scan of the hung server");
    }
    for (const char* kind : {"connection_check", "endpoint_validation_check"}) {
        const outcome o = timed_check(kind, port_);
        EXPECT_EQ(o.code, 3) << kind;
        expect_quiet_failure(o, kind);
    }
    server_->resume();
    EXPECT_EQ(timed_scan(1).code, 0);
    EXPECT_EQ(timed_check("connection_check", port_).code, 0);
    EXPECT_EQ(timed_check("endpoint_validation_check", port_).code, 0);
}

}  // namespace
