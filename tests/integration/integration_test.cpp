// The integration suites in one program, run as one process, so that each opcua-sim
// server below starts once and serves every case that can run against it: the built
// module loaded as the probe loads it (both checks, the four sensors), the notification
// and the client on their own, and endpoint selection on hand-made lists.
#include <gtest/gtest.h>

#include <open62541/client_highlevel.h>
#include <openssl/evp.h>

#include <chrono>
#include <limits>

#include "client/client_open62541.h"
#include "client/exceptions.h"
#include "client/nodes_open62541.h"
#include "integration/sensor_session.h"
#include "opcua_sim/address_spaces.h"
#include "opcua_sim/beckhoff.h"
#include "opcua_sim/diagnostics.h"
#include "sensors/opcua_notification.h"

using namespace brenholt::monitoring_modules;
using namespace integration;
using line = std::pair<liblog::severity, std::string>;
using opcua::client_open62541;

namespace {

// A server certificate for whole `days` from now, an hour further away from now, as the
// certificate sensor cuts days towards zero. Keys of one size are made once and shared.
opcua_sim::certificate_options sim_certificate(const std::string& name, int days, const test_pki::cert* issuer = nullptr) {
    test_pki::cert_profile profile = test_pki::leaf_profile(name);
    profile.key = test_pki::rsa_key(2048, 2);
    profile.subject_alt_names = {"URI:urn:opcua-sim:server", "DNS:localhost", "IP:127.0.0.1"};
    profile.not_before = test_pki::from_now(-test_pki::days(400));
    profile.not_after = test_pki::from_now(test_pki::days(days) + std::chrono::hours(days < 0 ? -1 : 1));
    const test_pki::cert made = test_pki::make_cert(profile, issuer);
    opcua_sim::certificate_options o;
    o.certificate_pem = made.pem();
    o.private_key_pem = made.key().private_pem();
    return o;
}

// plant: the custom address space and the diagnostics switch (off), a certificate of 30 days.
// ipc: a Beckhoff IPC, whose certificate ran out 3 days ago.
// plain: a None endpoint only, and a 1024-bit key too short for Basic256Sha256.
// strict: trusts no client certificate; its own comes from a CA and has 10 days left.
// Each accepts the user alice with the password wonderland.
enum class sim { plant, ipc, plain, strict };

opcua_sim::server& server(sim which) {
    static std::map<sim, std::unique_ptr<opcua_sim::server>> servers;
    auto& s = servers[which];
    if (!s) {
        opcua_sim::options o;
        o.users = {{"alice", "wonderland"}};
        if (which == sim::plant) {
            o.address_spaces = {opcua_sim::custom_address_space(), opcua_sim::diagnostics_address_space(false)};
            o.certificate = sim_certificate("sim-30-days", 30);
        } else if (which == sim::ipc) {
            o.address_spaces = {opcua_sim::beckhoff_address_space()};
            o.certificate = sim_certificate("sim-expired", -3);
        } else if (which == sim::plain) {
            o.endpoints = {{opcua_sim::security_policy::none, opcua_sim::security_mode::none}};
            o.certificate.generate.key_bits = 1024;  // the simulator's own making, of a year
            o.certificate.generate.common_name = "Plant, Line 4";
        } else {
            static const test_pki::cert ca = test_pki::make_cert(test_pki::ca_profile("KOLV Test CA"));
            o.strict = true;
            o.certificate = sim_certificate("server-from-ca", 10, &ca);
        }
        s = std::make_unique<opcua_sim::server>(o);
    }
    s->start();
    return *s;
}

int port(sim which) { return server(which).port(); }

const auto process_start = std::chrono::steady_clock::now();

// Signed with the test client's certificate: in mode none every new client, and so every
// discovery, makes a 4096-bit key first, a second of CPU.
sensor_data_t signed_data(sensor_data_t d) {
    for (const auto& [key, value] : security("sign", "Basic256Sha256")) test_support::put(d, key, value);
    return d;
}

using Checks = sensor_session;

TEST_F(Checks, AnswerForTheirOwnConnectionAndTheEndpointsOffered) {
    const auto none = security("none", "none"), sign = security("sign", "Basic256Sha256");
    // Nothing listens on port 1: only the connection check says so in the log, and neither
    // makes a UA_Client, whose key in mode none would cost a second of CPU each time.
    run_checks(1, {{"server down", "connection_check", none, false, connect_failed},
                   {"server down", "endpoint_validation_check", none, false, ""}});
    EXPECT_EQ(count_ending(runtime_log(), " INFO Using ApplicationUri: brenholt_opcua_sensor"), 0u);
    run_checks(port(sim::plain), {{"no sign_encrypt endpoint", "endpoint_validation_check",
                                   security("sign_encrypt", "Basic256Sha256"), false, no_endpoint}});
    // Client certificate material that cannot serve is refused in words; a certificate
    // without data encipherment before its key is read.
    auto wrong_password = with_certificate(sign, {"URI:urn:kolv:client"});
    wrong_password["credentials.connection_security.client_key_password"] = "wrong";
    const auto no_encipherment = with_certificate(wrong_password, {"URI:urn:kolv:client"},
                                                  "critical,digitalSignature,nonRepudiation,keyEncipherment");
    run_checks(port(sim::plant),
               {{"no URI", "connection_check", with_certificate(sign, {"DNS:localhost"}), false, "does not contain an URI"},
                {"no data encipherment", "connection_check", no_encipherment, false, "not support data encipherment."},
                {"wrong key password", "connection_check", wrong_password, false, "Failed to load the provided private key"}});
    // A setting the module refuses fails the call, and no result goes out.
    EXPECT_EQ(host_->check(3, test_support::credential_data("connection_check", 0)), 2);
    for (const auto& m : host_->take_messages()) EXPECT_NE(m.type, "CHECK_RESULT");
}

// A server that trusts no client certificate it does not know: discovery needs none,
// so every check in mode none passes, and the endpoint check finds the signed endpoint
// that a signed connection cannot use.
TEST_F(Checks, StrictServerAnswersDiscoveryWithoutTrustingTheClient) {
    const auto none = security("none", "none"), sign = security("sign", "Basic256Sha256");
    const auto user = with_user(none, "alice", "wonderland");
    run_checks(port(sim::strict), {{"none anonymous", "endpoint_validation_check", none, true, ""},
                                   {"none anonymous", "connection_check", none, true, ""},
                                   {"none user", "endpoint_validation_check", user, true, ""},
                                   {"none user", "connection_check", user, true, ""},
                                   {"sign", "endpoint_validation_check", sign, true, ""},
                                   {"sign", "connection_check", sign, false, connect_failed}});
    // Each client in mode none announces the fixed URI; every client lists each policy it
    // has, each followed by ", ", the last one too.
    const auto lines = runtime_log();
    EXPECT_EQ(count_ending(lines, " INFO Using ApplicationUri: brenholt_opcua_sensor"), 4u);
    const std::regex listed(" INFO Client has \\d+ security policies available: \\S+#None, (\\S+, )*\\S+#Basic256Sha256, (\\S+, )*$");
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](const auto& line) { return std::regex_search(line, listed); }), 6);
}

// The result's response code, and its message key and, if given, text.
void expect_outcome(const ordered_json& result, int response_code, const std::string& key, const std::string& text = "") {
    ordered_json message{{"key", key}};
    if (!text.empty()) message["text"] = text;
    expect_fields(result, {{"response_code", response_code}, {"message", message}});
}

using FixedSensors = sensor_session;

TEST_F(FixedSensors, DefineTheirChannelsWithoutAServerAndFailTheScanWithoutOne) {
    // The sensor, the channels it defines, the start of the scan's message key.
    const struct { const char* kind; std::vector<int> defined; const char* failure; } cases[] = {
        {"beckhoff_ipc_system_status_sensor", {0, 1, 2, 3, 4, 5}, "#:error.opcua_connection_failed[BadConnectionRejected]"},
        {"certificate_sensor", {0, 1, 2}, "#:error.opcua_discovery_failed["},
        {"server_status_sensor", {0, 1}, "#:error.opcua_connection_failed[BadConnectionRejected]"},
    };
    int id = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        // Nothing listens on port 1: creation reads nothing, so it succeeds all the same.
        ASSERT_EQ(host_->create_sensor(id, sensor_data(c.kind, 1)), 0);
        const sent created = take();
        EXPECT_TRUE(created.results.empty());
        EXPECT_EQ(created.definition_ids(), c.defined);
        if (std::string(c.kind) == "certificate_sensor")  // what raises the alarm on a certificate
            expect_fields(created.definitions.at(0), {{"name", "channel.expire_in"}, {"limits_enabled", true},
                                                      {"lower_warning_limit", {{"is_set", true}, {"value", 28}}},
                                                      {"lower_error_limit", {{"is_set", true}, {"value", 7}}}});
        const auto result = scan(id++).result();
        expect_fields(result, {{"response_code", 3}, {"channels", ordered_json::array()}});
        EXPECT_EQ(result.at("message").at("key").get<std::string>().rfind(c.failure, 0), 0u) << result.dump();
    }
}

using CustomSensor = sensor_session;

TEST_F(CustomSensor, EnabledChannelsAloneAreDefinedOnceAndDeliverValues) {
    auto d = signed_data(
        custom_data(port(sim::plant), {{1, "ns=2;s=Int32"}, {2, "ns=2;s=BooleanFalse"}, {4, "'ns=2;s=DoubleArray'[1]"}}));
    (*d.mutable_settings())["custom.connection_custom.channel2_unit"] = "kg";
    ASSERT_EQ(host_->create_sensor(1, d), 0);
    const auto defs = take().definitions;
    ASSERT_EQ(defs.size(), 3u);
    expect_fields(defs[0],
                  {{"id", 1}, {"name", "channel.channel_1"}, {"display_name", "Custom Int32"}, {"value_mode", 1}});
    // A boolean gets the lookup, and a lookup leaves no room for a unit.
    expect_fields(defs[1], {{"id", 2}, {"lookup", "positive_boolean_lookup"}, {"unit", 0}, {"custom_unit", "kg"}});
    expect_fields(defs[2], {{"id", 4}, {"value_mode", 3}});
    for (int n = 0; n < 2; ++n) {
        const auto result = scan(1).result();
        expect_outcome(result, 0, "OK", "OK");
        EXPECT_EQ(integers(result), (std::map<int, long long>{{1, -123456}, {2, 0}}));
        EXPECT_EQ(result.at("channels").at(2), (ordered_json{{"channel_id", 4}, {"floating", 2.5}}));
    }
    // The first read asks for names and value of all nodes, later reads for the values only.
    EXPECT_EQ(requests(1), (std::vector<int>{12, 3, 3}));
    // The probe hands over the channels it knows: a sensor created anew defines none again.
    for (int n : {1, 2, 4}) (*d.mutable_channels())[n] = "Known " + std::to_string(n);
    ASSERT_EQ(host_->create_sensor(2, d), 0);
    EXPECT_TRUE(take().definitions.empty());
    EXPECT_EQ(scan(2).result().at("channels").size(), 3u);
}

TEST_F(CustomSensor, EachNodeFromItsValueToTheFailureItCauses) {
    const std::string not_a_number =
        "The sensor cannot parse the received data. The received data must be a numeric value.";
    const ordered_json none = ordered_json::array();
    // What creation returns, and the result: response code, message key and text (if any),
    // and the channel's field and value, or no field and no channel.
    const struct { const char *node, *message_node; int created, response_code; std::string key, text;
                   const char* field; ordered_json value; } cases[] = {
        // Creation fails with an error result and keeps no sensor.
        {"ns=2;x=Bad", "", 2, 3, "#:error.failed_to_parse_node_id[ns=2;x=Bad,BadDecodingError]", "", nullptr, none},
        {"ns=2;s=NoSuchNode", "", 2, 3, "#:error.nodeid_unknown[s=NoSuchNode]", "", nullptr, none},
        {"'ns=2;s=Int32'", "", 2, 3, "#:error.invalid_array_syntax['ns=2;s=Int32']", "", nullptr, none},
        {"ns=2;s=StringNumber", "", 0, 0, "OK", "OK", "floating", 12.5},
        {"ns=2;s=StringText", "", 0, 3, "#:error.conversion_failure[]", not_a_number, nullptr, none},
        {"ns=2;s=StringHuge", "", 0, 3, "stod", "stod", nullptr, none},
        {"ns=2;s=Byte", "ns=2;s=SensorMessage", 0, 0, "Machine running", "Machine running", "integer", "200"},
        {"ns=2;s=Byte", "ns=2;s=SensorMessageEmpty", 0, 0, "#:message.node_empty[]",
         "The variable for the entered NodeID is empty.", "integer", "200"},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.node) + " " + c.message_node);
        ASSERT_EQ(host_->create_sensor(id, signed_data(custom_data(port(sim::plant), {{1, c.node}}, c.message_node))),
                  c.created);
        const auto result = c.created == 0 ? scan(id).result() : take().result();
        expect_outcome(result, c.response_code, c.key, c.text);
        // The channel's value, or no channel at all.
        EXPECT_EQ(result.at("channels"), c.field ? ordered_json::array({{{"channel_id", 1}, {c.field, c.value}}}) : c.value);
        // A sensor scans again, unless its creation failed: none stays behind then. Failures
        // come first, so that no result of this scan is left for the next case.
        EXPECT_EQ(host_->scan(id++), c.created == 0 ? 0 : 5);
    }
}

TEST_F(CustomSensor, LostSessionIsRetriedOnceAndTheScanSucceeds) {
    ASSERT_EQ(host_->create_sensor(40, signed_data(custom_data(port(sim::plant), {{1, "ns=2;s=Int32"}}))), 0);
    EXPECT_EQ(scan(40).result().at("response_code"), 0);
    ASSERT_GE(server(sim::plant).end_sessions(), 1u);
    const auto result = scan(40).result();
    EXPECT_EQ(result.at("response_code"), 0) << result.dump();
    EXPECT_EQ(integers(result), (std::map<int, long long>{{1, -123456}}));
    // The server's answer, not the connection test, found the session gone.
    EXPECT_EQ(count_ending(sensor_log(40), " INFO perform one retry"), 1u);
}

using BeckhoffSensor = sensor_session;

// Memory comes from the narrow pair unless it saturated. A size of 0, or a percentage past
// what a channel holds, gives the percentage channel what an x86 conversion of such a
// double gives (LONG_MIN), and the scan keeps every other channel. The RAID state decides
// message and outcome; its offline reason counts only when it is offline.
TEST_F(BeckhoffSensor, ChannelsFollowTheDeviceAndTheRaidStateDecidesTheOutcome) {
    ASSERT_EQ(host_->create_sensor(1, signed_data(sensor_data("beckhoff_ipc_system_status_sensor", port(sim::ipc)))), 0);
    constexpr std::uint32_t saturated = opcua_sim::beckhoff_narrow_saturated;
    constexpr long long indefinite = std::numeric_limits<long long>::min();
    const std::string valid = "good (1), failed (2), offline (3), power_off (4)";
    const std::string escaped = "good (1)\\, failed (2)\\, offline (3)\\, power_off (4)";
    const std::string out_of_table = "array::at: __n (which is 4) >= _Nm (which is 4)";
    // The narrow memory pair, the wide one, the RAID state and reason; the memory channels
    // when the response code is 0, the response code, message key and text.
    const struct { std::uint32_t size, available; std::uint64_t size_wide, available_wide; std::uint16_t raid, reason;
                   long long channel_available, channel_percent; int response_code; std::string key, text; } cases[] = {
        {3, 1, 999, 999, 1, 0, 1, 33, 0, "OK", "OK"},
        {3, 2, 999, 999, 1, 0, 2, 67, 0, "OK", "OK"},
        {8, 1, 999, 999, 1, 0, 1, 13, 0, "OK", "OK"},  // a half rounds away from zero
        {saturated - 1, (saturated - 1) / 2, 8, 1, 1, 0, 1073741823, 50, 0, "OK", "OK"},
        {saturated, saturated, 8ull << 30, 3ull << 30, 1, 0, 3ll << 30, 38, 0, "OK", "OK"},
        {saturated, 12345, 8ull << 32, 1ull << 32, 1, 0, 1ll << 32, 13, 0, "OK", "OK"},
        {0, 0, 9, 9, 1, 0, 0, indefinite, 0, "OK", "OK"},
        {0, 5, 9, 9, 1, 0, 5, indefinite, 0, "OK", "OK"},
        {saturated, 1, 0, 7, 1, 0, 7, indefinite, 0, "OK", "OK"},
        {saturated, 1, 1, 1ull << 62, 1, 0, 1ll << 62, indefinite, 0, "OK", "OK"},
        {4, 1, 4, 1, 1, 99, 1, 25, 0, "OK", "OK"},
        {4, 1, 4, 1, 3, 2, 1, 25, 0, "#:error.raid_controller_offline_reason.bus_degraded[]",
         "The physical interface of the SAS or SATA domain does not work properly."},
        // The reason table has four entries; 4 runs off its end and fails the scan.
        {4, 1, 4, 1, 3, 4, 0, 0, 3, out_of_table, out_of_table},
        {4, 1, 4, 1, 0, 0, 0, 0, 3, "#:libvurohelper.error.invalid_lookup_value[0," + escaped + "]",
         "The following lookup value is invalid: 0. Valid lookup values are: " + valid},
        {4, 1, 4, 1, 5, 0, 0, 0, 3, "#:libvurohelper.error.invalid_lookup_value[5," + escaped + "]",
         "The following lookup value is invalid: 5. Valid lookup values are: " + valid},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " " + std::to_string(c.available) + " raid " + std::to_string(c.raid));
        // CPU load, CPU temperature (signed on the wire), mainboard temperature, memory, RAID.
        opcua_sim::set_beckhoff_status(server(sim::ipc), {17, -5, 41, c.size, c.available, c.size_wide,
                                                          c.available_wide, c.raid, c.reason});
        const auto result = scan(1).result();
        expect_outcome(result, c.response_code, c.key, c.text);
        const std::map<int, long long> values{{0, 17}, {1, -5}, {2, 41}, {3, c.channel_available},
                                              {4, c.channel_percent}, {5, c.raid}};
        EXPECT_EQ(integers(result), c.response_code == 0 ? values : decltype(values){}) << "a failed scan reports none";
    }
}

using CertificateSensor = sensor_session;

TEST_F(CertificateSensor, ReportsDaysKeyLengthSelfSignedNameAndThumbprint) {
    // The common name twice: as the text shows it, and as the message key carries it.
    const struct { sim at; int days, key_bits, self_signed; const char *common_name, *escaped_name; } cases[] = {
        {sim::plant, 30, 2048, 1, "sim-30-days", "sim-30-days"},
        // Expired: the sensor still reports, the limit raises the alarm.
        {sim::ipc, -3, 2048, 1, "sim-expired", "sim-expired"},
        // Too short for Basic256Sha256: only mode none finds an endpoint.
        {sim::plain, 365, 1024, 1, "Plant, Line 4", "Plant\\, Line 4"},
        // The strict server's certificate comes from a CA, and a signed sensor needs no trust.
        {sim::strict, 10, 2048, 0, "server-from-ca", "server-from-ca"},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.common_name);
        const auto data = sensor_data("certificate_sensor", port(c.at));
        ASSERT_EQ(host_->create_sensor(id, c.at == sim::plain ? data : signed_data(data)), 0);
        const auto result = scan(id++).result();
        EXPECT_EQ(integers(result), (std::map<int, long long>{{0, c.days}, {1, c.key_bits}, {2, c.self_signed}}));
        // The thumbprint is the SHA-1 of the certificate.
        const auto der = server(c.at).certificate_der();
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha1(), nullptr);
        std::string sha1;
        for (unsigned int i = 0; i < length; ++i) sha1 += {"0123456789abcdef"[digest[i] >> 4], "0123456789abcdef"[digest[i] & 15]};
        expect_outcome(result, 0, std::string("#:message.certificate_ok[") + c.escaped_name + "," + sha1 + "]",
                       std::string("Certificate Common Name: ") + c.common_name + " - Certificate Thumbprint: " + sha1);
    }
}

TEST_F(CertificateSensor, SensorsWithEqualSettingsEachGetTheirOwnClient) {
    const auto data = signed_data(sensor_data("certificate_sensor", port(sim::plant)));
    ASSERT_EQ(host_->create_sensor(30, data), 0);
    ASSERT_EQ(host_->create_sensor(31, data), 0);
    // A client writes into the logs of its users: a shared one would put sensor 30's
    // discovery into sensor 31's log as well.
    const std::string fetching = " DEBUG Fetching endpoints from server.";
    EXPECT_EQ(scan(30).result().at("response_code"), 0);
    EXPECT_EQ(count_ending(sensor_log(30), " DEBUG Server has 3 endpoints."), 1u);
    EXPECT_EQ(count_ending(sensor_log(31), fetching), 0u);
    EXPECT_EQ(scan(31).result().at("response_code"), 0);
    EXPECT_EQ(count_ending(sensor_log(30), fetching), 1u);
    EXPECT_EQ(count_ending(sensor_log(31), fetching), 1u);
    // Destroying one leaves the other's client working.
    EXPECT_EQ(host_->destroy(30), 0);
    EXPECT_EQ(scan(31).result().at("response_code"), 0);
}

using ServerStatusSensor = sensor_session;

TEST_F(ServerStatusSensor, FlagSwitchedOnAndOffWalksThroughTheStates) {
    const char* const warning_key = "#:error.opcua_server_diagnostics_disabled_afterwards[]";
    // The flag, the definitions sent in that scan in their order, the response code.
    const struct { bool flag; std::vector<int> defined; int response_code; } steps[] = {
        {false, {}, 0}, {false, {}, 0}, {true, {2, 9, 4, 5, 3, 6, 7, 8}, 0}, {true, {}, 0},
        // Taken back: a warning until the flag is back on.
        {false, {}, 1}, {false, {}, 1}, {true, {}, 0}};
    auto& plant = server(sim::plant);
    opcua_sim::diagnostics_set_enabled(plant, false);
    const auto data = signed_data(sensor_data("server_status_sensor", port(sim::plant)));
    ASSERT_EQ(host_->create_sensor(1, data), 0);
    int step = 0;
    for (const auto& s : steps) {
        SCOPED_TRACE(step++);
        opcua_sim::diagnostics_set_enabled(plant, s.flag);
        const sent out = scan(1);
        EXPECT_EQ(out.definition_ids(), s.defined);
        // The probe shows the text of each channel's key, so no display name goes out.
        for (const auto& d : out.definitions) EXPECT_EQ(d.at("display_name"), "");
        EXPECT_EQ(out.types.back(), "SENSOR_SCAN_RESULT") << "definitions go out before the values";
        const auto result = out.result();
        expect_outcome(result, s.response_code, s.response_code == 1 ? warning_key : "OK");
        // Status channels 0 and 1 always; the eight counters while the flag is on.
        const auto values = integers(result);
        EXPECT_EQ(values.size(), s.flag ? 10u : 2u);
        EXPECT_EQ(values.at(0), 0) << "the simulated server is running";
        EXPECT_GE(values.at(1), 0);
        const auto running = std::chrono::steady_clock::now() - process_start;
        EXPECT_LE(values.at(1), std::chrono::duration_cast<std::chrono::seconds>(running).count() + 1);
        if (!s.flag) continue;
        // Nothing connects or disconnects between the scan and this read.
        const auto n = opcua_sim::diagnostics_read_counters(plant);
        EXPECT_GE(values.at(2), 1) << "the sensor's own session counts";
        EXPECT_EQ(values, (std::map<int, long long>{
                              {0, 0}, {1, values.at(1)}, {2, n.current_session_count}, {3, n.rejected_session_count},
                              {4, n.session_timeout_count}, {5, n.session_abort_count},
                              {6, n.security_rejected_session_count}, {7, n.rejected_requests_count},
                              {8, n.security_rejected_requests_count}, {9, n.current_subscription_count}}));
    }
    // Status nodes only until the flag is first seen on; two requests in that scan; then
    // one request of all twelve.
    EXPECT_EQ(requests(1), (std::vector<int>{4 * 4, 4, 4, 8 * 4, 12, 12, 12, 12}));

    // The probe hands the known channels to a sensor created anew; that is all the memory
    // the sensor has of an earlier life: it warns at once, and defines only what is new.
    std::map<int, std::string> everything;
    for (int id = 0; id < 10; ++id) everything[id] = "Channel " + std::to_string(id);
    const struct { std::map<int, std::string> known; std::vector<int> defined_at_creation, defined_when_on; } cases[] = {
        {{{0, "Server Status"}, {2, "Session Count"}}, {1}, {9, 4, 5, 3, 6, 7, 8}}, {everything, {}, {}}};
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.known.size());
        opcua_sim::diagnostics_set_enabled(plant, false);
        auto recreated = data;
        for (const auto& [channel, name] : c.known) (*recreated.mutable_channels())[channel] = name;
        ASSERT_EQ(host_->create_sensor(id, recreated), 0);
        EXPECT_EQ(take().definition_ids(), c.defined_at_creation);
        const sent off = scan(id);
        EXPECT_TRUE(off.definitions.empty());
        expect_outcome(off.result(), 1, warning_key);
        EXPECT_EQ(integers(off.result()).size(), 2u);
        // Status and counters travel in one request from the first scan on.
        EXPECT_EQ(requests(id), (std::vector<int>{12 * 4}));
        opcua_sim::diagnostics_set_enabled(plant, true);
        const sent on = scan(id++);
        EXPECT_EQ(on.definition_ids(), c.defined_when_on);
        EXPECT_EQ(on.result().at("response_code"), 0);
        EXPECT_EQ(integers(on.result()).size(), 10u);
    }
}

namespace wire = brenholt::vuro::wire;

// The notification class on its own, with the factories a binding would register: nothing
// in the module reaches it, so it is built into the test rather than loaded.
class Notification : public ::testing::Test {
protected:
    void SetUp() override {
        libvurohelper::module::register_runtime_log(services_);
        std::weak_ptr<libvurohelper::module::service_container> weak = services_;
        services_->add_factory(std::function<std::unique_ptr<opcua::client_interface>(opcua::client_settings)>(
            [weak](auto s) { return std::make_unique<opcua::client_open62541>(s, weak); }));
        services_->add_factory(std::function<std::unique_ptr<opcua::writeable_variable_node_interface>(std::string)>(
            [](auto text) { return std::make_unique<opcua::scalar_variable_node_open62541>(text); }));
    }

    // Sends one request with the credentials a sensor gets, and its host among them.
    static void send(opcua::opcua_notification& n, const std::string& type, const std::string& node,
                     const std::string& message, int log_level = 7) {
        const auto credentials = signed_data(test_support::credential_data("", port(sim::plant)));
        wire::NotificationRequest r;
        *r.mutable_settings() = credentials.settings();
        *r.mutable_secure_settings() = credentials.secure_settings();
        (*r.mutable_settings())["credentials.connection_opcua.host"] = "127.0.0.1";
        (*r.mutable_settings())["write.variable.type"] = type;
        r.set_target(node);
        r.set_message(message);
        r.set_timeout_s(5);
        r.set_log_level(log_level);
        wire::Envelope e;
        e.set_type(wire::NOTIFICATION_REQUEST);
        e.set_payload(r.SerializeAsString());
        const std::string bytes = e.SerializeAsString();
        n.send_notification({bytes.data(), static_cast<unsigned int>(bytes.size())});
    }

    // What the notification's response holds, a line of this severity at a time.
    static std::vector<std::string> lines(opcua::opcua_notification& n, int severity) {
        wire::Envelope e;
        wire::NotificationResponse r;
        EXPECT_TRUE(e.ParseFromArray(n.get_response().data(), static_cast<int>(n.get_response().size())));
        EXPECT_EQ(e.type(), wire::NOTIFICATION_RESPONSE);
        EXPECT_TRUE(r.ParseFromString(e.payload()));
        std::vector<std::string> out;
        for (const auto& entry : r.entries())
            if (entry.severity() == severity) out.push_back(entry.text());
        return out;
    }

    // A variable's value as the stack prints it, 64-bit integers quoted; `type` makes it anew.
    static std::string value(const std::string& node, const UA_DataType* type = nullptr) {
        UA_Variant v;
        UA_Variant_init(&v);
        if (type) {
            UA_Variant_setScalar(&v, UA_new(type), type);
            server(sim::plant).set_value(node, v);
            UA_Variant_clear(&v);
        }
        EXPECT_EQ(server(sim::plant).read_value(node, &v), UA_STATUSCODE_GOOD);
        UA_String text = UA_STRING_NULL;
        UA_print(v.data, v.type, &text);
        const std::string out(reinterpret_cast<const char*>(text.data), text.length);
        UA_String_clear(&text);
        UA_Variant_clear(&v);
        return out;
    }

    std::shared_ptr<libvurohelper::module::service_container> services_ =
        std::make_shared<libvurohelper::module::service_container>();
};

TEST_F(Notification, WritesTheMessageAsTheVariablesType) {
    // A Boolean is true for the exact word only, at every request.
    ASSERT_EQ(value("ns=1;s=Flag", &UA_TYPES[UA_TYPES_BOOLEAN]), "false");
    opcua::opcua_notification booleans(services_);
    for (const auto& [message, expected] : std::vector<std::pair<std::string, std::string>>{
             {"True", "true"}, {"true", "false"}, {"True", "true"}, {"1", "false"}}) {
        EXPECT_NO_THROW(send(booleans, "Boolean", "ns=1;s=Flag", message));
        EXPECT_EQ(value("ns=1;s=Flag"), expected) << message;
    }
    // An integer takes the leading number, or fails with two lines and leaves the value.
    ASSERT_EQ(value("ns=1;s=Count", &UA_TYPES[UA_TYPES_INT64]), "\"0\"");
    opcua::opcua_notification counts(services_);
    EXPECT_NO_THROW(send(counts, "Integer64", "ns=1;s=Count", "42abc"));
    EXPECT_EQ(value("ns=1;s=Count"), "\"42\"");
    EXPECT_THROW(send(counts, "Integer64", "ns=1;s=Count", "abc"), std::invalid_argument);
    EXPECT_EQ(lines(counts, 3), (std::vector<std::string>{"could not parse value:\"abc\" to int64: stoll",
                                                          "Exception in send_notification: stoll"}));
    EXPECT_EQ(value("ns=1;s=Count"), "\"42\"");
    // The log level keeps the client's debug lines out, never the notification's own.
    ASSERT_EQ(value("ns=1;s=Level", &UA_TYPES[UA_TYPES_DOUBLE]), "0.0");
    for (int log_level : {3, 7}) {
        SCOPED_TRACE(log_level);
        opcua::opcua_notification n(services_);
        EXPECT_NO_THROW(send(n, "FloatingPoint", "ns=1;s=Level", "2.5", log_level));
        EXPECT_EQ(value("ns=1;s=Level"), "2.5");
        int client_lines = 0, own_lines = 0;
        for (int severity = 0; severity <= 7; ++severity)
            for (const auto& text : lines(n, severity)) {
                client_lines += text.rfind("OPC UA Client: ", 0) == 0 || text == "Writing node value finished sucessfully.";
                own_lines += text.rfind("### ", 0) == 0 || text == "Create OPC-UA client.";
            }
        EXPECT_EQ(own_lines, 3) << "the notification's own lines have no limit";
        EXPECT_EQ(client_lines > 0, log_level == 7);
    }
}

const std::string none_uri = "http://opcfoundation.org/UA/SecurityPolicy#None";
const std::string basic_uri = "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";
const std::string other_uri = "urn:unknown#Policy";

template <typename Lines>
std::size_t count(const Lines& lines, liblog::severity level, const std::string& text) {
    return std::count(lines.begin(), lines.end(), line{level, text});
}

// A given certificate names the URI to announce; of several, the first, with a warning.
// The session is kept until discovery replaces the UA_Client. The stack's lines reach the
// client's logs at debug, prefixed, each with the terminating zero of its C string.
TEST(Client, GivenCertificateSessionLifeCycle) {
    const auto given = with_certificate(security("sign_encrypt", "Basic256Sha256"),
                                        {"URI:urn:kolv:first", "URI:urn:kolv:second", "DNS:localhost"});
    opcua::client_settings s;
    s.host = "127.0.0.1";
    s.port = port(sim::plant);
    s.security_mode = opcua::settings::security_mode::sign_encrypt;
    s.security_policy = opcua::settings::security_policy::basic256sha256;
    s.client_certificate = given.at("credentials.connection_security.client_certificate");
    s.client_key = given.at("credentials.connection_security.client_key");
    s.client_key_password = opcua::client_settings::secure_string(given.at("credentials.connection_security.client_key_password"));
    client_open62541 client(s, {});
    auto log = std::make_shared<liblog::memory_logger>();
    client.add_logger(log, liblog::debug);
    client.connect();
    const std::size_t sessions = server(sim::plant).session_count();
    client.connect();
    EXPECT_TRUE(client.is_connected());
    EXPECT_EQ(server(sim::plant).session_count(), sessions) << "a live session is kept";
    auto lines = log->entries();
    EXPECT_EQ(count(lines, liblog::info, "Using ApplicationUri: urn:kolv:first"), 1u);
    EXPECT_EQ(count(lines, liblog::debug, "Available Subject Alternative Names: urn:kolv:first"), 1u);
    EXPECT_EQ(count(lines, liblog::warning, "Client certificate defines more than URI in subject alternative names. "
                                            "This might lead to problems. Defined URIs are: urn:kolv:first, urn:kolv:second"), 1u);
    std::size_t stack_lines = 0;
    for (const line& l : lines) {
        if (l.second.rfind("OPC UA Client: ", 0) != 0) continue;
        ++stack_lines;
        EXPECT_EQ(l.first, liblog::debug);
        EXPECT_EQ(l.second.back(), '\0');
    }
    EXPECT_GT(stack_lines, 0u);

    EXPECT_TRUE(client.validate_endpoint());
    EXPECT_FALSE(client.is_connected());
    client.connect();
    EXPECT_TRUE(client.is_connected());
    lines = log->entries();
    EXPECT_EQ(count(lines, liblog::info, "Selected Endpoint " + server(sim::plant).endpoint_url() +
                                             " with SecurityMode SignAndEncrypt and SecurityPolicy " + basic_uri), 1u);
    EXPECT_EQ(count(lines, liblog::info, "Using ApplicationUri: urn:kolv:first"), 3u);
}

struct endpoint_row {
    std::string host;
    int mode;
    std::string policy_uri;
    std::vector<std::pair<int, std::string>> tokens;  // type and policy URI
    std::string profile = "http://opcfoundation.org/UA-Profile/Transport/uatcp-uasc-uabinary";
};

// An EndpointDescription array built from plain descriptions, released at the end.
struct fake_endpoints {
    std::vector<UA_EndpointDescription> items;
    explicit fake_endpoints(const std::vector<endpoint_row>& rows) {
        for (const auto& row : rows) {
            UA_EndpointDescription& e = items.emplace_back();
            UA_EndpointDescription_init(&e);
            e.endpointUrl = UA_String_fromChars(("opc.tcp://" + row.host + "/").c_str());
            e.securityMode = static_cast<UA_MessageSecurityMode>(row.mode);
            e.securityPolicyUri = UA_String_fromChars(row.policy_uri.c_str());
            e.transportProfileUri = UA_String_fromChars(row.profile.c_str());
            e.userIdentityTokensSize = row.tokens.size();
            e.userIdentityTokens = static_cast<UA_UserTokenPolicy*>(
                UA_Array_new(row.tokens.size(), &UA_TYPES[UA_TYPES_USERTOKENPOLICY]));
            for (std::size_t t = 0; t < row.tokens.size(); ++t) {
                e.userIdentityTokens[t].tokenType = static_cast<UA_UserTokenType>(row.tokens[t].first);
                e.userIdentityTokens[t].securityPolicyUri = UA_String_fromChars(row.tokens[t].second.c_str());
            }
        }
    }
    ~fake_endpoints() {
        for (auto& e : items) UA_EndpointDescription_clear(&e);
    }
};

opcua::endpoint_criteria criteria(int mode, std::string policy, int identity = -1) {
    return {mode, std::move(policy), {none_uri, basic_uri}, identity < 0 ? nullptr : &UA_TYPES[identity]};
}

// "Endpoint opc.tcp://<name>/ with SecurityMode <mode> and SecurityPolicy <policy>"
std::string endpoint(const std::string& name, const std::string& mode, const std::string& policy) {
    return "Endpoint opc.tcp://" + name + "/ with SecurityMode " + mode + " and SecurityPolicy " + policy;
}
line rejected(const std::string& what, const std::string& why) { return {liblog::debug, "Rejecting " + what + ": " + why}; }
line selected(const std::string& what) { return {liblog::info, "Selected " + what}; }
std::string token(const std::string& type, const std::string& in = "") {
    return "identity token with UserTokenType " + type + (in.empty() ? "" : " in " + in);
}

// Every rejection line, the order of the checks, the first fit, and the bounds of the two
// name tables: a value outside them ends the whole selection, even before a later fit.
TEST(EndpointSelection, WritesExactLinesAndPicksTheFirstFit) {
    const line none_match{liblog::error, "No matching endpoint found"};
    const line anonymous = selected(token("Anonymous and SecurityPolicy "));
    const std::string out_of_range = "out of range";
    // The endpoints, what the client wants, the host of the selected URL (empty: none
    // matched; out_of_range: the selection throws that), and every line logged.
    const struct { std::vector<endpoint_row> endpoints; opcua::endpoint_criteria wanted; std::string selected;
                   std::vector<line> log; } cases[] = {
        // https is skipped silently, an endpoint without tokens passed over, an empty profile examined.
        {{{"a", 1, none_uri, {{0, ""}}, "http://opcfoundation.org/UA-Profile/Transport/https-uabinary"},
          {"b", 1, none_uri, {}}, {"c", 2, basic_uri, {{0, ""}}}, {"d", 1, basic_uri, {{0, ""}}},
          {"e", 1, none_uri, {{1, basic_uri}, {0, ""}}, ""}, {"f", 1, none_uri, {{0, ""}}}},
         criteria(1, none_uri), "e",
         {rejected(endpoint("c", "Sign", basic_uri), "security mode doesn't match"),
          rejected(endpoint("d", "None", basic_uri), "security policy doesn't match"),
          rejected(token("UserName", endpoint("e", "None", none_uri)), "configuration doesn't match"),
          selected(endpoint("e", "None", none_uri)), anonymous}},
        // Any mode and policy the client has; the first fit wins, however weak.
        {{{"a", 3, other_uri, {{0, ""}}}, {"b", 1, none_uri, {{0, ""}}}, {"c", 3, basic_uri, {{0, ""}}}},
         criteria(0, ""), "b",
         {rejected(endpoint("a", "SignAndEncrypt", other_uri), "security policy not available"),
          selected(endpoint("b", "None", none_uri)), anonymous}},
        // No fall-back from user name to anonymous; an anonymous token's policy is not judged.
        {{{"a", 3, basic_uri, {{0, ""}, {0, other_uri}, {1, other_uri}, {1, basic_uri}}}},
         criteria(3, basic_uri, UA_TYPES_USERNAMEIDENTITYTOKEN), "a",
         {rejected(token("Anonymous and SecurityPolicy ", endpoint("a", "SignAndEncrypt", basic_uri)),
                   "configuration doesn't match"),
          rejected(token("Anonymous", endpoint("a", "SignAndEncrypt", basic_uri)), "configuration doesn't match"),
          rejected(token("UserName", endpoint("a", "SignAndEncrypt", basic_uri)), "security policy not available"),
          selected(endpoint("a", "SignAndEncrypt", basic_uri)), selected(token("UserName"))}},
        // Certificate and issued tokens need their own identity.
        {{{"a", 1, none_uri, {{2, ""}, {3, ""}}}}, criteria(1, none_uri, UA_TYPES_ISSUEDIDENTITYTOKEN), "a",
         {rejected(token("Certificate and SecurityPolicy ", endpoint("a", "None", none_uri)),
                   "configuration doesn't match"),
          selected(endpoint("a", "None", none_uri)), selected(token("IssuedToken and SecurityPolicy "))}},
        {{{"a", 1, none_uri, {{0, ""}}}, {"b", 2, basic_uri, {{0, ""}}}}, criteria(3, basic_uri), "",
         {rejected(endpoint("a", "None", none_uri), "security mode doesn't match"),
          rejected(endpoint("b", "Sign", basic_uri), "security mode doesn't match"), none_match}},
        {{{"a", 0, none_uri, {{0, ""}}}, {"b", 1, none_uri, {{0, ""}}}}, criteria(0, ""), out_of_range, {}},
        {{{"a", 1, none_uri, {{4, ""}, {0, ""}}}}, criteria(0, ""), out_of_range, {}},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(n++);
        fake_endpoints endpoints(c.endpoints);
        liblog::memory_logger log;
        const auto select = [&] {
            return client_open62541::select_endpoint(endpoints.items.data(), endpoints.items.size(), c.wanted, log);
        };
        if (c.selected == out_of_range) {
            EXPECT_THROW(select(), std::out_of_range);
        } else if (c.selected.empty()) {
            EXPECT_THROW(select(), opcua::exceptions::opcua_matching_endpoint_failed);
        } else {
            const UA_String url = select().endpointUrl;
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(url.data), url.length), "opc.tcp://" + c.selected + "/");
        }
        const auto entries = log.entries();
        EXPECT_EQ(std::vector<line>(entries.begin(), entries.end()), c.log);
    }
}

}  // namespace
