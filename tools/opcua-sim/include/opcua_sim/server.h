#pragma once

// opcua-sim: an OPC UA server for tests, on open62541. It listens on 127.0.0.1 only and
// runs its loop on a thread of its own. Address spaces are added by setup functions that
// run at each start, and single variables by set_value, which the server remembers so
// that a restart brings them back.

#include "opcua_sim/certificate.h"

#include <open62541/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct UA_Server;

namespace opcua_sim {

enum class security_policy { none, basic256sha256 };
// Values as the standard's MessageSecurityMode.
enum class security_mode { none = 1, sign = 2, sign_and_encrypt = 3 };

struct endpoint_option {
    security_policy policy = security_policy::none;
    security_mode mode = security_mode::none;
    bool operator==(const endpoint_option& other) const {
        return policy == other.policy && mode == other.mode;
    }
};

// None, Basic256Sha256 Sign, Basic256Sha256 SignAndEncrypt, in this order.
std::vector<endpoint_option> all_endpoints();

std::string policy_uri(security_policy policy);

struct user_login {
    std::string name;
    std::string password;
};

struct certificate_options {
    // When both are set, the server uses them instead of making its own certificate.
    std::string certificate_pem;
    std::string private_key_pem;
    std::string private_key_password;
    // For the certificate the server makes itself; its URI is the application URI.
    certificate_request generate;
};

// Runs on the server before it listens, at every start. Raise to fail the start.
using address_space_setup = std::function<void(UA_Server*)>;

struct options {
    // 0 picks a free port at the first start; later starts keep it.
    std::uint16_t port = 0;
    // Path of the endpoint URL, without the leading "/"; may be empty.
    std::string path;
    std::string application_uri = "urn:opcua-sim:server";
    std::string application_name = "opcua-sim";
    std::vector<endpoint_option> endpoints = all_endpoints();
    bool allow_anonymous = true;
    std::vector<user_login> users;
    certificate_options certificate;
    // Namespaces from index 2 on, in this order.
    std::vector<std::string> namespace_uris;
    std::vector<address_space_setup> address_spaces;
    // Like a plant server that trusts no client certificate until an operator accepts
    // it: secure channels (Sign, SignAndEncrypt) are refused, None channels and so
    // GetEndpoints over None still work.
    bool strict = false;
    // Log of the stack from level info on; otherwise only warnings and worse.
    bool verbose = false;
    // Where the log goes, appended to; empty for standard error. "/dev/null" silences it.
    std::string log_file;
};

class server {
public:
    explicit server(options opts);
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    // Builds the server, runs the address space setups, restores the variables set so
    // far, listens, and starts the loop thread. Returns when the server listens.
    // Raises std::runtime_error (or what a setup raised) and then stays stopped.
    void start();
    // Closes all connections and ends the loop thread. Does nothing when stopped.
    void stop();
    bool running() const;

    // The port in use; 0 before the first start.
    std::uint16_t port() const;
    // opc.tcp://127.0.0.1:<port>/<path>
    std::string endpoint_url() const;
    const options& settings() const { return options_; }
    // The server's certificate in DER; empty before the first start. It is made once
    // and kept across restarts.
    bytes certificate_der() const;

    // Writes the value of the variable with the id in the standard's text form
    // ("ns=2;s=Name", "ns=1;i=7"). A missing variable is made under the Objects folder,
    // readable and writeable, with the value's data type and rank; one whose type does
    // not fit the value is replaced. Remembered across restarts; while stopped, only
    // remembered. Raises std::invalid_argument for a bad id, std::runtime_error when
    // the server refuses.
    void set_value(const std::string& node_id, const UA_Variant& value);
    // Reads a value from the running server into `out`, which the caller clears.
    UA_StatusCode read_value(const std::string& node_id, UA_Variant* out) const;

    // Ends all sessions (their channels stay open), as a server restart would for the
    // client. Returns how many were ended.
    std::size_t end_sessions();
    std::size_t session_count() const;

    // Runs `action` with the running server; its UA_Server calls are thread-safe.
    // Raises std::logic_error when stopped.
    void with_server(const std::function<void(UA_Server*)>& action);

private:
    struct variant_value;
    struct access_control_hooks;

    void prepare_certificate();
    UA_Server* build(std::uint16_t port);
    void populate(UA_Server* ua);
    void apply_value(UA_Server* ua, const std::string& node_id, const UA_Variant& value);
    void loop();

    options options_;
    mutable std::mutex lifecycle_;   // guards everything below except the session list
    UA_Server* server_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::uint16_t port_ = 0;
    certificate_material certificate_;
    std::map<std::string, std::shared_ptr<variant_value>> values_;
    std::unique_ptr<access_control_hooks> hooks_;
};

} // namespace opcua_sim
