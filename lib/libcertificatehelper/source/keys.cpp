#include "libcertificatehelper/source/detail/keys.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include "libcertificatehelper/source/exceptions.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

private_key::private_key(detail::evp_pkey_ptr key) : key_(std::move(key)) {}

std::vector<std::uint8_t> private_key::to_der() const {
    detail::bio_ptr bio(BIO_new(BIO_s_secmem()));
    if (!bio || !key_ || i2d_PrivateKey_bio(bio.get(), key_.get()) != 1) {
        return {};
    }
    return detail::bio_to_bytes(bio.get());
}

bool private_key::is_rsa() const { return key_ && EVP_PKEY_is_a(key_.get(), "RSA") == 1; }

public_key::public_key(detail::evp_pkey_ptr key) : key_(std::move(key)) {}

bool public_key::is_rsa() const { return key_ && EVP_PKEY_is_a(key_.get(), "RSA") == 1; }

std::vector<std::uint8_t> public_key::to_der() const {
    detail::bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio || !key_ || i2d_PUBKEY_bio(bio.get(), key_.get()) != 1) {
        return {};
    }
    return detail::bio_to_bytes(bio.get());
}

namespace detail {

namespace {

// Wipes the copy of a password when the loader is done with it.
struct cleansed_string {
    std::string text;
    ~cleansed_string() { OPENSSL_cleanse(text.data(), text.size()); }
};

}  // namespace

std::unique_ptr<key_interface> load_private_key(const std::string& pem, const std::string& password) {
    // OpenSSL's default password callback reads the user data as a C string; it needs a writable copy.
    cleansed_string passphrase{password};
    if (pem.empty()) {
        throw exceptions::private_key_empty();
    }
    bio_ptr bio = read_bio(pem.data(), pem.size());
    evp_pkey_ptr key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, passphrase.text.data()));
    if (!key) {
        std::string reason = openssl_error_text();
        ERR_clear_error();
        throw exceptions::could_not_load_private_key(reason);
    }
    return std::make_unique<private_key>(std::move(key));
}

std::unique_ptr<key_interface> load_public_key(const std::vector<std::uint8_t>& der) {
    if (der.empty()) {
        throw exceptions::public_key_empty();
    }
    evp_pkey_ptr key = public_key_from_der(der);
    if (!key) {
        std::string reason = openssl_error_text();
        ERR_clear_error();
        throw exceptions::could_not_load_public_key(reason);
    }
    return std::make_unique<public_key>(std::move(key));
}

}  // namespace detail

}  // namespace brenholt::monitoring_modules::libcertificatehelper
