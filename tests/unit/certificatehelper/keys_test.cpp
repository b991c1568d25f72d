#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

class keys_test : public clean_openssl_errors {};

const std::string could_not_load_private = "Failed to load the provided private key. ";
const std::string could_not_load_public = "Failed to load the provided public key. ";

struct private_key_case {
    const char* name;
    std::string (*pem)(const pki::key_pair&);
    const char* password;
};

void PrintTo(const private_key_case& c, std::ostream* out) { *out << c.name; }

class private_key_loads : public ::testing::TestWithParam<private_key_case> {};

TEST_P(private_key_loads, and_gives_its_der) {
    for (const pki::key_pair& key : {pki::rsa_key(), pki::make_key(pki::key_algorithm::ec_p256)}) {
        const auto loaded = openssl()->make_private_key(GetParam().pem(key), GetParam().password);
        EXPECT_EQ(loaded->to_der(), key.private_der());
    }
}

INSTANTIATE_TEST_SUITE_P(
    keys_test, private_key_loads,
    ::testing::Values(
        private_key_case{"plain_with_empty_password", [](const pki::key_pair& k) { return k.private_pem(); }, ""},
        // A password for a key that needs none is not looked at.
        private_key_case{"plain_with_a_password", [](const pki::key_pair& k) { return k.private_pem(); }, "unused"},
        private_key_case{"encrypted_with_its_password",
                         [](const pki::key_pair& k) { return k.private_pem_encrypted("s3cret, with: [odd] chars"); },
                         "s3cret, with: [odd] chars"}),
    [](const auto& info) { return std::string(info.param.name); });

struct bad_private_key_case {
    const char* name;
    std::string (*pem)();  // made when the test runs, not when it is listed
    const char* password;
};

void PrintTo(const bad_private_key_case& c, std::ostream* out) { *out << c.name; }

class private_key_fails : public ::testing::TestWithParam<bad_private_key_case> {};

TEST_P(private_key_fails, with_openssls_reason_and_leaves_no_error_behind) {
    std::string reason;
    EXPECT_TRUE(throws<ch::exceptions::could_not_load_private_key>(
        [&] { openssl()->make_private_key(GetParam().pem(), GetParam().password); }, could_not_load_private, &reason));
    EXPECT_TRUE(is_openssl_error_text(reason));
    EXPECT_EQ(ERR_peek_error(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    keys_test, private_key_fails,
    ::testing::Values(
        bad_private_key_case{"wrong_password", [] { return pki::rsa_key().private_pem_encrypted("right"); }, "wrong"},
        bad_private_key_case{"missing_password", [] { return pki::rsa_key().private_pem_encrypted("right"); }, ""},
        bad_private_key_case{"certificate_instead_of_key", [] { return pki::make_cert(pki::leaf_profile("leaf")).pem(); }, ""},
        bad_private_key_case{"truncated_key", [] { return pki::rsa_key().private_pem().substr(0, 200); }, ""}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(keys_test, an_empty_private_key_text_is_missing) {
    EXPECT_TRUE(throws<ch::exceptions::private_key_empty>([] { openssl()->make_private_key("", "password"); },
                                                          "Missing private key. Enter a valid private key."));
}

TEST_F(keys_test, a_public_key_survives_a_round_trip_through_der) {
    for (const pki::key_pair& key : {pki::rsa_key(), pki::make_key(pki::key_algorithm::ed25519)}) {
        const auto loaded = openssl()->make_public_key(key.public_der());
        EXPECT_EQ(loaded->to_der(), key.public_der());
        EXPECT_EQ(openssl()->make_public_key(loaded->to_der())->to_der(), key.public_der());
    }
}

TEST_F(keys_test, bad_public_key_der_fails_and_leaves_no_error_behind) {
    EXPECT_TRUE(throws<ch::exceptions::public_key_empty>(
        [] { openssl()->make_public_key({}); },
        "Missing public key. Make sure the certificate contains a valid public key."));

    // A private key's DER is not a SubjectPublicKeyInfo.
    for (const pki::bytes& der : {pki::bytes{0x30, 0x01, 0x00}, pki::rsa_key().private_der()}) {
        std::string reason;
        EXPECT_TRUE(throws<ch::exceptions::could_not_load_public_key>([&] { openssl()->make_public_key(der); },
                                                                      could_not_load_public, &reason));
        EXPECT_TRUE(is_openssl_error_text(reason));
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

}  // namespace
}  // namespace certificatehelper_test
