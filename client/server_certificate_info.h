#pragma once

#include <cstdint>
#include <string>

namespace brenholt::monitoring_modules::opcua {

// What a client reports of the certificate that the server publishes with its endpoint.
struct server_certificate_info {
    // Whole days until the end of validity; negative once it has passed.
    std::int32_t days_until_expiry = 0;
    std::int32_t key_bits = 0;
    bool self_signed = false;
    std::string common_name;
    std::string thumbprint;
};

}  // namespace brenholt::monitoring_modules::opcua
