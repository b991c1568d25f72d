#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>
#include <openssl/err.h>

#include "libcertificatehelper/source/allocator.h"
#include "libcertificatehelper/source/exceptions.h"
#include "support/test_pki.h"

namespace certificatehelper_test {

namespace ch = ::brenholt::monitoring_modules::libcertificatehelper;
namespace pki = ::brenholt::monitoring_modules::test_pki;

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

// Runs call and checks that it throws an Expected whose what() is prefix, or,
// with openssl_reason, prefix followed by "<reason> (<code>)" with OpenSSL's own text
// for code.
template <typename Expected, typename Call>
::testing::AssertionResult throws(Call&& call, const std::string& prefix, bool openssl_reason = false) {
    try {
        call();
    } catch (const Expected& e) {
        const std::string what = e.what();
        if (!openssl_reason)
            return what == prefix ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << what;
        const std::size_t open = what.rfind(" (");
        if (what.compare(0, prefix.size(), prefix) != 0 || open == std::string::npos || what.back() != ')')
            return ::testing::AssertionFailure() << "not '" << prefix << "<reason> (<code>)': " << what;
        const unsigned long code = std::strtoul(what.c_str() + open + 2, nullptr, 10);
        const char* reason = ERR_reason_error_string(code);
        if (reason == nullptr || what.substr(prefix.size(), open - prefix.size()) != reason)
            return ::testing::AssertionFailure() << "reason does not belong to code " << code << ": " << what;
        return ::testing::AssertionSuccess();
    } catch (const std::exception& e) {
        return ::testing::AssertionFailure() << "other exception " << typeid(e).name() << ": " << e.what();
    }
    return ::testing::AssertionFailure() << "nothing was thrown";
}

}  // namespace certificatehelper_test
