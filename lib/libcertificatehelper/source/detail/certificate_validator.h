#pragma once

// Library-internal: the OpenSSL validator behind certificate_validator_interface.

#include <memory>

#include "libcertificatehelper/source/allocator.h"
#include "libcertificatehelper/source/certificate_validator_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

class certificate_validator : public certificate_validator_interface {
public:
    // Builds the trust store from OpenSSL's default paths and the usual bundle files.
    certificate_validator(bool use_system_store, std::shared_ptr<const allocator> maker);
    ~certificate_validator() override;

    host_check_result check_host(const std::shared_ptr<certificate_interface>& certificate,
                                 const std::string& host) const override;
    verification_result verify(const std::shared_ptr<certificate_interface>& certificate) const override;
    verification_result verify_chain(
        const std::vector<std::shared_ptr<certificate_interface>>& certificates) const override;
    bool add_trusted(const std::shared_ptr<certificate_interface>& certificate) override;

private:
    struct implementation;
    std::unique_ptr<implementation> impl_;
};

}  // namespace brenholt::monitoring_modules::libcertificatehelper
