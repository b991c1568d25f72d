#include <type_traits>

#include <openssl/err.h>
#include <openssl/x509.h>

#include "libcertificatehelper/source/detail/openssl_handles.h"
#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

namespace ex = ch::exceptions;
namespace i18n = ::brenholt::monitoring_modules::libi18n;

// Keys escape what OpenSSL's reasons may hold; the validator's failures form a branch of their own.
TEST(failure_classes, carry_their_text_and_key_and_sit_in_the_tree) {
    const ex::could_not_load_private_key key_error("bad decrypt: x, [y] (1)");
    EXPECT_STREQ(key_error.what(), "Failed to load the provided private key. bad decrypt: x, [y] (1)");
    EXPECT_EQ(key_error.get_i18n_msg().key,
              "#:certificate_helper.error.could_not_load_private_key[bad decrypt\\: x\\, \\[y\\] (1)]");
    static_assert(std::is_base_of_v<ex::exception, ex::could_not_load_private_key>);
    const ex::store_ctx_init_failed store_error("r (5)");
    EXPECT_STREQ(store_error.what(), "Failed to initialize certificate verification context. r (5)");
    static_assert(std::is_base_of_v<ex::certificate_validator_exception, ex::store_ctx_init_failed> &&
                  !std::is_base_of_v<ex::exception, ex::store_ctx_init_failed> &&
                  std::is_base_of_v<i18n::error_generic, ex::store_ctx_init_failed>);
    EXPECT_STREQ(ex::bad_alloc("X509_STORE_new").what(), "Internal Error: Memory allocation failed. (X509_STORE_new)");
}

class openssl_error_text_test : public clean_openssl_errors {};

// The oldest error is named and taken, the rest stay; a code without text is unknown.
TEST_F(openssl_error_text_test, names_the_oldest_error_then_the_next) {
    ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    ERR_raise(ERR_LIB_USER, 4000);
    const unsigned long first = ERR_PACK(ERR_LIB_X509, 0, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    EXPECT_EQ(ch::detail::openssl_error_text(), "cert already in hash table (" + std::to_string(first) + ")");
    const unsigned long code = ERR_PACK(ERR_LIB_USER, 0, 4000);
    ASSERT_EQ(ERR_reason_error_string(code), nullptr);
    EXPECT_EQ(ch::detail::openssl_error_text(), "Unknown OpenSSL error (" + std::to_string(code) + ").");
    EXPECT_EQ(ch::detail::openssl_error_text(), "Unknown OpenSSL error (0).");
}

}  // namespace
}  // namespace certificatehelper_test
