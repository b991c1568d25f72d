// client_open62541 without the module: the stack's lines in its logs, and endpoint
// selection on hand-made lists. Then the opcua-sim executable as a user starts it.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <open62541/client_highlevel.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <regex>

#include "client/client_open62541.h"
#include "client/exceptions.h"
#include "integration/sensor_session.h"
#include "integration/servers.h"
#include "support/child_process.h"

using namespace brenholt::monitoring_modules;
using opcua::client_open62541;
using line = std::pair<liblog::severity, std::string>;

namespace {

const std::string none_uri = "http://opcfoundation.org/UA/SecurityPolicy#None";
const std::string basic_uri = "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";
const std::string other_uri = "urn:unknown#Policy";

template <typename Lines>
std::size_t count(const Lines& lines, liblog::severity level, const std::string& text) {
    return std::count(lines.begin(), lines.end(), line{level, text});
}

// A given certificate names the URI to announce; of several, the first, with a warning.
// The session is kept until discovery replaces the UA_Client. The stack's lines reach the
// client's logs at debug, prefixed, each with the terminating zero of its C string, and
// the runtime log of the client's container as well.
TEST(Client, GivenCertificateSessionLifeCycle) {
    auto services = std::make_shared<libvurohelper::module::service_container>();
    services->add_factory(std::function<std::unique_ptr<liblog::log_interface>()>(
        [] { return std::make_unique<liblog::memory_logger>(); }));
    const auto given = integration::with_certificate(integration::security("sign_encrypt", "Basic256Sha256"),
                                                     {"URI:urn:kolv:first", "URI:urn:kolv:second", "DNS:localhost"});
    opcua::client_settings s;
    s.host = "127.0.0.1";
    s.port = integration::port(integration::sim::plant);
    s.security_mode = opcua::settings::security_mode::sign_encrypt;
    s.security_policy = opcua::settings::security_policy::basic256sha256;
    s.client_certificate = given.at("credentials.connection_security.client_certificate");
    s.client_key = given.at("credentials.connection_security.client_key");
    s.client_key_password = opcua::client_settings::secure_string(given.at("credentials.connection_security.client_key_password"));
    client_open62541 client(s, services);
    auto log = std::make_shared<liblog::memory_logger>();
    client.add_logger(log, liblog::debug);
    const std::size_t sessions = integration::server(integration::sim::plant).session_count();
    client.connect();
    client.connect();
    EXPECT_TRUE(client.is_connected());
    EXPECT_EQ(integration::server(integration::sim::plant).session_count(), sessions + 1) << "a live session is kept";
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
    auto runtime = std::dynamic_pointer_cast<liblog::memory_logger>(services->get_instance<liblog::log_interface>());
    ASSERT_TRUE(runtime);
    const auto all = runtime->entries();
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const line& l) { return l.second.rfind("OPC UA Client: ", 0) == 0; }),
              stack_lines);

    EXPECT_TRUE(client.validate_endpoint());
    EXPECT_FALSE(client.is_connected());
    client.connect();
    EXPECT_TRUE(client.is_connected());
    lines = log->entries();
    EXPECT_EQ(count(lines, liblog::info, "Selected Endpoint " + integration::server(integration::sim::plant).endpoint_url() +
                                             " with SecurityMode SignAndEncrypt and SecurityPolicy " + basic_uri), 1u);
    EXPECT_EQ(count(lines, liblog::info, "Using ApplicationUri: urn:kolv:first"), 3u);
}


struct endpoint_row {
    std::string url;
    int mode;
    std::string policy_uri;
    std::vector<std::pair<int, std::string>> tokens;  // type and policy URI
    std::string profile = "http://opcfoundation.org/UA-Profile/Transport/uatcp-uasc-uabinary";
};

// An EndpointDescription array built from plain descriptions, released at the end.
struct fake_endpoints {
    std::vector<UA_EndpointDescription> items;
    explicit fake_endpoints(const std::vector<endpoint_row>& rows) : items(rows.size()) {
        for (std::size_t i = 0; i < rows.size(); ++i) {
            UA_EndpointDescription& e = items[i];
            UA_EndpointDescription_init(&e);
            e.endpointUrl = UA_String_fromChars(rows[i].url.c_str());
            e.securityMode = static_cast<UA_MessageSecurityMode>(rows[i].mode);
            e.securityPolicyUri = UA_String_fromChars(rows[i].policy_uri.c_str());
            e.transportProfileUri = UA_String_fromChars(rows[i].profile.c_str());
            e.userIdentityTokensSize = rows[i].tokens.size();
            e.userIdentityTokens = static_cast<UA_UserTokenPolicy*>(
                UA_Array_new(rows[i].tokens.size(), &UA_TYPES[UA_TYPES_USERTOKENPOLICY]));
            for (std::size_t t = 0; t < rows[i].tokens.size(); ++t) {
                e.userIdentityTokens[t].tokenType = static_cast<UA_UserTokenType>(rows[i].tokens[t].first);
                e.userIdentityTokens[t].securityPolicyUri = UA_String_fromChars(rows[i].tokens[t].second.c_str());
            }
        }
    }
    ~fake_endpoints() {
        for (auto& e : items) UA_EndpointDescription_clear(&e);
    }
};

opcua::endpoint_criteria criteria(int mode, std::string policy, int identity = -1) {
    opcua::endpoint_criteria c;
    c.security_mode = mode;
    c.security_policy_uri = std::move(policy);
    c.available_policy_uris = {none_uri, basic_uri};
    c.identity_type = identity < 0 ? nullptr : &UA_TYPES[identity];
    return c;
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
    const struct {
        std::vector<endpoint_row> endpoints;
        opcua::endpoint_criteria wanted;
        std::string selected;  // the URL's host; empty: no match; out_of_range: the selection throws that
        std::vector<line> log;
    } cases[] = {
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
        std::vector<endpoint_row> rows = c.endpoints;
        for (auto& row : rows) row.url = "opc.tcp://" + row.url + "/";
        fake_endpoints endpoints(rows);
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

// The suites run the simulator in-process and compare the module's answers with what they
// asked of it, so what they cannot see is checked here: the command line reaching the
// server, the server staying on loopback, and a certificate that really has the asked
// lifetime, key and name, seen by a plain client.
TEST(SimProcess, ServesOnLoopbackWithTheAskedCertificateAndEndsOnSignal) {
    test_support::child_process process(OPCUA_SIM_EXECUTABLE, {"--port", "0", "--endpoint", "none", "--cert-days", "-3",
                                                               "--key-bits", "1024", "--common-name", "Line 4"});
    const std::string url = process.line(std::chrono::seconds(20)).value_or("");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(url, match, std::regex(R"(opc\.tcp://127\.0\.0\.1:(\d+)/)"))) << url;
    // Another loopback address may take the port: the server does not listen on all of them.
    sockaddr_in other{};
    other.sin_family = AF_INET;
    other.sin_port = htons(static_cast<std::uint16_t>(std::stoi(match[1])));
    other.sin_addr.s_addr = htonl(0x7f000002);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&other), sizeof other), 0) << "listens beyond 127.0.0.1";
    ::close(fd);

    UA_Client* client = UA_Client_new();
    size_t size = 0;
    UA_EndpointDescription* endpoints = nullptr;
    ASSERT_EQ(UA_Client_getEndpoints(client, url.c_str(), &size, &endpoints), UA_STATUSCODE_GOOD);
    ASSERT_GT(size, 0u);
    const unsigned char* der = endpoints[0].serverCertificate.data;
    X509* cert = d2i_X509(nullptr, &der, static_cast<long>(endpoints[0].serverCertificate.length));
    UA_Array_delete(endpoints, size, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
    UA_Client_delete(client);
    ASSERT_NE(cert, nullptr);
    int whole_days = 0, seconds = 0;
    EXPECT_EQ(ASN1_TIME_diff(&whole_days, &seconds, nullptr, X509_get0_notAfter(cert)), 1);
    EXPECT_EQ(whole_days, -3) << "cut towards zero, as the certificate sensor counts them";
    EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(cert)), 1024);
    char name[64] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, name, sizeof name);
    EXPECT_STREQ(name, "Line 4");
    EXPECT_EQ(X509_check_issued(cert, cert), X509_V_OK) << "self-signed";
    X509_free(cert);
    EXPECT_EQ(process.terminate(), 0);
}

}  // namespace
