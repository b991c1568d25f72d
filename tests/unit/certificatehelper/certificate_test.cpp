#include <optional>
#include <stdexcept>

#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

using namespace std::chrono_literals;

class certificate_test : public clean_openssl_errors {};

TEST_F(certificate_test, loads_pem_and_der_alike_and_refuses_bad_input) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    profile.subject = {{"C", "DE"}, {"O", "Example Org"}, {"CN", "leaf"}};
    const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA"));
    const pki::cert leaf = pki::make_cert(profile, &ca);
    for (const auto& loaded : {openssl()->make_certificate_from_pem(leaf.pem()), openssl()->make_certificate_from_der(leaf.der())}) {
        EXPECT_EQ(loaded->to_der(), leaf.der());
        // RFC 2253 order: the last encoded entry comes first.
        EXPECT_EQ(loaded->get_subject(), "CN=leaf,O=Example Org,C=DE");
        EXPECT_EQ(loaded->get_issuer(), "CN=Test CA");
    }
    EXPECT_EQ(openssl()->make_certificate_from_pem(ca.pem() + leaf.pem())->get_common_name(), "Test CA");

    const auto& a = openssl();
    const std::string empty = "The provided certificate is empty. Enter a valid certificate.";
    EXPECT_EQ(what_of<ch::exceptions::certificate_empty>([&] { a->make_certificate_from_pem(""); }), empty);
    EXPECT_EQ(what_of<ch::exceptions::certificate_empty>([&] { a->make_certificate_from_der({}); }), empty);
    EXPECT_EQ(what_of<ch::exceptions::certificate_pem_invalid>([&] { a->make_certificate_from_pem(ca.key().private_pem()); }),
              "The provided certificate is not in valid PEM format.");
    EXPECT_EQ(what_of<ch::exceptions::certificate_der_invalid>([&] { a->make_certificate_from_der({0x30, 0x03, 0x02}); }),
              "The provided certificate is not in a valid DER format.");
}

TEST_F(certificate_test, common_names_are_raw_bytes_in_certificate_order) {
    pki::cert_profile profile;
    // A BMPString keeps its UTF-16 bytes: no character set conversion.
    profile.subject = {{"CN", std::string("\0A\0B", 4), pki::string_type::bmp}, {"O", "Org"}, {"CN", "M\xC3\xBCller"}};
    const auto two = load(pki::make_cert(profile));
    EXPECT_EQ(two->get_common_names(), (std::vector<std::string>{std::string("\0A\0B", 4), "M\xC3\xBCller"}));
    EXPECT_EQ(two->get_common_name(), std::string("\0A\0B", 4));
    profile.subject = {{"O", "No Common Name"}};
    const auto none = load(pki::make_cert(profile));
    EXPECT_TRUE(none->get_common_names().empty());
    EXPECT_THROW(none->get_common_name(), std::out_of_range);
}

TEST_F(certificate_test, application_uris_come_from_the_alternative_names) {
    const std::pair<std::vector<std::string>, std::vector<std::string>> cases[] = {
        {{"URI:urn:one", "DNS:b", "URI:urn:two"}, {"urn:one", "urn:two"}},
        {{"DNS:host.example.com", "IP:192.0.2.1"}, {}},
        // "URI:" anywhere in an entry counts, and the entry's first four bytes are dropped.
        {{"DNS:URI:x"}, {"URI:x"}},
        {{}, {}}};
    for (const auto& [configured, uris] : cases) {
        pki::cert_profile profile = pki::leaf_profile("leaf");
        profile.subject_alt_names = configured;
        EXPECT_EQ(load(pki::make_cert(profile))->get_application_uris(), uris) << ::testing::PrintToString(configured);
    }
}

TEST_F(certificate_test, self_signed_needs_names_key_identifiers_and_signature) {
    using id = pki::key_identifier;
    const auto self = [](id subject, id authority, std::optional<pki::key_pair> signer = std::nullopt) {
        pki::cert_profile profile = pki::leaf_profile("self");
        profile.subject_key_id = std::move(subject);
        profile.authority_key_id = std::move(authority);
        profile.signing_key = std::move(signer);
        return pki::make_cert(profile);
    };
    const pki::cert ca = pki::make_cert(pki::ca_profile("Test CA")), same_name_ca = pki::make_cert(pki::ca_profile("same"));
    pki::cert_profile same_name = pki::leaf_profile("same");
    same_name.subject_key_id = same_name.authority_key_id = id::absent();
    const std::pair<pki::cert, bool> cases[] = {
        {self(id::derived(), id::derived()), true},
        {self(id::absent(), id::absent()), true},
        {self(id::derived(), id::absent()), true},
        // Names match but the identifiers do not, however the signature stands.
        {self(id::derived(), id::given({1, 2, 3, 4})), false},
        // Equal names and matching identifiers, but another key signed it.
        {self(id::derived(), id::derived(), pki::rsa_key(2048, 2)), false},
        {pki::make_cert(pki::leaf_profile("leaf"), &ca), false},
        {pki::make_cert(same_name, &same_name_ca), false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(load(cases[i].first)->is_self_signed(), cases[i].second) << "case " << i;
}

TEST_F(certificate_test, key_type_bits_and_signature_size) {
    const struct {
        pki::key_algorithm algorithm;
        int rsa_bits;
        ch::public_key_type type;
        int bits, signature_size;  // 0: varies (ECDSA)
    } cases[] = {
        {pki::key_algorithm::rsa, 2048, ch::public_key_type::rsa, 2048, 256},
        {pki::key_algorithm::rsa_pss, 1024, ch::public_key_type::rsa, 1024, 128},
        {pki::key_algorithm::ec_p256, 0, ch::public_key_type::ec, 256, 0},
        {pki::key_algorithm::ed25519, 0, ch::public_key_type::ed25519, 256, 64},
        {pki::key_algorithm::ed448, 0, ch::public_key_type::ed448, 456, 114},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bits);
        pki::cert_profile profile = pki::leaf_profile("leaf");
        profile.key = pki::make_key(c.algorithm, c.rsa_bits);
        const pki::cert made = pki::make_cert(profile);
        auto maker = ch::make_openssl_allocator();
        const auto certificate = maker->make_certificate_from_pem(made.pem());
        maker.reset();  // what an allocator made outlives the caller's handle
        EXPECT_EQ(certificate->get_public_key_type(), c.type);
        EXPECT_EQ(certificate->get_public_key_bits(), c.bits);
        if (c.signature_size != 0) {
            EXPECT_EQ(certificate->get_signature_size(), c.signature_size);
        }
        EXPECT_EQ(certificate->get_public_key()->to_der(), made.key().public_der());
        EXPECT_TRUE(certificate->is_self_signed());
    }
}

TEST_F(certificate_test, days_until_expiry_are_whole_days_truncated_toward_zero) {
    // Whole seconds, so that the certificate's notAfter is exact.
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    const std::pair<std::chrono::seconds, int> cases[] = {{36h, 1},  {-36h, -1}, {23h, 0}, {-23h, 0},
                                                          {24h, 1},  {pki::days(30), 30}, {-pki::days(400), -400}};
    for (const auto& [until_not_after, days] : cases) {
        pki::cert_profile profile = pki::leaf_profile("leaf");
        profile.not_before = now - pki::days(500);
        profile.not_after = now + until_not_after;
        const auto certificate = load(pki::make_cert(profile));
        EXPECT_EQ(certificate->get_days_until_expiry(now), days) << until_not_after.count() << " s";
        // A fraction of a second of `now` is dropped, not rounded.
        EXPECT_EQ(certificate->get_days_until_expiry(now + 999ms), days) << until_not_after.count() << " s";
    }
}

TEST_F(certificate_test, data_encipherment_comes_from_the_key_usage) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    EXPECT_TRUE(load(pki::make_cert(profile))->supports_data_encipherment());
    profile.key_usage = "critical,digitalSignature,keyEncipherment";
    EXPECT_FALSE(load(pki::make_cert(profile))->supports_data_encipherment());
    profile.key_usage.reset();
    EXPECT_FALSE(load(pki::make_cert(profile))->supports_data_encipherment());
}

TEST_F(certificate_test, private_keys_load_with_or_without_password) {
    for (const pki::key_pair& key : {pki::rsa_key(), pki::make_key(pki::key_algorithm::ec_p256)}) {
        EXPECT_EQ(openssl()->make_private_key(key.private_pem(), "")->to_der(), key.private_der());
        // A password for a key that needs none is not looked at.
        EXPECT_EQ(openssl()->make_private_key(key.private_pem(), "unused")->to_der(), key.private_der());
        const std::string password = "s3cret, with: [odd] chars";
        EXPECT_EQ(openssl()->make_private_key(key.private_pem_encrypted(password), password)->to_der(), key.private_der());
    }
    EXPECT_EQ(what_of<ch::exceptions::private_key_empty>([] { openssl()->make_private_key("", "password"); }),
              "Missing private key. Enter a valid private key.");
    const std::string encrypted = pki::rsa_key().private_pem_encrypted("right");
    const std::pair<std::string, const char*> bad[] = {{encrypted, "wrong"},
                                                       {encrypted, ""},
                                                       {pki::make_cert(pki::leaf_profile("leaf")).pem(), ""},
                                                       {pki::rsa_key().private_pem().substr(0, 200), ""}};
    for (const auto& [pem, password] : bad) {
        EXPECT_TRUE(has_openssl_reason(what_of<ch::exceptions::could_not_load_private_key>(
                                           [&] { openssl()->make_private_key(pem, password); }),
                                       "Failed to load the provided private key. "));
        EXPECT_EQ(ERR_peek_error(), 0u);
    }
}

}  // namespace
}  // namespace certificatehelper_test
