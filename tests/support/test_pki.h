#pragma once

// A small PKI for tests: keys, CA and leaf certificates, revocation lists, built with
// OpenSSL at run time and handed out as PEM or DER. The header names no OpenSSL type,
// so suites that do not link OpenSSL themselves can use it.
//
// Times are absolute time points; build them from one `now` of the test (see from_now)
// so that a test never depends on the date it runs. Failures inside OpenSSL raise
// std::runtime_error with OpenSSL's reason.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace brenholt::monitoring_modules::test_pki {

using bytes = std::vector<std::uint8_t>;
using time_point = std::chrono::system_clock::time_point;

constexpr std::chrono::seconds days(std::int64_t count) { return std::chrono::seconds(count * 86400); }

// The current time plus an offset.
time_point from_now(std::chrono::seconds offset);

enum class key_algorithm { rsa, rsa_pss, ec_p256, ed25519, ed448 };

// The handles below share one immutable OpenSSL object each.
struct key_pair {
    struct impl;
    std::shared_ptr<const impl> state;

    // PKCS#8, not encrypted.
    std::string private_pem() const;
    // PKCS#8 encrypted with AES-256-CBC under the password.
    std::string private_pem_encrypted(const std::string& password) const;
    // OpenSSL's DER of the private key (PKCS#1 for RSA, SEC1 for EC, PKCS#8 otherwise).
    bytes private_der() const;
    // SubjectPublicKeyInfo.
    bytes public_der() const;
};

// Keys are slow to generate, so each (algorithm, bits, slot) is made once per process and
// shared; different slots give different keys of the same kind. `bits` applies to RSA only.
key_pair make_key(key_algorithm algorithm, int bits = 2048, int slot = 0);
inline key_pair rsa_key(int bits = 2048, int slot = 0) { return make_key(key_algorithm::rsa, bits, slot); }

enum class string_type { utf8, bmp };

// One attribute of a distinguished name: "CN", "O", "OU", "C", ... `value` holds the
// bytes as they go into the certificate: UTF-8, or UTF-16BE for bmp.
struct name_entry {
    std::string field;
    std::string value;
    string_type type = string_type::utf8;
};

// A subject or authority key identifier.
struct key_identifier {
    enum class kind { absent, derived, given };
    kind how = kind::derived;
    bytes value;  // for `given`

    static key_identifier absent() { return {kind::absent, {}}; }
    // Subject: SHA-1 of the public key. Authority: the issuer's subject key identifier
    // (its key's SHA-1 when it has none); for a self-signed certificate, its own.
    static key_identifier derived() { return {kind::derived, {}}; }
    static key_identifier given(bytes value) { return {kind::given, std::move(value)}; }
};

// Defaults describe an OPC UA style application certificate, valid from an hour ago for a year.
struct cert_profile {
    std::vector<name_entry> subject{{"CN", "test"}};
    std::optional<key_pair> key;            // default: rsa_key()
    std::optional<std::int64_t> serial;     // default: a new number for each certificate
    std::optional<time_point> not_before;   // default: now - 1 hour
    std::optional<time_point> not_after;    // default: now + 365 days
    // In OpenSSL configuration syntax: "URI:urn:a", "DNS:host", "IP:192.0.2.1".
    std::vector<std::string> subject_alt_names;
    // In OpenSSL configuration syntax; no value leaves the extension out.
    std::optional<std::string> key_usage = "critical,digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment";
    std::optional<std::string> basic_constraints;
    key_identifier subject_key_id = key_identifier::derived();
    key_identifier authority_key_id = key_identifier::derived();
    // Signs with this key instead of the issuer's (or the certificate's own): a forged signature.
    std::optional<key_pair> signing_key;
};

// A CA certificate: CA:TRUE, keyCertSign and cRLSign, its own key slot, ten years.
cert_profile ca_profile(const std::string& common_name, key_pair key = rsa_key(2048, 1));
// A leaf with the given common name and the defaults above.
cert_profile leaf_profile(const std::string& common_name);

struct cert {
    struct impl;
    std::shared_ptr<const impl> state;

    std::string pem() const;
    bytes der() const;
    const key_pair& key() const;
    std::int64_t serial() const;
};

// Issues a certificate; without an issuer it is self-signed (issuer name = subject name).
cert make_cert(const cert_profile& profile, const cert* issuer = nullptr);

// RFC 5280 revocation reasons that tests care about.
constexpr int reason_key_compromise = 1;
constexpr int reason_remove_from_crl = 8;

// Revoked an hour ago.
struct revoked_entry {
    std::int64_t serial = 0;
    std::optional<int> reason;  // no reason extension by default
};

// Issued an hour ago, next update in 30 days.
struct crl_profile {
    std::vector<revoked_entry> revoked;
    // Signs with this key instead of the issuer's: a list whose signature does not verify.
    std::optional<key_pair> signing_key;
};

struct crl {
    struct impl;
    std::shared_ptr<const impl> state;

    std::string pem() const;
    bytes der() const;
};

crl make_crl(const crl_profile& profile, const cert& issuer);

}  // namespace brenholt::monitoring_modules::test_pki
