#include "client/client_open62541.h"

#include "client/nodes_open62541.h"
#include "client/server_probe.h"
#include "client/stack_line_format.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include <string.h>

#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/plugin/create_certificate.h>
#include <open62541/plugin/log.h>
#include <open62541/plugin/pki_default.h>

#include "client/exceptions.h"
#include "libcertificatehelper/source/exceptions.h"

namespace brenholt::monitoring_modules::opcua {

namespace {

const char* const policy_uri_none = "http://opcfoundation.org/UA/SecurityPolicy#None";
const char* const policy_uri_basic256sha256 = "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";
const char* const binary_transport_profile = "http://opcfoundation.org/UA-Profile/Transport/uatcp-uasc-uabinary";

// The ApplicationUri of a client that has no certificate of its own to take it from.
const char* const default_application_uri = "brenholt_opcua_sensor";

// Indexed by MessageSecurityMode - 1; at() refuses anything outside the standard's range.
const std::vector<std::string>& security_mode_names() {
    static const std::vector<std::string> names{"None", "Sign", "SignAndEncrypt"};
    return names;
}

// Indexed by UserTokenType.
const std::vector<std::string>& token_type_names() {
    static const std::vector<std::string> names{"Anonymous", "UserName", "Certificate", "IssuedToken"};
    return names;
}

std::string to_std(const UA_String& text) {
    if (text.length == 0 || text.data == nullptr) return {};
    return std::string(reinterpret_cast<const char*>(text.data), text.length);
}

// A view of a std::string for comparison; never to be cleared by the library.
UA_String view_of(const std::string& text) {
    UA_String out;
    out.length = text.size();
    out.data = reinterpret_cast<UA_Byte*>(const_cast<char*>(text.data()));
    return out;
}

bool same_string(const UA_String& a, const UA_String& b) {
    return UA_order(&a, &b, &UA_TYPES[UA_TYPES_STRING]) == UA_ORDER_EQ;
}

bool has_policy(const endpoint_criteria& criteria, const UA_String& uri) {
    return std::any_of(criteria.available_policy_uris.begin(), criteria.available_policy_uris.end(),
                       [&](const std::string& own) { return same_string(view_of(own), uri); });
}

bool token_fits_identity(UA_UserTokenType type, const UA_DataType* identity) {
    switch (type) {
        case UA_USERTOKENTYPE_ANONYMOUS:
            return identity == nullptr || identity == &UA_TYPES[UA_TYPES_ANONYMOUSIDENTITYTOKEN];
        case UA_USERTOKENTYPE_USERNAME:
            return identity == &UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN];
        case UA_USERTOKENTYPE_CERTIFICATE:
            return identity == &UA_TYPES[UA_TYPES_X509IDENTITYTOKEN];
        case UA_USERTOKENTYPE_ISSUEDTOKEN:
            return identity == &UA_TYPES[UA_TYPES_ISSUEDIDENTITYTOKEN];
        default:
            return false;
    }
}

// Channel open, session activated and no failure recorded: anything else needs a new session.
bool session_active(UA_Client* client) {
    auto channel = static_cast<UA_SecureChannelState>(0);
    auto session = static_cast<UA_SessionState>(0);
    UA_StatusCode status = 0;
    UA_Client_getState(client, &channel, &session, &status);
    return channel == UA_SECURECHANNELSTATE_OPEN && session == UA_SESSIONSTATE_ACTIVATED &&
           status == UA_STATUSCODE_GOOD;
}

// The stack's own lines all go to the client's log at debug, whatever their level: they
// are trace for whoever reads the sensor log, not findings of the sensor. Every line is
// expanded, since no log can say whether it keeps it, so the expansion allocates
// nothing: the client keeps its line and its buffer from one line to the next.
// The stack announces each read from a connection socket with this line, and reads right
// after it. open62541 1.4 takes a read of 0 bytes, the peer's end of the connection, for
// "try again later" when errno still holds EAGAIN from an earlier call: the socket stays
// readable, and the client spins until its request times out, writing two lines a turn.
// With errno cleared here, that read closes the connection as it should.
constexpr char receive_line[] = "TCP %u\t| Allocate receive buffer";

// Lines of the stack one attempt of a client operation writes at most; a connect with
// its request writes under 200, a request that waits out its time-out thousands.
constexpr unsigned max_stack_lines = 200;

void write_stack_line(stack_line_gate& gate, const char* format, va_list args);

// Copies `length` bytes into `line`, whose storage is kept from one line to the next.
void set_line(std::string& line, const char* text, std::size_t length) {
    if (length > line.size()) line.resize(length);
    std::memcpy(line.data(), text, length);
    line.resize(length);
}

void forward_stack_line(void* context, UA_LogLevel, UA_LogCategory, const char* format, va_list args) {
    // Our writing must not change what the stack finds in errno after its log call.
    const int saved_errno = errno;
    if (context != nullptr) write_stack_line(*static_cast<stack_line_gate*>(context), format, args);
    errno = std::strcmp(format, receive_line) == 0 ? 0 : saved_errno;
}

void write_stack_line(stack_line_gate& gate, const char* format, va_list args) {
    if (gate.log == nullptr) return;
    if (gate.lines >= max_stack_lines) {
        ++gate.left_out;
        return;
    }
    ++gate.lines;
    // The gate's buffers serve one line after the other: the stack logs only inside the
    // client's calls, which hold the client's mutex.
    static constexpr char prefix[] = "OPC UA Client: ";
    constexpr std::size_t prefix_length = sizeof prefix - 1;
    char* const text = gate.text;
    if (gate.line.capacity() < sizeof gate.text) {
        std::memcpy(text, prefix, prefix_length);
        gate.line.reserve(sizeof gate.text);
    }
    constexpr std::size_t room = sizeof gate.text - prefix_length;
    int length = format_stack_line(text + prefix_length, room, format, args);
    if (length < 0) {
        va_list first;
        va_copy(first, args);
        length = std::vsnprintf(text + prefix_length, room, format, first);
        va_end(first);
    }
    if (length < 0) return;
    const auto expanded = static_cast<std::size_t>(length);
    // The terminating zero of the expansion stays part of the line.
    if (expanded < room) {
        set_line(gate.line, text, prefix_length + expanded + 1);
    } else {
        gate.line.assign(prefix_length + expanded + 1, '\0');
        std::memcpy(gate.line.data(), prefix, prefix_length);
        std::vsnprintf(gate.line.data() + prefix_length, expanded + 1, format, args);
    }
    gate.log->write(liblog::debug, gate.line);
}

// Zeroes a buffer that held secret material before it is released; explicit_bzero is
// not removed as a dead store the way a plain fill before a free can be.
template <typename Container>
void wipe(Container& buffer) {
    if (!buffer.empty()) explicit_bzero(buffer.data(), buffer.size() * sizeof(typename Container::value_type));
}

void wipe(UA_ByteString& bytes) {
    if (bytes.data != nullptr && bytes.length != 0) explicit_bzero(bytes.data, bytes.length);
}

// The password of a user-name identity dies with the configuration that holds it.
void wipe_identity(UA_Client* client) {
    if (client == nullptr) return;
    UA_ExtensionObject& identity = UA_Client_getConfig(client)->userIdentityToken;
    if (identity.encoding >= UA_EXTENSIONOBJECT_DECODED &&
        identity.content.decoded.type == &UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN] &&
        identity.content.decoded.data != nullptr)
        wipe(static_cast<UA_UserNameIdentityToken*>(identity.content.decoded.data)->password);
}

void delete_client(UA_Client* client) {
    if (client == nullptr) return;
    wipe_identity(client);
    UA_Client_delete(client);
}

// Without a callback of its own, the library asks for the password of a key it cannot
// read on the terminal of the probe, and blocks there. Our keys arrive decrypted, so a
// request for a password means the stack cannot use the key at all.
UA_StatusCode refuse_key_password(UA_ClientConfig*, UA_ByteString*) { return UA_STATUSCODE_BADSECURITYCHECKSFAILED; }

}  // namespace

class client_open62541::operation {
public:
    // Caller holds the client's mutex.
    explicit operation(client_open62541& client) : gate_(client.stack_lines_), log_(*client.logger_) {
        if (gate_.depth++ == 0) gate_.lines = gate_.left_out = 0;
    }
    ~operation() {
        if (--gate_.depth == 0) next_attempt();
    }
    // The retry of an operation gets lines of its own: it is the part worth reading.
    void next_attempt() {
        gate_.lines = 0;
        if (gate_.left_out == 0) return;
        const unsigned left_out = gate_.left_out;
        gate_.left_out = 0;
        log_.write(liblog::debug, "OPC UA Client: " + std::to_string(left_out) + " further lines of the stack left out.");
    }
    operation(const operation&) = delete;
    operation& operator=(const operation&) = delete;

private:
    stack_line_gate& gate_;
    liblog::log_interface& log_;
};

client_open62541::endpoint_array::~endpoint_array() {
    if (data != nullptr) UA_Array_delete(data, size, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
}

client_open62541::client_open62541(const client_settings& settings,
                                   std::weak_ptr<libvurohelper::module::service_container> services)
    : certificates_(libcertificatehelper::make_openssl_allocator()),
      settings_(settings),
      services_(std::move(services)),
      endpoint_url_(build_url(settings_)),
      logger_(std::make_shared<liblog::multiplex_logger>()) {
    stack_lines_.log = logger_.get();
}

client_open62541::~client_open62541() {
    delete_client(ua_client_);
    ua_client_ = nullptr;
}

std::string client_open62541::build_url(const client_settings& settings) {
    return "opc.tcp://" + settings.host + ":" + std::to_string(settings.port) + "/" + settings.server_path;
}

const client_settings& client_open62541::get_settings() const { return settings_; }

// Under the lock: another thread's make_client may be replacing the UA_Client. The
// mutex is recursive, so a caller that holds it already is not blocked.
bool client_open62541::is_connected() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (ua_client_ == nullptr || discard_) return false;
    return session_active(ua_client_);
}

void client_open62541::connect() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    operation op(*this);
    if (ua_client_ != nullptr && !discard_ && session_active(ua_client_)) return;
    open_session();
}

std::uint32_t client_open62541::timeout_ms() const {
    return static_cast<std::uint32_t>(settings_.timeout) * 1000u;
}

void client_open62541::open_session() {
    // A server that does not answer a new connection is not worth a new UA_Client: in
    // mode none that costs a 4096-bit key, for every scan while the server is down or hung.
    const UA_StatusCode reachable = probe_server(settings_.host, settings_.port, endpoint_url_, timeout_ms());
    if (reachable != UA_STATUSCODE_GOOD) throw exceptions::opcua_connection_failed(UA_StatusCode_name(reachable));
    const bool after_timeout = discard_after_timeout_;
    make_client();
    rebuilt_after_timeout_ = after_timeout;
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    config->noSession = false;
    UA_clear(&config->endpointUrl, &UA_TYPES[UA_TYPES_STRING]);
    config->endpointUrl = UA_String_fromChars(endpoint_url_.c_str());
    const UA_StatusCode status = __UA_Client_connect(ua_client_, false);
    // The unconnected client stays, so the next connect starts over with a new one.
    if (status != UA_STATUSCODE_GOOD) throw exceptions::opcua_connection_failed(UA_StatusCode_name(status));
}

void client_open62541::make_client() {
    UA_Client* fresh = UA_Client_new();
    if (fresh == nullptr) throw std::bad_alloc();
    // The new one is in place before the old one goes, so ua_client_ never dangles.
    UA_Client* old = std::exchange(ua_client_, fresh);
    // A silent connection would hold the old client's goodbye to its session for a whole
    // time-out: its channel is closed first, which sends nothing that waits for an answer.
    if (old != nullptr && discard_) UA_Client_disconnectSecureChannel(old);
    discard_ = discard_after_timeout_ = rebuilt_after_timeout_ = false;
    delete_client(old);
    // Set before any key reaches the library, so it never prompts.
    UA_Client_getConfig(ua_client_)->privateKeyPasswordCallback = refuse_key_password;

    configure_logging();
    configure_security();
    if (static_cast<int>(settings_.security_mode) == 0)
        configure_generated_certificate();
    else
        configure_client_certificate();
    configure_user_identity();
    configure_application();
    UA_Client_getConfig(ua_client_)->timeout =
        static_cast<UA_UInt32>(static_cast<std::uint32_t>(settings_.timeout) * 1000u);
    log_security_policies();
}

void client_open62541::configure_logging() {
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    // The logger structure is shared with the event loop, so it is changed in place.
    if (config->logging != nullptr) {
        UA_Logger* stack_log = config->logging;
        stack_log->log = forward_stack_line;
        stack_log->context = &stack_lines_;
    }
    auto services = services_.lock();
    if (!services) return;
    auto runtime_log = services->get_instance<liblog::log_interface>();
    if (runtime_log) logger_->add(runtime_log, liblog::debug);
}

void client_open62541::configure_security() {
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    const int mode = static_cast<int>(settings_.security_mode);
    const int policy = static_cast<int>(settings_.security_policy);

    // A signing mode with policy none is passed on as it is: no server offers it, and the
    // endpoint selection says so in its own words.
    UA_MessageSecurityMode library_mode = UA_MESSAGESECURITYMODE_NONE;
    const char* policy_uri = policy_uri_none;
    if (mode == 1 || mode == 2) {
        library_mode = mode == 1 ? UA_MESSAGESECURITYMODE_SIGN : UA_MESSAGESECURITYMODE_SIGNANDENCRYPT;
        if (policy == 1) policy_uri = policy_uri_basic256sha256;
    }
    config->securityMode = library_mode;
    UA_clear(&config->securityPolicyUri, &UA_TYPES[UA_TYPES_STRING]);
    config->securityPolicyUri = UA_String_fromChars(policy_uri);
}

void client_open62541::configure_generated_certificate() {
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);

    UA_KeyValueMap* parameters = UA_KeyValueMap_new();
    UA_ByteString private_key = UA_BYTESTRING_NULL;
    UA_ByteString certificate = UA_BYTESTRING_NULL;
    // Releases what the library allocated, on every way out.
    struct cleanup {
        UA_KeyValueMap*& parameters;
        UA_ByteString& private_key;
        UA_ByteString& certificate;
        ~cleanup() {
            wipe(private_key);
            UA_clear(&private_key, &UA_TYPES[UA_TYPES_BYTESTRING]);
            UA_clear(&certificate, &UA_TYPES[UA_TYPES_BYTESTRING]);
            UA_KeyValueMap_delete(parameters);
        }
    } guard{parameters, private_key, certificate};
    if (parameters == nullptr) throw std::bad_alloc();

    UA_UInt16 key_bits = 4096;
    UA_QualifiedName key_bits_name;
    key_bits_name.namespaceIndex = 0;
    key_bits_name.name = UA_STRING(const_cast<char*>("key-size-bits"));
    UA_KeyValueMap_setScalar(parameters, key_bits_name, &key_bits, &UA_TYPES[UA_TYPES_UINT16]);

    UA_String subject[3] = {UA_STRING(const_cast<char*>("C=DE")), UA_STRING(const_cast<char*>("O=BrenholtGmbH")),
                            UA_STRING(const_cast<char*>("CN=OpcUaSensor"))};
    UA_String alternative_names[1] = {UA_STRING(const_cast<char*>("URI:urn:kolv.opcua.sensor"))};

    UA_StatusCode status = UA_CreateCertificate(config->logging, subject, 3, alternative_names, 1,
                                                UA_CERTIFICATEFORMAT_PEM, parameters, &private_key, &certificate);
    if (status != UA_STATUSCODE_GOOD) {
        logger_->write(liblog::error, "failed to create certificate");
        throw exceptions::opcua_request_failed(UA_StatusCode_name(status));
    }

    status = UA_ClientConfig_setDefaultEncryption(config, certificate, private_key, nullptr, 0, nullptr, 0);
    if (status != UA_STATUSCODE_GOOD) {
        logger_->write(liblog::error, "failed to set default encryption");
        throw exceptions::opcua_request_failed(UA_StatusCode_name(status));
    }

    // The URI comes from configure_application; the server's certificate is never judged.
    UA_clear(&config->clientDescription.applicationUri, &UA_TYPES[UA_TYPES_STRING]);
    if (config->certificateVerification.clear != nullptr)
        config->certificateVerification.clear(&config->certificateVerification);
    UA_CertificateVerification_AcceptAll(&config->certificateVerification);
}

void client_open62541::configure_client_certificate() {
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);

    auto certificate = certificates_->make_certificate_from_pem(settings_.client_certificate);
    // Checked before the key is touched: without it the server cannot encrypt for us.
    if (!certificate->supports_data_encipherment())
        throw libcertificatehelper::exceptions::data_encipherment_not_supported();
    std::vector<std::uint8_t> certificate_der = certificate->to_der();

    std::string key_password = settings_.client_key_password.str();
    std::vector<std::uint8_t> key_der;
    try {
        auto key = certificates_->make_private_key(settings_.client_key, key_password);
        // Every security policy of OPC UA signs and encrypts with RSA; the stack cannot
        // read any other key, so it is refused here with words the user can act on.
        if (!key->is_rsa())
            throw libcertificatehelper::exceptions::could_not_load_private_key(
                "The key is not an RSA key, which OPC UA security requires.");
        key_der = key->to_der();
    } catch (...) {
        wipe(key_password);
        throw;
    }
    wipe(key_password);

    UA_ByteString certificate_bytes;
    certificate_bytes.length = certificate_der.size();
    certificate_bytes.data = certificate_der.data();
    UA_ByteString key_bytes;
    key_bytes.length = key_der.size();
    key_bytes.data = key_der.data();

    const UA_StatusCode status =
        UA_ClientConfig_setDefaultEncryption(config, certificate_bytes, key_bytes, nullptr, 0, nullptr, 0);
    wipe(key_der);
    if (status != UA_STATUSCODE_GOOD) {
        logger_->write(liblog::error, "failed to set default encryption");
        throw exceptions::opcua_request_failed(UA_StatusCode_name(status));
    }
    UA_CertificateVerification_AcceptAll(&config->certificateVerification);
}

void client_open62541::configure_user_identity() {
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    const int mode = static_cast<int>(settings_.user_auth_mode);
    if (mode == 1) {
        auto* token = static_cast<UA_UserNameIdentityToken*>(UA_new(&UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN]));
        if (token == nullptr) throw std::bad_alloc();
        token->userName = UA_String_fromChars(settings_.user.c_str());
        std::string password = settings_.password.str();
        token->password = UA_String_fromChars(password.c_str());
        wipe(password);
        // The configuration owns the token from here on.
        UA_clear(&config->userIdentityToken, &UA_TYPES[UA_TYPES_EXTENSIONOBJECT]);
        config->userIdentityToken.encoding = UA_EXTENSIONOBJECT_DECODED;
        config->userIdentityToken.content.decoded.type = &UA_TYPES[UA_TYPES_USERNAMEIDENTITYTOKEN];
        config->userIdentityToken.content.decoded.data = token;
    } else if (mode == 0) {
        // An empty identity token means an anonymous session; the result changes nothing here.
        (void)UA_ClientConfig_setDefault(config);
    }
}

void client_open62541::configure_application() {
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    UA_ApplicationDescription& description = config->clientDescription;
    description.applicationType = UA_APPLICATIONTYPE_CLIENT;
    UA_clear(&description.applicationName, &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]);
    description.applicationName.locale = UA_String_fromChars("en");
    description.applicationName.text = UA_String_fromChars(settings_.application_name.c_str());

    const std::string uri = determine_application_uri();
    logger_->write(liblog::info, "Using ApplicationUri: " + uri);
    UA_clear(&description.applicationUri, &UA_TYPES[UA_TYPES_STRING]);
    description.applicationUri = UA_String_fromChars(uri.c_str());
}

std::string client_open62541::determine_application_uri() const {
    if (settings_.client_certificate.empty()) return default_application_uri;
    auto certificate = certificates_->make_certificate_from_pem(settings_.client_certificate);
    const std::vector<std::string> uris = certificate->get_application_uris();
    if (uris.empty()) throw libcertificatehelper::exceptions::missing_application_uri();
    if (uris.size() > 1) {
        std::string joined;
        for (std::size_t i = 0; i < uris.size(); ++i) joined += (i == 0 ? "" : ", ") + uris[i];
        logger_->write(liblog::warning,
                       "Client certificate defines more than URI in subject alternative names. This might lead to "
                       "problems. Defined URIs are: " +
                           joined);
    }
    logger_->write(liblog::debug, "Available Subject Alternative Names: " + uris.front());
    return uris.front();
}

void client_open62541::log_security_policies() {
    const UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    std::string line = "Client has " + std::to_string(config->securityPoliciesSize) + " security policies available: ";
    for (std::size_t i = 0; i < config->securityPoliciesSize; ++i)
        line += to_std(config->securityPolicies[i].policyUri) + ", ";
    logger_->write(liblog::info, line);
}

void client_open62541::fetch_endpoints(endpoint_array& endpoints) {
    // No key for a server that answers nothing; the old client and its session stay.
    const UA_StatusCode reachable = probe_server(settings_.host, settings_.port, endpoint_url_, timeout_ms());
    if (reachable != UA_STATUSCODE_GOOD) throw exceptions::opcua_discovery_failed(std::to_string(reachable));
    // Discovery always runs on a new client, which ends any session of the old one.
    make_client();

    // Every client may ask for the endpoints without security, whatever it is configured
    // with, and most plant servers trust no client certificate until an operator accepts
    // it: a secured channel here would be refused, and leave our certificate in the
    // server's rejected list at every scan. The configured mode, policy and identity are
    // judged afterwards by our own selection.
    std::size_t size = 0;
    UA_EndpointDescription* data = nullptr;
    const UA_StatusCode status = request_endpoints(size, data);
    if (status != UA_STATUSCODE_GOOD) {
        UA_Array_delete(data, size, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
        throw exceptions::opcua_discovery_failed(std::to_string(status));
    }
    endpoints.data = data;
    endpoints.size = size;
}

UA_StatusCode client_open62541::request_endpoints(std::size_t& size, UA_EndpointDescription*& data) {
    // open62541 1.4 has no GetEndpoints call that takes the channel's security as
    // arguments: UA_Client_getEndpoints opens the channel from the configuration. Without
    // an endpoint in the configuration it first runs a discovery of its own and matches
    // mode, policy and identity itself, failing the whole request when nothing fits; so
    // the request names its channel as the configured endpoint (None, no identity).
    // Everything is put back before anyone reads the configuration: our own selection
    // judges the list.
    UA_ClientConfig* config = UA_Client_getConfig(ua_client_);
    const UA_MessageSecurityMode wanted_mode = config->securityMode;
    const UA_String wanted_policy = config->securityPolicyUri;
    const UA_ExtensionObject wanted_identity = config->userIdentityToken;
    config->securityMode = UA_MESSAGESECURITYMODE_NONE;
    UA_ExtensionObject_init(&config->userIdentityToken);
    config->securityPolicyUri = UA_String_fromChars(policy_uri_none);
    config->endpoint.endpointUrl = UA_String_fromChars(endpoint_url_.c_str());
    config->endpoint.securityMode = UA_MESSAGESECURITYMODE_NONE;
    config->endpoint.securityPolicyUri = UA_String_fromChars(policy_uri_none);
    config->endpoint.transportProfileUri = UA_String_fromChars(binary_transport_profile);
    config->userTokenPolicy.tokenType = UA_USERTOKENTYPE_ANONYMOUS;
    config->userTokenPolicy.securityPolicyUri = UA_String_fromChars(policy_uri_none);

    const UA_StatusCode status = UA_Client_getEndpoints(ua_client_, endpoint_url_.c_str(), &size, &data);

    UA_clear(&config->endpoint, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
    UA_clear(&config->userTokenPolicy, &UA_TYPES[UA_TYPES_USERTOKENPOLICY]);
    UA_clear(&config->securityPolicyUri, &UA_TYPES[UA_TYPES_STRING]);
    UA_clear(&config->userIdentityToken, &UA_TYPES[UA_TYPES_EXTENSIONOBJECT]);
    config->securityMode = wanted_mode;
    config->securityPolicyUri = wanted_policy;
    config->userIdentityToken = wanted_identity;
    return status;
}

endpoint_criteria client_open62541::criteria_of(const UA_ClientConfig& config) {
    endpoint_criteria criteria;
    criteria.security_mode = static_cast<int>(config.securityMode);
    criteria.security_policy_uri = to_std(config.securityPolicyUri);
    for (std::size_t i = 0; i < config.securityPoliciesSize; ++i)
        criteria.available_policy_uris.push_back(to_std(config.securityPolicies[i].policyUri));
    if (config.userIdentityToken.encoding >= UA_EXTENSIONOBJECT_DECODED)
        criteria.identity_type = config.userIdentityToken.content.decoded.type;
    return criteria;
}

UA_EndpointDescription client_open62541::select_endpoint(const endpoint_array& endpoints) {
    return select_endpoint(endpoints.data, endpoints.size, criteria_of(*UA_Client_getConfig(ua_client_)), *logger_);
}

UA_EndpointDescription client_open62541::select_endpoint(const UA_EndpointDescription* endpoints, std::size_t count,
                                                         const endpoint_criteria& criteria,
                                                         liblog::log_interface& log) {
    const UA_String binary_profile = UA_STRING(const_cast<char*>(binary_transport_profile));
    for (std::size_t e = 0; e < count; ++e) {
        const UA_EndpointDescription& endpoint = endpoints[e];
        if (endpoint.transportProfileUri.length != 0 && !same_string(endpoint.transportProfileUri, binary_profile))
            continue;

        const std::string endpoint_text =
            "Endpoint " + to_std(endpoint.endpointUrl) + " with SecurityMode " +
            security_mode_names().at(static_cast<std::size_t>(endpoint.securityMode) - 1) + " and SecurityPolicy " +
            to_std(endpoint.securityPolicyUri);
        auto reject = [&](const char* reason) { log.write(liblog::debug, "Rejecting " + endpoint_text + reason); };

        const int endpoint_mode = static_cast<int>(endpoint.securityMode);
        if (endpoint_mode < 1 || endpoint_mode > 3) {
            reject(": invalid security mode");
            continue;
        }
        if (criteria.security_mode >= 1 && criteria.security_mode != endpoint_mode) {
            reject(": security mode doesn't match");
            continue;
        }
        if (!criteria.security_policy_uri.empty() &&
            !same_string(view_of(criteria.security_policy_uri), endpoint.securityPolicyUri)) {
            reject(": security policy doesn't match");
            continue;
        }
        if (!has_policy(criteria, endpoint.securityPolicyUri)) {
            reject(": security policy not available");
            continue;
        }

        for (std::size_t t = 0; t < endpoint.userIdentityTokensSize; ++t) {
            const UA_UserTokenPolicy& token = endpoint.userIdentityTokens[t];
            const std::string token_text = "identity token with UserTokenType " +
                                           token_type_names().at(static_cast<std::size_t>(token.tokenType)) +
                                           (token.securityPolicyUri.length == 0 ? " and SecurityPolicy " : "");
            auto reject_token = [&](const char* reason) {
                log.write(liblog::debug, "Rejecting " + token_text + " in " + endpoint_text + reason);
            };

            // A token without a policy of its own uses the endpoint's, which passed above.
            if (token.tokenType != UA_USERTOKENTYPE_ANONYMOUS && token.securityPolicyUri.length != 0 &&
                !has_policy(criteria, token.securityPolicyUri)) {
                reject_token(": security policy not available");
                continue;
            }
            if (static_cast<int>(token.tokenType) >= 4) {
                reject_token(": invalid token type");
                continue;
            }
            if (!token_fits_identity(token.tokenType, criteria.identity_type)) {
                reject_token(": configuration doesn't match");
                continue;
            }
            log.write(liblog::info, "Selected " + endpoint_text);
            log.write(liblog::info, "Selected " + token_text);
            return endpoint;
        }
    }
    log.write(liblog::error, "No matching endpoint found");
    throw exceptions::opcua_matching_endpoint_failed();
}

bool client_open62541::validate_endpoint() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    operation op(*this);
    endpoint_array endpoints;
    try {
        fetch_endpoints(endpoints);
        select_endpoint(endpoints);
    } catch (const exceptions::opcua_discovery_failed&) {
        // An unreachable server is a plain "no"; a server without a fitting endpoint is not.
        return false;
    }
    return true;
}

server_certificate_info client_open62541::get_server_certificate_info() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    operation op(*this);
    logger_->write(liblog::debug, "Fetching endpoints from server.");
    endpoint_array endpoints;
    fetch_endpoints(endpoints);
    logger_->write(liblog::debug, "Server has " + std::to_string(endpoints.size) + " endpoints.");
    const UA_EndpointDescription endpoint = select_endpoint(endpoints);
    if (endpoint.serverCertificate.length == 0 || endpoint.serverCertificate.data == nullptr)
        throw exceptions::opcua_missing_certificate();

    const std::vector<std::uint8_t> der(endpoint.serverCertificate.data,
                                        endpoint.serverCertificate.data + endpoint.serverCertificate.length);
    auto certificate = certificates_->make_certificate_from_der(der);
    const auto now = std::chrono::system_clock::now();
    server_certificate_info info;
    info.days_until_expiry = certificate->get_days_until_expiry(now);
    info.key_bits = certificate->get_public_key_bits();
    info.self_signed = certificate->is_self_signed();
    info.common_name = certificate->get_common_name();
    info.thumbprint = certificate->get_thumbprint();
    return info;
}

namespace {

struct read_response_deleter {
    void operator()(UA_ReadResponse* r) const noexcept { UA_delete(r, &UA_TYPES[UA_TYPES_READRESPONSE]); }
};

// The reports of a connection that is gone: the transport, the secure channel (a server
// restarted between two scans closes it), or nothing connected at all.
bool connection_lost(UA_StatusCode status) {
    return status == UA_STATUSCODE_BADCONNECTIONCLOSED || status == UA_STATUSCODE_BADSECURECHANNELCLOSED ||
           status == UA_STATUSCODE_BADSECURECHANNELIDINVALID || status == UA_STATUSCODE_BADNOTCONNECTED;
}

// The node behind the interface if it is one of ours, else null. A dynamic_cast across
// the virtual bases of the node classes costs several hundred instructions, ten times a
// scan; a node of one of the three classes themselves is recognised by its type alone.
generic_node_open62541* own_node(generic_node_interface* node) {
    if (node == nullptr) return nullptr;
    const std::type_info& type = typeid(*node);
    void* whole = dynamic_cast<void*>(node);
    if (type == typeid(scalar_variable_node_open62541)) return static_cast<scalar_variable_node_open62541*>(whole);
    if (type == typeid(array_variable_node_open62541)) return static_cast<array_variable_node_open62541*>(whole);
    if (type == typeid(generic_node_open62541)) return static_cast<generic_node_open62541*>(whole);
    return dynamic_cast<generic_node_open62541*>(node);
}

bool session_lost(UA_StatusCode status) {
    return status == UA_STATUSCODE_BADSESSIONIDINVALID || status == UA_STATUSCODE_BADSESSIONCLOSED ||
           status == UA_STATUSCODE_BADSESSIONNOTACTIVATED || connection_lost(status);
}

}  // namespace

void client_open62541::read_node(const std::shared_ptr<generic_node_interface>& node) {
    read_node(std::vector<std::shared_ptr<generic_node_interface>>{node});
}

void client_open62541::read_node(const std::vector<std::shared_ptr<generic_node_interface>>& nodes) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    operation op(*this);
    try {
        read_once(nodes);
    } catch (const exceptions::opcua_connection_closed& e) {
        // One retry only: a second loss goes to the caller.
        op.next_attempt();
        logger_->write(liblog::info, std::string("Error on read_node: ") + e.what());
        logger_->write(liblog::info, "perform one retry");
        read_once(nodes);
    }
    static const std::string finished = "Reading nodes finished successfully.";
    logger_->write(liblog::debug, finished);
}

void client_open62541::read_once(const std::vector<std::shared_ptr<generic_node_interface>>& nodes) {
    connect();
    std::vector<read_item>& items = read_items_;
    items.clear();
    for (const auto& node : nodes) {
        generic_node_open62541* own = own_node(node.get());
        if (own == nullptr) throw exceptions::prepare_request_failed();
        for (std::uint32_t attribute : own->get_missing_attributes()) items.push_back({own, attribute});
    }
    if (items.empty()) return;

    trace_line("  Requesting ", items.size(), " nodes.", 0, "");
    std::vector<UA_ReadValueId>& ids = read_ids_;
    ids.resize(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        UA_ReadValueId_init(&ids[i]);
        // The request borrows the nodes' own ids; it is never cleared, so nothing is freed twice.
        ids[i].nodeId = *items[i].node->node_id();
        ids[i].attributeId = items[i].attribute;
    }
    UA_ReadRequest request;
    UA_ReadRequest_init(&request);
    request.maxAge = 0;
    request.timestampsToReturn = UA_TIMESTAMPSTORETURN_SOURCE;
    request.nodesToRead = ids.data();
    request.nodesToReadSize = ids.size();

    std::unique_ptr<UA_ReadResponse, read_response_deleter> response(
        static_cast<UA_ReadResponse*>(UA_new(&UA_TYPES[UA_TYPES_READRESPONSE])));
    if (!response) throw std::bad_alloc();
    __UA_Client_Service(ua_client_, &request, &UA_TYPES[UA_TYPES_READREQUEST], response.get(),
                        &UA_TYPES[UA_TYPES_READRESPONSE]);

    const UA_StatusCode service = response->responseHeader.serviceResult;
    if (service != UA_STATUSCODE_GOOD) raise_for_service<exceptions::opcua_request_failed>(service, true);
    rebuilt_after_timeout_ = false;
    if (response->resultsSize != items.size()) throw exceptions::opcua_response_size_mismatch();

    // Applied in order; a bad result stops here and leaves the earlier nodes updated.
    for (std::size_t i = 0; i < items.size(); ++i) {
        UA_DataValue& result = response->results[i];
        const read_item& item = items[i];
        const UA_StatusCode status = result.hasStatus ? result.status : UA_STATUSCODE_GOOD;
        if (status != UA_STATUSCODE_GOOD) {
            if (status == UA_STATUSCODE_BADNODEIDUNKNOWN) throw exceptions::nodeid_unknown(item.node->identifier());
            // Node classes without a Description are no error.
            if (!(status == UA_STATUSCODE_BADATTRIBUTEIDINVALID && item.attribute == attribute_description))
                throw exceptions::opcua_read_failed(UA_StatusCode_name(status));
        }
        if (!result.hasValue) continue;
        trace_line("    Update node ", reinterpret_cast<std::uintptr_t>(item.node), "'s attribute ", item.attribute,
                   ".");
        // The response is ours and goes right after: the node may keep the value itself.
        item.node->take_attribute(item.attribute, result.value);
    }
}

void client_open62541::write_node_value(const std::shared_ptr<writeable_variable_node_interface>& node) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    operation op(*this);
    auto scalar = std::dynamic_pointer_cast<scalar_variable_node_open62541>(node);
    if (!scalar) throw exceptions::prepare_request_failed();
    try {
        write_once(*scalar);
    } catch (const exceptions::opcua_connection_closed& e) {
        op.next_attempt();
        logger_->write(liblog::info, std::string("Error on write_node_value: ") + e.what());
        logger_->write(liblog::info, "perform one retry");
        write_once(*scalar);
    }
    logger_->write(liblog::debug, "Writing node value finished sucessfully.");
}

void client_open62541::write_once(const scalar_variable_node_open62541& node) {
    connect();
    const UA_StatusCode status = __UA_Client_writeAttribute(ua_client_, node.node_id(), UA_ATTRIBUTEID_VALUE,
                                                            node.variant(), &UA_TYPES[UA_TYPES_VARIANT]);
    if (status != UA_STATUSCODE_GOOD) raise_for_service<exceptions::opcua_write_failed>(status, false);
    rebuilt_after_timeout_ = false;
}

template <typename Failure>
void client_open62541::raise_for_service(UA_StatusCode status, bool session_codes_lost) {
    // Unlike a read, a write takes a lost session for a failure: only a lost connection is
    // retried there.
    if (session_codes_lost ? session_lost(status) : connection_lost(status)) throw exceptions::opcua_connection_closed();
    // Silent past the time-out. The client's state still shows the connection open, and
    // a connection that a NAT or firewall dropped stays silent for good: the one retry
    // runs on a new UA_Client, once the server answers a new connection. A server that is
    // only slow would time out on the new client too; that client then stays, and no
    // further key is made for this server until it answers.
    if (status == UA_STATUSCODE_BADTIMEOUT && !rebuilt_after_timeout_) {
        discard_ = discard_after_timeout_ = true;
        throw exceptions::opcua_connection_closed();
    }
    throw Failure(UA_StatusCode_name(status));
}

void client_open62541::ping() {
    UA_ReadValueId id;
    UA_ReadValueId_init(&id);
    id.nodeId = UA_NODEID_NUMERIC(0, UA_NS0ID_SERVER_SERVERSTATUS_STATE);
    id.attributeId = UA_ATTRIBUTEID_VALUE;
    UA_ReadRequest request;
    UA_ReadRequest_init(&request);
    request.nodesToRead = &id;
    request.nodesToReadSize = 1;
    std::unique_ptr<UA_ReadResponse, read_response_deleter> response(
        static_cast<UA_ReadResponse*>(UA_new(&UA_TYPES[UA_TYPES_READRESPONSE])));
    if (!response) throw std::bad_alloc();
    __UA_Client_Service(ua_client_, &request, &UA_TYPES[UA_TYPES_READREQUEST], response.get(),
                        &UA_TYPES[UA_TYPES_READRESPONSE]);
    const UA_StatusCode service = response->responseHeader.serviceResult;
    if (service != UA_STATUSCODE_GOOD) raise_for_service<exceptions::opcua_request_failed>(service, true);
    rebuilt_after_timeout_ = false;
}

bool client_open62541::test_connection() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    operation op(*this);
    // A session that was standing may be gone without the client's state showing it; one
    // made just now has answered already.
    auto attempt = [this] {
        const bool standing = ua_client_ != nullptr && !discard_ && session_active(ua_client_);
        connect();
        if (standing) ping();
    };
    try {
        attempt();
    } catch (const exceptions::opcua_connection_closed& e) {
        op.next_attempt();
        logger_->write(liblog::info, std::string("Error on test_connection: ") + e.what());
        logger_->write(liblog::info, "perform one retry");
        attempt();
    }
    return ua_client_ != nullptr && session_active(ua_client_);
}

// Lines of a request go out on every scan: they are put together in one buffer that the
// client keeps, under its mutex, rather than in new strings.
void client_open62541::trace_line(const char* a, std::uint64_t n, const char* b, std::uint64_t m, const char* c) {
    // Short texts and two numbers: put together on the stack, copied into the line once.
    char text[160];
    char* const end = text + sizeof text;
    char* out = text;
    auto put = [&](const char* part) {
        const std::size_t length = std::min(std::strlen(part), static_cast<std::size_t>(end - out));
        std::memcpy(out, part, length);
        out += length;
    };
    put(a);
    out = std::to_chars(out, end, n).ptr;
    put(b);
    if (*c != '\0') {
        out = std::to_chars(out, end, m).ptr;
        put(c);
    }
    set_line(trace_line_, text, static_cast<std::size_t>(out - text));
    logger_->write(liblog::debug, trace_line_);
}

void client_open62541::add_logger(const std::shared_ptr<liblog::log_interface>& log, liblog::severity limit) {
    if (!log) return;
    logger_->add(log, limit);
}

void client_open62541::remove_logger(const std::shared_ptr<liblog::log_interface>& log) {
    if (!log) return;
    logger_->remove(log);
}

}  // namespace brenholt::monitoring_modules::opcua
