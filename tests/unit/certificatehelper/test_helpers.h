#pragma once

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "libcertificatehelper/source/allocator.h"
#include "libcertificatehelper/source/exceptions.h"
#include "support/test_pki.h"
#include "support/what_of.h"

namespace certificatehelper_test {

namespace ch = ::brenholt::monitoring_modules::libcertificatehelper;
namespace pki = ::brenholt::monitoring_modules::test_pki;
using test_support::what_of;

inline const std::shared_ptr<const ch::allocator>& openssl() {
    static const std::shared_ptr<const ch::allocator> instance = ch::make_openssl_allocator();
    return instance;
}

inline std::shared_ptr<ch::certificate_interface> load(const pki::cert& certificate) {
    return openssl()->make_certificate_from_pem(certificate.pem());
}

// Each test starts with an empty OpenSSL error queue, so error texts come from the test itself.
class clean_openssl_errors : public ::testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
};

// Whether `what` is prefix followed by "<reason> (<code>)" with OpenSSL's own text for code.
inline ::testing::AssertionResult has_openssl_reason(const std::string& what, const std::string& prefix) {
    const std::size_t open = what.rfind(" (");
    if (what.compare(0, prefix.size(), prefix) != 0 || open == std::string::npos || what.back() != ')')
        return ::testing::AssertionFailure() << "not '" << prefix << "<reason> (<code>)': " << what;
    const char* reason = ERR_reason_error_string(std::strtoul(what.c_str() + open + 2, nullptr, 10));
    if (reason == nullptr || what.substr(prefix.size(), open - prefix.size()) != reason)
        return ::testing::AssertionFailure() << "reason does not belong to the code: " << what;
    return ::testing::AssertionSuccess();
}

}  // namespace certificatehelper_test
