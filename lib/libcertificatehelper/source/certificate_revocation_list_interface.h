#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "libcertificatehelper/source/certificate_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

class certificate_revocation_list_interface {
public:
    virtual ~certificate_revocation_list_interface() = default;

    virtual std::vector<std::uint8_t> to_der() const = 0;
    // thisUpdate and nextUpdate; the epoch when absent or unreadable.
    virtual std::chrono::system_clock::time_point get_last_update() const = 0;
    virtual std::chrono::system_clock::time_point get_next_update() const = 0;
    virtual bool is_revoked(const certificate_interface& certificate) const = 0;
};

}  // namespace brenholt::monitoring_modules::libcertificatehelper
