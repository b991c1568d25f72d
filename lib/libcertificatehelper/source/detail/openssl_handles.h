#pragma once

// Library-internal: OpenSSL ownership and error helpers. Never include from outside
// libcertificatehelper; the public headers keep OpenSSL out of sight.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

namespace brenholt::monitoring_modules::libcertificatehelper::detail {

template <auto Free>
struct openssl_deleter {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};

using asn1_time_ptr = std::unique_ptr<ASN1_TIME, openssl_deleter<ASN1_TIME_free>>;
using bio_ptr = std::unique_ptr<BIO, openssl_deleter<BIO_free_all>>;
using evp_pkey_ptr = std::unique_ptr<EVP_PKEY, openssl_deleter<EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, openssl_deleter<X509_free>>;
using x509_crl_ptr = std::unique_ptr<X509_CRL, openssl_deleter<X509_CRL_free>>;
using x509_store_ptr = std::unique_ptr<X509_STORE, openssl_deleter<X509_STORE_free>>;
using x509_store_ctx_ptr = std::unique_ptr<X509_STORE_CTX, openssl_deleter<X509_STORE_CTX_free>>;

// Leaves this thread's OpenSSL error queue as it was found: whatever an operation pushed
// is dropped when the guard ends, after the operation has described its own failure, if
// it raises one. An operation that answers despite a failure inside must not leave errors
// that a later, unrelated failure would then report as its reason.
class error_queue_guard {
public:
    error_queue_guard();
    ~error_queue_guard();
    error_queue_guard(const error_queue_guard&) = delete;
    error_queue_guard& operator=(const error_queue_guard&) = delete;
};

// Pops the oldest error of this thread's queue and describes it as
// "<reason> (<code>)" or "Unknown OpenSSL error (<code>).". The rest of the queue stays.
std::string openssl_error_text();

// A read-only memory BIO over the text; raises bad_alloc when none can be made.
bio_ptr read_bio(const void* data, std::size_t size);
// An empty writable memory BIO; raises bad_alloc when none can be made.
bio_ptr write_bio();

std::string bio_to_string(BIO* bio);
std::vector<std::uint8_t> bio_to_bytes(BIO* bio);

// Null for an empty or undecodable vector.
x509_ptr x509_from_der(const std::vector<std::uint8_t>& der);
// Empty for a null certificate or a failed encoding.
std::vector<std::uint8_t> x509_to_der(X509* x509);
// Null for an empty or undecodable vector; OpenSSL's reason stays queued for the caller.
evp_pkey_ptr public_key_from_der(const std::vector<std::uint8_t>& der);

}  // namespace brenholt::monitoring_modules::libcertificatehelper::detail
