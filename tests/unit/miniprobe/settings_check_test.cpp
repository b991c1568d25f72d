// miniprobe judges --set values by the rules of the module's own definition document,
// as the probe does before a module sees them: one table of settings and what miniprobe
// says of them.
#include "settings_check.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace {

const std::string port = "credentials.connection_opcua.port", mode = "credentials.connection_security.security_mode",
                  policy = "credentials.connection_security.security_policy",
                  auth = "credentials.user_authentication.user_auth_mode", user = "credentials.user_authentication.user",
                  password = "credentials.user_authentication.password", channel = "custom.connection_custom.channel",
                  nodeid1 = channel + "1_nodeid=ns=2;s=Double";

TEST(MiniprobeSettings, JudgedByTheDefinitionsRules) {
    std::ifstream in(DEFINITION_JSON_PATH, std::ios::binary);
    const auto definition = miniprobe::ordered_json::parse(std::string(std::istreambuf_iterator<char>(in), {}));
    const std::string degrees = [] { std::string s; for (int i = 0; i < 32; ++i) s += "\xC2\xB0"; return s; }();
    const struct {
        std::string entry;
        std::vector<std::string> sets;  // KEY=VALUE
        std::size_t refused;            // lines refused, in the definition's order
        std::vector<std::string> says;  // pieces of the refused lines, then of the "not used" warning, in order
        bool unused = false;
    } cases[] = {
        {"connection_check", {"host=::1", "timeout=x"}, 0, {}},  // the probe's own, unjudged
        {"connection_check", {port + "=70000"}, 1, {port + "=\"70000\"", "Port must be at most 65535"}},
        {"connection_check", {port + "=0"}, 1, {"must be at least 1"}},
        {"connection_check", {port + "=48.5"}, 1, {"takes a whole number"}},
        {"connection_check", {port + "=99999999999999999999"}, 1, {"19 digits"}},
        {"connection_check", {port + "="}, 1, {"Port is required"}},
        {"connection_check", {mode + "=signencrypt"}, 1,
         {"takes \"none\", \"sign\" or \"sign_encrypt\"", "did you mean \"sign_encrypt\"?"}},
        {"connection_check", {mode + "=sign", policy + "=basic256sha256"}, 1, {"did you mean \"Basic256Sha256\"?"}},
        {"connection_check", {"credentials.connection_opcua.prot=1"}, 1, {"no such setting; the nearest is " + port}},
        {"connection_check", {"security_policy=none"}, 1, {"no such setting; the nearest is " + policy}},
        {"connection_check", {nodeid1}, 1, {channel + "1_nodeid: connection_check has no such setting"}},
        {"connection_check", {auth + "=username_password", user + "=operator", password + "=two\nlines"}, 1,
         {password + "=(secret of 9 characters)", "takes one line"}},
        {"custom_sensor", {}, 1, {"Channel #1 NodeID is required"}},
        {"custom_sensor", {nodeid1, channel + "1_unit=" + std::string(44, 'u')}, 1, {"takes at most 32 characters, not 44"}},
        {"custom_sensor", {nodeid1, channel + "1_unit=" + degrees}, 0, {}},
        {"custom_sensor", {nodeid1, channel + "1_scale_factor=-1e-3"}, 0, {}},
        {"custom_sensor", {nodeid1, channel + "1_scale_factor=0,1"}, 1, {"takes a number such as 0.5"}},
        {"custom_sensor", {nodeid1, channel + "1_scale_factor=inf"}, 1, {"takes a number"}},
        {"custom_sensor", {nodeid1, channel + "2=enable", channel + "2_nodeid=ns=2;i=1", channel + "2_settings=manual"}, 1,
         {"Channel #2 Name is required while " + channel + "2_settings is \"manual\""}},
        {"custom_sensor", {channel + "1_scale_factor=x", port + "=abc"}, 3,
         {port + "=\"abc\"", channel + "1_scale_factor=\"x\"", channel + "1_nodeid"}},
        {"connection_check", {user + "=operator", password + "=secret"}, 0,
         {user + " and " + password + " are set but not used", "only when " + auth + " is \"username_password\""}, true},
        {"custom_sensor", {nodeid1, channel + "3_nodeid=ns=2;i=1"}, 0,
         {"only when " + channel + "3 is \"enable\", and it is \"disable\""}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry + " " + ::testing::PrintToString(c.sets));
        std::vector<miniprobe::assignment> sets;
        for (const auto& s : c.sets) sets.emplace_back(s.substr(0, s.find('=')), s.substr(s.find('=') + 1));
        const auto verdict = miniprobe::check_settings(c.entry, miniprobe::settings_of(definition, c.entry), sets);
        EXPECT_EQ(verdict.refused.size(), c.refused) << ::testing::PrintToString(verdict.refused);
        EXPECT_EQ(verdict.unused.size(), c.unused ? 1u : 0u) << ::testing::PrintToString(verdict.unused);
        std::string said;
        for (const auto& line : verdict.refused) said += line + "\n";
        for (const auto& line : verdict.unused) said += line + "\n";
        std::size_t at = 0;
        for (const auto& piece : c.says) {
            at = said.find(piece, at);
            ASSERT_NE(at, std::string::npos) << piece << " in order in " << said;
        }
        EXPECT_EQ(said.find("two\nlines"), std::string::npos) << "a secret is shown by its length only";
    }
}

}  // namespace
