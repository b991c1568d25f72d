#pragma once

// What OPC UA asks of a client certificate, checked before a secured check or sensor runs,
// so that a person learns everything that is missing at once.

#include <string>
#include <vector>

namespace miniprobe {

// Whether the text holds a PEM certificate.
bool holds_certificate(const std::string& text);

// What the first certificate of the PEM text lacks: data encipherment in its key usage,
// a URI among its subject alternative names, an RSA key. Empty when it lacks nothing.
// Raises std::invalid_argument when the text holds no readable certificate.
std::vector<std::string> certificate_lacks(const std::string& pem);

}  // namespace miniprobe
