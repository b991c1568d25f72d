// The probe's threads at once on one shared client: sensors created and scanned on
// threads of their own while both checks run on the same connection settings, which
// replace the client's UA_Client under the scans. Built with ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "integration/check_session.h"
#include "integration/sensor_session.h"
#include "opcua_sim/address_spaces.h"
#include "opcua_sim/server.h"

using namespace integration;

#if defined(__SANITIZE_THREAD__)
// Built into the test, so that ctest needs no environment of its own.
extern "C" const char* __tsan_default_options() { return "halt_on_error=1 second_deadlock_stack=1"; }
// opcua-sim runs open62541's server in this process. While it starts, the server takes
// its service lock and its event loop's lock in one order, and its loop thread later in
// the other: both locks are the library's own, and the module never holds them.
extern "C" const char* __tsan_default_suppressions() { return "deadlock:UA_Server_newWithConfig\n"; }
#endif

namespace {

using Concurrency = sensor_session;

TEST_F(Concurrency, ScansAndChecksShareOneClientSafely) {
    opcua_sim::options o;
    o.address_spaces.push_back(opcua_sim::custom_address_space());
    opcua_sim::server server(o);
    server.start();
    // A given certificate: every discovery makes a new UA_Client, and mode none would
    // generate a key for each.
    const auto security_settings = security("sign", "Basic256Sha256");

    constexpr int sensors = 4, scans = 15, checks = 10;
    std::atomic<int> failed_calls{0};
    std::vector<std::thread> threads;
    for (int id = 1; id <= sensors; ++id) {
        threads.emplace_back([&, id] {
            auto d = custom_data(server.port(), {{1, "ns=2;s=Int32"}, {2, "ns=2;s=Double"}, {3, "ns=2;s=Byte"}});
            for (const auto& [key, value] : security_settings) test_support::put(d, key, value);
            if (host_->create_sensor(id, d) != 0) ++failed_calls;
            for (int n = 0; n < scans; ++n)
                if (host_->scan(id) != 0) ++failed_calls;
        });
    }
    for (const char* kind : {"connection_check", "endpoint_validation_check"}) {
        threads.emplace_back([&, kind] {
            auto d = test_support::credential_data(kind, server.port());
            for (const auto& [key, value] : security_settings) test_support::put(d, key, value);
            for (int n = 0; n < checks; ++n)
                if (host_->check(100 + n, d) != 0) ++failed_calls;
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failed_calls, 0);

    // Check ids 100 + n come from both check threads. Both pass every time: the connection
    // check answers for the session it made, even when the other thread's discovery
    // replaces it right afterwards.
    int results = 0, check_results = 0, checks_passed = 0;
    for (const auto& m : host_->take_messages()) {
        if (m.type == "SENSOR_SCAN_RESULT") {
            ++results;
            // A session lost to a check's discovery is reopened within the scan.
            EXPECT_EQ(m.body.at("response_code"), 0) << m.body.dump();
        } else if (m.type == "CHECK_RESULT") {
            ++check_results;
            checks_passed += m.body.at("success").get<bool>() ? 1 : 0;
        }
    }
    EXPECT_EQ(results, sensors * scans);
    EXPECT_EQ(check_results, 2 * checks);
    EXPECT_EQ(checks_passed, 2 * checks);
    for (int id = 1; id <= sensors; ++id) EXPECT_EQ(host_->destroy(id), 0);
}

}  // namespace
