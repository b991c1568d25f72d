// Uses the library through its public headers only, as the rest of the module does.

#include <gtest/gtest.h>

#include "libcertificatehelper/source/allocator.h"
#include "libcertificatehelper/source/certificate_interface.h"
#include "libcertificatehelper/source/certificate_revocation_list_interface.h"
#include "libcertificatehelper/source/certificate_validator_interface.h"
#include "libcertificatehelper/source/exceptions.h"
#include "libcertificatehelper/source/key_interface.h"

// Every OpenSSL header pulls in openssl/types.h (OPENSSL_TYPES_H) or the older ossl_typ.h.
#if defined(OPENSSL_TYPES_H) || defined(HEADER_OPENSSL_TYPES_H) || defined(OPENSSL_OSSL_TYP_H)
#error "a public header of libcertificatehelper includes OpenSSL"
#endif

#include "support/test_pki.h"

namespace {

namespace ch = ::brenholt::monitoring_modules::libcertificatehelper;
namespace pki = ::brenholt::monitoring_modules::test_pki;

TEST(public_headers, what_an_allocator_made_outlives_the_callers_handle) {
    auto maker = ch::make_openssl_allocator();
    const pki::cert leaf = pki::make_cert(pki::leaf_profile("leaf"));
    const std::unique_ptr<ch::certificate_interface> certificate = maker->make_certificate_from_pem(leaf.pem());
    std::unique_ptr<ch::certificate_validator_interface> validator = maker->make_certificate_validator(false);
    maker.reset();

    // Both use the allocator that made them: for the public key and for the root of a result.
    EXPECT_EQ(certificate->get_public_key()->to_der(), leaf.key().public_der());
    std::shared_ptr<ch::certificate_interface> shared = ch::make_openssl_allocator()->make_certificate_from_der(leaf.der());
    ASSERT_TRUE(validator->add_trusted(shared));
    const ch::verification_result result = validator->verify(shared);
    EXPECT_EQ(result.status, ch::verification_status::valid);
    ASSERT_TRUE(result.root.has_value());
    EXPECT_EQ((*result.root)->to_der(), leaf.der());
}

}  // namespace
