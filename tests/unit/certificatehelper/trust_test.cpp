// Certificate validator and revocation lists.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

using status = ch::verification_status;

class trust_test : public clean_openssl_errors {
protected:
    const pki::cert root = pki::make_cert(pki::ca_profile("Test Root"));
    const pki::cert intermediate = pki::make_cert(pki::ca_profile("Test Intermediate", pki::rsa_key(2048, 3)), &root);
    const pki::cert leaf = pki::make_cert(pki::leaf_profile("leaf"), &intermediate);
};

TEST_F(trust_test, chains_verify_against_a_trusted_root) {
    // Made by an allocator whose handle is gone at once: the validator must keep it.
    const auto validator = ch::make_openssl_allocator()->make_certificate_validator(false);
    ASSERT_TRUE(validator->add_trusted(load(root)));
    pki::cert_profile expired = pki::leaf_profile("leaf");
    expired.not_before = pki::from_now(-pki::days(10));
    expired.not_after = pki::from_now(-std::chrono::hours(36));
    const pki::cert self_signed = pki::make_cert(pki::leaf_profile("self"));
    const std::pair<std::vector<pki::cert>, status> cases[] = {
        {{leaf, intermediate}, status::valid},
        {{leaf}, status::untrusted},
        {{self_signed}, status::untrusted},
        {{pki::make_cert(expired, &intermediate), intermediate}, status::expired},
        // An end-entity certificate that poses as an issuer.
        {{pki::make_cert(pki::leaf_profile("leaf of leaf"), &leaf), leaf, intermediate}, status::failed}};
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

TEST_F(trust_test, revocation_lists_check_their_signature_and_look_for_issuer_and_serial) {
    const pki::cert released = pki::make_cert(pki::leaf_profile("released"), &intermediate);
    const pki::cert good = pki::make_cert(pki::leaf_profile("good"), &intermediate);
    // Same serial as the listed one, but from another issuer.
    pki::cert_profile twin = pki::leaf_profile("twin");
    twin.serial = leaf.serial();
    pki::crl_profile profile;
    profile.revoked = {{leaf.serial(), pki::reason_key_compromise},
                       {released.serial(), pki::reason_remove_from_crl}};
    const pki::crl list = pki::make_crl(profile, intermediate);
    const std::shared_ptr<ch::key_interface> key = openssl()->make_public_key(intermediate.key().public_der());
    const auto loaded = openssl()->make_revocation_list_from_pem(list.pem(), key);
    EXPECT_EQ(loaded->to_der(), list.der());
    EXPECT_TRUE(loaded->is_revoked(*load(leaf)));
    // removeFromCRL lifts a hold: the certificate counts as not revoked.
    EXPECT_FALSE(loaded->is_revoked(*load(released)));
    EXPECT_FALSE(loaded->is_revoked(*load(good)));
    EXPECT_FALSE(loaded->is_revoked(*load(pki::make_cert(twin, &root))));

    // A bad signature fails only when an issuer key is given.
    profile.signing_key = pki::rsa_key(2048, 2);
    const pki::bytes forged = pki::make_crl(profile, intermediate).der();
    EXPECT_NO_THROW(openssl()->make_revocation_list_from_der(forged, std::nullopt));
    EXPECT_TRUE(has_openssl_reason(what_of<ch::exceptions::certificate_revocation_list_signature_verification_failed>(
                                       [&] { openssl()->make_revocation_list_from_der(forged, key); }),
                                   "Failed to verify the signature of the certificate revocation list. "));
}

// Dates beyond what the clock's nanoseconds hold come out at the nearest end of its range.
TEST_F(trust_test, revocation_list_dates_outside_the_clock_range_are_clamped) {
    using std::chrono::system_clock;
    using time_point = system_clock::time_point;
    const pki::bytes key_der = pki::rsa_key().private_der();
    const unsigned char* p = key_der.data();
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(key_der.size())), EVP_PKEY_free);
    ASSERT_TRUE(key);
    const std::pair<const char*, time_point> cases[] = {
        {"19700101000001Z", time_point(std::chrono::seconds(1))},
        {"22620411234716Z", time_point(std::chrono::seconds(9223372036))},
        {"22620411234717Z", time_point::max()},
        {"99991231235959Z", time_point::max()},
        {"16000101000000Z", time_point::min()},
    };
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

}  // namespace
}  // namespace certificatehelper_test
