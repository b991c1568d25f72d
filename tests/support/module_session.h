#pragma once

// What every end-to-end suite needs: the built module loaded through dlopen as the
// probe does, a runtime and sensor log directory of its own, and sensor data with
// every credential setting at the definition's default.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libvurohelper/logging.h"
#include "probe_host.h"
#include "vuro.pb.h"

namespace test_support {

// Every setting a check or the three fixed sensors receive, for a server on loopback.
inline brenholt::vuro::wire::SensorData credential_data(const std::string& kind, int port) {
    brenholt::vuro::wire::SensorData d;
    d.set_kind(kind);
    for (const auto& [key, value] : std::initializer_list<std::pair<const char*, std::string>>{
             {"host", "127.0.0.1"}, {"logging", "disabled"}, {"interval", "60"}, {"timeout", "10"}, {"ipversion", "IPv4"},
             {"credentials.connection_opcua.port", std::to_string(port)}, {"credentials.connection_opcua.server_name", ""},
             {"credentials.connection_security.security_mode", "none"},
             {"credentials.connection_security.security_policy", "none"},
             {"credentials.connection_security.client_certificate", ""}, {"credentials.connection_security.client_key", ""},
             {"credentials.user_authentication.user_auth_mode", "anonymous"}, {"credentials.user_authentication.user", ""}})
        (*d.mutable_settings())[key] = value;
    for (const char* key : {"brenholtcloudapikey", "credentials.connection_security.client_key_password",
                            "credentials.user_authentication.password"})
        (*d.mutable_secure_settings())[key] = "";
    return d;
}

// Sets a value by key, as a secure value where the key is one.
inline void put(brenholt::vuro::wire::SensorData& d, const std::string& key, const std::string& value) {
    (*(d.secure_settings().count(key) ? d.mutable_secure_settings() : d.mutable_settings()))[key] = value;
}

inline std::vector<std::string> read_lines(const std::filesystem::path& file) {
    std::vector<std::string> lines;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A test with the module initialised and its logs in a directory of the test's own.
class module_session : public ::testing::Test {
protected:
    void SetUp() override {
        log_dir_ = std::filesystem::temp_directory_path() /
                   ("opcua-test-" + std::to_string(::getpid()) + "-" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(log_dir_);
        std::filesystem::create_directories(log_dir_);
        setenv("VURO_LOG_DIR", log_dir_.c_str(), 1);
        host_ = std::make_unique<miniprobe::probe_host>(OPCUA_MODULE_PATH);
        ASSERT_EQ(host_->initialize(), 0);
    }
    void TearDown() override {
        if (host_) host_->cleanup();
        host_.reset();
        unsetenv("VURO_LOG_DIR");
        std::filesystem::remove_all(log_dir_);
    }

    // The logs write out by themselves a moment later; a test reads them at once.
    std::vector<std::string> runtime_log() const {
        brenholt::monitoring_modules::libvurohelper::logging::flush_file_logs();
        return read_lines(log_dir_ / "runtime.log");
    }
    std::vector<std::string> sensor_log(int id) const {
        brenholt::monitoring_modules::libvurohelper::logging::flush_file_logs();
        return read_lines(log_dir_ / ("sensor_" + std::to_string(id) + ".log"));
    }

    std::filesystem::path log_dir_;
    std::unique_ptr<miniprobe::probe_host> host_;
};

}  // namespace test_support
