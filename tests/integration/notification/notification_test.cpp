// The notification class on its own, with the factories a binding would register,
// writing to variables of opcua-sim. Nothing in the module reaches it, so it is built
// here rather than loaded.
#include <gtest/gtest.h>

#include <open62541/types.h>

#include "client/client_open62541.h"
#include "client/nodes_open62541.h"
#include "libvurohelper/logging.h"
#include "opcua_sim/server.h"
#include "sensors/opcua_notification.h"
#include "support/module_session.h"
#include "vuro.pb.h"

namespace mm = brenholt::monitoring_modules;
using mm::libvurohelper::module::service_container;

namespace {

class Notification : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server_ = new opcua_sim::server(opcua_sim::options{});
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

    // Sends one request; what send_notification throws passes on.
    void send(mm::opcua::opcua_notification& n, const std::string& type, const std::string& target,
              const std::string& message, int log_level = 7) {
        // The credentials as a sensor gets them; a notification names its host among them.
        const auto credentials = test_support::credential_data("", server_->port());
        brenholt::vuro::wire::NotificationRequest r;
        *r.mutable_settings() = credentials.settings();
        *r.mutable_secure_settings() = credentials.secure_settings();
        (*r.mutable_settings())["credentials.connection_opcua.host"] = "127.0.0.1";
        (*r.mutable_settings())["write.variable.type"] = type;
        r.set_target(target);
        r.set_message(message);
        r.set_timeout_s(5);
        r.set_log_level(log_level);
        brenholt::vuro::wire::Envelope e;
        e.set_type(brenholt::vuro::wire::NOTIFICATION_REQUEST);
        e.set_payload(r.SerializeAsString());
        const std::string bytes = e.SerializeAsString();
        mm::libvurohelper::notifications::request request(bytes.data(), static_cast<unsigned int>(bytes.size()));
        n.send_notification(request);
    }

    static google::protobuf::RepeatedPtrField<brenholt::vuro::wire::LogEntry> entries(
        mm::opcua::opcua_notification& n) {
        const auto& bytes = n.get_response();
        brenholt::vuro::wire::Envelope e;
        EXPECT_TRUE(e.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
        EXPECT_EQ(e.type(), brenholt::vuro::wire::NOTIFICATION_RESPONSE);
        brenholt::vuro::wire::NotificationResponse r;
        EXPECT_TRUE(r.ParseFromString(e.payload()));
        return r.entries();
    }

    // Puts a variable of this type on the server, or reads it back.
    template <typename T>
    static void set(const std::string& node, T value, int type) {
        UA_Variant v;
        UA_Variant_setScalar(&v, &value, &UA_TYPES[type]);
        server_->set_value(node, v);
    }
    template <typename T>
    static T get(const std::string& node, int type) {
        UA_Variant v;
        UA_Variant_init(&v);
        EXPECT_EQ(server_->read_value(node, &v), UA_STATUSCODE_GOOD);
        EXPECT_TRUE(UA_Variant_hasScalarType(&v, &UA_TYPES[type]));
        const T value = v.data ? *static_cast<T*>(v.data) : T{};
        UA_Variant_clear(&v);
        return value;
    }

    static opcua_sim::server* server_;
    std::shared_ptr<service_container> services_;
};

opcua_sim::server* Notification::server_ = nullptr;

TEST_F(Notification, BooleanIsTrueOnlyForTheExactWord) {
    set<UA_Boolean>("ns=1;s=Flag", false, UA_TYPES_BOOLEAN);
    mm::opcua::opcua_notification n(services_);
    for (const auto& [message, expected] :
         std::vector<std::pair<std::string, bool>>{{"True", true}, {"true", false}, {"True", true}, {"1", false}}) {
        send(n, "Boolean", "ns=1;s=Flag", message);
        EXPECT_EQ(get<UA_Boolean>("ns=1;s=Flag", UA_TYPES_BOOLEAN), expected) << message;
    }
}

TEST_F(Notification, Integer64TakesTheLeadingNumberOrFailsWithTwoLines) {
    set<UA_Int64>("ns=1;s=Count", 0, UA_TYPES_INT64);
    mm::opcua::opcua_notification n(services_);
    send(n, "Integer64", "ns=1;s=Count", "42abc");
    EXPECT_EQ(get<UA_Int64>("ns=1;s=Count", UA_TYPES_INT64), 42);

    EXPECT_THROW(send(n, "Integer64", "ns=1;s=Count", "abc"), std::invalid_argument);
    std::vector<std::string> errors;
    for (const auto& entry : entries(n))
        if (entry.severity() == 3) errors.push_back(entry.text());
    EXPECT_EQ(errors, (std::vector<std::string>{"could not parse value:\"abc\" to int64: stoll",
                                                "Exception in send_notification: stoll"}));
    EXPECT_EQ(get<UA_Int64>("ns=1;s=Count", UA_TYPES_INT64), 42);
}

TEST_F(Notification, LogLevelKeepsTheClientsDebugLinesOut) {
    set<UA_Double>("ns=1;s=Level", 0, UA_TYPES_DOUBLE);
    for (int level : {3, 7}) {
        SCOPED_TRACE(level);
        mm::opcua::opcua_notification n(services_);
        send(n, "FloatingPoint", "ns=1;s=Level", "2.5", level);
        EXPECT_EQ(get<UA_Double>("ns=1;s=Level", UA_TYPES_DOUBLE), 2.5);
        int client_lines = 0, own_lines = 0;
        for (const auto& entry : entries(n)) {
            const std::string& text = entry.text();
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

}  // namespace
