// What a server does to the module that a plant does too: restarts between and during
// scans, variables without a value, and client keys the stack cannot use.
#include <gtest/gtest.h>

#include <dirent.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <open62541/server.h>

#include "integration/check_session.h"
#include "integration/sensor_session.h"
#include "opcua_sim/address_spaces.h"
#include "opcua_sim/server.h"
#include "support/test_pki.h"

using namespace integration;
namespace pki = brenholt::monitoring_modules::test_pki;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool heap_is_measurable = false;  // ASan's quarantine holds freed blocks
#else
constexpr bool heap_is_measurable = true;
#endif

std::size_t open_descriptors() {
    std::size_t n = 0;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        while (::readdir(d) != nullptr) ++n;
        ::closedir(d);
    }
    return n;
}

std::size_t heap_in_use() { return mallinfo2().uordblks; }

const char* const ten_nodes[] = {"ns=2;s=Int32", "ns=2;s=Int16",  "ns=2;s=UInt16", "ns=2;s=Double",
                                 "ns=2;s=Float", "ns=2;s=Byte",   "ns=2;s=SByte",  "ns=2;s=UInt32",
                                 "ns=2;s=Int64", "'ns=2;s=DoubleArray'[1]"};

class Faults : public sensor_session {
protected:
    void SetUp() override {
        sensor_session::SetUp();
        opcua_sim::options o;
        o.address_spaces.push_back(opcua_sim::custom_address_space());
        server_ = std::make_unique<opcua_sim::server>(o);
        server_->start();
    }
    void TearDown() override {
        sensor_session::TearDown();
        server_.reset();
    }

    // Signed with a given certificate: a reconnect then costs no key generation.
    brenholt::vuro::wire::SensorData ten_channels() {
        std::map<int, std::string> channels;
        for (int n = 1; n <= 10; ++n) channels[n] = ten_nodes[n - 1];
        auto d = custom_data(server_->port(), channels);
        for (const auto& [key, value] : security("sign", "Basic256Sha256")) test_support::put(d, key, value);
        return d;
    }

    // The response code of the one result that a scan must send.
    int scan_code(int id) {
        const auto sent = scan(id);
        EXPECT_EQ(sent.results.size(), 1u);
        return sent.results.empty() ? -1 : sent.results.front().at("response_code").get<int>();
    }

    std::unique_ptr<opcua_sim::server> server_;
};

TEST_F(Faults, ServerRestartsCostOnlyTheScansWhileItIsDown) {
    ASSERT_EQ(host_->create_sensor(1, ten_channels()), 0);
    ASSERT_EQ(scan_code(1), 0);

    constexpr int cycles = 21;
    std::size_t descriptors = 0, heap = 0;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        SCOPED_TRACE(cycle);
        if (cycle % 3 == 0) {
            // Restarted between two scans: nothing noticed it, the channel is gone all the same.
            server_->stop();
            server_->start();
        } else if (cycle % 3 == 1) {
            // Down for one scan, which fails.
            server_->stop();
            EXPECT_NE(scan_code(1), 0);
            server_->start();
        } else {
            // During scans: each scan still sends exactly one result, whatever it meets.
            std::atomic<bool> done{false};
            std::thread restarter([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(5 + cycle));
                server_->stop();
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                server_->start();
                done = true;
            });
            while (!done) scan_code(1);
            restarter.join();
        }
        // The first scan after the server is back is good.
        EXPECT_EQ(scan_code(1), 0);
        if (cycle == 3) {
            descriptors = open_descriptors();
            heap = heap_in_use();
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    // A UA_Client or a node set lost per cycle would be tens of kilobytes each time.
    if (heap_is_measurable) {
        EXPECT_LT(heap_in_use(), heap + 256 * 1024) << heap;
    }
}

TEST_F(Faults, AVariableThatLosesItsValueKeepsTheLastOne) {
    server_->set_value("ns=2;s=Fading", [] {
        static UA_Int32 v = 41;
        UA_Variant var;
        UA_Variant_setScalar(&var, &v, &UA_TYPES[UA_TYPES_INT32]);
        return var;
    }());
    auto d = custom_data(server_->port(), {{1, "ns=2;s=Fading"}});
    ASSERT_EQ(host_->create_sensor(1, d), 0);
    auto first = scan(1).result();
    ASSERT_EQ(first.at("response_code"), 0) << first.dump();
    ASSERT_EQ(first.at("channels").at(0).at("integer"), "41");

    // An unset variable: the server answers with a value that holds nothing.
    server_->with_server([](UA_Server* ua) {
        UA_Variant empty;
        UA_Variant_init(&empty);
        ASSERT_EQ(UA_Server_writeValue(ua, UA_NODEID_STRING(2, const_cast<char*>("Fading")), empty),
                  UA_STATUSCODE_GOOD);
    });
    auto second = scan(1).result();
    EXPECT_EQ(second.at("response_code"), 0) << second.dump();
    EXPECT_EQ(second.at("channels").at(0).at("integer"), "41");
}

using KeyChecks = check_session;

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
