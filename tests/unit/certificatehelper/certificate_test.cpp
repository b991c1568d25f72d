#include <algorithm>
#include <cstdio>
#include <functional>
#include <stdexcept>

#include <openssl/evp.h>

#include "libcertificatehelper/source/detail/certificate.h"
#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

using namespace std::chrono_literals;

class certificate_test : public clean_openssl_errors {};

TEST_F(certificate_test, loads_pem_and_der_alike_and_gives_back_the_same_der) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    profile.subject = {{"C", "DE"}, {"O", "Example Org"}, {"CN", "leaf"}};
    const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA"));
    const pki::cert leaf = pki::make_cert(profile, &ca);

    const auto from_pem = openssl()->make_certificate_from_pem(leaf.pem());
    const auto from_der = openssl()->make_certificate_from_der(leaf.der());
    for (const auto* loaded : {from_pem.get(), from_der.get()}) {
        EXPECT_EQ(loaded->to_der(), leaf.der());
        // RFC 2253 order: the last encoded entry comes first.
        EXPECT_EQ(loaded->get_subject(), "CN=leaf,O=Example Org,C=DE");
        EXPECT_EQ(loaded->get_issuer(), "CN=Test CA");
    }
}

TEST_F(certificate_test, a_text_with_two_certificates_loads_the_first) {
    const pki::cert first = pki::make_cert(pki::leaf_profile("first"));
    const pki::cert second = pki::make_cert(pki::leaf_profile("second"));
    EXPECT_EQ(openssl()->make_certificate_from_pem(first.pem() + second.pem())->get_common_name(), "first");
}

TEST_F(certificate_test, bad_input_raises_the_matching_failure) {
    const auto& a = openssl();
    const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA"));
    const std::string empty_text = "The provided certificate is empty. Enter a valid certificate.";
    const std::string bad_pem = "The provided certificate is not in valid PEM format.";
    const std::string bad_der = "The provided certificate is not in a valid DER format.";

    EXPECT_TRUE(throws<ch::exceptions::certificate_empty>([&] { a->make_certificate_from_pem(""); }, empty_text));
    EXPECT_TRUE(throws<ch::exceptions::certificate_empty>([&] { a->make_certificate_from_der({}); }, empty_text));
    EXPECT_TRUE(throws<ch::exceptions::certificate_pem_invalid>(
        [&] { a->make_certificate_from_pem("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"); },
        bad_pem));
    EXPECT_TRUE(throws<ch::exceptions::certificate_pem_invalid>(
        [&] { a->make_certificate_from_pem(ca.key().private_pem()); }, bad_pem));
    EXPECT_TRUE(
        throws<ch::exceptions::certificate_der_invalid>([&] { a->make_certificate_from_der({0x30, 0x03, 0x02}); }, bad_der));
}

TEST_F(certificate_test, a_null_x509_is_an_empty_certificate) {
    EXPECT_TRUE(throws<ch::exceptions::certificate_empty>(
        [] { ch::certificate(nullptr, openssl()); }, "The provided certificate is empty. Enter a valid certificate."));
}

TEST_F(certificate_test, common_names_are_raw_bytes_in_certificate_order) {
    pki::cert_profile profile;
    profile.subject = {{"CN", "first"}, {"O", "Org"}, {"CN", "second"}};
    const auto two = load(pki::make_cert(profile));
    EXPECT_EQ(two->get_common_names(), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(two->get_common_name(), "first");

    // A BMPString keeps its UTF-16 bytes: no character set conversion.
    profile.subject = {{"CN", std::string("\0A\0B", 4), pki::string_type::bmp}, {"CN", "M\xC3\xBCller"}};
    const auto raw = load(pki::make_cert(profile));
    EXPECT_EQ(raw->get_common_names(), (std::vector<std::string>{std::string("\0A\0B", 4), "M\xC3\xBCller"}));

    profile.subject = {{"O", "No Common Name"}};
    const auto none = load(pki::make_cert(profile));
    EXPECT_TRUE(none->get_common_names().empty());
    EXPECT_THROW(none->get_common_name(), std::out_of_range);
}

struct alt_name_case {
    const char* name;
    std::vector<std::string> configured;
    std::vector<pki::raw_extension> raw;
    std::vector<std::string> entries;
    std::vector<std::string> uris;
};

void PrintTo(const alt_name_case& c, std::ostream* out) { *out << c.name; }

class alt_names : public ::testing::TestWithParam<alt_name_case> {};

TEST_P(alt_names, entries_and_application_uris) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    profile.subject_alt_names = GetParam().configured;
    profile.extra_extensions = GetParam().raw;
    const auto certificate = load(pki::make_cert(profile));
    EXPECT_EQ(certificate->get_subject_alternative_names(), GetParam().entries);
    EXPECT_EQ(certificate->get_application_uris(), GetParam().uris);
}

INSTANTIATE_TEST_SUITE_P(
    certificate_test, alt_names,
    ::testing::Values(
        alt_name_case{"uri_and_dns", {"URI:urn:a", "DNS:b"}, {}, {"URI:urn:a", "DNS:b"}, {"urn:a"}},
        alt_name_case{"two_uris", {"URI:urn:one", "URI:urn:two"}, {}, {"URI:urn:one", "URI:urn:two"}, {"urn:one", "urn:two"}},
        alt_name_case{"dns_only", {"DNS:host.example.com"}, {}, {"DNS:host.example.com"}, {}},
        alt_name_case{"ip_address", {"IP:192.0.2.1"}, {}, {"IP Address:192.0.2.1"}, {}},
        // "URI:" anywhere in an entry counts, and the entry's first four bytes are dropped.
        alt_name_case{"uri_tag_inside_another_entry", {"DNS:URI:x"}, {}, {"DNS:URI:x"}, {"URI:x"}},
        alt_name_case{"no_extension", {}, {}, {}, {}},
        // An empty GeneralNames sequence prints as "<EMPTY>" and contributes nothing.
        alt_name_case{"empty_extension", {}, {{"2.5.29.17", {0x30, 0x00}, false}}, {}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

struct self_signed_case {
    const char* name;
    std::function<pki::cert()> make;
    bool expected;
};

void PrintTo(const self_signed_case& c, std::ostream* out) { *out << c.name; }

class self_signed : public ::testing::TestWithParam<self_signed_case> {};

TEST_P(self_signed, answers_from_names_key_identifiers_and_signature) {
    EXPECT_EQ(load(GetParam().make())->is_self_signed(), GetParam().expected);
}

pki::cert_profile with_ids(pki::key_identifier subject, pki::key_identifier authority) {
    pki::cert_profile profile = pki::leaf_profile("self");
    profile.subject_key_id = std::move(subject);
    profile.authority_key_id = std::move(authority);
    return profile;
}

INSTANTIATE_TEST_SUITE_P(
    certificate_test, self_signed,
    ::testing::Values(
        self_signed_case{"matching_key_identifiers",
                         [] { return pki::make_cert(with_ids(pki::key_identifier::derived(), pki::key_identifier::derived())); },
                         true},
        self_signed_case{"no_key_identifiers",
                         [] { return pki::make_cert(with_ids(pki::key_identifier::absent(), pki::key_identifier::absent())); },
                         true},
        self_signed_case{"only_subject_key_identifier",
                         [] { return pki::make_cert(with_ids(pki::key_identifier::derived(), pki::key_identifier::absent())); },
                         true},
        // Names match but the identifiers do not: not self-signed, however the signature stands.
        self_signed_case{"mismatching_key_identifiers",
                         [] {
                             return pki::make_cert(
                                 with_ids(pki::key_identifier::derived(), pki::key_identifier::given({1, 2, 3, 4})));
                         },
                         false},
        self_signed_case{"issued_by_a_ca",
                         [] {
                             const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA"));
                             return pki::make_cert(pki::leaf_profile("leaf"), &ca);
                         },
                         false},
        // Equal names and matching identifiers, but another key signed it.
        self_signed_case{"forged_signature",
                         [] {
                             pki::cert_profile profile = with_ids(pki::key_identifier::derived(), pki::key_identifier::derived());
                             profile.signing_key = pki::rsa_key(2048, 2);
                             return pki::make_cert(profile);
                         },
                         false},
        self_signed_case{"same_name_other_issuer_key",
                         [] {
                             pki::cert_profile issuer_profile = pki::ca_profile("same");
                             const pki::cert issuer = pki::make_cert(issuer_profile);
                             pki::cert_profile profile = with_ids(pki::key_identifier::absent(), pki::key_identifier::absent());
                             profile.subject = {{"CN", "same"}};
                             return pki::make_cert(profile, &issuer);
                         },
                         false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(certificate_test, thumbprint_is_the_lower_case_sha1_of_the_der) {
    const pki::cert leaf = pki::make_cert(pki::leaf_profile("leaf"));
    const pki::bytes der = leaf.der();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    ASSERT_EQ(EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha1(), nullptr), 1);
    std::string expected;
    char pair[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", digest[i]);
        expected += pair;
    }
    ASSERT_EQ(expected.size(), 40u);
    EXPECT_EQ(load(leaf)->get_thumbprint(), expected);
}

struct key_case {
    const char* name;
    pki::key_algorithm algorithm;
    int rsa_bits;
    ch::public_key_type type;
    int bits;
    int signature_size;  // of a self-signed certificate; 0: varies (ECDSA)
};

void PrintTo(const key_case& c, std::ostream* out) { *out << c.name; }

class key_kinds : public ::testing::TestWithParam<key_case> {};

TEST_P(key_kinds, type_bits_signature_size_and_public_key) {
    const key_case& c = GetParam();
    pki::cert_profile profile = pki::leaf_profile(c.name);
    profile.key = pki::make_key(c.algorithm, c.rsa_bits);
    const pki::cert made = pki::make_cert(profile);
    const auto certificate = load(made);

    EXPECT_EQ(certificate->get_public_key_type(), c.type);
    EXPECT_EQ(certificate->get_public_key_bits(), c.bits);
    if (c.signature_size != 0) {
        EXPECT_EQ(certificate->get_signature_size(), c.signature_size);
    } else {
        EXPECT_GT(certificate->get_signature_size(), 0);
    }
    EXPECT_EQ(certificate->get_public_key()->to_der(), made.key().public_der());
    EXPECT_TRUE(certificate->is_self_signed());
}

INSTANTIATE_TEST_SUITE_P(
    certificate_test, key_kinds,
    ::testing::Values(key_case{"rsa_2048", pki::key_algorithm::rsa, 2048, ch::public_key_type::rsa, 2048, 256},
                      key_case{"rsa_1024", pki::key_algorithm::rsa, 1024, ch::public_key_type::rsa, 1024, 128},
                      key_case{"rsa_pss", pki::key_algorithm::rsa_pss, 1024, ch::public_key_type::rsa, 1024, 128},
                      key_case{"ec_p256", pki::key_algorithm::ec_p256, 0, ch::public_key_type::ec, 256, 0},
                      key_case{"ed25519", pki::key_algorithm::ed25519, 0, ch::public_key_type::ed25519, 256, 64},
                      key_case{"ed448", pki::key_algorithm::ed448, 0, ch::public_key_type::ed448, 456, 114}),
    [](const auto& info) { return std::string(info.param.name); });

// Replaces the OID rsaEncryption (1.2.840.113549.1.1.1) with one OpenSSL does not know.
pki::bytes with_unknown_key_algorithm(pki::bytes der) {
    const pki::bytes rsa_oid = {0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01};
    const auto at = std::search(der.begin(), der.end(), rsa_oid.begin(), rsa_oid.end());
    if (at != der.end()) {
        *(at + static_cast<std::ptrdiff_t>(rsa_oid.size()) - 1) = 0x63;
    }
    return der;
}

TEST_F(certificate_test, a_key_of_unknown_algorithm_has_no_public_key) {
    const pki::bytes der = with_unknown_key_algorithm(pki::make_cert(pki::leaf_profile("odd")).der());
    const auto certificate = openssl()->make_certificate_from_der(der);
    ERR_clear_error();

    EXPECT_EQ(certificate->get_public_key_type(), ch::public_key_type::unknown);
    EXPECT_EQ(certificate->get_public_key_bits(), 0);
    EXPECT_FALSE(certificate->is_self_signed());
    EXPECT_TRUE(throws<ch::exceptions::public_key_empty>(
        [&] { certificate->get_public_key(); },
        "Missing public key. Make sure the certificate contains a valid public key."));
}

struct expiry_case {
    const char* name;
    std::chrono::seconds until_not_after;
    std::int32_t days;
};

void PrintTo(const expiry_case& c, std::ostream* out) { *out << c.name; }

class expiry : public ::testing::TestWithParam<expiry_case> {};

TEST_P(expiry, whole_days_truncated_toward_zero) {
    // Whole seconds, so that the certificate's notAfter is exact.
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    pki::cert_profile profile = pki::leaf_profile("leaf");
    profile.not_before = now - pki::days(100);
    profile.not_after = now + GetParam().until_not_after;
    const auto certificate = load(pki::make_cert(profile));
    EXPECT_EQ(certificate->get_days_until_expiry(now), GetParam().days);
    // A fraction of a second of `now` is dropped, not rounded.
    EXPECT_EQ(certificate->get_days_until_expiry(now + 999ms), GetParam().days);
}

INSTANTIATE_TEST_SUITE_P(certificate_test, expiry,
                         ::testing::Values(expiry_case{"valid_36_hours", 36h, 1},
                                           expiry_case{"expired_36_hours_ago", -36h, -1},
                                           expiry_case{"valid_23_hours", 23h, 0},
                                           expiry_case{"expired_23_hours_ago", -23h, 0},
                                           expiry_case{"valid_exactly_one_day", 24h, 1},
                                           expiry_case{"valid_30_days", pki::days(30), 30},
                                           expiry_case{"expired_400_days_ago", -pki::days(400), -400}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(certificate_test, data_encipherment_comes_from_the_key_usage) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    EXPECT_TRUE(load(pki::make_cert(profile))->supports_data_encipherment());
    profile.key_usage = "critical,digitalSignature,keyEncipherment";
    EXPECT_FALSE(load(pki::make_cert(profile))->supports_data_encipherment());
    profile.key_usage.reset();
    EXPECT_FALSE(load(pki::make_cert(profile))->supports_data_encipherment());
}

TEST_F(certificate_test, crl_distribution_points_give_their_uris_in_order) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    EXPECT_TRUE(load(pki::make_cert(profile))->get_crl_distribution_points().empty());
    profile.crl_distribution_points = {"http://crl.example.com/a.crl", "ldap://crl.example.com/b"};
    EXPECT_EQ(load(pki::make_cert(profile))->get_crl_distribution_points(), profile.crl_distribution_points);
}

TEST_F(certificate_test, verify_signature_checks_against_the_issuer_key) {
    const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA"));
    const pki::cert other_ca = pki::make_cert(pki::ca_profile("Test CA", pki::rsa_key(2048, 2)));
    const auto leaf = load(pki::make_cert(pki::leaf_profile("leaf"), &ca));

    EXPECT_TRUE(leaf->verify_signature(*load(ca)));
    EXPECT_FALSE(leaf->verify_signature(*load(other_ca)));
    EXPECT_TRUE(load(ca)->verify_signature(*load(ca)));
}

TEST_F(certificate_test, verify_signature_with_a_key_of_another_type_cannot_be_made) {
    const pki::cert ec_ca = pki::make_cert(pki::ca_profile("EC CA", pki::make_key(pki::key_algorithm::ec_p256)));
    const pki::cert rsa_ca = pki::make_cert(pki::ca_profile("RSA CA"));
    const auto leaf = load(pki::make_cert(pki::leaf_profile("leaf"), &rsa_ca));
    const auto ec_issuer = load(ec_ca);
    ERR_clear_error();

    std::string reason;
    EXPECT_TRUE(throws<ch::exceptions::signature_verification_failed>(
        [&] { leaf->verify_signature(*ec_issuer); }, "Failed to verify the signature of the certificate. ", &reason));
    EXPECT_TRUE(is_openssl_error_text(reason));
}

}  // namespace
}  // namespace certificatehelper_test
