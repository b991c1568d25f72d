// The opcua-sim executable as a user starts it. The end-to-end suites run the simulator
// in-process and compare the module's answers with what they asked of the simulator, so
// what they cannot see is checked here: the command line reaching the server, the server
// staying on loopback, and a certificate that really has the asked lifetime and key.

#include <gtest/gtest.h>

#include <open62541/client.h>
#include <open62541/client_highlevel.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace {

using test_support::child_process;

// Local addresses, in /proc/net/tcp form, that listen on the port.
std::vector<std::string> listening_addresses(int port) {
    char port_hex[8];
    std::snprintf(port_hex, sizeof port_hex, ":%04X", port);
    std::vector<std::string> out;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream in(table);
        std::string line, slot, local, remote, state;
        std::getline(in, line);
        while (std::getline(in, line)) {
            std::istringstream(line) >> slot >> local >> remote >> state;
            if (state == "0A" && local.size() > 5 && local.substr(local.size() - 5) == port_hex)
                out.push_back(local.substr(0, local.size() - 5));
        }
    }
    return out;
}

// The certificate of the first endpoint, fetched over None by a plain client.
X509* server_certificate(const std::string& url) {
    UA_Client* client = UA_Client_new();
    size_t size = 0;
    UA_EndpointDescription* endpoints = nullptr;
    X509* cert = nullptr;
    const UA_StatusCode status = UA_Client_getEndpoints(client, url.c_str(), &size, &endpoints);
    EXPECT_EQ(status, UA_STATUSCODE_GOOD) << UA_StatusCode_name(status);
    if (status == UA_STATUSCODE_GOOD && size > 0) {
        const unsigned char* der = endpoints[0].serverCertificate.data;
        cert = d2i_X509(nullptr, &der, static_cast<long>(endpoints[0].serverCertificate.length));
    }
    UA_Array_delete(endpoints, size, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
    UA_Client_delete(client);
    return cert;
}

TEST(SimProcess, ServesOnLoopbackWithTheAskedCertificateAndEndsOnSignal) {
    for (const auto& [days, bits] : std::vector<std::pair<int, int>>{{30, 1024}, {-3, 2048}}) {
        SCOPED_TRACE(std::to_string(days) + " days, " + std::to_string(bits) + " bits");
        child_process process(OPCUA_SIM_EXECUTABLE, {"--port", "0", "--endpoint", "none", "--cert-days", std::to_string(days), "--key-bits",
                             std::to_string(bits)});
        const std::string url = process.line(std::chrono::seconds(20)).value_or("");
        std::smatch match;
        ASSERT_TRUE(std::regex_match(url, match, std::regex(R"(opc\.tcp://127\.0\.0\.1:(\d+)/)"))) << url;
        EXPECT_EQ(listening_addresses(std::stoi(match[1])), std::vector<std::string>{"0100007F"});

        X509* cert = server_certificate(url);
        ASSERT_NE(cert, nullptr);
        int whole_days = 0, seconds = 0;
        EXPECT_EQ(ASN1_TIME_diff(&whole_days, &seconds, nullptr, X509_get0_notAfter(cert)), 1);
        EXPECT_EQ(whole_days, days) << "cut towards zero, as the certificate sensor counts them";
        EXPECT_EQ(EVP_PKEY_get_bits(X509_get0_pubkey(cert)), bits);
        EXPECT_EQ(X509_check_issued(cert, cert), X509_V_OK) << "self-signed";
        X509_free(cert);

        EXPECT_EQ(process.terminate(), 0);
    }
}

}  // namespace
