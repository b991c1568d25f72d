#pragma once

// What both check suites (opcua-sim and node-opcua) share: settings for each security
// mode and user, and a table of checks run through the module, each compared with its
// outcome and the EMERGENCY line it adds to the runtime log.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/module_session.h"
#include "support/test_pki.h"

namespace integration {

using settings_map = std::map<std::string, std::string>;

constexpr const char* connect_failed = "The sensor could not connect to the OPC UA server (";
constexpr const char* no_endpoint = "could not find the endpoint on the OPC UA server";

// A signing mode brings a client certificate, made once because RSA keys are slow.
inline settings_map security(const std::string& mode, const std::string& policy) {
    namespace pki = brenholt::monitoring_modules::test_pki;
    static const std::string password = "client-key-pw";
    static const std::pair<std::string, std::string> identity = [] {
        pki::cert_profile profile = pki::leaf_profile("kolv-test-client");
        profile.subject_alt_names = {"URI:urn:kolv:test-client"};
        const pki::cert c = pki::make_cert(profile);
        return std::make_pair(c.pem(), c.key().private_pem_encrypted(password));
    }();
    settings_map s{{"credentials.connection_security.security_mode", mode},
                   {"credentials.connection_security.security_policy", policy}};
    if (mode != "none") {
        s["credentials.connection_security.client_certificate"] = identity.first;
        s["credentials.connection_security.client_key"] = identity.second;
        s["credentials.connection_security.client_key_password"] = password;
    }
    return s;
}

inline settings_map with_user(settings_map s, const std::string& user, const std::string& password) {
    s["credentials.user_authentication.user_auth_mode"] = "username_password";
    s["credentials.user_authentication.user"] = user;
    s["credentials.user_authentication.password"] = password;
    return s;
}

// `emergency` empty: the check adds no EMERGENCY line; otherwise exactly one, containing it.
struct check_case {
    std::string name;
    std::string check;
    settings_map settings;
    bool success;
    std::string emergency;
};

class check_session : public test_support::module_session {
protected:
    void run_checks(int port, const std::vector<check_case>& cases) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name + " (" + c.check + ")");
            auto data = test_support::credential_data(c.check, port);
            for (const auto& [key, value] : c.settings) test_support::put(data, key, value);
            EXPECT_EQ(host_->check(3, data), 0);
            int results = 0;
            for (const auto& m : host_->take_messages()) {
                if (m.type != "CHECK_RESULT") continue;
                ++results;
                EXPECT_EQ(m.body.at("check_id"), 3);
                EXPECT_EQ(m.body.at("success"), c.success);
            }
            EXPECT_EQ(results, 1);
            // A failed check's text goes to the runtime log only, inside the call's banners
            // and after the check's own first line; the log holds text only.
            const std::vector<std::string> lines = runtime_log();
            std::vector<std::string> added;
            std::vector<std::string> frame;
            for (std::size_t i = lines_seen_; i < lines.size(); ++i) {
                const std::string& line = lines[i];
                EXPECT_EQ(line.find('\0'), std::string::npos) << "a zero byte in the log: " << line;
                const auto at = line.find(" EMERGENCY ");
                if (at != std::string::npos) {
                    added.push_back(line.substr(at + 11));
                    frame.push_back("EMERGENCY");
                }
                for (const char* mark : {"### Begin execute_check ###", "Initialize: ", "### End   execute_check ###"})
                    if (line.find(mark) != std::string::npos) frame.push_back(mark);
            }
            lines_seen_ = lines.size();
            std::vector<std::string> expected{"### Begin execute_check ###", "Initialize: "};
            if (!c.emergency.empty()) expected.push_back("EMERGENCY");
            expected.push_back("### End   execute_check ###");
            EXPECT_EQ(frame, expected);
            EXPECT_EQ(added.size(), c.emergency.empty() ? 0u : 1u);
            for (const auto& line : added) EXPECT_NE(line.find(c.emergency), std::string::npos) << line;
        }
    }

private:
    std::size_t lines_seen_ = 0;
};

}  // namespace integration
