// Endpoint selection on hand-made endpoint lists: every rejection line, the order of the
// checks, and the bounds of the two name tables, without a server.

#include "client/client_open62541.h"
#include "client/exceptions.h"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using namespace brenholt::monitoring_modules;
using opcua::client_open62541;
using opcua::endpoint_criteria;

namespace {

const std::string none_uri = "http://opcfoundation.org/UA/SecurityPolicy#None";
const std::string basic_uri = "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";
const std::string binary_profile = "http://opcfoundation.org/UA-Profile/Transport/uatcp-uasc-uabinary";
const std::string https_profile = "http://opcfoundation.org/UA-Profile/Transport/https-uabinary";

struct token_spec {
    int type;
    std::string policy_uri;
};

struct endpoint_spec {
    std::string url;
    int mode;
    std::string policy_uri;
    std::vector<token_spec> tokens;
    std::string profile = binary_profile;
};

// Owns an EndpointDescription array built from plain descriptions.
class fake_endpoints {
public:
    explicit fake_endpoints(const std::vector<endpoint_spec>& specs) : items_(specs.size()) {
        for (std::size_t i = 0; i < specs.size(); ++i) {
            UA_EndpointDescription& e = items_[i];
            UA_EndpointDescription_init(&e);
            e.endpointUrl = UA_String_fromChars(specs[i].url.c_str());
            e.securityMode = static_cast<UA_MessageSecurityMode>(specs[i].mode);
            e.securityPolicyUri = UA_String_fromChars(specs[i].policy_uri.c_str());
            e.transportProfileUri = UA_String_fromChars(specs[i].profile.c_str());
            const auto& tokens = specs[i].tokens;
            if (!tokens.empty()) {
                e.userIdentityTokens = static_cast<UA_UserTokenPolicy*>(
                    UA_Array_new(tokens.size(), &UA_TYPES[UA_TYPES_USERTOKENPOLICY]));
                e.userIdentityTokensSize = tokens.size();
                for (std::size_t t = 0; t < tokens.size(); ++t) {
                    e.userIdentityTokens[t].tokenType = static_cast<UA_UserTokenType>(tokens[t].type);
                    e.userIdentityTokens[t].securityPolicyUri = UA_String_fromChars(tokens[t].policy_uri.c_str());
                }
            }
        }
    }
    ~fake_endpoints() {
        for (auto& e : items_) UA_EndpointDescription_clear(&e);
    }
    fake_endpoints(const fake_endpoints&) = delete;
    fake_endpoints& operator=(const fake_endpoints&) = delete;

    const UA_EndpointDescription* data() const { return items_.data(); }
    std::size_t size() const { return items_.size(); }

private:
    std::vector<UA_EndpointDescription> items_;
};

endpoint_criteria criteria(int mode, std::string policy, const UA_DataType* identity = nullptr) {
    endpoint_criteria c;
    c.security_mode = mode;
    c.security_policy_uri = std::move(policy);
    c.available_policy_uris = {none_uri, basic_uri};
    c.identity_type = identity;
    return c;
}

const UA_DataType* user_name_identity() { return &UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN]; }

std::string to_std(const UA_String& s) { return std::string(reinterpret_cast<const char*>(s.data), s.length); }

using line = std::pair<liblog::severity, std::string>;

struct selection_case {
    const char* name;
    std::vector<endpoint_spec> endpoints;
    endpoint_criteria wanted;
    // Empty: no endpoint fits.
    std::string selected_url;
    std::vector<line> log;
};

const std::string ep_a = "opc.tcp://a:4840/";
const std::string ep_b = "opc.tcp://b:4840/";

std::string describe(const std::string& url, const std::string& mode, const std::string& policy) {
    return "Endpoint " + url + " with SecurityMode " + mode + " and SecurityPolicy " + policy;
}

std::vector<selection_case> selection_cases() {
    const line no_match{liblog::error, "No matching endpoint found"};
    return {
        {"EmptyListFails", {}, criteria(1, none_uri), "", {no_match}},
        {"HttpsProfileSkippedSilentlyEmptyProfileExamined",
         {{ep_a, 1, none_uri, {{0, ""}}, https_profile}, {ep_b, 1, none_uri, {{0, ""}}, ""}},
         criteria(1, none_uri),
         ep_b,
         {{liblog::info, "Selected " + describe(ep_b, "None", none_uri)},
          {liblog::info, "Selected identity token with UserTokenType Anonymous and SecurityPolicy "}}},
        {"SignAndEncryptAgainstNoneAndSignOnly",
         {{ep_a, 1, none_uri, {{0, ""}}}, {ep_b, 2, basic_uri, {{0, ""}}}},
         criteria(3, basic_uri),
         "",
         {{liblog::debug, "Rejecting " + describe(ep_a, "None", none_uri) + ": security mode doesn't match"},
          {liblog::debug, "Rejecting " + describe(ep_b, "Sign", basic_uri) + ": security mode doesn't match"},
          no_match}},
        {"SigningWithPolicyNoneFindsNoPolicy",
         {{ep_a, 2, basic_uri, {{0, ""}}}},
         criteria(2, none_uri),
         "",
         {{liblog::debug, "Rejecting " + describe(ep_a, "Sign", basic_uri) + ": security policy doesn't match"},
          no_match}},
        {"PolicyTheClientLacks",
         {{ep_a, 3, basic_uri, {{0, ""}}}, {ep_b, 1, none_uri, {{0, ""}}}},
         [] {
             auto c = criteria(0, "");
             c.available_policy_uris = {none_uri};
             return c;
         }(),
         ep_b,
         {{liblog::debug,
           "Rejecting " + describe(ep_a, "SignAndEncrypt", basic_uri) + ": security policy not available"},
          {liblog::info, "Selected " + describe(ep_b, "None", none_uri)},
          {liblog::info, "Selected identity token with UserTokenType Anonymous and SecurityPolicy "}}},
        {"EndpointWithoutTokensPassedOverWithoutLine",
         {{ep_a, 1, none_uri, {}}},
         criteria(1, none_uri),
         "",
         {no_match}},
        {"UserNameClientRejectsAnonymousThenTakesUserName",
         {{ep_a, 3, basic_uri, {{0, ""}, {1, basic_uri}}}},
         criteria(3, basic_uri, user_name_identity()),
         ep_a,
         {{liblog::debug, "Rejecting identity token with UserTokenType Anonymous and SecurityPolicy  in " +
                              describe(ep_a, "SignAndEncrypt", basic_uri) + ": configuration doesn't match"},
          {liblog::info, "Selected " + describe(ep_a, "SignAndEncrypt", basic_uri)},
          {liblog::info, "Selected identity token with UserTokenType UserName"}}},
        {"AnonymousClientTakesSecondTokenAnonymous",
         {{ep_a, 1, none_uri, {{1, basic_uri}, {0, ""}}}},
         criteria(1, none_uri),
         ep_a,
         {{liblog::debug, "Rejecting identity token with UserTokenType UserName in " +
                              describe(ep_a, "None", none_uri) + ": configuration doesn't match"},
          {liblog::info, "Selected " + describe(ep_a, "None", none_uri)},
          {liblog::info, "Selected identity token with UserTokenType Anonymous and SecurityPolicy "}}},
        {"TokenPolicyTheClientLacksButAnonymousIsNotAsked",
         {{ep_a, 1, none_uri, {{1, "urn:unknown#Policy"}}}, {ep_b, 1, none_uri, {{0, "urn:unknown#Policy"}}}},
         criteria(1, none_uri, user_name_identity()),
         "",
         {{liblog::debug, "Rejecting identity token with UserTokenType UserName in " +
                              describe(ep_a, "None", none_uri) + ": security policy not available"},
          {liblog::debug, "Rejecting identity token with UserTokenType Anonymous in " +
                              describe(ep_b, "None", none_uri) + ": configuration doesn't match"},
          no_match}},
        {"CertificateAndIssuedTokensNeedTheirOwnIdentity",
         {{ep_a, 1, none_uri, {{2, ""}, {3, ""}}}},
         criteria(1, none_uri, &UA_TYPES[UA_TYPES_ISSUEDIDENTITYTOKEN]),
         ep_a,
         {{liblog::debug, "Rejecting identity token with UserTokenType Certificate and SecurityPolicy  in " +
                              describe(ep_a, "None", none_uri) + ": configuration doesn't match"},
          {liblog::info, "Selected " + describe(ep_a, "None", none_uri)},
          {liblog::info, "Selected identity token with UserTokenType IssuedToken and SecurityPolicy "}}},
        {"FirstFittingEndpointWinsRegardlessOfStrength",
         {{ep_a, 1, none_uri, {{0, ""}}}, {ep_b, 1, none_uri, {{0, ""}}}},
         criteria(0, ""),
         ep_a,
         {{liblog::info, "Selected " + describe(ep_a, "None", none_uri)},
          {liblog::info, "Selected identity token with UserTokenType Anonymous and SecurityPolicy "}}},
    };
}

class EndpointSelection : public ::testing::TestWithParam<selection_case> {};

TEST_P(EndpointSelection, WritesExactLinesAndPicksTheFirstFit) {
    const selection_case& c = GetParam();
    fake_endpoints endpoints(c.endpoints);
    liblog::memory_logger log;
    if (c.selected_url.empty()) {
        EXPECT_THROW(client_open62541::select_endpoint(endpoints.data(), endpoints.size(), c.wanted, log),
                     opcua::exceptions::opcua_matching_endpoint_failed);
    } else {
        const UA_EndpointDescription chosen =
            client_open62541::select_endpoint(endpoints.data(), endpoints.size(), c.wanted, log);
        EXPECT_EQ(to_std(chosen.endpointUrl), c.selected_url);
    }
    const auto entries = log.entries();
    EXPECT_EQ(std::vector<line>(entries.begin(), entries.end()), c.log);
}

INSTANTIATE_TEST_SUITE_P(Cases, EndpointSelection, ::testing::ValuesIn(selection_cases()),
                         [](const ::testing::TestParamInfo<selection_case>& info) { return info.param.name; });

struct out_of_range_case {
    const char* name;
    std::vector<endpoint_spec> endpoints;
};

class EndpointSelectionBounds : public ::testing::TestWithParam<out_of_range_case> {};

// A value outside the name tables ends the whole selection, even before a later fit.
TEST_P(EndpointSelectionBounds, RaisesOutOfRange) {
    fake_endpoints endpoints(GetParam().endpoints);
    liblog::memory_logger log;
    EXPECT_THROW(client_open62541::select_endpoint(endpoints.data(), endpoints.size(), criteria(0, ""), log),
                 std::out_of_range);
    EXPECT_TRUE(log.entries().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EndpointSelectionBounds,
    ::testing::Values(out_of_range_case{"SecurityModeInvalid", {{ep_a, 0, none_uri, {{0, ""}}}, {ep_b, 1, none_uri, {{0, ""}}}}},
                      out_of_range_case{"SecurityModeBeyondTable", {{ep_a, 4, none_uri, {{0, ""}}}}},
                      out_of_range_case{"TokenTypeBeyondTable", {{ep_a, 1, none_uri, {{4, ""}, {0, ""}}}}}),
    [](const ::testing::TestParamInfo<out_of_range_case>& info) { return info.param.name; });

TEST(EndpointSelectionCriteria, ReadsModePolicyPoliciesAndIdentityOfTheConfiguration) {
    UA_ClientConfig config;
    std::memset(&config, 0, sizeof config);
    config.securityMode = UA_MESSAGESECURITYMODE_SIGN;
    config.securityPolicyUri = UA_STRING(const_cast<char*>(basic_uri.c_str()));
    UA_SecurityPolicy policies[2];
    std::memset(policies, 0, sizeof policies);
    policies[0].policyUri = UA_STRING(const_cast<char*>(none_uri.c_str()));
    policies[1].policyUri = UA_STRING(const_cast<char*>(basic_uri.c_str()));
    config.securityPolicies = policies;
    config.securityPoliciesSize = 2;

    endpoint_criteria anonymous = client_open62541::criteria_of(config);
    EXPECT_EQ(anonymous.security_mode, 2);
    EXPECT_EQ(anonymous.security_policy_uri, basic_uri);
    EXPECT_EQ(anonymous.available_policy_uris, (std::vector<std::string>{none_uri, basic_uri}));
    EXPECT_EQ(anonymous.identity_type, nullptr);

    UA_UserNameIdentityToken token;
    UA_UserNameIdentityToken_init(&token);
    UA_ExtensionObject_setValueNoDelete(&config.userIdentityToken, &token, &UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN]);
    EXPECT_EQ(client_open62541::criteria_of(config).identity_type, user_name_identity());
}

}  // namespace
