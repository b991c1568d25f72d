#include "opcua_sim/server.h"

#include <open62541/plugin/accesscontrol_default.h>
#include <open62541/plugin/log.h>
#include <open62541/plugin/pki_default.h>
#include <open62541/server.h>
#include <open62541/server_config_default.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace opcua_sim {

std::vector<endpoint_option> all_endpoints() {
    return {{security_policy::none, security_mode::none},
            {security_policy::basic256sha256, security_mode::sign},
            {security_policy::basic256sha256, security_mode::sign_and_encrypt}};
}

std::string policy_uri(security_policy policy) {
    switch (policy) {
    case security_policy::none: return "http://opcfoundation.org/UA/SecurityPolicy#None";
    case security_policy::basic256sha256:
        return "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";
    }
    throw std::invalid_argument("unknown security policy");
}

namespace {

constexpr const char* loopback = "127.0.0.1";
// Attempts at binding a port picked as free, which another process may take meanwhile.
constexpr int free_port_attempts = 5;

std::string status_name(UA_StatusCode status) { return UA_StatusCode_name(status); }

UA_ByteString borrow(bytes& data) {
    UA_ByteString out;
    out.length = data.size();
    out.data = data.data();
    return out;
}

// A port on loopback that nobody listens on right now.
std::uint16_t pick_free_port() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) throw std::runtime_error("cannot open a socket to find a free port");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = 0;
    ::inet_pton(AF_INET, loopback, &address.sin_addr);
    socklen_t length = sizeof address;
    bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
              ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    ::close(fd);
    if (!ok) throw std::runtime_error("cannot find a free port on 127.0.0.1");
    return ntohs(address.sin_port);
}

// open62541 only warns when it cannot bind, so find out beforehand. Binding with
// SO_REUSEADDR, as the server does, fails only if someone listens on the port.
bool port_is_free(std::uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, loopback, &address.sin_addr);
    bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

UA_NodeId parse_node_id(const std::string& text) {
    UA_NodeId id;
    UA_NodeId_init(&id);
    UA_String ua_text;
    ua_text.length = text.size();
    ua_text.data = reinterpret_cast<UA_Byte*>(const_cast<char*>(text.data()));
    if (text.empty() || UA_NodeId_parse(&id, ua_text) != UA_STATUSCODE_GOOD)
        throw std::invalid_argument("not a node id: " + text);
    return id;
}

struct node_id_holder {
    UA_NodeId id;
    explicit node_id_holder(const std::string& text) : id(parse_node_id(text)) {}
    ~node_id_holder() { UA_NodeId_clear(&id); }
    node_id_holder(const node_id_holder&) = delete;
    node_id_holder& operator=(const node_id_holder&) = delete;
};

std::string to_string(const UA_String& s) {
    return std::string(reinterpret_cast<const char*>(s.data), s.length);
}

// The canonical text of an id, so that equal ids given in different spellings
// share one remembered value.
std::string canonical(const UA_NodeId& id) {
    UA_String printed = UA_STRING_NULL;
    UA_NodeId_print(&id, &printed);
    std::string out = to_string(printed);
    UA_String_clear(&printed);
    return out;
}

std::string browse_name_text(const UA_NodeId& id) {
    switch (id.identifierType) {
    case UA_NODEIDTYPE_NUMERIC: return std::to_string(id.identifier.numeric);
    case UA_NODEIDTYPE_STRING: return to_string(id.identifier.string);
    default: return canonical(id);
    }
}

// The id's namespace must exist before a node can go into it.
void ensure_namespace(UA_Server* ua, UA_UInt16 index) {
    for (UA_UInt16 next = 0; next <= index; ++next) {
        UA_String uri = UA_STRING_NULL;
        UA_StatusCode found = UA_Server_getNamespaceByIndex(ua, next, &uri);
        UA_String_clear(&uri);
        if (found == UA_STATUSCODE_GOOD) continue;
        std::string name = "urn:opcua-sim:ns" + std::to_string(next);
        if (UA_Server_addNamespace(ua, name.c_str()) != next)
            throw std::runtime_error("cannot create namespace " + std::to_string(next));
    }
}

void add_variable(UA_Server* ua, const UA_NodeId& id, const UA_Variant& value) {
    ensure_namespace(ua, id.namespaceIndex);
    UA_VariableAttributes attributes = UA_VariableAttributes_default;
    UA_UInt32 unknown_length = 0;
    std::string name = browse_name_text(id);
    attributes.displayName = UA_LOCALIZEDTEXT(const_cast<char*>(""), const_cast<char*>(name.c_str()));
    attributes.accessLevel = UA_ACCESSLEVELMASK_READ | UA_ACCESSLEVELMASK_WRITE;
    attributes.userAccessLevel = attributes.accessLevel;
    attributes.value = value; // shallow: the server copies it
    if (value.type == nullptr) {
        attributes.dataType = UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATATYPE);
        attributes.valueRank = UA_VALUERANK_ANY;
    } else {
        attributes.dataType = value.type->typeId;
        if (UA_Variant_isScalar(&value)) {
            attributes.valueRank = UA_VALUERANK_SCALAR;
        } else if (value.arrayDimensionsSize > 1) {
            attributes.valueRank = static_cast<UA_Int32>(value.arrayDimensionsSize);
            attributes.arrayDimensionsSize = value.arrayDimensionsSize;
            attributes.arrayDimensions = value.arrayDimensions;
        } else {
            attributes.valueRank = UA_VALUERANK_ONE_DIMENSION;
            attributes.arrayDimensionsSize = 1;
            attributes.arrayDimensions = &unknown_length;
        }
    }
    UA_QualifiedName browse_name =
        UA_QUALIFIEDNAME(id.namespaceIndex, const_cast<char*>(name.c_str()));
    UA_StatusCode status = UA_Server_addVariableNode(
        ua, id, UA_NODEID_NUMERIC(0, UA_NS0ID_OBJECTSFOLDER), UA_NODEID_NUMERIC(0, UA_NS0ID_ORGANIZES),
        browse_name, UA_NODEID_NUMERIC(0, UA_NS0ID_BASEDATAVARIABLETYPE), attributes, nullptr, nullptr);
    if (status != UA_STATUSCODE_GOOD)
        throw std::runtime_error("cannot add variable " + canonical(id) + ": " + status_name(status));
}

} // namespace

struct server::variant_value {
    UA_Variant value;
    explicit variant_value(const UA_Variant& source) {
        UA_Variant_init(&value);
        if (UA_Variant_copy(&source, &value) != UA_STATUSCODE_GOOD) throw std::bad_alloc();
    }
    ~variant_value() { UA_Variant_clear(&value); }
    variant_value(const variant_value&) = delete;
    variant_value& operator=(const variant_value&) = delete;
};

// State that open62541 calls back into from its own thread: the log and the list of
// sessions. It has its own mutex, never held while calling into the server, so that
// the server lock and the lifecycle mutex cannot cross.
struct server::access_control_hooks {
    UA_Logger logger{};
    UA_LogLevel min_level = UA_LOGLEVEL_WARNING;

    decltype(UA_AccessControl::activateSession) activate_session = nullptr;
    decltype(UA_AccessControl::closeSession) close_session = nullptr;

    mutable std::mutex mutex;
    std::vector<UA_NodeId> sessions;

    FILE* sink = stderr;

    access_control_hooks(bool verbose, const std::string& log_file) {
        min_level = verbose ? UA_LOGLEVEL_INFO : UA_LOGLEVEL_WARNING;
        logger.log = &log;
        logger.context = this;
        logger.clear = [](UA_Logger*) {}; // owned here, not by the configuration
        if (!log_file.empty()) {
            sink = std::fopen(log_file.c_str(), "a");
            if (sink == nullptr) throw std::runtime_error("cannot open the log file " + log_file);
            // Whole lines, so that several servers can share one file.
            std::setvbuf(sink, nullptr, _IOLBF, 0);
        }
    }
    ~access_control_hooks() {
        for (UA_NodeId& id : sessions) UA_NodeId_clear(&id);
        if (sink != stderr) std::fclose(sink);
    }
    access_control_hooks(const access_control_hooks&) = delete;
    access_control_hooks& operator=(const access_control_hooks&) = delete;

    static void log(void* context, UA_LogLevel level, UA_LogCategory, const char* format, va_list args) {
        auto* self = static_cast<access_control_hooks*>(context);
        if (level < self->min_level) return;
        char text[1024];
        std::vsnprintf(text, sizeof text, format, args);
        // Warnings about what this server does on purpose (trust all, permit all) would
        // come at every start and every channel.
        if (self->min_level >= UA_LOGLEVEL_WARNING &&
            (std::strstr(text, "Unconfigured AccessControl") != nullptr ||
             std::strstr(text, "No certificate store configured") != nullptr))
            return;
        std::fprintf(self->sink, "opcua-sim: %s\n", text);
    }

    static access_control_hooks* of(UA_Server* ua) {
        return static_cast<access_control_hooks*>(UA_Server_getConfig(ua)->context);
    }

    static UA_StatusCode on_activate(UA_Server* ua, UA_AccessControl* ac, const UA_EndpointDescription* endpoint,
                                     const UA_ByteString* certificate, const UA_NodeId* session_id,
                                     const UA_ExtensionObject* token, void** session_context) {
        access_control_hooks* self = of(ua);
        UA_StatusCode status =
            self->activate_session(ua, ac, endpoint, certificate, session_id, token, session_context);
        if (status != UA_STATUSCODE_GOOD) return status;
        std::lock_guard lock(self->mutex);
        for (const UA_NodeId& known : self->sessions)
            if (UA_NodeId_equal(&known, session_id)) return status;
        UA_NodeId copy;
        if (UA_NodeId_copy(session_id, &copy) == UA_STATUSCODE_GOOD) self->sessions.push_back(copy);
        return status;
    }

    static void on_close(UA_Server* ua, UA_AccessControl* ac, const UA_NodeId* session_id, void* session_context) {
        access_control_hooks* self = of(ua);
        {
            std::lock_guard lock(self->mutex);
            for (auto it = self->sessions.begin(); it != self->sessions.end(); ++it) {
                if (UA_NodeId_equal(&*it, session_id)) {
                    UA_NodeId_clear(&*it);
                    self->sessions.erase(it);
                    break;
                }
            }
        }
        self->close_session(ua, ac, session_id, session_context);
    }

    std::vector<UA_NodeId> take_sessions() {
        std::lock_guard lock(mutex);
        std::vector<UA_NodeId> out;
        out.swap(sessions);
        return out;
    }
};

server::server(options opts) : options_(std::move(opts)), hooks_(std::make_unique<access_control_hooks>(options_.verbose, options_.log_file)) {
    if (options_.endpoints.empty()) throw std::invalid_argument("no endpoint chosen");
    for (const endpoint_option& e : options_.endpoints) {
        bool none_policy = e.policy == security_policy::none;
        if (none_policy != (e.mode == security_mode::none))
            throw std::invalid_argument("policy None goes with mode None only, and mode None with policy None only");
    }
    for (const user_login& u : options_.users)
        if (u.name.empty()) throw std::invalid_argument("user name is empty");
    if (options_.certificate.certificate_pem.empty() != options_.certificate.private_key_pem.empty())
        throw std::invalid_argument("certificate and private key must be given together");
}

server::~server() { stop(); }

void server::prepare_certificate() {
    if (!certificate_.certificate_der.empty()) return;
    const certificate_options& c = options_.certificate;
    if (!c.certificate_pem.empty()) {
        certificate_ = certificate_from_pem(c.certificate_pem, c.private_key_pem, c.private_key_password);
    } else {
        certificate_request request = c.generate;
        request.application_uri = options_.application_uri;
        certificate_ = make_self_signed_certificate(request);
    }
}

UA_Server* server::build(std::uint16_t port) {
    UA_ServerConfig config;
    std::memset(&config, 0, sizeof config);
    config.logging = &hooks_->logger;
    auto fail = [&config](const std::string& what, UA_StatusCode status) {
        UA_ServerConfig_clean(&config);
        throw std::runtime_error(what + ": " + status_name(status));
    };

    UA_StatusCode status = UA_ServerConfig_setBasics_withPort(&config, port);
    if (status != UA_STATUSCODE_GOOD) fail("cannot configure the server", status);

    // The URL decides the listening address as well: loopback only.
    std::string url = "opc.tcp://" + std::string(loopback) + ":" + std::to_string(port) + "/" + options_.path;
    UA_Array_delete(config.serverUrls, config.serverUrlsSize, &UA_TYPES[UA_TYPES_STRING]);
    config.serverUrls = UA_String_new();
    config.serverUrlsSize = 1;
    *config.serverUrls = UA_String_fromChars(url.c_str());
    config.tcpReuseAddr = true;
    config.shutdownDelay = 0;

    UA_ApplicationDescription& app = config.applicationDescription;
    UA_String_clear(&app.applicationUri);
    app.applicationUri = UA_String_fromChars(options_.application_uri.c_str());
    UA_LocalizedText_clear(&app.applicationName);
    app.applicationName = UA_LOCALIZEDTEXT_ALLOC("en", options_.application_name.c_str());

    // Tests bring certificates of their own making: trust every client, unless the
    // server plays one that trusts none.
    for (UA_CertificateVerification* pki : {&config.secureChannelPKI, &config.sessionPKI}) {
        if (pki->clear) pki->clear(pki);
        if (!options_.strict) {
            UA_CertificateVerification_AcceptAll(pki);
            continue;
        }
        status = UA_CertificateVerification_Trustlist(pki, nullptr, 0, nullptr, 0, nullptr, 0);
        if (status != UA_STATUSCODE_GOOD) fail("cannot set up an empty trust list", status);
    }

    UA_ByteString certificate = borrow(certificate_.certificate_der);
    UA_ByteString key = borrow(certificate_.private_key_der);
    status = UA_ServerConfig_addSecurityPolicyNone(&config, &certificate);
    if (status != UA_STATUSCODE_GOOD) fail("cannot add security policy None", status);
    // Always loaded, also without its endpoints: user passwords on None endpoints are
    // encrypted with it.
    status = UA_ServerConfig_addSecurityPolicyBasic256Sha256(&config, &certificate, &key);
    if (status != UA_STATUSCODE_GOOD) fail("cannot add security policy Basic256Sha256", status);
    // As real servers do: without a None endpoint, a None channel serves discovery only.
    config.securityPolicyNoneDiscoveryOnly = true;
    for (const endpoint_option& e : options_.endpoints) {
        if (e.policy == security_policy::none) config.securityPolicyNoneDiscoveryOnly = false;
        std::string uri = policy_uri(e.policy);
        UA_String ua_uri = UA_STRING(const_cast<char*>(uri.c_str()));
        status = UA_ServerConfig_addEndpoint(&config, ua_uri, static_cast<UA_MessageSecurityMode>(e.mode));
        if (status != UA_STATUSCODE_GOOD) fail("cannot add endpoint " + uri, status);
    }

    std::vector<UA_UsernamePasswordLogin> logins;
    for (const user_login& u : options_.users)
        logins.push_back({UA_STRING(const_cast<char*>(u.name.c_str())),
                          UA_STRING(const_cast<char*>(u.password.c_str()))});
    std::string token_policy = policy_uri(security_policy::basic256sha256);
    UA_ByteString token_policy_uri = UA_STRING(const_cast<char*>(token_policy.c_str()));
    status = UA_AccessControl_default(&config, options_.allow_anonymous, &token_policy_uri, logins.size(),
                                      logins.empty() ? nullptr : logins.data());
    if (status != UA_STATUSCODE_GOOD) fail("cannot set up access control", status);
    hooks_->activate_session = config.accessControl.activateSession;
    hooks_->close_session = config.accessControl.closeSession;
    config.accessControl.activateSession = &access_control_hooks::on_activate;
    config.accessControl.closeSession = &access_control_hooks::on_close;
    config.context = hooks_.get();

    UA_Server* ua = UA_Server_newWithConfig(&config);
    if (ua == nullptr) throw std::runtime_error("cannot create the server");
    return ua;
}

void server::populate(UA_Server* ua) {
    for (const std::string& uri : options_.namespace_uris) UA_Server_addNamespace(ua, uri.c_str());
    for (const address_space_setup& setup : options_.address_spaces) setup(ua);
    for (const auto& [id, value] : values_) apply_value(ua, id, value->value);
}

void server::apply_value(UA_Server* ua, const std::string& node_id, const UA_Variant& value) {
    node_id_holder id(node_id);
    if (UA_Server_writeValue(ua, id.id, value) == UA_STATUSCODE_GOOD) return;
    // Missing, or of another type or rank: make it anew.
    UA_NodeClass node_class = UA_NODECLASS_UNSPECIFIED;
    if (UA_Server_readNodeClass(ua, id.id, &node_class) == UA_STATUSCODE_GOOD) {
        if (node_class != UA_NODECLASS_VARIABLE)
            throw std::runtime_error("node " + node_id + " exists and is not a variable");
        UA_StatusCode status = UA_Server_deleteNode(ua, id.id, true);
        if (status != UA_STATUSCODE_GOOD)
            throw std::runtime_error("cannot replace variable " + node_id + ": " + status_name(status));
    }
    add_variable(ua, id.id, value);
}

void server::start() {
    std::lock_guard lock(lifecycle_);
    if (server_ != nullptr) return;
    prepare_certificate();

    const bool pick = port_ == 0 && options_.port == 0;
    for (int attempt = 1;; ++attempt) {
        std::uint16_t port = port_ != 0 ? port_ : options_.port != 0 ? options_.port : pick_free_port();
        if (!port_is_free(port)) {
            if (pick && attempt < free_port_attempts) continue;
            throw std::runtime_error("port " + std::to_string(port) + " on " + loopback + " is taken");
        }
        UA_Server* ua = build(port);
        try {
            populate(ua);
        } catch (...) {
            UA_Server_delete(ua);
            throw;
        }
        UA_StatusCode status = UA_Server_run_startup(ua);
        if (status == UA_STATUSCODE_GOOD) {
            hooks_->take_sessions(); // left from an earlier run, if any
            server_ = ua;
            port_ = port;
            stopping_ = false;
            thread_ = std::thread([this] { loop(); });
            return;
        }
        UA_Server_run_shutdown(ua);
        UA_Server_delete(ua);
        if (!pick || attempt >= free_port_attempts)
            throw std::runtime_error("cannot listen on " + std::string(loopback) + ":" + std::to_string(port) +
                                     ": " + status_name(status));
    }
}

void server::loop() {
    while (!stopping_) UA_Server_run_iterate(server_, true);
    UA_Server_run_shutdown(server_);
}

void server::stop() {
    std::lock_guard lock(lifecycle_);
    if (server_ == nullptr) return;
    stopping_ = true;
    thread_.join();
    UA_Server_delete(server_);
    server_ = nullptr;
    for (UA_NodeId& id : hooks_->take_sessions()) UA_NodeId_clear(&id);
}

bool server::running() const {
    std::lock_guard lock(lifecycle_);
    return server_ != nullptr;
}

std::uint16_t server::port() const {
    std::lock_guard lock(lifecycle_);
    return port_;
}

std::string server::endpoint_url() const {
    return "opc.tcp://" + std::string(loopback) + ":" + std::to_string(port()) + "/" + options_.path;
}

bytes server::certificate_der() const {
    std::lock_guard lock(lifecycle_);
    return certificate_.certificate_der;
}

void server::set_value(const std::string& node_id, const UA_Variant& value) {
    std::string key;
    {
        node_id_holder id(node_id);
        key = canonical(id.id);
    }
    auto remembered = std::make_shared<variant_value>(value);
    std::lock_guard lock(lifecycle_);
    if (server_ != nullptr) apply_value(server_, key, value);
    values_[key] = std::move(remembered);
}

UA_StatusCode server::read_value(const std::string& node_id, UA_Variant* out) const {
    node_id_holder id(node_id);
    std::lock_guard lock(lifecycle_);
    if (server_ == nullptr) return UA_STATUSCODE_BADSERVERNOTCONNECTED;
    return UA_Server_readValue(server_, id.id, out);
}

std::size_t server::end_sessions() {
    std::lock_guard lock(lifecycle_);
    if (server_ == nullptr) return 0;
    std::vector<UA_NodeId> sessions = hooks_->take_sessions();
    std::size_t ended = 0;
    for (UA_NodeId& id : sessions) {
        if (UA_Server_closeSession(server_, &id) == UA_STATUSCODE_GOOD) ++ended;
        UA_NodeId_clear(&id);
    }
    return ended;
}

std::size_t server::session_count() const {
    std::lock_guard lock(hooks_->mutex);
    return hooks_->sessions.size();
}

void server::with_server(const std::function<void(UA_Server*)>& action) {
    std::lock_guard lock(lifecycle_);
    if (server_ == nullptr) throw std::logic_error("the server is not running");
    action(server_);
}

} // namespace opcua_sim
