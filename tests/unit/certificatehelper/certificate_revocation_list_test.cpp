#include <functional>

#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

using namespace std::chrono_literals;
using std::chrono::system_clock;

class revocation_list_test : public clean_openssl_errors {
protected:
    static const pki::cert& ca() {
        static const pki::cert instance = pki::make_cert(pki::ca_profile("CRL CA"));
        return instance;
    }
    static std::shared_ptr<ch::key_interface> ca_key() {
        return openssl()->make_public_key(ca().key().public_der());
    }
};

// PEM and DER go through two loaders; each test runs through both.
using loader = std::function<std::unique_ptr<ch::certificate_revocation_list_interface>(
    const pki::crl&, const std::optional<std::shared_ptr<ch::key_interface>>&)>;

struct loader_case {
    const char* name;
    loader load;
};

void PrintTo(const loader_case& c, std::ostream* out) { *out << c.name; }

class both_formats : public revocation_list_test, public ::testing::WithParamInterface<loader_case> {
protected:
    std::unique_ptr<ch::certificate_revocation_list_interface> load_list(
        const pki::crl& list, const std::optional<std::shared_ptr<ch::key_interface>>& key = std::nullopt) {
        return GetParam().load(list, key);
    }
};

TEST_P(both_formats, update_times_and_der) {
    const auto now = std::chrono::time_point_cast<std::chrono::seconds>(system_clock::now());
    pki::crl_profile profile;
    profile.last_update = now - 2h;
    profile.next_update = now + pki::days(7);
    const pki::crl list = pki::make_crl(profile, ca());
    const auto loaded = load_list(list, ca_key());
    EXPECT_EQ(loaded->get_last_update(), now - 2h);
    EXPECT_EQ(loaded->get_next_update(), now + pki::days(7));
    EXPECT_EQ(loaded->to_der(), list.der());
}

TEST_P(both_formats, absent_next_update_and_early_last_update) {
    pki::crl_profile profile;
    profile.last_update = system_clock::time_point(1s);
    profile.omit_next_update = true;
    const auto loaded = load_list(pki::make_crl(profile, ca()));
    EXPECT_EQ(loaded->get_last_update().time_since_epoch(), std::chrono::nanoseconds(1'000'000'000));
    EXPECT_EQ(loaded->get_next_update(), system_clock::time_point{});
}

TEST_P(both_formats, a_bad_signature_fails_only_when_an_issuer_key_is_given) {
    pki::crl_profile profile;
    profile.signing_key = pki::rsa_key(2048, 2);
    const pki::crl forged = pki::make_crl(profile, ca());

    EXPECT_NO_THROW(load_list(forged));
    std::string reason;
    EXPECT_TRUE(throws<ch::exceptions::certificate_revocation_list_signature_verification_failed>(
        [&] { load_list(forged, ca_key()); }, "Failed to verify the signature of the certificate revocation list. ",
        &reason));
    EXPECT_TRUE(is_openssl_error_text(reason));
}

TEST_P(both_formats, an_issuer_key_that_is_no_public_key_is_missing) {
    const pki::crl list = pki::make_crl({}, ca());
    const std::string missing = "Missing public key. Make sure the certificate contains a valid public key.";
    const std::shared_ptr<ch::key_interface> private_key =
        openssl()->make_private_key(ca().key().private_pem(), "");
    EXPECT_TRUE(throws<ch::exceptions::public_key_empty>([&] { load_list(list, private_key); }, missing));
    EXPECT_TRUE(throws<ch::exceptions::public_key_empty>(
        [&] { load_list(list, std::shared_ptr<ch::key_interface>()); }, missing));
}

INSTANTIATE_TEST_SUITE_P(
    revocation_list_test, both_formats,
    ::testing::Values(loader_case{"pem",
                                  [](const pki::crl& list, const std::optional<std::shared_ptr<ch::key_interface>>& key) {
                                      return openssl()->make_revocation_list_from_pem(list.pem(), key);
                                  }},
                      loader_case{"der",
                                  [](const pki::crl& list, const std::optional<std::shared_ptr<ch::key_interface>>& key) {
                                      return openssl()->make_revocation_list_from_der(list.der(), key);
                                  }}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(revocation_list_test, bad_input_raises_the_matching_failure) {
    const auto& a = openssl();
    const std::string empty_text =
        "The provided certificate revocation list is empty. Enter a valid certificate revocation list.";
    EXPECT_TRUE(throws<ch::exceptions::certificate_revocation_list_empty>(
        [&] { a->make_revocation_list_from_pem("", std::nullopt); }, empty_text));
    EXPECT_TRUE(throws<ch::exceptions::certificate_revocation_list_empty>(
        [&] { a->make_revocation_list_from_der({}, std::nullopt); }, empty_text));
    // A certificate is no revocation list, in either encoding.
    EXPECT_TRUE(throws<ch::exceptions::certificate_revocation_list_pem_invalid>(
        [&] { a->make_revocation_list_from_pem(ca().pem(), std::nullopt); },
        "The provided certificate revocation list is not in a valid PEM format."));
    EXPECT_TRUE(throws<ch::exceptions::certificate_revocation_list_der_invalid>(
        [&] { a->make_revocation_list_from_der(ca().der(), std::nullopt); },
        "The provided certificate revocation list is not in a valid DER format."));
}

TEST_F(revocation_list_test, is_revoked_looks_for_issuer_and_serial) {
    const pki::cert listed = pki::make_cert(pki::leaf_profile("listed"), &ca());
    const pki::cert on_hold = pki::make_cert(pki::leaf_profile("on hold"), &ca());
    const pki::cert compromised = pki::make_cert(pki::leaf_profile("compromised"), &ca());
    const pki::cert released = pki::make_cert(pki::leaf_profile("released"), &ca());
    const pki::cert good = pki::make_cert(pki::leaf_profile("good"), &ca());
    // Same serial as a listed one, but from another issuer.
    const pki::cert other_ca = pki::make_cert(pki::ca_profile("Other CA", pki::rsa_key(2048, 2)));
    pki::cert_profile twin_profile = pki::leaf_profile("twin");
    twin_profile.serial = listed.serial();
    const pki::cert twin = pki::make_cert(twin_profile, &other_ca);

    pki::crl_profile profile;
    profile.revoked = {{listed.serial(), std::nullopt, std::nullopt},
                    {on_hold.serial(), std::nullopt, pki::reason_certificate_hold},
                    {compromised.serial(), std::nullopt, pki::reason_key_compromise},
                    {released.serial(), std::nullopt, pki::reason_remove_from_crl}};
    const auto list = openssl()->make_revocation_list_from_der(pki::make_crl(profile, ca()).der(), ca_key());

    EXPECT_TRUE(list->is_revoked(*load(listed)));
    EXPECT_TRUE(list->is_revoked(*load(on_hold)));
    EXPECT_TRUE(list->is_revoked(*load(compromised)));
    // removeFromCRL lifts a hold: the certificate counts as not revoked.
    EXPECT_FALSE(list->is_revoked(*load(released)));
    EXPECT_FALSE(list->is_revoked(*load(good)));
    EXPECT_FALSE(list->is_revoked(*load(twin)));
}

}  // namespace
}  // namespace certificatehelper_test
