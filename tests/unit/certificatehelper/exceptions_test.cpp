#include <functional>
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

// An operation that fails inside and answers anyway, or raises, leaves no error of its
// own queued: the next failure must be described by its own reason.
TEST_F(openssl_error_text_test, failing_operations_leave_the_queue_as_found) {
    const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA"));
    pki::cert_profile forged = pki::leaf_profile("forged");
    forged.signing_key = pki::rsa_key(2048, 2);
    pki::crl_profile forged_list;
    forged_list.signing_key = pki::rsa_key(2048, 2);
    const pki::crl list = pki::make_crl(forged_list, ca);
    const std::shared_ptr<ch::certificate_interface> self = load(pki::make_cert(forged)), issuer = load(ca);
    const std::shared_ptr<ch::key_interface> ca_key = openssl()->make_public_key(ca.key().public_der());
    const auto validator = openssl()->make_certificate_validator(false);
    const std::string bad_pem = "-----BEGIN X-----\n!!!!\n-----END X-----\n";
    const std::vector<std::uint8_t> bad_der{0x30, 0x03, 0x02};
    const std::pair<const char*, std::function<void()>> operations[] = {
        {"is_self_signed", [&] { EXPECT_FALSE(self->is_self_signed()); }},
        {"verify_signature", [&] { EXPECT_FALSE(self->verify_signature(*issuer)); }},
        {"verify", [&] { EXPECT_NE(validator->verify(self).status, ch::verification_status::valid); }},
        {"certificate PEM", [&] { EXPECT_ANY_THROW(openssl()->make_certificate_from_pem(bad_pem)); }},
        {"certificate DER", [&] { EXPECT_ANY_THROW(openssl()->make_certificate_from_der(bad_der)); }},
        {"list PEM", [&] { EXPECT_ANY_THROW(openssl()->make_revocation_list_from_pem(bad_pem, std::nullopt)); }},
        {"list DER", [&] { EXPECT_ANY_THROW(openssl()->make_revocation_list_from_der(bad_der, std::nullopt)); }},
        {"list signature", [&] { EXPECT_ANY_THROW(openssl()->make_revocation_list_from_pem(list.pem(), ca_key)); }},
    };
    const std::string encrypted = pki::rsa_key().private_pem_encrypted("right");
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        ERR_clear_error();
        operation();
        EXPECT_EQ(ERR_peek_error(), 0u);
        const std::string what =
            what_of<ex::could_not_load_private_key>([&] { openssl()->make_private_key(encrypted, "wrong"); });
        EXPECT_NE(what.find("bad decrypt"), std::string::npos) << what;
    }
}

}  // namespace
}  // namespace certificatehelper_test
