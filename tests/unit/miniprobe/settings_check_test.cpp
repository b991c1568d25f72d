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
// order (unknown keys, then broken rules by key, then required settings that count and stay
// empty, in the definition's order), pieces the refused lines hold ("!": must not), and the warnings of
// values given for settings that do not count, one for each setting that decides.
struct verdict_case { const char* title; std::string entry; std::vector<std::string> sets, refused, contains, unused; };

const std::vector<verdict_case> cases = {
    {"defaults pass, and the probe's own settings pass unjudged", "connection_check", {"host=::1", "timeout=x"}, {}, {}, {}},
    {"unknown keys name the nearest real one, then each value its rule", "connection_check",
     {"credentials.connection_opcua.prot=1", "security_policy=none", nodeid1, port + "=48.5", mode + "=signencrypt"},
     {"credentials.connection_opcua.prot: connection_check has no such setting; the nearest is " + port,
      "security_policy: connection_check has no such setting; the nearest is " + policy,
      channel + "1_nodeid: connection_check has no such setting", port + "=\"48.5\"", mode + "=\"signencrypt\""},
     {"takes a whole number", "takes \"none\", \"sign\" or \"sign_encrypt\"", "did you mean \"sign_encrypt\"?"}, {}},
    {"below the minimum, and an option far from all gets no guess", "connection_check", {port + "=0", mode + "=encrypted-please"},
     {port + "=\"0\"", mode}, {"must be at least 1", "takes \"none\"", "!did you mean"}, {}},
    {"twenty digits, and options are case-sensitive", "connection_check",
     {port + "=99999999999999999999", mode + "=sign", policy + "=basic256sha256"}, {port, policy + "=\"basic256sha256\""},
     {"19 digits", "did you mean \"Basic256Sha256\"?"}, {}},
    {"a secret is shown by its length only, and a required setting left empty", "connection_check",
     {port + "=", auth + "=username_password", user + "=operator", password + "=two\nlines"},
     {password + "=(secret of 9 characters)", port + "=\"\""}, {"takes one line", "Port is required"}, {}},
    {"credentials without their method and a key password without security are not used", "connection_check",
     {user + "=operator", password + "=secret", key_password + "=pw"}, {}, {},
     {key_password + " is set but not used: it counts only when " + mode + " is \"sign\" or \"sign_encrypt\", and it is \"none\"",
      user + " and " + password + " are set but not used: they count only when " + auth +
          " is \"username_password\", and it is \"anonymous\""}},
    {"the custom sensor needs its first node", "custom_sensor", {}, {channel + "1_nodeid=\"\""}, {"Channel #1 NodeID is required"}, {}},
    {"a decimal comma is no number, a unit has a maximum length, a disabled channel's node is not used", "custom_sensor",
     {nodeid1, channel + "1_scale_factor=0,1", channel + "1_unit=" + std::string(44, 'u'), channel + "4_nodeid=ns=2;i=1"},
     {channel + "1_scale_factor=\"0,1\"", channel + "1_unit=\"" + std::string(40, 'u') + "...\""},
     {"takes a number such as 0.5", "takes at most 32 characters, not 44"},
     {channel + "4_nodeid is set but not used: it counts only when " + channel + "4 is \"enable\", and it is \"disable\""}},
    {"decimals in their usual forms pass, and a length counts characters, not bytes", "custom_sensor",
     {nodeid1, channel + "1_scale_factor=0.1", channel + "2=enable", channel + "2_nodeid=ns=2;i=1", channel + "2_scale_factor=-1e-3",
      channel + "1_unit=" + [] { std::string s; for (int i = 0; i < 32; ++i) s += "\xC2\xB0"; return s; }()}, {}, {}, {}},
    {"infinity is no number, and enabled channels need a node and a custom name", "custom_sensor",
     {nodeid1, channel + "1_scale_factor=inf", channel + "2=enable", channel + "3=enable", channel + "3_nodeid=ns=2;i=1",
      channel + "3_settings=manual"},
     {channel + "1_scale_factor", channel + "2_nodeid=\"\": Channel #2 NodeID is required while " + channel + "2 is \"enable\"",
      channel + "3_name=\"\": Channel #3 Name is required while " + channel + "3_settings is \"manual\""}, {"takes a number"}, {}},
    {"every refusal at once", "custom_sensor", {channel + "1_scale_factor=x", port + "=abc"},
     {port + "=\"abc\"", channel + "1_scale_factor=\"x\"", channel + "1_nodeid"}, {}, {}},
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
        for (const auto& piece : c.contains)  // "!": a piece that must not be there
            EXPECT_EQ(piece[0] == '!', all.find(piece.substr(piece[0] == '!')) == std::string::npos) << piece << " in " << all;
        EXPECT_EQ(all.find("two\nlines"), std::string::npos);
        EXPECT_EQ(verdict.unused, c.unused);
    }
}

}  // namespace
