#pragma once

#include <cstdlib>
#include <memory>
#include <ostream>
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

// Checks the form "<reason> (<code>)" where reason is OpenSSL's own text for code.
inline ::testing::AssertionResult is_openssl_error_text(const std::string& text) {
    const std::size_t open = text.rfind(" (");
    if (open == std::string::npos || text.empty() || text.back() != ')') {
        return ::testing::AssertionFailure() << "not of the form '<reason> (<code>)': " << text;
    }
    const std::string digits = text.substr(open + 2, text.size() - open - 3);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
        return ::testing::AssertionFailure() << "no decimal code in: " << text;
    }
    const auto code = static_cast<unsigned long>(std::strtoull(digits.c_str(), nullptr, 10));
    const char* reason = ERR_reason_error_string(code);
    if (reason == nullptr || text.substr(0, open) != reason) {
        return ::testing::AssertionFailure() << "reason does not belong to code " << code << ": " << text;
    }
    return ::testing::AssertionSuccess();
}

// Runs call and checks that it throws exactly an Expected whose what() starts with prefix.
// The rest of what() is handed back through tail.
template <typename Expected, typename Call>
::testing::AssertionResult throws(Call&& call, const std::string& prefix, std::string* tail = nullptr) {
    try {
        call();
    } catch (const Expected& e) {
        if (typeid(e) != typeid(Expected)) {
            return ::testing::AssertionFailure() << "a subclass was thrown: " << typeid(e).name();
        }
        const std::string what = e.what();
        if (what.compare(0, prefix.size(), prefix) != 0 || (tail == nullptr && what != prefix)) {
            return ::testing::AssertionFailure() << "what() is '" << what << "', expected '" << prefix << "'";
        }
        if (tail != nullptr) {
            *tail = what.substr(prefix.size());
        }
        return ::testing::AssertionSuccess();
    } catch (const std::exception& e) {
        return ::testing::AssertionFailure() << "other exception " << typeid(e).name() << ": " << e.what();
    }
    return ::testing::AssertionFailure() << "nothing was thrown";
}

}  // namespace certificatehelper_test
