#include "libcertificatehelper/source/allocator.h"

#include "libcertificatehelper/source/detail/certificate.h"
#include "libcertificatehelper/source/detail/certificate_revocation_list.h"
#include "libcertificatehelper/source/detail/certificate_validator.h"
#include "libcertificatehelper/source/detail/keys.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

namespace {

class openssl_allocator : public allocator, public std::enable_shared_from_this<openssl_allocator> {
public:
    std::unique_ptr<key_interface> make_private_key(const std::string& pem,
                                                    const std::string& password) const override {
        return detail::load_private_key(pem, password);
    }

    std::unique_ptr<key_interface> make_public_key(const std::vector<std::uint8_t>& der) const override {
        return detail::load_public_key(der);
    }

    std::unique_ptr<certificate_interface> make_certificate_from_pem(const std::string& pem) const override {
        return detail::load_certificate_pem(pem, self());
    }

    std::unique_ptr<certificate_interface> make_certificate_from_der(
        const std::vector<std::uint8_t>& der) const override {
        return detail::load_certificate_der(der, self());
    }

    std::unique_ptr<certificate_validator_interface> make_certificate_validator(
        bool use_system_store) const override {
        return std::make_unique<certificate_validator>(use_system_store, self());
    }

    std::unique_ptr<certificate_revocation_list_interface> make_revocation_list_from_pem(
        const std::string& pem, const std::optional<std::shared_ptr<key_interface>>& issuer_key) const override {
        return detail::load_revocation_list_pem(pem, issuer_key);
    }

    std::unique_ptr<certificate_revocation_list_interface> make_revocation_list_from_der(
        const std::vector<std::uint8_t>& der,
        const std::optional<std::shared_ptr<key_interface>>& issuer_key) const override {
        return detail::load_revocation_list_der(der, issuer_key);
    }

private:
    // What it makes keeps the allocator alive; throws std::bad_weak_ptr unless held by a shared_ptr.
    std::shared_ptr<const allocator> self() const { return shared_from_this(); }
};

}  // namespace

std::shared_ptr<const allocator> make_openssl_allocator() { return std::make_shared<openssl_allocator>(); }

}  // namespace brenholt::monitoring_modules::libcertificatehelper
