#include "client_certificate.h"

#include <memory>
#include <stdexcept>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace miniprobe {

namespace {

std::string openssl_error() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "no certificate found";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

std::string key_kind(int type) {
    switch (type) {
        case EVP_PKEY_EC: return "an EC";
        case EVP_PKEY_RSA_PSS: return "an RSA-PSS";
        case EVP_PKEY_DSA: return "a DSA";
        case EVP_PKEY_ED25519: return "an Ed25519";
        case EVP_PKEY_ED448: return "an Ed448";
        case NID_undef: return "no readable";
        default: {
            const char* name = OBJ_nid2sn(type);
            return std::string("a ") + (name != nullptr ? name : "unknown");
        }
    }
}

}  // namespace

bool holds_certificate(const std::string& text) {
    return text.find("-----BEGIN CERTIFICATE-----") != std::string::npos;
}

std::vector<std::string> certificate_lacks(const std::string& pem) {
    std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    if (!in) throw std::bad_alloc();
    std::unique_ptr<X509, decltype(&X509_free)> certificate(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr),
                                                             &X509_free);
    if (!certificate) throw std::invalid_argument("not a readable PEM certificate (" + openssl_error() + ")");

    std::vector<std::string> lacks;
    // Without the extension OpenSSL allows every use; OPC UA servers want it spelt out.
    if ((X509_get_extension_flags(certificate.get()) & EXFLAG_KUSAGE) == 0)
        lacks.push_back("a key usage extension with data encipherment (it has no key usage)");
    else if ((X509_get_key_usage(certificate.get()) & KU_DATA_ENCIPHERMENT) == 0)
        lacks.push_back("data encipherment in its key usage");

    bool has_uri = false;
    auto* names =
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate.get(), NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i)
        has_uri = has_uri || sk_GENERAL_NAME_value(names, i)->type == GEN_URI;
    GENERAL_NAMES_free(names);
    if (!has_uri) lacks.push_back("a URI in its subject alternative names (the application URI)");

    const EVP_PKEY* key = X509_get0_pubkey(certificate.get());
    const int type = key == nullptr ? NID_undef : EVP_PKEY_get_base_id(key);
    if (type != EVP_PKEY_RSA) lacks.push_back("an RSA key (it has " + key_kind(type) + " key)");
    ERR_clear_error();
    return lacks;
}

}  // namespace miniprobe
