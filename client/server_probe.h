#pragma once

#include <cstdint>
#include <string>

#include <open62541/types.h>

namespace brenholt::monitoring_modules::opcua {

// Whether an OPC UA server answers a new connection: a TCP connection to host and port,
// an OPC UA Hello for `endpoint_url`, and the first bytes of the answer, all within
// `timeout_ms`. Costs a round trip and no key, where a new UA_Client in security mode
// none first makes a 4096-bit one. Good when anything comes back (an Acknowledge, an
// Error, or bytes the stack will judge itself); otherwise the status open62541 gives
// for the same failure: BadConnectionRejected when the connection is refused,
// BadTimeout when nothing answers in time, BadConnectionClosed for the rest.
UA_StatusCode probe_server(const std::string& host, std::int64_t port, const std::string& endpoint_url,
                           std::uint32_t timeout_ms);

}  // namespace brenholt::monitoring_modules::opcua
