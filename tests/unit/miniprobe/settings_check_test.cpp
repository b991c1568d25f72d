// miniprobe judges --set values by the rules of the module's own definition document,
// as the probe does before a module sees them.
#include "settings_check.h"

#include <gtest/gtest.h>

#include <fstream>

namespace {

using miniprobe::assignment;

const miniprobe::ordered_json& definition() {
    static const auto document = [] {
        std::ifstream in(DEFINITION_JSON_PATH, std::ios::binary);
        return miniprobe::ordered_json::parse(std::string(std::istreambuf_iterator<char>(in), {}));
    }();
    return document;
}

const std::string port = "credentials.connection_opcua.port", mode = "credentials.connection_security.security_mode",
                  policy = "credentials.connection_security.security_policy",
                  key_password = "credentials.connection_security.client_key_password",
                  auth = "credentials.user_authentication.user_auth_mode", user = "credentials.user_authentication.user",
                  password = "credentials.user_authentication.password", channel = "custom.connection_custom.channel";
const std::string nodeid1 = channel + "1_nodeid=ns=2;s=Double";

// Each case: the sensor or check, its KEY=VALUE settings, the start of each refused line in
// order, pieces the refused lines hold, and pieces of the one warning of unused values.
struct verdict_case { const char* title; std::string entry; std::vector<std::string> sets, refused, contains, unused; };

const std::vector<verdict_case> cases = {
    {"every default of a check passes", "connection_check", {}, {}, {}, {}},
    {"the probe's own settings pass unjudged", "connection_check", {"host=::1", "timeout=x"}, {}, {}, {}},
    {"a number below the minimum", "connection_check", {port + "=0"}, {port + "=\"0\""}, {"must be at least 1"}, {}},
    {"an integer that is not one", "connection_check", {port + "=48.5"}, {port + "=\"48.5\""}, {"takes a whole number"}, {}},
    {"an integer of twenty digits", "connection_check", {port + "=99999999999999999999"}, {port}, {"19 digits"}, {}},
    {"a required setting left empty", "connection_check", {port + "="}, {port + "=\"\""}, {"Port is required"}, {}},
    {"an option that is not offered, with the nearest", "connection_check", {mode + "=signencrypt"}, {mode + "=\"signencrypt\""},
     {"takes \"none\", \"sign\" or \"sign_encrypt\"", "did you mean \"sign_encrypt\"?"}, {}},
    {"options are case-sensitive", "connection_check", {mode + "=sign", policy + "=basic256sha256"},
     {policy + "=\"basic256sha256\""}, {"did you mean \"Basic256Sha256\"?"}, {}},
    {"an option far from all gets no guess", "connection_check", {mode + "=encrypted-please"}, {mode}, {"takes \"none\""}, {}},
    {"a mistyped key names the nearest real one", "connection_check", {"credentials.connection_opcua.prot=1"},
     {"credentials.connection_opcua.prot: connection_check has no such setting; the nearest is " + port}, {}, {}},
    {"a bare setting name finds its full key", "connection_check", {"security_policy=none"},
     {"security_policy: connection_check has no such setting; the nearest is " + policy}, {}, {}},
    {"a setting of another sensor is no setting of a check", "connection_check", {nodeid1},
     {channel + "1_nodeid: connection_check has no such setting"}, {}, {}},
    {"a secret is never shown, only its length", "connection_check",
     {auth + "=username_password", user + "=operator", password + "=two\nlines"},
     {password + "=(secret of 9 characters)"}, {"takes one line"}, {}},
    {"the custom sensor needs its first node", "custom_sensor", {}, {channel + "1_nodeid=\"\""},
     {"Channel #1 NodeID is required"}, {}},
    {"a unit longer than its maximum length", "custom_sensor", {nodeid1, channel + "1_unit=" + std::string(44, 'u')},
     {channel + "1_unit=\"" + std::string(40, 'u') + "...\""}, {"takes at most 32 characters, not 44"}, {}},
    {"the maximum length counts characters, not bytes", "custom_sensor",
     {nodeid1, channel + "1_unit=" + [] { std::string s; for (int i = 0; i < 32; ++i) s += "\xC2\xB0"; return s; }()}, {}, {}, {}},
    {"decimal numbers in their usual forms pass", "custom_sensor", {nodeid1, channel + "1_scale_factor=0.1",
     channel + "2=enable", channel + "2_nodeid=ns=2;i=1", channel + "2_scale_factor=-1e-3"}, {}, {}, {}},
    {"a decimal comma is no number", "custom_sensor", {nodeid1, channel + "1_scale_factor=0,1"},
     {channel + "1_scale_factor=\"0,1\""}, {"takes a number such as 0.5"}, {}},
    {"nor is infinity", "custom_sensor", {nodeid1, channel + "1_scale_factor=inf"}, {channel + "1_scale_factor"}, {"takes a number"}, {}},
    {"an enabled channel needs its node", "custom_sensor", {nodeid1, channel + "2=enable"},
     {channel + "2_nodeid=\"\": Channel #2 NodeID is required while " + channel + "2 is \"enable\""}, {}, {}},
    {"a custom name counts through two settings", "custom_sensor",
     {nodeid1, channel + "2=enable", channel + "2_nodeid=ns=2;i=1", channel + "2_settings=manual"},
     {channel + "2_name=\"\": Channel #2 Name is required while " + channel + "2_settings is \"manual\""}, {}, {}},
    {"every refusal at once, in the definition's order", "custom_sensor", {channel + "1_scale_factor=x", port + "=abc"},
     {port + "=\"abc\"", channel + "1_scale_factor=\"x\"", channel + "1_nodeid"}, {}, {}},
    {"credentials without their method are not used", "connection_check", {user + "=operator", password + "=secret"}, {}, {},
     {user + " and " + password + " are set but not used", "only when " + auth + " is \"username_password\"",
      "it is \"anonymous\""}},
    {"a key password without security is not used", "connection_check", {key_password + "=pw"}, {}, {},
     {key_password + " is set but not used", "only when " + mode + " is \"sign\" or \"sign_encrypt\""}},
    {"a disabled channel's node is not used", "custom_sensor", {nodeid1, channel + "3_nodeid=ns=2;i=1"}, {}, {},
     {channel + "3_nodeid is set but not used", "only when " + channel + "3 is \"enable\", and it is \"disable\""}},
};

TEST(MiniprobeSettings, JudgedByTheDefinitionsRules) {
    for (const auto& c : cases) {
        SCOPED_TRACE(c.title);
        std::vector<assignment> sets;
        for (const auto& s : c.sets) sets.emplace_back(s.substr(0, s.find('=')), s.substr(s.find('=') + 1));
        const auto verdict = miniprobe::check_settings(c.entry, miniprobe::settings_of(definition(), c.entry), sets);
        ASSERT_EQ(verdict.refused.size(), c.refused.size()) << ::testing::PrintToString(verdict.refused);
        std::string all;
        for (std::size_t i = 0; i < c.refused.size(); ++i) {
            EXPECT_EQ(verdict.refused[i].rfind(c.refused[i], 0), 0u) << verdict.refused[i];
            all += verdict.refused[i] + "\n";
        }
        for (const auto& piece : c.contains) EXPECT_NE(all.find(piece), std::string::npos) << piece << " in " << all;
        EXPECT_EQ(all.find("two\nlines"), std::string::npos);
        ASSERT_EQ(verdict.unused.size(), c.unused.empty() ? 0u : 1u) << ::testing::PrintToString(verdict.unused);
        for (const auto& piece : c.unused) EXPECT_NE(verdict.unused[0].find(piece), std::string::npos) << verdict.unused[0];
    }
}

}  // namespace
