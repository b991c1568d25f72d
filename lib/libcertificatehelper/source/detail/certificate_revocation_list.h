#pragma once

// Library-internal: the OpenSSL revocation list behind certificate_revocation_list_interface.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libcertificatehelper/source/certificate_revocation_list_interface.h"
#include "libcertificatehelper/source/detail/openssl_handles.h"
#include "libcertificatehelper/source/key_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

class certificate_revocation_list : public certificate_revocation_list_interface {
public:
    explicit certificate_revocation_list(detail::x509_crl_ptr crl);

    std::vector<std::uint8_t> to_der() const override;
    std::chrono::system_clock::time_point get_last_update() const override;
    std::chrono::system_clock::time_point get_next_update() const override;
    // A certificate listed with the reason removeFromCRL is not revoked.
    bool is_revoked(const certificate_interface& certificate) const override;

private:
    detail::x509_crl_ptr crl_;
};

namespace detail {

// With an issuer key the signature must verify; without one it is not checked.
std::unique_ptr<certificate_revocation_list_interface> load_revocation_list_pem(
    const std::string& pem, const std::optional<std::shared_ptr<key_interface>>& issuer_key);
std::unique_ptr<certificate_revocation_list_interface> load_revocation_list_der(
    const std::vector<std::uint8_t>& der, const std::optional<std::shared_ptr<key_interface>>& issuer_key);

}  // namespace detail

}  // namespace brenholt::monitoring_modules::libcertificatehelper
