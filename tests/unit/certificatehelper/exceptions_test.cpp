#include <functional>

#include <openssl/err.h>
#include <openssl/x509.h>

#include "libcertificatehelper/source/detail/openssl_handles.h"
#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

namespace ex = ch::exceptions;
namespace i18n = ::brenholt::monitoring_modules::libi18n;

struct class_case {
    const char* name;
    std::function<void()> raise;
    std::string text;
    std::string key;
    bool validator_branch;
};

void PrintTo(const class_case& c, std::ostream* out) { *out << c.name; }

class failure_classes : public ::testing::TestWithParam<class_case> {};

TEST_P(failure_classes, carry_their_text_and_key_and_sit_in_the_tree) {
    const class_case& c = GetParam();
    try {
        c.raise();
        FAIL() << "nothing was thrown";
    } catch (const i18n::error_generic& e) {
        EXPECT_EQ(std::string(e.what()), c.text);
        EXPECT_EQ(e.get_i18n_msg().text, c.text);
        EXPECT_EQ(e.get_i18n_msg().key, c.key);
        EXPECT_EQ(dynamic_cast<const ex::exception*>(&e) != nullptr, !c.validator_branch);
        EXPECT_EQ(dynamic_cast<const ex::certificate_validator_exception*>(&e) != nullptr, c.validator_branch);
    }
}

#define CASE(NAME, ARGS, TEXT, KEY_ARGS) \
    class_case { #NAME, [] { throw ex::NAME ARGS; }, TEXT, "#:certificate_helper.error." #NAME KEY_ARGS, false }

INSTANTIATE_TEST_SUITE_P(
    exceptions_test, failure_classes,
    ::testing::Values(
        CASE(bad_alloc, ("X509_STORE_new"), "Internal Error: Memory allocation failed. (X509_STORE_new)",
             "[X509_STORE_new]"),
        CASE(certificate_der_invalid, (), "The provided certificate is not in a valid DER format.", "[]"),
        CASE(certificate_empty, (), "The provided certificate is empty. Enter a valid certificate.", "[]"),
        CASE(certificate_pem_invalid, (), "The provided certificate is not in valid PEM format.", "[]"),
        CASE(certificate_revocation_list_der_invalid, (),
             "The provided certificate revocation list is not in a valid DER format.", "[]"),
        CASE(certificate_revocation_list_empty, (),
             "The provided certificate revocation list is empty. Enter a valid certificate revocation list.", "[]"),
        CASE(certificate_revocation_list_pem_invalid, (),
             "The provided certificate revocation list is not in a valid PEM format.", "[]"),
        CASE(certificate_revocation_list_signature_verification_failed, ("bad signature (123)"),
             "Failed to verify the signature of the certificate revocation list. bad signature (123)",
             "[bad signature (123)]"),
        // Colons, commas and brackets of an OpenSSL reason are escaped in the key only.
        CASE(could_not_load_private_key, ("bad decrypt: x, [y] (1)"),
             "Failed to load the provided private key. bad decrypt: x, [y] (1)", "[bad decrypt\\: x\\, \\[y\\] (1)]"),
        CASE(could_not_load_public_key, ("Unknown OpenSSL error (0)."),
             "Failed to load the provided public key. Unknown OpenSSL error (0).", "[Unknown OpenSSL error (0).]"),
        CASE(data_encipherment_not_supported, (), "The provided certificate does not support data encipherment.", "[]"),
        CASE(get_x509_issuer_failed, ("r (2)"), "Failed to get issuer name from certificate. r (2)", "[r (2)]"),
        CASE(get_x509_subject_failed, ("r (3)"), "Failed to get subject name from certificate. r (3)", "[r (3)]"),
        CASE(missing_application_uri, (), "The provided certificate does not contain an URI.", "[]"),
        CASE(private_key_empty, (), "Missing private key. Enter a valid private key.", "[]"),
        CASE(public_key_empty, (), "Missing public key. Make sure the certificate contains a valid public key.", "[]"),
        CASE(signature_verification_failed, ("r (4)"), "Failed to verify the signature of the certificate. r (4)",
             "[r (4)]"),
        CASE(wrong_hash_length, ("20", "16"),
             "The length (20) of the provided hash is invalid. A hash with the length of 16 is required.", "[20,16]"),
        class_case{"store_ctx_init_failed", [] { throw ex::store_ctx_init_failed("X509_STORE_CTX_init: r (5)"); },
                   "Failed to initialize certificate verification context. X509_STORE_CTX_init: r (5)",
                   "#:certificate_helper.error.store_ctx_init_failed[X509_STORE_CTX_init\\: r (5)]", true},
        class_case{"store_set_default_paths_failed", [] { throw ex::store_set_default_paths_failed("r (6)"); },
                   "Failed to initialize the default trust store paths. r (6)",
                   "#:certificate_helper.error.store_set_default_paths_failed[r (6)]", true}),
    [](const auto& info) { return std::string(info.param.name); });

#undef CASE

class openssl_error_text_test : public clean_openssl_errors {};

TEST_F(openssl_error_text_test, names_the_oldest_error_and_leaves_the_rest) {
    ERR_raise(ERR_LIB_X509, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    ERR_raise(ERR_LIB_X509, X509_R_KEY_VALUES_MISMATCH);
    const unsigned long first = ERR_PACK(ERR_LIB_X509, 0, X509_R_CERT_ALREADY_IN_HASH_TABLE);
    EXPECT_EQ(ch::detail::openssl_error_text(), "cert already in hash table (" + std::to_string(first) + ")");
    EXPECT_EQ(ERR_peek_error(), ERR_PACK(ERR_LIB_X509, 0, X509_R_KEY_VALUES_MISMATCH));
}

TEST_F(openssl_error_text_test, a_code_without_text_is_unknown_with_a_period) {
    ERR_raise(ERR_LIB_USER, 4000);
    const unsigned long code = ERR_PACK(ERR_LIB_USER, 0, 4000);
    ASSERT_EQ(ERR_reason_error_string(code), nullptr);
    EXPECT_EQ(ch::detail::openssl_error_text(), "Unknown OpenSSL error (" + std::to_string(code) + ").");
    EXPECT_EQ(ch::detail::openssl_error_text(), "Unknown OpenSSL error (0).");
}

}  // namespace
}  // namespace certificatehelper_test
