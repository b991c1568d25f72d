#pragma once

// A plain open62541 client for talking to opcua-sim in tests.

#include "opcua_sim/certificate.h"

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/client_highlevel.h>
#include <open62541/plugin/log_stdout.h>
#include <open62541/plugin/pki_default.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sim_test {

struct client_deleter {
    void operator()(UA_Client* c) const { UA_Client_delete(c); }
};
using client_ptr = std::unique_ptr<UA_Client, client_deleter>;

inline const std::string none_uri = "http://opcfoundation.org/UA/SecurityPolicy#None";
inline const std::string basic256sha256_uri = "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256";

// A client certificate, made once per process: RSA keys take time.
inline const opcua_sim::certificate_material& client_certificate() {
    static const opcua_sim::certificate_material material = [] {
        opcua_sim::certificate_request request;
        request.common_name = "sim-test-client";
        request.application_uri = "urn:sim-test:client";
        return opcua_sim::make_self_signed_certificate(request);
    }();
    return material;
}

// Without a policy URI the client leaves the choice to open62541. With `encryption`
// the client gets a certificate, which also serves to encrypt a password on None.
inline client_ptr make_client(UA_MessageSecurityMode mode = UA_MESSAGESECURITYMODE_NONE,
                              const std::string& policy = none_uri, bool encryption = false) {
    UA_ClientConfig config;
    std::memset(&config, 0, sizeof config);
    config.logging = UA_Log_Stdout_new(UA_LOGLEVEL_ERROR);
    UA_ClientConfig_setDefault(&config);
    if (encryption || mode != UA_MESSAGESECURITYMODE_NONE) {
        const auto& material = client_certificate();
        UA_ByteString cert{material.certificate_der.size(),
                           const_cast<UA_Byte*>(material.certificate_der.data())};
        UA_ByteString key{material.private_key_der.size(),
                          const_cast<UA_Byte*>(material.private_key_der.data())};
        UA_ClientConfig_setDefaultEncryption(&config, cert, key, nullptr, 0, nullptr, 0);
        UA_CertificateVerification_AcceptAll(&config.certificateVerification);
        UA_String_clear(&config.clientDescription.applicationUri);
        config.clientDescription.applicationUri = UA_String_fromChars("urn:sim-test:client");
    }
    config.securityMode = mode;
    UA_String_clear(&config.securityPolicyUri);
    config.securityPolicyUri = UA_String_fromChars(policy.c_str());
    config.timeout = 5000;
    return client_ptr(UA_Client_newWithConfig(&config));
}

// Leaves mode and policy to open62541, which picks an endpoint even for discovery;
// with a certificate it can also take one that is not None.
inline client_ptr make_discovery_client() { return make_client(UA_MESSAGESECURITYMODE_INVALID, "", true); }

struct endpoint_list {
    UA_EndpointDescription* items = nullptr;
    size_t size = 0;
    ~endpoint_list() { UA_Array_delete(items, size, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]); }
};

inline std::string text(const UA_String& s) { return std::string(reinterpret_cast<const char*>(s.data), s.length); }

inline std::vector<std::uint8_t> bytes_of(const UA_ByteString& s) {
    return std::vector<std::uint8_t>(s.data, s.data + s.length);
}

} // namespace sim_test
