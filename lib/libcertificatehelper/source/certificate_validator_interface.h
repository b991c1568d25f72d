#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libcertificatehelper/source/certificate_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

enum class host_check_result : int {
    check_failed = 0,
    no_match = 1,
    match = 2,
};

enum class verification_status : int {
    failed = 0,
    empty = 1,
    untrusted = 2,
    expired = 3,
    not_yet_valid = 4,
    revoked = 5,
    valid = 6,
};

struct verification_result {
    verification_status status = verification_status::failed;
    // The last certificate of the verified chain; set only for valid.
    std::optional<std::shared_ptr<certificate_interface>> root;
};

// Verifies certificates against the system trust store. Null certificates are valid input.
class certificate_validator_interface {
public:
    virtual ~certificate_validator_interface() = default;

    virtual host_check_result check_host(const std::shared_ptr<certificate_interface>& certificate,
                                         const std::string& host) const = 0;
    virtual verification_result verify(const std::shared_ptr<certificate_interface>& certificate) const = 0;
    // The leaf first, then its untrusted intermediates.
    virtual verification_result verify_chain(
        const std::vector<std::shared_ptr<certificate_interface>>& certificates) const = 0;
    // Adds to the trust store of this validator, for all later verifications.
    virtual bool add_trusted(const std::shared_ptr<certificate_interface>& certificate) = 0;
};

}  // namespace brenholt::monitoring_modules::libcertificatehelper
