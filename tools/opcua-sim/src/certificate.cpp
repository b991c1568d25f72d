#include "opcua_sim/certificate.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace opcua_sim {
namespace {

template <typename T, void (*Free)(T*)>
struct deleter {
    void operator()(T* p) const { Free(p); }
};
template <typename T, void (*Free)(T*)>
using owned = std::unique_ptr<T, deleter<T, Free>>;

using bio_ptr = owned<BIO, BIO_free_all>;
using pkey_ptr = owned<EVP_PKEY, EVP_PKEY_free>;
using x509_ptr = owned<X509, X509_free>;
using ext_ptr = owned<X509_EXTENSION, X509_EXTENSION_free>;

[[noreturn]] void fail(const std::string& what) {
    std::string text = what;
    if (unsigned long code = ERR_get_error(); code != 0) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof reason);
        text += ": ";
        text += reason;
    }
    ERR_clear_error();
    throw std::runtime_error(text);
}

void check(int ok, const char* what) {
    if (ok <= 0) fail(what);
}

constexpr long margin_seconds = 3600;

void add_extension(X509* cert, X509V3_CTX* ctx, int nid, const std::string& value) {
    ext_ptr ext(X509V3_EXT_conf_nid(nullptr, ctx, nid, value.c_str()));
    if (!ext) fail("cannot build certificate extension " + value);
    check(X509_add_ext(cert, ext.get(), -1), "cannot add certificate extension");
}

bytes certificate_der(X509* cert) {
    int size = i2d_X509(cert, nullptr);
    check(size, "cannot encode certificate");
    bytes out(static_cast<std::size_t>(size));
    unsigned char* p = out.data();
    i2d_X509(cert, &p);
    return out;
}

bytes private_key_der(EVP_PKEY* key) {
    int size = i2d_PrivateKey(key, nullptr);
    check(size, "cannot encode private key");
    bytes out(static_cast<std::size_t>(size));
    unsigned char* p = out.data();
    i2d_PrivateKey(key, &p);
    return out;
}

bio_ptr memory_bio(const std::string& text) {
    bio_ptr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    if (!bio) fail("cannot allocate memory buffer");
    return bio;
}

std::string bio_text(BIO* bio) {
    char* data = nullptr;
    long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<std::size_t>(size));
}

} // namespace

certificate_material make_self_signed_certificate(const certificate_request& request) {
    if (request.key_bits != 1024 && request.key_bits != 2048 && request.key_bits != 4096)
        throw std::invalid_argument("key size must be 1024, 2048 or 4096 bits");
    int from_days = request.valid_from_days.value_or(std::min(-1, request.valid_days - 1));
    if (from_days >= request.valid_days)
        throw std::invalid_argument("start of validity must lie before its end");
    if (request.common_name.empty()) throw std::invalid_argument("common name is empty");

    pkey_ptr key(EVP_RSA_gen(static_cast<unsigned>(request.key_bits)));
    if (!key) fail("cannot generate RSA key");

    x509_ptr cert(X509_new());
    if (!cert) fail("cannot allocate certificate");
    check(X509_set_version(cert.get(), 2), "cannot set certificate version");

    std::uint64_t serial = 0;
    check(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial), "no random serial");
    serial = (serial >> 1) | 1; // positive and never zero
    check(ASN1_INTEGER_set_uint64(X509_get_serialNumber(cert.get()), serial), "cannot set serial");

    const long start_margin = from_days > 0 ? margin_seconds : -margin_seconds;
    const long end_margin = request.valid_days >= 0 ? margin_seconds : -margin_seconds;
    if (!X509_time_adj_ex(X509_getm_notBefore(cert.get()), from_days, start_margin, nullptr) ||
        !X509_time_adj_ex(X509_getm_notAfter(cert.get()), request.valid_days, end_margin, nullptr))
        fail("cannot set validity");

    X509_NAME* name = X509_get_subject_name(cert.get());
    auto add_entry = [name](const char* field, const std::string& value) {
        check(X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>(value.c_str()),
                                         -1, -1, 0),
              "cannot set subject");
    };
    if (!request.organization.empty()) add_entry("O", request.organization);
    add_entry("CN", request.common_name);
    check(X509_set_issuer_name(cert.get(), name), "cannot set issuer");
    check(X509_set_pubkey(cert.get(), key.get()), "cannot set public key");

    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
    add_extension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:FALSE");
    add_extension(cert.get(), &ctx, NID_key_usage,
                  "critical,digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment,keyCertSign");
    add_extension(cert.get(), &ctx, NID_ext_key_usage, "serverAuth,clientAuth");
    add_extension(cert.get(), &ctx, NID_subject_key_identifier, "hash");
    add_extension(cert.get(), &ctx, NID_authority_key_identifier, "keyid:always");
    std::string alt_names = "DNS:localhost,IP:127.0.0.1";
    if (!request.application_uri.empty()) alt_names = "URI:" + request.application_uri + "," + alt_names;
    add_extension(cert.get(), &ctx, NID_subject_alt_name, alt_names);

    check(X509_sign(cert.get(), key.get(), EVP_sha256()), "cannot sign certificate");
    return {certificate_der(cert.get()), private_key_der(key.get())};
}

certificate_material certificate_from_pem(const std::string& certificate_pem,
                                          const std::string& private_key_pem,
                                          const std::string& key_password) {
    bio_ptr cert_bio = memory_bio(certificate_pem);
    x509_ptr cert(PEM_read_bio_X509(cert_bio.get(), nullptr, nullptr, nullptr));
    if (!cert) fail("server certificate is not valid PEM");

    bio_ptr key_bio = memory_bio(private_key_pem);
    pkey_ptr key(PEM_read_bio_PrivateKey(key_bio.get(), nullptr, nullptr,
                                         const_cast<char*>(key_password.c_str())));
    if (!key) fail("server private key is not valid PEM or the password is wrong");
    if (X509_check_private_key(cert.get(), key.get()) != 1)
        fail("server private key does not belong to the certificate");
    return {certificate_der(cert.get()), private_key_der(key.get())};
}

std::string certificate_der_to_pem(const bytes& der) {
    const unsigned char* p = der.data();
    x509_ptr cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!cert) fail("certificate is not valid DER");
    bio_ptr bio(BIO_new(BIO_s_mem()));
    check(PEM_write_bio_X509(bio.get(), cert.get()), "cannot write certificate PEM");
    return bio_text(bio.get());
}

std::string private_key_der_to_pem(const bytes& der) {
    const unsigned char* p = der.data();
    pkey_ptr key(d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size())));
    if (!key) fail("private key is not valid DER");
    bio_ptr bio(BIO_new(BIO_s_mem()));
    check(PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr),
          "cannot write private key PEM");
    return bio_text(bio.get());
}

} // namespace opcua_sim
