// Certificates, keys, the validator and revocation lists, on a PKI made at run time.
#include <gtest/gtest.h>

#include <regex>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "libcertificatehelper/source/allocator.h"
#include "libcertificatehelper/source/detail/openssl_handles.h"
#include "libcertificatehelper/source/exceptions.h"
#include "support/test_pki.h"
#include "support/what_of.h"

namespace {

namespace ch = ::brenholt::monitoring_modules::libcertificatehelper;
namespace ex = ch::exceptions;
namespace pki = ::brenholt::monitoring_modules::test_pki;
using namespace std::chrono_literals;
using status = ch::verification_status;
using test_support::what_of;

const std::shared_ptr<const ch::allocator> openssl_allocator = ch::make_openssl_allocator();
const std::shared_ptr<const ch::allocator>& openssl() { return openssl_allocator; }
std::shared_ptr<ch::certificate_interface> load(const pki::cert& made) { return openssl()->make_certificate_from_pem(made.pem()); }

// A leaf certificate, its profile adjusted by `change`.
pki::cert leaf(const std::function<void(pki::cert_profile&)>& change, const pki::cert* issuer = nullptr) {
    pki::cert_profile profile = pki::leaf_profile("leaf");
    change(profile);
    return pki::make_cert(profile, issuer);
}

// A failure's text: its own, then OpenSSL's reason and the code.
::testing::AssertionResult has_openssl_reason(const std::string& what, const std::string& own) {
    if (what.rfind(own, 0) == 0 && std::regex_match(what.substr(own.size()), std::regex("[a-z][^()]* \\([0-9]+\\)")))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not '" << own << "<reason> (<code>)': " << what;
}

// Each test starts with an empty OpenSSL error queue, so error texts come from the test itself.
class pki_test : public ::testing::Test {
protected:
    void SetUp() override { ERR_clear_error(); }
    const pki::cert root = pki::make_cert(pki::ca_profile("Test Root"));
    const pki::cert intermediate = pki::make_cert(pki::ca_profile("Test Intermediate", pki::rsa_key(2048, 3)), &root);
    const pki::cert leaf_cert = pki::make_cert(pki::leaf_profile("leaf"), &intermediate);
};

// What is read of a certificate, in one line: key type (1 RSA, 3 EC, 5 Ed25519, 6 Ed448),
// bits and signature size (ECDSA's varies), whether it is self-signed and allows data
// encipherment, its common names and its application URIs. The client's tests show how
// several URIs and a key usage without data encipherment come out.
std::string summary(const pki::cert& made) {
    auto maker = ch::make_openssl_allocator();
    const auto c = maker->make_certificate_from_pem(made.pem());
    maker.reset();  // what an allocator made outlives the caller's handle
    EXPECT_EQ(c->get_public_key()->to_der(), made.key().public_der());
    std::ostringstream out;
    out << static_cast<int>(c->get_public_key_type()) << " " << c->get_public_key_bits() << " ";
    if (c->get_public_key_type() != ch::public_key_type::ec) out << c->get_signature_size();
    out << (c->is_self_signed() ? " self-signed" : "") << (c->supports_data_encipherment() ? " enciphers" : "");
    for (const auto& name : c->get_common_names()) out << " CN=" << name;
    for (const auto& uri : c->get_application_uris()) out << " " << uri;
    return out.str();
}

TEST_F(pki_test, what_is_read_of_a_certificate) {
    using id = pki::key_identifier;
    const auto self = [](id subject, id authority, std::optional<pki::key_pair> signer = std::nullopt) {
        return leaf([&](auto& p) { p.subject_key_id = subject; p.authority_key_id = authority; p.signing_key = signer; });
    };
    const auto with_key = [](pki::key_algorithm algorithm, int bits = 0) { return leaf([&](auto& p) { p.key = pki::make_key(algorithm, bits); }); };
    const pki::cert same_name_ca = pki::make_cert(pki::ca_profile("leaf"));
    const std::string bmp("\0A\0B", 4);
    const std::pair<pki::cert, std::string> cases[] = {
        {self(id::derived(), id::derived()), "1 2048 256 self-signed enciphers CN=leaf"},
        {self(id::absent(), id::absent()), "1 2048 256 self-signed enciphers CN=leaf"},
        {self(id::derived(), id::absent()), "1 2048 256 self-signed enciphers CN=leaf"},
        // Names match but the identifiers do not, however the signature stands.
        {self(id::derived(), id::given({1, 2, 3, 4})), "1 2048 256 enciphers CN=leaf"},
        // Equal names and matching identifiers, but another key signed it.
        {self(id::derived(), id::derived(), pki::rsa_key(2048, 2)), "1 2048 256 enciphers CN=leaf"},
        {leaf_cert, "1 2048 256 enciphers CN=leaf"},
        {leaf([](auto& p) { p.subject_key_id = p.authority_key_id = id::absent(); }, &same_name_ca), "1 2048 256 enciphers CN=leaf"},
        {with_key(pki::key_algorithm::rsa_pss, 1024), "1 1024 128 self-signed enciphers CN=leaf"},
        {with_key(pki::key_algorithm::ec_p256), "3 256  self-signed enciphers CN=leaf"},
        {with_key(pki::key_algorithm::ed25519), "5 256 64 self-signed enciphers CN=leaf"},
        {with_key(pki::key_algorithm::ed448), "6 456 114 self-signed enciphers CN=leaf"},
        {leaf([](auto& p) { p.key_usage.reset(); }), "1 2048 256 self-signed CN=leaf"},
        // A BMPString keeps its UTF-16 bytes: no character set conversion.
        {leaf([&](auto& p) { p.subject = {{"CN", bmp, pki::string_type::bmp}, {"O", "Org"}, {"CN", "M\xC3\xBC"}}; }),
         "1 2048 256 self-signed enciphers CN=" + bmp + " CN=M\xC3\xBC"},
        {leaf([](auto& p) { p.subject = {{"O", "No Common Name"}}; }), "1 2048 256 self-signed enciphers"},
        // "URI:" anywhere in an entry counts, and the entry's first four bytes are dropped.
        {leaf([](auto& p) { p.subject_alt_names = {"DNS:URI:x"}; }), "1 2048 256 self-signed enciphers CN=leaf URI:x"},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(summary(cases[i].first), cases[i].second) << "case " << i;
    EXPECT_EQ(load(cases[12].first)->get_common_name(), bmp);
    EXPECT_THROW(load(cases[13].first)->get_common_name(), std::out_of_range);
}

TEST_F(pki_test, certificates_load_from_pem_and_der_alike_and_refuse_bad_input) {
    const pki::cert named = leaf([](auto& p) { p.subject = {{"C", "DE"}, {"O", "Example Org"}, {"CN", "leaf"}}; }, &root);
    for (const auto& loaded : {openssl()->make_certificate_from_pem(named.pem()), openssl()->make_certificate_from_der(named.der())}) {
        EXPECT_EQ(loaded->to_der(), named.der());
        // RFC 2253 order: the last encoded entry comes first.
        EXPECT_EQ(loaded->get_subject() + " / " + loaded->get_issuer(), "CN=leaf,O=Example Org,C=DE / CN=Test Root");
    }
    EXPECT_EQ(openssl()->make_certificate_from_pem(root.pem() + named.pem())->get_common_name(), "Test Root");
    EXPECT_THROW(openssl()->make_certificate_from_pem(""), ex::certificate_empty);
    EXPECT_THROW(openssl()->make_certificate_from_der({}), ex::certificate_empty);
    EXPECT_THROW(openssl()->make_certificate_from_pem(root.key().private_pem()), ex::certificate_pem_invalid);
    EXPECT_THROW(openssl()->make_certificate_from_der({0x30, 0x03, 0x02}), ex::certificate_der_invalid);
}

TEST_F(pki_test, days_until_expiry_are_whole_days_truncated_toward_zero) {
    // Whole seconds, so that the certificate's notAfter is exact.
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
    const std::pair<std::chrono::seconds, int> cases[] = {{36h, 1},  {-36h, -1}, {23h, 0}, {-23h, 0},
                                                          {24h, 1},  {pki::days(30), 30}, {-pki::days(400), -400}};
    for (const auto& [until_not_after, days] : cases) {
        const auto certificate = load(leaf([&](auto& p) { p.not_before = now - pki::days(500); p.not_after = now + until_not_after; }));
        EXPECT_EQ(certificate->get_days_until_expiry(now), days) << until_not_after.count() << " s";
        // A fraction of a second of `now` is dropped, not rounded.
        EXPECT_EQ(certificate->get_days_until_expiry(now + 999ms), days) << until_not_after.count() << " s";
    }
}

TEST_F(pki_test, chains_verify_against_a_trusted_root) {
    // Made by an allocator whose handle is gone at once: the validator must keep it.
    const auto validator = ch::make_openssl_allocator()->make_certificate_validator(false);
    ASSERT_TRUE(validator->add_trusted(load(root)));
    const pki::cert expired = leaf([](auto& p) {
        p.not_before = pki::from_now(-pki::days(10)); p.not_after = pki::from_now(-std::chrono::hours(36));
    }, &intermediate);
    const pki::cert self_signed = pki::make_cert(pki::leaf_profile("self"));
    const std::pair<std::vector<pki::cert>, status> cases[] = {
        {{leaf_cert, intermediate}, status::valid}, {{leaf_cert}, status::untrusted}, {{self_signed}, status::untrusted},
        {{expired, intermediate}, status::expired},
        // An end-entity certificate that poses as an issuer.
        {{pki::make_cert(pki::leaf_profile("leaf of leaf"), &leaf_cert), leaf_cert, intermediate}, status::failed}};
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        std::vector<std::shared_ptr<ch::certificate_interface>> chain;
        for (const pki::cert& c : cases[i].first) chain.push_back(load(c));
        const ch::verification_result result = validator->verify_chain(chain);
        EXPECT_EQ(result.status, cases[i].second) << "case " << i;
        EXPECT_EQ(result.root.has_value() ? (*result.root)->to_der() : pki::bytes{},
                  cases[i].second == status::valid ? root.der() : pki::bytes{}) << "case " << i;
    }
    EXPECT_EQ(validator->verify_chain({nullptr}).status, status::empty);
    EXPECT_TRUE(validator->add_trusted(load(self_signed)));
    EXPECT_EQ(validator->verify(load(self_signed)).status, status::valid);
}

TEST_F(pki_test, revocation_lists_look_for_issuer_and_serial) {
    const pki::cert released = pki::make_cert(pki::leaf_profile("released"), &intermediate);
    pki::crl_profile profile;
    profile.revoked = {{leaf_cert.serial(), pki::reason_key_compromise}, {released.serial(), pki::reason_remove_from_crl}};
    const pki::crl list = pki::make_crl(profile, intermediate);
    const std::shared_ptr<ch::key_interface> key = openssl()->make_public_key(intermediate.key().public_der());
    const auto loaded = openssl()->make_revocation_list_from_pem(list.pem(), key);
    EXPECT_EQ(loaded->to_der(), list.der());
    EXPECT_TRUE(loaded->is_revoked(*load(leaf_cert)));
    // removeFromCRL lifts a hold: the certificate counts as not revoked.
    EXPECT_FALSE(loaded->is_revoked(*load(released)));
    EXPECT_FALSE(loaded->is_revoked(*load(pki::make_cert(pki::leaf_profile("good"), &intermediate))));
    // Same serial as the listed one, but from another issuer.
    EXPECT_FALSE(loaded->is_revoked(*load(leaf([&](auto& p) { p.serial = leaf_cert.serial(); }, &root))));
    // A bad signature fails only when an issuer key is given (see the error queue's test).
    profile.signing_key = pki::rsa_key(2048, 2);
    EXPECT_NO_THROW(openssl()->make_revocation_list_from_der(pki::make_crl(profile, intermediate).der(), std::nullopt));
}

// Dates beyond what the clock's nanoseconds hold come out at the nearest end of its range.
TEST_F(pki_test, revocation_list_dates_outside_the_clock_range_are_clamped) {
    using time_point = std::chrono::system_clock::time_point;
    const pki::bytes key_der = pki::rsa_key().private_der();
    const unsigned char* p = key_der.data();
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(key_der.size())), EVP_PKEY_free);
    ASSERT_TRUE(key);
    const std::pair<const char*, time_point> cases[] = {
        {"19700101000001Z", time_point(std::chrono::seconds(1))}, {"22620411234716Z", time_point(std::chrono::seconds(9223372036))},
        {"22620411234717Z", time_point::max()}, {"99991231235959Z", time_point::max()}, {"16000101000000Z", time_point::min()}};
    for (const auto& [date, expected] : cases) {
        SCOPED_TRACE(date);
        const std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)> crl(X509_CRL_new(), X509_CRL_free);
        const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> time(ASN1_TIME_new(), ASN1_TIME_free);
        ASSERT_TRUE(crl && time && ASN1_TIME_set_string(time.get(), date) == 1);
        ASSERT_TRUE(X509_CRL_set1_lastUpdate(crl.get(), time.get()) == 1 &&
                    X509_CRL_set1_nextUpdate(crl.get(), time.get()) == 1 &&
                    X509_CRL_sign(crl.get(), key.get(), EVP_sha256()) > 0);
        unsigned char* der = nullptr;
        const int length = i2d_X509_CRL(crl.get(), &der);
        ASSERT_GT(length, 0);
        const pki::bytes bytes(der, der + length);
        OPENSSL_free(der);
        const auto loaded = openssl()->make_revocation_list_from_der(bytes, std::nullopt);
        EXPECT_EQ(loaded->get_last_update(), expected);
        EXPECT_EQ(loaded->get_next_update(), expected);
    }
}

// The oldest error is named and taken, the rest stay; a code without text is unknown.
TEST_F(pki_test, error_text_names_the_oldest_error_then_the_next) {
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
TEST_F(pki_test, failing_operations_leave_the_error_queue_as_found) {
    const std::shared_ptr<ch::certificate_interface> forged = load(leaf([](auto& p) { p.signing_key = pki::rsa_key(2048, 2); }));
    pki::crl_profile forged_list;
    forged_list.signing_key = pki::rsa_key(2048, 2);
    const pki::crl list = pki::make_crl(forged_list, root);
    const std::shared_ptr<ch::key_interface> root_key = openssl()->make_public_key(root.key().public_der());
    const auto validator = openssl()->make_certificate_validator(false);
    const std::string bad_pem = "-----BEGIN X-----\n!!!!\n-----END X-----\n", encrypted = pki::rsa_key().private_pem_encrypted("right");
    const std::vector<std::uint8_t> bad_der{0x30, 0x03, 0x02};
    const auto key_failure = [&](const std::string& pem, const char* password) {
        return what_of<ex::could_not_load_private_key>([&] { openssl()->make_private_key(pem, password); });
    };
    const std::string key_text = "Failed to load the provided private key. ";
    const std::pair<const char*, std::function<void()>> operations[] = {
        {"is_self_signed", [&] { EXPECT_FALSE(forged->is_self_signed()); }},
        {"verify_signature", [&] { EXPECT_FALSE(forged->verify_signature(*load(root))); }},
        {"verify", [&] { EXPECT_NE(validator->verify(forged).status, status::valid); }},
        {"certificate PEM", [&] { EXPECT_ANY_THROW(openssl()->make_certificate_from_pem(bad_pem)); }},
        {"certificate DER", [&] { EXPECT_ANY_THROW(openssl()->make_certificate_from_der(bad_der)); }},
        {"list PEM", [&] { EXPECT_ANY_THROW(openssl()->make_revocation_list_from_pem(bad_pem, std::nullopt)); }},
        {"list DER", [&] { EXPECT_ANY_THROW(openssl()->make_revocation_list_from_der(bad_der, std::nullopt)); }},
        {"list signature", [&] {
             EXPECT_TRUE(has_openssl_reason(what_of<ex::certificate_revocation_list_signature_verification_failed>(
                                                [&] { openssl()->make_revocation_list_from_pem(list.pem(), root_key); }),
                                            "Failed to verify the signature of the certificate revocation list. "));
         }},
        {"keys that do not load", [&] {
             for (const std::string& pem : {leaf_cert.pem(), pki::rsa_key().private_pem().substr(0, 200), encrypted})
                 EXPECT_TRUE(has_openssl_reason(key_failure(pem, ""), key_text));
         }},
    };
    for (const auto& [name, operation] : operations) {
        SCOPED_TRACE(name);
        ERR_clear_error();
        operation();
        EXPECT_EQ(ERR_peek_error(), 0u);
        const std::string what = key_failure(encrypted, "wrong");
        EXPECT_TRUE(has_openssl_reason(what, key_text) && what.find("bad decrypt") != std::string::npos) << what;
        EXPECT_EQ(ERR_peek_error(), 0u) << "a key that does not load";
    }
}

}  // namespace
