// What plants do to the module: a server killed outright and started again, between and
// during scans; a path that goes silent while new connections pass; connections reset;
// a server that hangs and then resumes; variables without a value; client keys the stack
// cannot use. opcua-sim runs as a process of its own where it is killed or stopped, and a
// proxy in front of it cuts and resets. Every scan and check answers once, burns no CPU
// while it waits, writes a bounded number of log lines, and the first one after the fault
// is over is good.
#include <gtest/gtest.h>

#include <dirent.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <open62541/server.h>

#include "client/client_open62541.h"
#include "integration/check_session.h"
#include "integration/sensor_session.h"
#include "opcua_sim/address_spaces.h"
#include "opcua_sim/server.h"
#include "support/child_process.h"
#include "support/fault_proxy.h"
#include "support/test_pki.h"

using namespace integration;
namespace pki = brenholt::monitoring_modules::test_pki;

// While a secret is watched, every block the process frees is searched for it first, so
// that no freed memory is ever read. Not with ASan, which owns free itself.
std::atomic<const char*> watched_secret{nullptr};
std::atomic<int> freed_with_secret{0};
#if !defined(__SANITIZE_ADDRESS__)
extern "C" void __libc_free(void*);
extern "C" void free(void* p) {
    const char* secret = watched_secret.load();
    if (p != nullptr && secret != nullptr && memmem(p, malloc_usable_size(p), secret, std::strlen(secret)) != nullptr)
        ++freed_with_secret;
    __libc_free(p);
}
#endif

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool heap_is_measurable = false;  // ASan's quarantine holds freed blocks
#else
constexpr bool heap_is_measurable = true;
#endif

// Open descriptors of the process; with `network_only`, those of sockets and event
// loops (a UA_Client's), not files and pipes.
std::size_t open_descriptors(bool network_only = false) {
    std::size_t n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (const dirent* e = ::readdir(d)) {
            char target[64] = "";
            const std::string link = std::string("/proc/self/fd/") + e->d_name;
            if (::readlink(link.c_str(), target, sizeof target - 1) < 0) continue;
            const std::string what = target;
            n += !network_only || what.rfind("socket:", 0) == 0 || what.rfind("anon_inode:", 0) == 0;
        }
        ::closedir(d);
    }
    return n;
}

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

// What one scan or check came to: the response code of its one result (0 or 3 for a
// check's success), its times and the lines it added to the runtime log.
struct outcome {
    int code = -1;
    double cpu = 0, wall = 0;
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
            OPCUA_SIM_EXECUTABLE, std::vector<std::string>{"--port", std::to_string(port_), "--address-space", "custom"});
        ASSERT_TRUE(server_->line(std::chrono::seconds(20))) << "opcua-sim did not start on port " << port_;
    }

    // A custom sensor on one channel in security mode none: every new UA_Client makes a
    // 4096-bit key, which is what the CPU limits below must see.
    void create(int port) { ASSERT_EQ(host_->create_sensor(1, custom_data(port, {{1, "ns=2;s=Double"}})), 0); }

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
        std::printf("  %-50s code %d, %5.2f s, %5.3f s CPU, %zu log lines\n",
                    ::testing::UnitTest::GetInstance()->current_test_info()->name(), o.code, o.wall, o.cpu, o.log_lines);
        return o;
    }
    outcome scan() {
        return measured([&] {
            EXPECT_EQ(host_->scan(1), 0);
            const auto results = take().results;
            EXPECT_EQ(results.size(), 1u) << "one result a scan";
            return results.empty() ? -1 : results.front().at("response_code").get<int>();
        });
    }
    outcome check(const std::string& kind, int port) {
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
    static void expect_quiet_failure(const outcome& o) {
        EXPECT_LT(o.cpu, 0.1 * o.wall) << o.cpu << " s CPU in " << o.wall << " s";
        EXPECT_LT(o.log_lines, 400u);
    }

    int port_ = 0;
    std::unique_ptr<test_support::child_process> server_;
};

// Killed between two scans, so that nothing noticed, or during scans, which meet it at any
// point: each scan answers once, the first after the server is back is good, the cycles
// leave no descriptor or memory behind, and the last sensor takes its client along.
TEST_F(ConnectionLoss, AServerKilledAndBackCostsNoScanAfterIt) {
    const std::size_t network_at_start = open_descriptors(true);
    create(port_);
    ASSERT_EQ(scan().code, 0);
    std::size_t descriptors = 0, heap = 0;
    for (int cycle = 0; cycle < 4; ++cycle) {
        SCOPED_TRACE(cycle);
        if (cycle % 2 == 0) {
            server_->signal(SIGKILL);
            start_server();
        } else {
            // Killed at any point of a scan. The restart comes from this thread: a child
            // dies with the thread that started it.
            std::atomic<bool> killed{false};
            std::thread killer([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(5 * cycle));
                server_->signal(SIGKILL);
                killed = true;
            });
            while (!killed) scan();
            killer.join();
            scan();
            start_server();
        }
        const outcome after = scan();
        EXPECT_EQ(after.code, 0);
        EXPECT_LT(after.log_lines, 400u);
        if (cycle == 1) {
            descriptors = open_descriptors();
            heap = mallinfo2().uordblks;
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    // A UA_Client or a node set lost per cycle would be tens of kilobytes each time.
    if (heap_is_measurable) {
        EXPECT_LT(mallinfo2().uordblks, heap + 256 * 1024) << heap;
    }
    // Both checks on the sensor's client, the server killed and back before each.
    for (const char* kind : {"connection_check", "endpoint_validation_check"}) {
        server_->signal(SIGKILL);
        start_server();
        EXPECT_EQ(check(kind, port_).code, 0) << kind;
    }
    EXPECT_EQ(scan().code, 0);
    EXPECT_EQ(host_->destroy(1), 0);
    EXPECT_EQ(open_descriptors(true), network_at_start) << "the client and its session went with the sensor";
}

// A silent cut costs at most the scan that meets it; a reset connection costs none.
TEST_F(ConnectionLoss, ASilentCutCostsAtMostTheScanThatMeetsItAResetNone) {
    test_support::fault_proxy proxy(port_);
    create(proxy.port());
    ASSERT_EQ(scan().code, 0);
    for (int cycle = 0; cycle < 3; ++cycle) {
        proxy.reset();
        EXPECT_EQ(scan().code, 0) << "reset " << cycle;
    }
    for (int cycle = 0; cycle < 3; ++cycle) {
        SCOPED_TRACE(cycle);
        proxy.cut_silently();
        const outcome met = scan();
        if (met.code != 0) expect_quiet_failure(met);
        EXPECT_EQ(scan().code, 0) << "the scan after the cut";
    }
    // The checks share the sensor's client: at most the first meets the cut.
    proxy.cut_silently();
    const outcome met = check("connection_check", proxy.port());
    if (met.code != 0) expect_quiet_failure(met);
    EXPECT_EQ(check("connection_check", proxy.port()).code, 0);
    EXPECT_EQ(check("endpoint_validation_check", proxy.port()).code, 0);
    proxy.reset();
    EXPECT_EQ(check("connection_check", proxy.port()).code, 0);
}

TEST_F(ConnectionLoss, AHungServerFailsScansAndChecksWithoutBurningCpuAndTheFirstAfterIsGood) {
    create(port_);
    ASSERT_EQ(scan().code, 0);
    server_->stop();
    for (int n = 0; n < 3; ++n) {
        const outcome o = scan();
        EXPECT_EQ(o.code, 3);
        expect_quiet_failure(o);
    }
    for (const char* kind : {"connection_check", "endpoint_validation_check"}) {
        const outcome o = check(kind, port_);
        EXPECT_EQ(o.code, 3) << kind;
        expect_quiet_failure(o);
    }
    server_->resume();
    EXPECT_EQ(scan().code, 0);
    EXPECT_EQ(check("connection_check", port_).code, 0);
    EXPECT_EQ(check("endpoint_validation_check", port_).code, 0);
}

using Faults = sensor_session;

// An unset variable: the server answers with a value that holds nothing, and the sensor
// keeps the value it read before.
TEST_F(Faults, AVariableThatLosesItsValueKeepsTheLastOne) {
    opcua_sim::options o;
    o.address_spaces.push_back(opcua_sim::custom_address_space());
    opcua_sim::server server(o);
    server.start();
    UA_Int32 value = 41;
    UA_Variant variant;
    UA_Variant_setScalar(&variant, &value, &UA_TYPES[UA_TYPES_INT32]);
    server.set_value("ns=2;s=Fading", variant);
    ASSERT_EQ(host_->create_sensor(1, custom_data(server.port(), {{1, "ns=2;s=Fading"}})), 0);
    ASSERT_EQ(scan(1).result().at("channels").at(0).at("integer"), "41");
    server.with_server([](UA_Server* ua) {
        UA_Variant empty;
        UA_Variant_init(&empty);
        ASSERT_EQ(UA_Server_writeValue(ua, UA_NODEID_STRING(2, const_cast<char*>("Fading")), empty), UA_STATUSCODE_GOOD);
    });
    const auto after = scan(1).result();
    EXPECT_EQ(after.at("response_code"), 0) << after.dump();
    EXPECT_EQ(after.at("channels").at(0).at("integer"), "41");
}

using KeyChecks = check_session;

// The user's password lives in the stack's configuration of each UA_Client, which the
// library frees: it is wiped before, when discovery replaces the client and at its end.
// Watched once the session stands: the stack's own copies while it activates the session
// are the stack's affair, and the server runs in a process of its own.
TEST(Secrets, APasswordLeavesNoCopyInFreedMemory) {
    if (!heap_is_measurable) GTEST_SKIP() << "ASan frees memory itself";
    const char* const password = "Pa55-w0rd-in-the-heap";
    const int port = free_port();
    test_support::child_process server(OPCUA_SIM_EXECUTABLE, {"--port", std::to_string(port), "--user",
                                                              std::string("operator:") + password});
    ASSERT_TRUE(server.line(std::chrono::seconds(20)));
    namespace ua = brenholt::monitoring_modules::opcua;
    ua::client_settings settings;
    settings.host = "127.0.0.1";
    settings.port = port;
    settings.user_auth_mode = ua::settings::user_auth_mode::username_password;
    settings.user = "operator";
    settings.password = brenholt::monitoring_modules::libvurohelper::settings::secure_string(password);
    {
        ua::client_open62541 client(settings, {});
        client.connect();
        ASSERT_TRUE(client.is_connected());
        watched_secret = password;
        EXPECT_TRUE(client.validate_endpoint());
    }
    watched_secret = nullptr;
    EXPECT_EQ(freed_with_secret, 0);
}

// The stack reads RSA keys only. Any other key loads in OpenSSL and then failed in the
// stack, which asked for a password on the probe's terminal and blocked there.
TEST_F(KeyChecks, KeysTheStackCannotUseAreRefusedInWords) {
    opcua_sim::server server{opcua_sim::options{}};
    server.start();
    for (auto algorithm : {pki::key_algorithm::ec_p256, pki::key_algorithm::ed25519}) {
        pki::cert_profile profile = pki::leaf_profile("kolv-test-client");
        profile.key = pki::make_key(algorithm);
        profile.subject_alt_names = {"URI:urn:kolv:test-client"};
        const pki::cert c = pki::make_cert(profile);
        auto settings = security("sign", "Basic256Sha256");
        settings["credentials.connection_security.client_certificate"] = c.pem();
        settings["credentials.connection_security.client_key"] = c.key().private_pem_encrypted("pw");
        settings["credentials.connection_security.client_key_password"] = "pw";
        run_checks(server.port(), {{"non-RSA key", "connection_check", settings, false, "not an RSA key"}});
    }
}

}  // namespace
