#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <open62541/client.h>
#include <open62541/types.h>

#include "client/client_interface.h"
#include "client/nodes_open62541.h"
#include "client/client_settings.h"
#include "client/server_certificate_info.h"
#include "libcertificatehelper/source/allocator.h"
#include "liblog/log.h"
#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::opcua {

// What endpoint selection reads of a client's configuration. Kept apart from the
// library's configuration so that the selection rules can be exercised on their own.
struct endpoint_criteria {
    // MessageSecurityMode the client asks for; 0 (invalid) accepts any.
    int security_mode = 0;
    // Empty accepts any policy.
    std::string security_policy_uri;
    // URIs of the security policies the client can speak.
    std::vector<std::string> available_policy_uris;
    // Type of the configured identity token; null when none is configured (anonymous).
    const UA_DataType* identity_type = nullptr;
};

// What the stack's log callback reaches: the client's log, and the lines of the client
// operation under way. A request that times out makes the stack write hundreds of lines
// while it waits; past a bound, an operation's further lines are counted, not written.
struct stack_line_gate {
    liblog::log_interface* log = nullptr;
    unsigned lines = 0;
    unsigned left_out = 0;
    int depth = 0;
    // Where a line is expanded, and the line handed to the log.
    char text[1024];
    std::string line;
};

// A client_interface on one UA_Client of open62541. A session that is found gone is
// never repaired: the whole UA_Client is replaced by a new one built from the settings.
class client_open62541 final : public client_interface {
public:
    client_open62541(const client_settings& settings,
                     std::weak_ptr<libvurohelper::module::service_container> services);
    ~client_open62541() override;

    client_open62541(const client_open62541&) = delete;
    client_open62541& operator=(const client_open62541&) = delete;

    const client_settings& get_settings() const override;
    bool is_connected() const override;
    bool validate_endpoint() override;
    void connect() override;
    server_certificate_info get_server_certificate_info() override;
    void write_node_value(const std::shared_ptr<writeable_variable_node_interface>& node) override;
    void read_node(const std::shared_ptr<generic_node_interface>& node) override;
    void read_node(const std::vector<std::shared_ptr<generic_node_interface>>& nodes) override;
    void add_logger(const std::shared_ptr<liblog::log_interface>& log, liblog::severity limit) override;
    void remove_logger(const std::shared_ptr<liblog::log_interface>& log) override;
    bool test_connection() override;

    // "opc.tcp://" host ":" port "/" path; the "/" stays even with an empty path.
    static std::string build_url(const client_settings& settings);

    // The selection's view of a library configuration.
    static endpoint_criteria criteria_of(const UA_ClientConfig& config);

    // The first endpoint, in the server's order, with a user token that fits the
    // criteria. Returns a shallow copy that points into `endpoints`. Raises
    // opcua_matching_endpoint_failed, or std::out_of_range for a security mode or
    // token type outside the standard's range.
    static UA_EndpointDescription select_endpoint(const UA_EndpointDescription* endpoints, std::size_t count,
                                                  const endpoint_criteria& criteria, liblog::log_interface& log);

private:
    // An endpoint array as the library hands it out, released on every way out.
    struct endpoint_array {
        UA_EndpointDescription* data = nullptr;
        std::size_t size = 0;
        endpoint_array() = default;
        endpoint_array(const endpoint_array&) = delete;
        endpoint_array& operator=(const endpoint_array&) = delete;
        ~endpoint_array();
    };

    // Counts the stack's lines of one public operation; nested operations share it.
    class operation;
    void open_session();
    // Raises what a request's bad service result means: a lost connection (retried on a
    // new UA_Client), or `failure` with the status name.
    template <typename Failure>
    [[noreturn]] void raise_for_service(UA_StatusCode status, bool session_codes_lost);
    // A Read of the server's state, which every server has: proof that a session answers.
    void ping();
    std::uint32_t timeout_ms() const;
    UA_StatusCode request_endpoints(std::size_t& size, UA_EndpointDescription*& data);
    void read_once(const std::vector<std::shared_ptr<generic_node_interface>>& nodes);
    void write_once(const scalar_variable_node_open62541& node);
    void make_client();
    void configure_logging();
    void configure_security();
    void configure_generated_certificate();
    void configure_client_certificate();
    void configure_user_identity();
    void configure_application();
    std::string determine_application_uri() const;
    void log_security_policies();
    void fetch_endpoints(endpoint_array& endpoints);
    UA_EndpointDescription select_endpoint(const endpoint_array& endpoints);
    // Writes a + n + b, then m + c unless c is empty, at debug. Caller holds the mutex.
    void trace_line(const char* a, std::uint64_t n, const char* b, std::uint64_t m, const char* c);

    mutable std::recursive_mutex mutex_;
    std::shared_ptr<const libcertificatehelper::allocator> certificates_;
    client_settings settings_;
    std::weak_ptr<libvurohelper::module::service_container> services_;
    std::string endpoint_url_;
    std::shared_ptr<liblog::multiplex_logger> logger_;
    UA_Client* ua_client_ = nullptr;
    stack_line_gate stack_lines_;
    // The UA_Client's connection stayed silent past the timeout while the client's state
    // still shows it open: the next connect replaces it.
    bool discard_ = false;
    bool discard_after_timeout_ = false;
    // The UA_Client was built because its predecessor timed out, and has not answered
    // since. If it times out too, the server is slow, not the path dead: it stays.
    bool rebuilt_after_timeout_ = false;

    // One attribute of one node in a Read request. The caller's vector holds the node
    // for the length of the read.
    struct read_item {
        generic_node_open62541* node;
        std::uint32_t attribute;
    };
    // Kept from read to read, under the mutex, so that a scan allocates nothing for its request.
    std::vector<read_item> read_items_;
    std::vector<UA_ReadValueId> read_ids_;
    std::string trace_line_;
};

}  // namespace brenholt::monitoring_modules::opcua
