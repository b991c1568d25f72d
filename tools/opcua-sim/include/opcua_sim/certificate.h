#pragma once

// Certificates for the simulated servers, made with OpenSSL. The server needs DER, while
// callers (tests, the command line) mostly have PEM, so both directions live here.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace opcua_sim {

using bytes = std::vector<std::uint8_t>;

struct certificate_request {
    // RSA key size; 1024, 2048 and 4096 are accepted.
    int key_bits = 2048;
    // End of validity in whole days from now; negative makes an expired certificate.
    int valid_days = 365;
    // Start of validity in days from now; positive makes a not-yet-valid certificate.
    // Unset: one day before now, or one day before the end if that is earlier.
    std::optional<int> valid_from_days;
    std::string common_name = "opcua-sim";
    std::string organization = "opcua-sim";
    // Goes into the subject alternative name as URI; empty leaves the URI out.
    std::string application_uri;
};

struct certificate_material {
    bytes certificate_der;
    bytes private_key_der;
};

// A self-signed certificate for an OPC UA application instance: key usage fit for
// Basic256Sha256 (signature and encipherment) and for its own signature (keyCertSign,
// as the standard asks of self-signed ones), server and client authentication,
// subject alternative names URI, DNS:localhost and IP:127.0.0.1. Start and end of
// validity lie an hour away from the whole days asked for, away from now, so that
// whole-day counts taken within that hour, cut towards zero, give exactly those days.
// Raises std::invalid_argument for a bad request, std::runtime_error when OpenSSL fails.
certificate_material make_self_signed_certificate(const certificate_request& request);

// Certificate and private key from PEM (the key may be encrypted with `key_password`).
// Raises std::runtime_error if either does not parse or the key does not belong to
// the certificate.
certificate_material certificate_from_pem(const std::string& certificate_pem,
                                          const std::string& private_key_pem,
                                          const std::string& key_password = {});

std::string certificate_der_to_pem(const bytes& der);
std::string private_key_der_to_pem(const bytes& der);

} // namespace opcua_sim
