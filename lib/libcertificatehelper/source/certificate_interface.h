#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "libcertificatehelper/source/key_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

enum class public_key_type : int {
    unknown = 0,
    rsa = 1,
    dsa = 2,
    ec = 3,
    dh = 4,
    ed25519 = 5,
    ed448 = 6,
};

// An X.509 certificate. Made by an allocator; immutable once made.
class certificate_interface {
public:
    virtual ~certificate_interface() = default;

    virtual std::vector<std::uint8_t> to_der() const = 0;
    // Subject and issuer in RFC 2253 form: entries in reverse of their encoded order.
    virtual std::string get_subject() const = 0;
    virtual std::string get_issuer() const = 0;
    virtual std::shared_ptr<key_interface> get_public_key() const = 0;
    // The first common name; throws std::out_of_range if the subject has none.
    virtual std::string get_common_name() const = 0;
    // The raw bytes of each common name, in certificate order.
    virtual std::vector<std::string> get_common_names() const = 0;
    // Entries as OpenSSL prints them, e.g. "URI:urn:a", "DNS:host".
    virtual std::vector<std::string> get_subject_alternative_names() const = 0;
    virtual std::vector<std::string> get_application_uris() const = 0;
    virtual bool is_self_signed() const = 0;
    // SHA-1 of the DER form, 40 lower-case hexadecimal digits.
    virtual std::string get_thumbprint() const = 0;
    virtual std::int32_t get_signature_size() const = 0;
    virtual std::int32_t get_public_key_bits() const = 0;
    virtual public_key_type get_public_key_type() const = 0;
    // Whole days from now to notAfter, negative once expired; a part of a day does not count.
    virtual std::int32_t get_days_until_expiry(std::chrono::system_clock::time_point now) const = 0;
    virtual bool supports_data_encipherment() const = 0;
    virtual std::vector<std::string> get_crl_distribution_points() const = 0;
    // Whether this certificate was signed by the key of issuer.
    virtual bool verify_signature(const certificate_interface& issuer) const = 0;
};

}  // namespace brenholt::monitoring_modules::libcertificatehelper
