#include "libcertificatehelper/source/detail/certificate.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "libcertificatehelper/source/exceptions.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

namespace {

using detail::bio_ptr;
using detail::openssl_error_text;

template <typename Failure>
std::string print_name(const X509_NAME* name) {
    if (name == nullptr) {
        throw Failure(openssl_error_text());
    }
    bio_ptr bio = detail::write_bio();
    if (X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253) < 0) {
        throw Failure(openssl_error_text());
    }
    return detail::bio_to_string(bio.get());
}

// Splits at each ", ", the separator OpenSSL prints between the entries of one extension.
std::vector<std::string> split_entries(const std::string& text) {
    static const std::string separator = ", ";
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, start)) {
        parts.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
    parts.push_back(text.substr(start));
    return parts;
}

struct authority_keyid_deleter {
    void operator()(AUTHORITY_KEYID* p) const { AUTHORITY_KEYID_free(p); }
};

struct dist_points_deleter {
    void operator()(STACK_OF(DIST_POINT) * p) const { sk_DIST_POINT_pop_free(p, DIST_POINT_free); }
};

}  // namespace

certificate::certificate(detail::x509_ptr x509, std::shared_ptr<const allocator> maker)
    : allocator_(std::move(maker)), x509_(std::move(x509)) {
    if (!x509_) {
        throw exceptions::certificate_empty();
    }
    subject_ = print_name<exceptions::get_x509_subject_failed>(X509_get_subject_name(x509_.get()));
    issuer_ = print_name<exceptions::get_x509_issuer_failed>(X509_get_issuer_name(x509_.get()));
}

std::vector<std::uint8_t> certificate::to_der() const { return detail::x509_to_der(x509_.get()); }

std::string certificate::get_subject() const { return subject_; }

std::string certificate::get_issuer() const { return issuer_; }

std::shared_ptr<key_interface> certificate::get_public_key() const {
    const detail::error_queue_guard guard;
    std::vector<std::uint8_t> der;
    EVP_PKEY* key = x509_ ? X509_get0_pubkey(x509_.get()) : nullptr;
    if (key != nullptr) {
        bio_ptr bio(BIO_new(BIO_s_mem()));
        if (bio && i2d_PUBKEY_bio(bio.get(), key) == 1) {
            der = detail::bio_to_bytes(bio.get());
        }
    }
    // An empty vector makes the allocator raise public_key_empty.
    return allocator_->make_public_key(der);
}

std::string certificate::get_common_name() const {
    const std::vector<std::string> names = get_common_names();
    if (names.empty()) {
        throw std::out_of_range("certificate subject has no common name");
    }
    return names.front();
}

std::vector<std::string> certificate::get_common_names() const {
    const detail::error_queue_guard guard;
    std::vector<std::string> names;
    const X509_NAME* subject = X509_get_subject_name(x509_.get());
    if (subject == nullptr) {
        return names;
    }
    for (int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1); index >= 0;
         index = X509_NAME_get_index_by_NID(subject, NID_commonName, index)) {
        // The bytes as stored: a BMPString stays UTF-16, on purpose.
        const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
        const unsigned char* bytes = ASN1_STRING_get0_data(data);
        const int length = ASN1_STRING_length(data);
        names.emplace_back(bytes == nullptr || length <= 0
                               ? std::string()
                               : std::string(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)));
    }
    return names;
}

std::vector<std::string> certificate::extension_texts(int nid) const {
    const detail::error_queue_guard guard;
    std::vector<std::string> texts;
    X509* x509 = x509_.get();
    for (int index = X509_get_ext_by_NID(x509, nid, -1); index >= 0; index = X509_get_ext_by_NID(x509, nid, index)) {
        X509_EXTENSION* extension = X509_get_ext(x509, index);
        if (nid == NID_authority_key_identifier) {
            // Printed, this extension carries more than the key id; only the key id is compared.
            std::unique_ptr<AUTHORITY_KEYID, authority_keyid_deleter> keyid(
                static_cast<AUTHORITY_KEYID*>(X509V3_EXT_d2i(extension)));
            if (keyid && keyid->keyid != nullptr) {
                char* hex = i2s_ASN1_OCTET_STRING(nullptr, keyid->keyid);
                if (hex != nullptr) {
                    texts.push_back(std::string("keyid:") + hex);
                    OPENSSL_free(hex);
                }
            }
            continue;
        }
        bio_ptr bio = detail::write_bio();
        if (X509V3_EXT_print(bio.get(), extension, 0, 0) == 1) {
            texts.push_back(detail::bio_to_string(bio.get()));
        }
    }
    return texts;
}

std::vector<std::string> certificate::get_subject_alternative_names() const {
    std::vector<std::string> names;
    for (const std::string& text : extension_texts(NID_subject_alt_name)) {
        if (text.find("<EMPTY>") != std::string::npos) {
            continue;
        }
        for (std::string& part : split_entries(text)) {
            names.push_back(std::move(part));
        }
    }
    return names;
}

std::vector<std::string> certificate::get_application_uris() const {
    std::vector<std::string> uris;
    for (const std::string& name : get_subject_alternative_names()) {
        // Drops the first four bytes wherever "URI:" stands; for the usual "URI:..." that is the tag.
        if (name.find("URI:") != std::string::npos) {
            uris.push_back(name.substr(4));
        }
    }
    return uris;
}

bool certificate::is_self_signed() const {
    const detail::error_queue_guard guard;
    X509* x509 = x509_.get();
    if (X509_NAME_cmp(X509_get_subject_name(x509), X509_get_issuer_name(x509)) != 0) {
        return false;
    }
    const std::vector<std::string> authority_keys = extension_texts(NID_authority_key_identifier);
    const std::vector<std::string> subject_keys = extension_texts(NID_subject_key_identifier);
    if (!authority_keys.empty() && !subject_keys.empty()) {
        const bool keys_match = std::any_of(subject_keys.begin(), subject_keys.end(), [&](const std::string& key) {
            return std::find(authority_keys.begin(), authority_keys.end(), "keyid:" + key) != authority_keys.end();
        });
        if (!keys_match) {
            return false;
        }
    }
    detail::evp_pkey_ptr key(X509_get_pubkey(x509));
    if (!key) {
        return false;
    }
    return X509_verify(x509, key.get()) == 1;
}

std::string certificate::get_thumbprint() const {
    const detail::error_queue_guard guard;
    constexpr unsigned int sha1_length = 20;
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    unsigned int length = 0;
    X509_digest(x509_.get(), EVP_sha1(), digest, &length);
    if (length != sha1_length) {
        throw exceptions::wrong_hash_length(std::to_string(sha1_length), std::to_string(length));
    }
    static const char hex_digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * sha1_length);
    for (unsigned int i = 0; i < sha1_length; ++i) {
        hex.push_back(hex_digits[digest[i] >> 4]);
        hex.push_back(hex_digits[digest[i] & 0x0f]);
    }
    return hex;
}

std::int32_t certificate::get_signature_size() const {
    const detail::error_queue_guard guard;
    const ASN1_BIT_STRING* signature = nullptr;
    X509_get0_signature(&signature, nullptr, x509_.get());
    return signature == nullptr ? 0 : ASN1_STRING_length(signature);
}

std::int32_t certificate::get_public_key_bits() const {
    const detail::error_queue_guard guard;
    detail::evp_pkey_ptr key(X509_get_pubkey(x509_.get()));
    return key ? EVP_PKEY_get_bits(key.get()) : 0;
}

public_key_type certificate::get_public_key_type() const {
    const detail::error_queue_guard guard;
    static const std::map<int, public_key_type> types = {
        {EVP_PKEY_RSA, public_key_type::rsa},         {EVP_PKEY_RSA_PSS, public_key_type::rsa},
        {EVP_PKEY_DSA, public_key_type::dsa},         {EVP_PKEY_EC, public_key_type::ec},
        {EVP_PKEY_DH, public_key_type::dh},           {EVP_PKEY_ED25519, public_key_type::ed25519},
        {EVP_PKEY_ED448, public_key_type::ed448},
    };
    const EVP_PKEY* key = X509_get0_pubkey(x509_.get());
    if (key == nullptr) {
        return public_key_type::unknown;
    }
    const auto found = types.find(EVP_PKEY_get_base_id(key));
    return found == types.end() ? public_key_type::unknown : found->second;
}

std::int32_t certificate::get_days_until_expiry(std::chrono::system_clock::time_point now) const {
    const detail::error_queue_guard guard;
    // duration_cast drops the fraction of a second toward zero.
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    detail::asn1_time_ptr from(ASN1_TIME_set(nullptr, static_cast<time_t>(seconds)));
    // A missing time would make OpenSSL count from its own clock; report no days instead.
    if (!from) {
        return 0;
    }
    int days = 0;
    int remaining_seconds = 0;
    ASN1_TIME_diff(&days, &remaining_seconds, from.get(), X509_get0_notAfter(x509_.get()));
    return days;
}

bool certificate::supports_data_encipherment() const {
    const std::vector<std::string> texts = extension_texts(NID_key_usage);
    return std::any_of(texts.begin(), texts.end(),
                       [](const std::string& text) { return text.find("Data Encipherment") != std::string::npos; });
}

std::vector<std::string> certificate::get_crl_distribution_points() const {
    const detail::error_queue_guard guard;
    std::vector<std::string> uris;
    std::unique_ptr<STACK_OF(DIST_POINT), dist_points_deleter> points(static_cast<STACK_OF(DIST_POINT)*>(
        X509_get_ext_d2i(x509_.get(), NID_crl_distribution_points, nullptr, nullptr)));
    if (!points) {
        return uris;
    }
    for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
        const DIST_POINT* point = sk_DIST_POINT_value(points.get(), i);
        // Type 0 is a full name; a name relative to the issuer carries no URI.
        if (point == nullptr || point->distpoint == nullptr || point->distpoint->type != 0) {
            continue;
        }
        const GENERAL_NAMES* names = point->distpoint->name.fullname;
        for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
            const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, j);
            if (name == nullptr || name->type != GEN_URI || name->d.uniformResourceIdentifier == nullptr) {
                continue;
            }
            const ASN1_IA5STRING* uri = name->d.uniformResourceIdentifier;
            const unsigned char* data = ASN1_STRING_get0_data(uri);
            const int length = ASN1_STRING_length(uri);
            if (data != nullptr && length > 0) {
                uris.emplace_back(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
            }
        }
    }
    return uris;
}

bool certificate::verify_signature(const certificate_interface& issuer) const {
    const detail::error_queue_guard guard;
    const std::shared_ptr<key_interface> issuer_key = issuer.get_public_key();
    // Without a key OpenSSL reports the check as impossible, which raises below.
    detail::evp_pkey_ptr key = issuer_key ? detail::public_key_from_der(issuer_key->to_der()) : nullptr;
    const int result = X509_verify(x509_.get(), key.get());
    if (result < 0) {
        throw exceptions::signature_verification_failed(openssl_error_text());
    }
    return result == 1;
}

namespace detail {

std::unique_ptr<certificate_interface> load_certificate_pem(const std::string& pem,
                                                            std::shared_ptr<const allocator> maker) {
    const error_queue_guard guard;
    if (pem.empty()) {
        throw exceptions::certificate_empty();
    }
    bio_ptr bio = read_bio(pem.data(), pem.size());
    // Only the first certificate of the text counts.
    x509_ptr x509(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!x509) {
        throw exceptions::certificate_pem_invalid();
    }
    return std::make_unique<certificate>(std::move(x509), std::move(maker));
}

std::unique_ptr<certificate_interface> load_certificate_der(const std::vector<std::uint8_t>& der,
                                                            std::shared_ptr<const allocator> maker) {
    const error_queue_guard guard;
    if (der.empty()) {
        throw exceptions::certificate_empty();
    }
    x509_ptr x509 = x509_from_der(der);
    if (!x509) {
        throw exceptions::certificate_der_invalid();
    }
    return std::make_unique<certificate>(std::move(x509), std::move(maker));
}

}  // namespace detail

}  // namespace brenholt::monitoring_modules::libcertificatehelper
