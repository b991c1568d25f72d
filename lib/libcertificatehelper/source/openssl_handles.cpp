#include "libcertificatehelper/source/detail/openssl_handles.h"

#include <climits>

#include <openssl/err.h>

#include "libcertificatehelper/source/exceptions.h"

namespace brenholt::monitoring_modules::libcertificatehelper::detail {

// With an empty queue ERR_set_mark sets no mark, and ERR_pop_to_mark then empties the
// queue: found empty, left empty.
error_queue_guard::error_queue_guard() { ERR_set_mark(); }

error_queue_guard::~error_queue_guard() { ERR_pop_to_mark(); }

std::string openssl_error_text() {
    const auto code = static_cast<std::uint32_t>(ERR_get_error());
    const char* reason = ERR_reason_error_string(code);
    if (reason != nullptr) {
        return std::string(reason) + " (" + std::to_string(code) + ")";
    }
    return "Unknown OpenSSL error (" + std::to_string(code) + ").";
}

bio_ptr read_bio(const void* data, std::size_t size) {
    // Texts beyond INT_MAX bytes cannot be a certificate; an empty buffer then fails to parse.
    const int length = size > static_cast<std::size_t>(INT_MAX) ? 0 : static_cast<int>(size);
    static const char nothing = '\0';
    bio_ptr bio(BIO_new_mem_buf(length == 0 ? &nothing : data, length));
    if (!bio) {
        throw exceptions::bad_alloc("BIO_new_mem_buf");
    }
    return bio;
}

bio_ptr write_bio() {
    bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        throw exceptions::bad_alloc("BIO_new");
    }
    return bio;
}

std::string bio_to_string(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    if (length <= 0 || data == nullptr) {
        return {};
    }
    return std::string(data, static_cast<std::size_t>(length));
}

std::vector<std::uint8_t> bio_to_bytes(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    if (length <= 0 || data == nullptr) {
        return {};
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(data);
    return std::vector<std::uint8_t>(bytes, bytes + length);
}

x509_ptr x509_from_der(const std::vector<std::uint8_t>& der) {
    if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX)) {
        return nullptr;
    }
    const error_queue_guard guard;
    const unsigned char* p = der.data();
    return x509_ptr(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

std::vector<std::uint8_t> x509_to_der(X509* x509) {
    if (x509 == nullptr) {
        return {};
    }
    const error_queue_guard guard;
    bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio || i2d_X509_bio(bio.get(), x509) != 1) {
        return {};
    }
    return bio_to_bytes(bio.get());
}

evp_pkey_ptr public_key_from_der(const std::vector<std::uint8_t>& der) {
    if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX)) {
        return nullptr;
    }
    const unsigned char* p = der.data();
    return evp_pkey_ptr(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
}

}  // namespace brenholt::monitoring_modules::libcertificatehelper::detail
