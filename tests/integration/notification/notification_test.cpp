// The notification class on its own, with the factories a binding would register,
// writing to variables of opcua-sim.
#include <gtest/gtest.h>

#include <open62541/types.h>

#include "client/client_open62541.h"
#include "client/nodes_open62541.h"
#include "libvurohelper/logging.h"
#include "opcua_sim/server.h"
#include "sensors/opcua_notification.h"
#include "vuro.pb.h"

namespace mm = brenholt::monitoring_modules;
using mm::libvurohelper::module::service_container;

namespace {

class Notification : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.certificate.generate.key_bits = 2048;
        server_ = new opcua_sim::server(o);
        server_->start();
    }
    static void TearDownTestSuite() { delete server_; }

    void SetUp() override {
        services_ = std::make_shared<service_container>();
        mm::libvurohelper::module::register_runtime_log(services_);
        std::weak_ptr<service_container> weak = services_;
        services_->add_factory(std::function<std::unique_ptr<mm::opcua::client_interface>(mm::opcua::client_settings)>(
            [weak](mm::opcua::client_settings s) -> std::unique_ptr<mm::opcua::client_interface> {
                return std::make_unique<mm::opcua::client_open62541>(s, weak);
            }));
        services_->add_factory(std::function<std::unique_ptr<mm::opcua::writeable_variable_node_interface>(std::string)>(
            [](std::string text) -> std::unique_ptr<mm::opcua::writeable_variable_node_interface> {
                return std::make_unique<mm::opcua::scalar_variable_node_open62541>(text);
            }));
    }

    static std::string request(const std::string& type, const std::string& target, const std::string& message,
                               int log_level = 7) {
        brenholt::vuro::wire::NotificationRequest r;
        auto& s = *r.mutable_settings();
        auto& secure = *r.mutable_secure_settings();
        s["credentials.connection_opcua.host"] = "127.0.0.1";
        s["credentials.connection_opcua.port"] = std::to_string(server_->port());
        s["credentials.connection_opcua.server_name"] = "";
        s["credentials.connection_security.security_mode"] = "none";
        s["credentials.connection_security.security_policy"] = "none";
        s["credentials.connection_security.client_certificate"] = "";
        s["credentials.connection_security.client_key"] = "";
        secure["credentials.connection_security.client_key_password"] = "";
        s["credentials.user_authentication.user_auth_mode"] = "anonymous";
        s["credentials.user_authentication.user"] = "";
        secure["credentials.user_authentication.password"] = "";
        s["write.variable.type"] = type;
        r.set_target(target);
        r.set_message(message);
        r.set_timeout_s(5);
        r.set_log_level(log_level);
        brenholt::vuro::wire::Envelope e;
        e.set_type(brenholt::vuro::wire::NOTIFICATION_REQUEST);
        e.set_payload(r.SerializeAsString());
        return e.SerializeAsString();
    }

    void send(mm::opcua::opcua_notification& n, const std::string& bytes) {
        mm::libvurohelper::notifications::request r(bytes.data(), static_cast<unsigned int>(bytes.size()));
        n.send_notification(r);
    }

    static std::vector<std::pair<int, std::string>> entries(mm::opcua::opcua_notification& n) {
        const auto& bytes = n.get_response();
        brenholt::vuro::wire::Envelope e;
        EXPECT_TRUE(e.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
        EXPECT_EQ(e.type(), brenholt::vuro::wire::NOTIFICATION_RESPONSE);
        brenholt::vuro::wire::NotificationResponse r;
        EXPECT_TRUE(r.ParseFromString(e.payload()));
        std::vector<std::pair<int, std::string>> out;
        for (const auto& x : r.entries()) out.emplace_back(x.severity(), x.text());
        return out;
    }

    static void set(const std::string& node, const UA_Variant& v) { server_->set_value(node, v); }

    static UA_Variant read(const std::string& node) {
        UA_Variant v;
        UA_Variant_init(&v);
        EXPECT_EQ(server_->read_value(node, &v), UA_STATUSCODE_GOOD);
        return v;
    }

    static opcua_sim::server* server_;
    std::shared_ptr<service_container> services_;
};

opcua_sim::server* Notification::server_ = nullptr;

TEST_F(Notification, ResponseBeforeAnyNotificationIsEmpty) {
    mm::opcua::opcua_notification n(services_);
    EXPECT_TRUE(entries(n).empty());
}

TEST_F(Notification, BooleanIsTrueOnlyForTheExactWord) {
    UA_Variant v;
    UA_Boolean start = false;
    UA_Variant_setScalar(&v, &start, &UA_TYPES[UA_TYPES_BOOLEAN]);
    set("ns=1;s=Flag", v);
    mm::opcua::opcua_notification n(services_);
    for (const auto& [message, expected] : std::vector<std::pair<std::string, bool>>{
             {"True", true}, {"true", false}, {"True", true}, {"1", false}}) {
        SCOPED_TRACE(message);
        send(n, request("Boolean", "ns=1;s=Flag", message));
        UA_Variant got = read("ns=1;s=Flag");
        ASSERT_EQ(got.type, &UA_TYPES[UA_TYPES_BOOLEAN]);
        EXPECT_EQ(*static_cast<UA_Boolean*>(got.data), expected);
        UA_Variant_clear(&got);
    }
    const auto log = entries(n);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.front(), std::make_pair(7, std::string("### Begin send_notification ###")));
    EXPECT_EQ(log.back(), std::make_pair(7, std::string("### End   send_notification ###")));
}

TEST_F(Notification, Integer64TakesTheLeadingNumberOrFailsWithTwoLines) {
    UA_Variant v;
    UA_Int64 start = 0;
    UA_Variant_setScalar(&v, &start, &UA_TYPES[UA_TYPES_INT64]);
    set("ns=1;s=Count", v);
    mm::opcua::opcua_notification n(services_);
    send(n, request("Integer64", "ns=1;s=Count", "42abc"));
    UA_Variant got = read("ns=1;s=Count");
    EXPECT_EQ(*static_cast<UA_Int64*>(got.data), 42);
    UA_Variant_clear(&got);

    EXPECT_THROW(send(n, request("Integer64", "ns=1;s=Count", "abc")), std::invalid_argument);
    std::vector<std::string> errors;
    for (const auto& [severity, text] : entries(n))
        if (severity == 3) errors.push_back(text);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], "could not parse value:\"abc\" to int64: stoll");
    EXPECT_EQ(errors[1], "Exception in send_notification: stoll");
}

TEST_F(Notification, LogLevelKeepsTheClientsDebugLinesOut) {
    UA_Variant v;
    UA_Double start = 0;
    UA_Variant_setScalar(&v, &start, &UA_TYPES[UA_TYPES_DOUBLE]);
    set("ns=1;s=Level", v);
    for (int level : {3, 7}) {
        SCOPED_TRACE(level);
        mm::opcua::opcua_notification n(services_);
        send(n, request("FloatingPoint", "ns=1;s=Level", "2.5", level));
        int client_lines = 0, own_lines = 0;
        for (const auto& [severity, text] : entries(n)) {
            if (text.rfind("OPC UA Client: ", 0) == 0 || text == "Writing node value finished sucessfully.")
                ++client_lines;
            if (text.rfind("### ", 0) == 0 || text == "Create OPC-UA client.") ++own_lines;
        }
        EXPECT_EQ(own_lines, 3) << "the notification's own lines have no limit";
        if (level == 3)
            EXPECT_EQ(client_lines, 0);
        else
            EXPECT_GT(client_lines, 0);
    }
}

TEST_F(Notification, BadTargetAndBadTypeFailWithTheirLines) {
    mm::opcua::opcua_notification n(services_);
    EXPECT_THROW(send(n, request("Integer64", "ns=1;x=Nope", "1")), std::exception);
    EXPECT_THROW(send(n, request("integer64", "ns=1;s=Count", "1")), std::exception);
    std::vector<std::string> errors;
    for (const auto& [severity, text] : entries(n))
        if (severity == 3) errors.push_back(text);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0].rfind("Exception in send_notification: Failed to parse NodeID (ns=1;x=Nope)", 0), 0u);
    EXPECT_EQ(errors[1].rfind("Exception in create_client_settings: Value \"integer64\"", 0), 0u) << errors[1];
    EXPECT_EQ(errors[2].rfind("Exception in send_notification: Value \"integer64\"", 0), 0u);
}

}  // namespace
