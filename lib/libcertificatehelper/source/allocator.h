#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libcertificatehelper/source/certificate_interface.h"
#include "libcertificatehelper/source/certificate_revocation_list_interface.h"
#include "libcertificatehelper/source/certificate_validator_interface.h"
#include "libcertificatehelper/source/key_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

// The one factory of the library: everything else of it is reached through what this makes.
class allocator {
public:
    virtual ~allocator() = default;

    // The password may be empty for a key that is not encrypted.
    virtual std::unique_ptr<key_interface> make_private_key(const std::string& pem,
                                                            const std::string& password) const = 0;
    // DER of a SubjectPublicKeyInfo.
    virtual std::unique_ptr<key_interface> make_public_key(const std::vector<std::uint8_t>& der) const = 0;
    // Loads the first certificate of the text.
    virtual std::unique_ptr<certificate_interface> make_certificate_from_pem(const std::string& pem) const = 0;
    virtual std::unique_ptr<certificate_interface> make_certificate_from_der(
        const std::vector<std::uint8_t>& der) const = 0;
    // The flag names a system certificate store where the platform has one; here it changes nothing.
    virtual std::unique_ptr<certificate_validator_interface> make_certificate_validator(
        bool use_system_store) const = 0;
    // With an issuer key, the list's signature must verify with it.
    virtual std::unique_ptr<certificate_revocation_list_interface> make_revocation_list_from_pem(
        const std::string& pem, const std::optional<std::shared_ptr<key_interface>>& issuer_key) const = 0;
    virtual std::unique_ptr<certificate_revocation_list_interface> make_revocation_list_from_der(
        const std::vector<std::uint8_t>& der,
        const std::optional<std::shared_ptr<key_interface>>& issuer_key) const = 0;
};

// The OpenSSL allocator. Certificates and validators keep it alive by shared_ptr.
std::shared_ptr<const allocator> make_openssl_allocator();

}  // namespace brenholt::monitoring_modules::libcertificatehelper
