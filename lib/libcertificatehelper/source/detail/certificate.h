#pragma once

// Library-internal: the OpenSSL certificate behind certificate_interface.

#include <memory>
#include <string>
#include <vector>

#include "libcertificatehelper/source/allocator.h"
#include "libcertificatehelper/source/certificate_interface.h"
#include "libcertificatehelper/source/detail/openssl_handles.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

class certificate : public certificate_interface {
public:
    // Takes ownership; a null certificate raises certificate_empty.
    certificate(detail::x509_ptr x509, std::shared_ptr<const allocator> maker);

    std::vector<std::uint8_t> to_der() const override;
    std::string get_subject() const override;
    std::string get_issuer() const override;
    std::shared_ptr<key_interface> get_public_key() const override;
    std::string get_common_name() const override;
    std::vector<std::string> get_common_names() const override;
    std::vector<std::string> get_subject_alternative_names() const override;
    std::vector<std::string> get_application_uris() const override;
    bool is_self_signed() const override;
    std::string get_thumbprint() const override;
    std::int32_t get_signature_size() const override;
    std::int32_t get_public_key_bits() const override;
    public_key_type get_public_key_type() const override;
    std::int32_t get_days_until_expiry(std::chrono::system_clock::time_point now) const override;
    bool supports_data_encipherment() const override;
    std::vector<std::string> get_crl_distribution_points() const override;
    bool verify_signature(const certificate_interface& issuer) const override;

private:
    // One text per occurrence of the extension; the authority key identifier gives "keyid:<hex>".
    std::vector<std::string> extension_texts(int nid) const;

    std::shared_ptr<const allocator> allocator_;
    detail::x509_ptr x509_;
    std::string subject_;
    std::string issuer_;
};

namespace detail {

std::unique_ptr<certificate_interface> load_certificate_pem(const std::string& pem,
                                                            std::shared_ptr<const allocator> maker);
std::unique_ptr<certificate_interface> load_certificate_der(const std::vector<std::uint8_t>& der,
                                                            std::shared_ptr<const allocator> maker);

}  // namespace detail

}  // namespace brenholt::monitoring_modules::libcertificatehelper
