// Endpoint selection on hand-made endpoint lists: every rejection line, the order of the
// checks, and the bounds of the two name tables, without a server.

#include "client/client_open62541.h"
#include "client/exceptions.h"

#include <gtest/gtest.h>

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
const std::string https_profile = "http://opcfoundation.org/UA-Profile/Transport/https-uabinary";
const std::string binary_profile = "http://opcfoundation.org/UA-Profile/Transport/uatcp-uasc-uabinary";

struct endpoint_row {
    std::string url;
    int mode;
    std::string policy_uri;
    std::vector<std::pair<int, std::string>> tokens;  // type and policy URI
    std::string profile = binary_profile;
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
            const auto& tokens = rows[i].tokens;
            e.userIdentityTokensSize = tokens.size();
            e.userIdentityTokens = static_cast<UA_UserTokenPolicy*>(
                UA_Array_new(tokens.size(), &UA_TYPES[UA_TYPES_USERTOKENPOLICY]));
            for (std::size_t t = 0; t < tokens.size(); ++t) {
                e.userIdentityTokens[t].tokenType = static_cast<UA_UserTokenType>(tokens[t].first);
                e.userIdentityTokens[t].securityPolicyUri = UA_String_fromChars(tokens[t].second.c_str());
            }
        }
    }
    ~fake_endpoints() {
        for (auto& e : items) UA_EndpointDescription_clear(&e);
    }
};

endpoint_criteria criteria(int mode, std::string policy, int identity = -1,
                           std::vector<std::string> available = {none_uri, basic_uri}) {
    endpoint_criteria c;
    c.security_mode = mode;
    c.security_policy_uri = std::move(policy);
    c.available_policy_uris = std::move(available);
    c.identity_type = identity < 0 ? nullptr : &UA_TYPES[identity];
    return c;
}

using line = std::pair<liblog::severity, std::string>;
enum class outcome { selected, no_match, out_of_range };

struct selection_case {
    const char* name;
    std::vector<endpoint_row> endpoints;
    endpoint_criteria wanted;
    outcome result;
    std::string selected_url;
    std::vector<line> log;
};

const std::string ep_a = "opc.tcp://a:4840/";
const std::string ep_b = "opc.tcp://b:4840/";

std::string describe(const std::string& url, const std::string& mode, const std::string& policy) {
    return "Endpoint " + url + " with SecurityMode " + mode + " and SecurityPolicy " + policy;
}
line rejected(const std::string& what, const std::string& why) {
    return {liblog::debug, "Rejecting " + what + ": " + why};
}
line selected(const std::string& what) { return {liblog::info, "Selected " + what}; }

std::vector<selection_case> selection_cases() {
    const line no_match{liblog::error, "No matching endpoint found"};
    const line anonymous = selected("identity token with UserTokenType Anonymous and SecurityPolicy ");
    const auto user_name = UA_TYPES_USERNAMEIDENTITYTOKEN;
    return {
        {"HttpsProfileSkippedSilentlyEmptyProfileExamined",
         {{ep_a, 1, none_uri, {{0, ""}}, https_profile}, {ep_b, 1, none_uri, {{0, ""}}, ""}},
         criteria(1, none_uri), outcome::selected, ep_b,
         {selected(describe(ep_b, "None", none_uri)), anonymous}},
        {"SignAndEncryptAgainstNoneAndSignOnly",
         {{ep_a, 1, none_uri, {{0, ""}}}, {ep_b, 2, basic_uri, {{0, ""}}}},
         criteria(3, basic_uri), outcome::no_match, "",
         {rejected(describe(ep_a, "None", none_uri), "security mode doesn't match"),
          rejected(describe(ep_b, "Sign", basic_uri), "security mode doesn't match"), no_match}},
        {"SigningWithPolicyNoneFindsNoPolicy",
         {{ep_a, 2, basic_uri, {{0, ""}}}},
         criteria(2, none_uri), outcome::no_match, "",
         {rejected(describe(ep_a, "Sign", basic_uri), "security policy doesn't match"), no_match}},
        {"PolicyTheClientLacks",
         {{ep_a, 3, basic_uri, {{0, ""}}}, {ep_b, 1, none_uri, {{0, ""}}}},
         criteria(0, "", -1, {none_uri}), outcome::selected, ep_b,
         {rejected(describe(ep_a, "SignAndEncrypt", basic_uri), "security policy not available"),
          selected(describe(ep_b, "None", none_uri)), anonymous}},
        {"EndpointWithoutTokensPassedOverWithoutLine",
         {{ep_a, 1, none_uri, {}}}, criteria(1, none_uri), outcome::no_match, "", {no_match}},
        // No fall-back from user name to anonymous.
        {"UserNameClientRejectsAnonymousThenTakesUserName",
         {{ep_a, 3, basic_uri, {{0, ""}, {1, basic_uri}}}},
         criteria(3, basic_uri, user_name), outcome::selected, ep_a,
         {rejected("identity token with UserTokenType Anonymous and SecurityPolicy  in " +
                       describe(ep_a, "SignAndEncrypt", basic_uri), "configuration doesn't match"),
          selected(describe(ep_a, "SignAndEncrypt", basic_uri)),
          selected("identity token with UserTokenType UserName")}},
        {"AnonymousClientTakesSecondTokenAnonymous",
         {{ep_a, 1, none_uri, {{1, basic_uri}, {0, ""}}}},
         criteria(1, none_uri), outcome::selected, ep_a,
         {rejected("identity token with UserTokenType UserName in " + describe(ep_a, "None", none_uri),
                   "configuration doesn't match"),
          selected(describe(ep_a, "None", none_uri)), anonymous}},
        {"TokenPolicyTheClientLacksButAnonymousIsNotAsked",
         {{ep_a, 1, none_uri, {{1, "urn:unknown#Policy"}}}, {ep_b, 1, none_uri, {{0, "urn:unknown#Policy"}}}},
         criteria(1, none_uri, user_name), outcome::no_match, "",
         {rejected("identity token with UserTokenType UserName in " + describe(ep_a, "None", none_uri),
                   "security policy not available"),
          rejected("identity token with UserTokenType Anonymous in " + describe(ep_b, "None", none_uri),
                   "configuration doesn't match"),
          no_match}},
        {"CertificateAndIssuedTokensNeedTheirOwnIdentity",
         {{ep_a, 1, none_uri, {{2, ""}, {3, ""}}}},
         criteria(1, none_uri, UA_TYPES_ISSUEDIDENTITYTOKEN), outcome::selected, ep_a,
         {rejected("identity token with UserTokenType Certificate and SecurityPolicy  in " +
                       describe(ep_a, "None", none_uri), "configuration doesn't match"),
          selected(describe(ep_a, "None", none_uri)),
          selected("identity token with UserTokenType IssuedToken and SecurityPolicy ")}},
        {"FirstFittingEndpointWinsRegardlessOfStrength",
         {{ep_a, 1, none_uri, {{0, ""}}}, {ep_b, 3, basic_uri, {{0, ""}}}},
         criteria(0, ""), outcome::selected, ep_a,
         {selected(describe(ep_a, "None", none_uri)), anonymous}},
        // A value outside the name tables ends the whole selection, even before a later fit.
        {"SecurityModeInvalid", {{ep_a, 0, none_uri, {{0, ""}}}, {ep_b, 1, none_uri, {{0, ""}}}},
         criteria(0, ""), outcome::out_of_range, "", {}},
        {"TokenTypeBeyondTable", {{ep_a, 1, none_uri, {{4, ""}, {0, ""}}}}, criteria(0, ""), outcome::out_of_range,
         "", {}},
    };
}

class EndpointSelection : public ::testing::TestWithParam<selection_case> {};

TEST_P(EndpointSelection, WritesExactLinesAndPicksTheFirstFit) {
    const selection_case& c = GetParam();
    fake_endpoints endpoints(c.endpoints);
    liblog::memory_logger log;
    const auto select = [&] {
        return client_open62541::select_endpoint(endpoints.items.data(), endpoints.items.size(), c.wanted, log);
    };
    if (c.result == outcome::selected) {
        const UA_EndpointDescription chosen = select();
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(chosen.endpointUrl.data), chosen.endpointUrl.length),
                  c.selected_url);
    } else if (c.result == outcome::no_match) {
        EXPECT_THROW(select(), opcua::exceptions::opcua_matching_endpoint_failed);
    } else {
        EXPECT_THROW(select(), std::out_of_range);
    }
    const auto entries = log.entries();
    EXPECT_EQ(std::vector<line>(entries.begin(), entries.end()), c.log);
}

INSTANTIATE_TEST_SUITE_P(Cases, EndpointSelection, ::testing::ValuesIn(selection_cases()),
                         [](const ::testing::TestParamInfo<selection_case>& info) { return info.param.name; });

}  // namespace
