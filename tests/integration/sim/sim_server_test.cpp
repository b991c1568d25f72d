// opcua-sim in-process: endpoints, logins, security, certificate, life cycle.

#include "opcua_sim/server.h"
#include "sim_client.h"

#include <gtest/gtest.h>
#include <open62541/server.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <tuple>

using namespace sim_test;
using opcua_sim::security_mode;
using opcua_sim::security_policy;

namespace {

opcua_sim::options base_options() {
    opcua_sim::options o;
    o.path = "sim/test";
    o.users = {{"alice", "secret"}, {"bob", "other"}};
    return o;
}

UA_StatusCode read_int32(UA_Client* client, const UA_NodeId& id, UA_Int32& out) {
    UA_Variant value;
    UA_Variant_init(&value);
    UA_StatusCode status = UA_Client_readValueAttribute(client, id, &value);
    if (status == UA_STATUSCODE_GOOD) {
        if (UA_Variant_hasScalarType(&value, &UA_TYPES[UA_TYPES_INT32]))
            out = *static_cast<UA_Int32*>(value.data);
        else
            status = UA_STATUSCODE_BADTYPEMISMATCH;
    }
    UA_Variant_clear(&value);
    return status;
}

void set_int32(opcua_sim::server& sim, const std::string& id, UA_Int32 number) {
    UA_Variant value;
    UA_Variant_setScalar(&value, &number, &UA_TYPES[UA_TYPES_INT32]);
    sim.set_value(id, value);
}

using x509_ptr = std::unique_ptr<X509, decltype(&X509_free)>;

x509_ptr decode(const std::vector<std::uint8_t>& der) {
    const unsigned char* p = der.data();
    return x509_ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size())), &X509_free);
}

// Whole days from now to the time, cut towards zero, as a client counts them.
int days_from_now(const ASN1_TIME* time) {
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, nullptr, time);
    return days;
}

std::vector<std::string> uri_alt_names(X509* cert) {
    std::vector<std::string> out;
    auto* names = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names); ++i) {
        GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
        if (name->type == GEN_URI)
            out.emplace_back(reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.uniformResourceIdentifier)),
                             ASN1_STRING_length(name->d.uniformResourceIdentifier));
    }
    GENERAL_NAMES_free(names);
    return out;
}

} // namespace

TEST(SimServer, AnonymousNoneSessionReadsValuesThatFollowSetValue) {
    opcua_sim::server sim(base_options());
    set_int32(sim, "ns=1;s=Before", 7); // remembered while stopped
    sim.start();
    ASSERT_NE(sim.port(), 0);
    EXPECT_EQ(sim.endpoint_url(), "opc.tcp://127.0.0.1:" + std::to_string(sim.port()) + "/sim/test");

    client_ptr client = make_client();
    ASSERT_EQ(UA_Client_connect(client.get(), sim.endpoint_url().c_str()), UA_STATUSCODE_GOOD);
    UA_Int32 number = 0;
    ASSERT_EQ(read_int32(client.get(), UA_NODEID_STRING(1, const_cast<char*>("Before")), number), UA_STATUSCODE_GOOD);
    EXPECT_EQ(number, 7);

    set_int32(sim, "ns=3;i=42", -5); // namespace 3 does not exist yet
    ASSERT_EQ(read_int32(client.get(), UA_NODEID_NUMERIC(3, 42), number), UA_STATUSCODE_GOOD);
    EXPECT_EQ(number, -5);
    set_int32(sim, "ns=3;i=42", 11);
    ASSERT_EQ(read_int32(client.get(), UA_NODEID_NUMERIC(3, 42), number), UA_STATUSCODE_GOOD);
    EXPECT_EQ(number, 11);

    // Another type replaces the variable, data type included.
    UA_String word = UA_STRING(const_cast<char*>("word"));
    UA_Variant value;
    UA_Variant_setScalar(&value, &word, &UA_TYPES[UA_TYPES_STRING]);
    sim.set_value("ns=3;i=42", value);
    UA_NodeId data_type;
    ASSERT_EQ(UA_Client_readDataTypeAttribute(client.get(), UA_NODEID_NUMERIC(3, 42), &data_type), UA_STATUSCODE_GOOD);
    EXPECT_TRUE(UA_NodeId_equal(&data_type, &UA_TYPES[UA_TYPES_STRING].typeId));
    EXPECT_EQ(read_int32(client.get(), UA_NODEID_NUMERIC(3, 42), number), UA_STATUSCODE_BADTYPEMISMATCH);

    // An array keeps its rank.
    UA_Double series[3] = {1.5, 2.5, 3.5};
    UA_Variant_setArray(&value, series, 3, &UA_TYPES[UA_TYPES_DOUBLE]);
    sim.set_value("ns=2;s=Series", value);
    UA_Variant read;
    UA_Variant_init(&read);
    ASSERT_EQ(UA_Client_readValueAttribute(client.get(), UA_NODEID_STRING(2, const_cast<char*>("Series")), &read),
              UA_STATUSCODE_GOOD);
    ASSERT_EQ(read.type, &UA_TYPES[UA_TYPES_DOUBLE]);
    ASSERT_EQ(read.arrayLength, 3u);
    EXPECT_EQ(static_cast<UA_Double*>(read.data)[2], 3.5);
    UA_Variant_clear(&read);

    EXPECT_THROW(set_int32(sim, "not a node id", 1), std::invalid_argument);
    EXPECT_THROW(set_int32(sim, "i=85", 1), std::runtime_error); // the Objects folder
}

struct endpoint_case {
    const char* name;
    std::vector<opcua_sim::endpoint_option> endpoints;
    bool anonymous;
    bool users;
};

class SimEndpoints : public testing::TestWithParam<endpoint_case> {};

TEST_P(SimEndpoints, GetEndpointsListsExactlyTheChosenEndpointsAndTokens) {
    const endpoint_case& c = GetParam();
    opcua_sim::options o = base_options();
    o.endpoints = c.endpoints;
    o.allow_anonymous = c.anonymous;
    if (!c.users) o.users.clear();
    opcua_sim::server sim(o);
    sim.start();

    client_ptr client = make_discovery_client();
    endpoint_list list;
    ASSERT_EQ(UA_Client_getEndpoints(client.get(), sim.endpoint_url().c_str(), &list.size, &list.items),
              UA_STATUSCODE_GOOD);

    std::vector<std::pair<std::string, int>> expected, seen;
    for (const auto& e : c.endpoints)
        expected.emplace_back(opcua_sim::policy_uri(e.policy), static_cast<int>(e.mode));
    for (size_t i = 0; i < list.size; ++i) {
        const UA_EndpointDescription& e = list.items[i];
        seen.emplace_back(text(e.securityPolicyUri), static_cast<int>(e.securityMode));
        EXPECT_EQ(bytes_of(e.serverCertificate), sim.certificate_der()) << i;
        EXPECT_EQ(text(e.server.applicationUri), o.application_uri);
        EXPECT_NE(text(e.endpointUrl).find("127.0.0.1:" + std::to_string(sim.port())), std::string::npos);

        std::set<int> tokens;
        for (size_t t = 0; t < e.userIdentityTokensSize; ++t) {
            const UA_UserTokenPolicy& token = e.userIdentityTokens[t];
            tokens.insert(token.tokenType);
            // Passwords travel encrypted, also on a None endpoint.
            if (token.tokenType == UA_USERTOKENTYPE_USERNAME && e.securityMode == UA_MESSAGESECURITYMODE_NONE) {
                EXPECT_EQ(text(token.securityPolicyUri), basic256sha256_uri);
            }
        }
        EXPECT_EQ(tokens.count(UA_USERTOKENTYPE_ANONYMOUS), c.anonymous ? 1u : 0u) << i;
        EXPECT_EQ(tokens.count(UA_USERTOKENTYPE_USERNAME), c.users ? 1u : 0u) << i;
    }
    std::sort(expected.begin(), expected.end());
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Choices, SimEndpoints,
    testing::Values(
        endpoint_case{"all", opcua_sim::all_endpoints(), true, true},
        endpoint_case{"none_only_users_only", {{security_policy::none, security_mode::none}}, false, true},
        endpoint_case{"sign_only_anonymous_only",
                      {{security_policy::basic256sha256, security_mode::sign}}, true, false},
        endpoint_case{"none_and_encrypt",
                      {{security_policy::none, security_mode::none},
                       {security_policy::basic256sha256, security_mode::sign_and_encrypt}},
                      true, true}),
    [](const testing::TestParamInfo<endpoint_case>& info) { return std::string(info.param.name); });

struct login_case {
    const char* name;
    UA_MessageSecurityMode mode;
    const char* policy;
    const char* user; // null: anonymous
    const char* password;
    bool allow_anonymous;
    bool accepted;
};

class SimLogins : public testing::TestWithParam<login_case> {};

TEST_P(SimLogins, SessionIsActivatedOnlyWithValidIdentity) {
    const login_case& c = GetParam();
    opcua_sim::options o = base_options();
    o.allow_anonymous = c.allow_anonymous;
    opcua_sim::server sim(o);
    sim.start();
    set_int32(sim, "ns=1;s=Probe", 99);

    client_ptr client = make_client(c.mode, c.policy, true);
    UA_StatusCode status = c.user ? UA_Client_connectUsername(client.get(), sim.endpoint_url().c_str(), c.user, c.password)
                                  : UA_Client_connect(client.get(), sim.endpoint_url().c_str());
    if (!c.accepted) {
        EXPECT_NE(status, UA_STATUSCODE_GOOD) << UA_StatusCode_name(status);
        EXPECT_EQ(sim.session_count(), 0u);
        return;
    }
    ASSERT_EQ(status, UA_STATUSCODE_GOOD) << UA_StatusCode_name(status);
    EXPECT_EQ(sim.session_count(), 1u);
    UA_Int32 number = 0;
    ASSERT_EQ(read_int32(client.get(), UA_NODEID_STRING(1, const_cast<char*>("Probe")), number), UA_STATUSCODE_GOOD);
    EXPECT_EQ(number, 99);
}

constexpr auto none_mode = UA_MESSAGESECURITYMODE_NONE;
constexpr auto sign_mode = UA_MESSAGESECURITYMODE_SIGN;
constexpr auto encrypt_mode = UA_MESSAGESECURITYMODE_SIGNANDENCRYPT;
const char* const none_policy = "http://opcfoundation.org/UA/SecurityPolicy#None";
const char* const b256_policy = "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";

INSTANTIATE_TEST_SUITE_P(
    Identities, SimLogins,
    testing::Values(login_case{"user_over_none", none_mode, none_policy, "alice", "secret", true, true},
                    login_case{"second_user", none_mode, none_policy, "bob", "other", true, true},
                    login_case{"wrong_password", none_mode, none_policy, "alice", "other", true, false},
                    login_case{"unknown_user", none_mode, none_policy, "carol", "secret", true, false},
                    login_case{"anonymous_switched_off", none_mode, none_policy, nullptr, nullptr, false, false},
                    login_case{"user_without_anonymous", none_mode, none_policy, "alice", "secret", false, true},
                    login_case{"anonymous_sign", sign_mode, b256_policy, nullptr, nullptr, true, true},
                    login_case{"anonymous_sign_and_encrypt", encrypt_mode, b256_policy, nullptr, nullptr, true, true},
                    login_case{"user_sign_and_encrypt", encrypt_mode, b256_policy, "bob", "other", true, true},
                    login_case{"wrong_password_sign_and_encrypt", encrypt_mode, b256_policy, "bob", "x", true,
                               false}),
    [](const testing::TestParamInfo<login_case>& info) { return std::string(info.param.name); });

TEST(SimServer, ModeThatIsNotOfferedIsRefused) {
    opcua_sim::options o = base_options();
    o.endpoints = {{security_policy::none, security_mode::none},
                   {security_policy::basic256sha256, security_mode::sign}};
    opcua_sim::server sim(o);
    sim.start();
    client_ptr client = make_client(encrypt_mode, b256_policy);
    EXPECT_NE(UA_Client_connect(client.get(), sim.endpoint_url().c_str()), UA_STATUSCODE_GOOD);
}

struct certificate_case {
    const char* name;
    int key_bits;
    int valid_days;
    std::optional<int> valid_from_days;
    int expected_from_days; // whole days from now to the start, cut towards zero
};

class SimCertificate : public testing::TestWithParam<certificate_case> {};

TEST_P(SimCertificate, PublishedCertificateHasTheAskedKeySizeAndValidity) {
    const certificate_case& c = GetParam();
    opcua_sim::options o = base_options();
    o.application_uri = "urn:sim-test:server:" + std::string(c.name);
    o.certificate.generate.key_bits = c.key_bits;
    o.certificate.generate.valid_days = c.valid_days;
    o.certificate.generate.valid_from_days = c.valid_from_days;
    o.certificate.generate.common_name = "Sim Test";
    opcua_sim::server sim(o);
    sim.start();

    // Over None, as a certificate check does it; a 1024-bit key is too short for a
    // Basic256Sha256 channel.
    client_ptr client = make_client();
    endpoint_list list;
    UA_StatusCode status = UA_Client_getEndpoints(client.get(), sim.endpoint_url().c_str(), &list.size, &list.items);
    ASSERT_EQ(status, UA_STATUSCODE_GOOD) << UA_StatusCode_name(status);
    ASSERT_GT(list.size, 0u);
    x509_ptr cert = decode(bytes_of(list.items[0].serverCertificate));
    ASSERT_TRUE(cert);

    EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(cert.get())), c.key_bits);
    EXPECT_EQ(days_from_now(X509_get0_notAfter(cert.get())), c.valid_days);
    EXPECT_EQ(days_from_now(X509_get0_notBefore(cert.get())), c.expected_from_days);
    // Self-signed: own issuer, signed with its own key, and fit to sign.
    EXPECT_EQ(X509_NAME_cmp(X509_get_subject_name(cert.get()), X509_get_issuer_name(cert.get())), 0);
    EXPECT_EQ(X509_check_issued(cert.get(), cert.get()), X509_V_OK);
    EXPECT_EQ(X509_verify(cert.get(), X509_get0_pubkey(cert.get())), 1);
    EXPECT_EQ(uri_alt_names(cert.get()), std::vector<std::string>{o.application_uri});
    EXPECT_TRUE(X509_get_key_usage(cert.get()) & KU_DATA_ENCIPHERMENT);
    char cn[64] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert.get()), NID_commonName, cn, sizeof cn);
    EXPECT_STREQ(cn, "Sim Test");
}

INSTANTIATE_TEST_SUITE_P(
    Requests, SimCertificate,
    testing::Values(certificate_case{"valid_30_days", 2048, 30, std::nullopt, -1},
                    certificate_case{"expired_3_days_ago", 2048, -3, std::nullopt, -4},
                    certificate_case{"not_yet_valid", 2048, 60, 2, 2},
                    certificate_case{"short_key", 1024, 365, std::nullopt, -1}),
    [](const testing::TestParamInfo<certificate_case>& info) { return std::string(info.param.name); });

TEST(SimServer, CertificateFromPemIsPublishedAndServesEncryption) {
    opcua_sim::certificate_request request;
    request.common_name = "Given";
    request.application_uri = "urn:sim-test:given";
    opcua_sim::certificate_material given = opcua_sim::make_self_signed_certificate(request);

    opcua_sim::options o = base_options();
    o.application_uri = "urn:sim-test:given";
    o.certificate.certificate_pem = opcua_sim::certificate_der_to_pem(given.certificate_der);
    o.certificate.private_key_pem = opcua_sim::private_key_der_to_pem(given.private_key_der);
    opcua_sim::server sim(o);
    sim.start();
    EXPECT_EQ(sim.certificate_der(), given.certificate_der);

    client_ptr client = make_client(encrypt_mode, b256_policy);
    ASSERT_EQ(UA_Client_connect(client.get(), sim.endpoint_url().c_str()), UA_STATUSCODE_GOOD);
    endpoint_list list;
    client_ptr discovery = make_discovery_client();
    ASSERT_EQ(UA_Client_getEndpoints(discovery.get(), sim.endpoint_url().c_str(), &list.size, &list.items),
              UA_STATUSCODE_GOOD);
    for (size_t i = 0; i < list.size; ++i) EXPECT_EQ(bytes_of(list.items[i].serverCertificate), given.certificate_der);
}

TEST(SimServer, BadCertificateInputIsRefused) {
    opcua_sim::certificate_material one = opcua_sim::make_self_signed_certificate({});
    opcua_sim::certificate_material two = opcua_sim::make_self_signed_certificate({});
    opcua_sim::options o = base_options();
    o.certificate.certificate_pem = opcua_sim::certificate_der_to_pem(one.certificate_der);
    o.certificate.private_key_pem = opcua_sim::private_key_der_to_pem(two.private_key_der);
    opcua_sim::server mismatched(o);
    EXPECT_THROW(mismatched.start(), std::runtime_error);
    EXPECT_FALSE(mismatched.running());

    o.certificate.private_key_pem = "not pem";
    opcua_sim::server garbage(o);
    EXPECT_THROW(garbage.start(), std::runtime_error);

    o.certificate.private_key_pem.clear();
    EXPECT_THROW(opcua_sim::server{o}, std::invalid_argument);

    opcua_sim::options bits = base_options();
    bits.certificate.generate.key_bits = 3000;
    opcua_sim::server odd(bits);
    EXPECT_THROW(odd.start(), std::invalid_argument);
}

TEST(SimServer, ListensOnLoopbackOnly) {
    opcua_sim::server sim(base_options());
    sim.start();
    char port_hex[8];
    std::snprintf(port_hex, sizeof port_hex, "%04X", sim.port());
    std::vector<std::string> listening; // local addresses in /proc/net/tcp{,6} form
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream in(table);
        std::string line;
        std::getline(in, line); // header
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state;
            fields >> slot >> local >> remote >> state;
            if (state == "0A" && local.size() > 5 && local.substr(local.size() - 4) == port_hex)
                listening.push_back(local.substr(0, local.size() - 5));
        }
    }
    EXPECT_EQ(listening, std::vector<std::string>{"0100007F"});
}

TEST(SimServer, TakenPortFailsTheStart) {
    opcua_sim::server first(base_options());
    first.start();
    opcua_sim::options o = base_options();
    o.port = first.port();
    opcua_sim::server second(o);
    EXPECT_THROW(second.start(), std::runtime_error);
    EXPECT_FALSE(second.running());
}

TEST(SimServer, RestartKeepsPortCertificateAndValues) {
    opcua_sim::server sim(base_options());
    sim.start();
    set_int32(sim, "ns=1;s=Kept", 5);
    const std::uint16_t port = sim.port();
    const auto certificate = sim.certificate_der();
    client_ptr client = make_client();
    ASSERT_EQ(UA_Client_connect(client.get(), sim.endpoint_url().c_str()), UA_STATUSCODE_GOOD);

    sim.stop();
    EXPECT_FALSE(sim.running());
    EXPECT_EQ(sim.session_count(), 0u);
    UA_Int32 number = 0;
    EXPECT_NE(read_int32(client.get(), UA_NODEID_STRING(1, const_cast<char*>("Kept")), number), UA_STATUSCODE_GOOD);
    UA_Variant out;
    UA_Variant_init(&out);
    EXPECT_EQ(sim.read_value("ns=1;s=Kept", &out), UA_STATUSCODE_BADSERVERNOTCONNECTED);

    sim.start();
    EXPECT_EQ(sim.port(), port);
    EXPECT_EQ(sim.certificate_der(), certificate);
    client_ptr again = make_client();
    ASSERT_EQ(UA_Client_connect(again.get(), sim.endpoint_url().c_str()), UA_STATUSCODE_GOOD);
    ASSERT_EQ(read_int32(again.get(), UA_NODEID_STRING(1, const_cast<char*>("Kept")), number), UA_STATUSCODE_GOOD);
    EXPECT_EQ(number, 5);
    ASSERT_EQ(sim.read_value("ns=1;s=Kept", &out), UA_STATUSCODE_GOOD);
    EXPECT_EQ(*static_cast<UA_Int32*>(out.data), 5);
    UA_Variant_clear(&out);
}

TEST(SimServer, EndSessionsInvalidatesTheClientsSessions) {
    opcua_sim::server sim(base_options());
    sim.start();
    set_int32(sim, "ns=1;s=Probe", 1);
    client_ptr a = make_client();
    client_ptr b = make_client(none_mode, none_policy, true);
    ASSERT_EQ(UA_Client_connect(a.get(), sim.endpoint_url().c_str()), UA_STATUSCODE_GOOD);
    ASSERT_EQ(UA_Client_connectUsername(b.get(), sim.endpoint_url().c_str(), "alice", "secret"), UA_STATUSCODE_GOOD);
    EXPECT_EQ(sim.session_count(), 2u);

    EXPECT_EQ(sim.end_sessions(), 2u);
    EXPECT_EQ(sim.session_count(), 0u);
    UA_Int32 number = 0;
    EXPECT_NE(read_int32(a.get(), UA_NODEID_STRING(1, const_cast<char*>("Probe")), number), UA_STATUSCODE_GOOD);
    EXPECT_EQ(sim.end_sessions(), 0u);
}

TEST(SimServer, AddressSpaceSetupRunsAtEveryStart) {
    int runs = 0;
    opcua_sim::options o = base_options();
    o.namespace_uris = {"urn:sim-test:first", "urn:sim-test:second"};
    o.address_spaces.push_back([&runs](UA_Server* ua) {
        ++runs;
        size_t index = 0;
        UA_String uri = UA_STRING(const_cast<char*>("urn:sim-test:second"));
        ASSERT_EQ(UA_Server_getNamespaceByName(ua, uri, &index), UA_STATUSCODE_GOOD);
        EXPECT_EQ(index, 3u);
    });
    opcua_sim::server sim(o);
    sim.start();
    sim.stop();
    sim.start();
    EXPECT_EQ(runs, 2);

    opcua_sim::options failing = base_options();
    failing.address_spaces.push_back([](UA_Server*) { throw std::runtime_error("setup failed"); });
    opcua_sim::server broken(failing);
    EXPECT_THROW(broken.start(), std::runtime_error);
    EXPECT_FALSE(broken.running());
}
