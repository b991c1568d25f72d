#pragma once

#include <cstdint>
#include <vector>

namespace brenholt::monitoring_modules::libcertificatehelper {

// A private or public key; all the rest of the module needs of one is its DER form, and
// whether the OPC UA stack can use it at all.
class key_interface {
public:
    virtual ~key_interface() = default;
    virtual std::vector<std::uint8_t> to_der() const = 0;
    virtual bool is_rsa() const = 0;
};

}  // namespace brenholt::monitoring_modules::libcertificatehelper
