#pragma once

// Library-internal: the OpenSSL keys behind key_interface.

#include <memory>
#include <string>
#include <vector>

#include "libcertificatehelper/source/detail/openssl_handles.h"
#include "libcertificatehelper/source/key_interface.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

class private_key : public key_interface {
public:
    explicit private_key(detail::evp_pkey_ptr key);
    // The plain key passes through secure memory only while it is encoded.
    std::vector<std::uint8_t> to_der() const override;
    bool is_rsa() const override;

private:
    detail::evp_pkey_ptr key_;
};

class public_key : public key_interface {
public:
    explicit public_key(detail::evp_pkey_ptr key);
    // A SubjectPublicKeyInfo.
    std::vector<std::uint8_t> to_der() const override;
    bool is_rsa() const override;

private:
    detail::evp_pkey_ptr key_;
};

namespace detail {

// Both loaders leave this thread's OpenSSL error queue empty when they fail.
std::unique_ptr<key_interface> load_private_key(const std::string& pem, const std::string& password);
std::unique_ptr<key_interface> load_public_key(const std::vector<std::uint8_t>& der);

}  // namespace detail

}  // namespace brenholt::monitoring_modules::libcertificatehelper
