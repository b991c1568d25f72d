#include "libcertificatehelper/source/detail/certificate_revocation_list.h"

#include <climits>
#include <ctime>

#include <openssl/pem.h>

#include "libcertificatehelper/source/exceptions.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

namespace {

std::chrono::system_clock::time_point to_time_point(const ASN1_TIME* time) {
    const detail::error_queue_guard guard;
    std::tm broken_down{};
    if (time == nullptr || ASN1_TIME_to_tm(time, &broken_down) != 1) {
        return {};
    }
    const time_t seconds = timegm(&broken_down);
    if (seconds == -1) {
        return {};
    }
    // The clock counts nanoseconds in 64 bits, which ends in 1677 and 2262; a list may
    // name any year up to 9999. Dates outside that span stand at the nearest end of it,
    // which keeps their order against any time the clock can hold.
    using clock = std::chrono::system_clock;
    constexpr auto latest = std::chrono::duration_cast<std::chrono::seconds>(clock::duration::max()).count();
    constexpr auto earliest = std::chrono::duration_cast<std::chrono::seconds>(clock::duration::min()).count();
    if (seconds > latest) {
        return clock::time_point::max();
    }
    if (seconds < earliest) {
        return clock::time_point::min();
    }
    return clock::time_point(std::chrono::duration_cast<clock::duration>(std::chrono::seconds(seconds)));
}

std::unique_ptr<certificate_revocation_list_interface> checked(
    detail::x509_crl_ptr crl, const std::optional<std::shared_ptr<key_interface>>& issuer_key) {
    const detail::error_queue_guard guard;
    if (issuer_key) {
        const std::shared_ptr<key_interface>& key = *issuer_key;
        const detail::evp_pkey_ptr public_key =
            key ? detail::public_key_from_der(key->to_der()) : detail::evp_pkey_ptr();
        if (!public_key) {
            throw exceptions::public_key_empty();
        }
        if (X509_CRL_verify(crl.get(), public_key.get()) != 1) {
            throw exceptions::certificate_revocation_list_signature_verification_failed(
                detail::openssl_error_text());
        }
    }
    return std::make_unique<certificate_revocation_list>(std::move(crl));
}

}  // namespace

certificate_revocation_list::certificate_revocation_list(detail::x509_crl_ptr crl) : crl_(std::move(crl)) {}

std::vector<std::uint8_t> certificate_revocation_list::to_der() const {
    const detail::error_queue_guard guard;
    if (!crl_) {
        return {};
    }
    detail::bio_ptr bio(BIO_new(BIO_s_mem()));
    if (!bio || i2d_X509_CRL_bio(bio.get(), crl_.get()) != 1) {
        return {};
    }
    return detail::bio_to_bytes(bio.get());
}

std::chrono::system_clock::time_point certificate_revocation_list::get_last_update() const {
    return crl_ ? to_time_point(X509_CRL_get0_lastUpdate(crl_.get())) : std::chrono::system_clock::time_point{};
}

std::chrono::system_clock::time_point certificate_revocation_list::get_next_update() const {
    return crl_ ? to_time_point(X509_CRL_get0_nextUpdate(crl_.get())) : std::chrono::system_clock::time_point{};
}

bool certificate_revocation_list::is_revoked(const certificate_interface& certificate) const {
    const detail::error_queue_guard guard;
    const detail::x509_ptr x509 = detail::x509_from_der(certificate.to_der());
    if (!crl_ || !x509) {
        return false;
    }
    X509_REVOKED* entry = nullptr;
    // 2 means listed as removeFromCRL, which lifts a former hold.
    return X509_CRL_get0_by_cert(crl_.get(), &entry, x509.get()) == 1;
}

namespace detail {

std::unique_ptr<certificate_revocation_list_interface> load_revocation_list_pem(
    const std::string& pem, const std::optional<std::shared_ptr<key_interface>>& issuer_key) {
    if (pem.empty()) {
        throw exceptions::certificate_revocation_list_empty();
    }
    const error_queue_guard guard;
    bio_ptr bio = read_bio(pem.data(), pem.size());
    x509_crl_ptr crl(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
    if (!crl) {
        throw exceptions::certificate_revocation_list_pem_invalid();
    }
    return checked(std::move(crl), issuer_key);
}

std::unique_ptr<certificate_revocation_list_interface> load_revocation_list_der(
    const std::vector<std::uint8_t>& der, const std::optional<std::shared_ptr<key_interface>>& issuer_key) {
    if (der.empty()) {
        throw exceptions::certificate_revocation_list_empty();
    }
    const error_queue_guard guard;
    const unsigned char* p = der.data();
    x509_crl_ptr crl(der.size() > static_cast<std::size_t>(LONG_MAX)
                         ? nullptr
                         : d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
    if (!crl) {
        throw exceptions::certificate_revocation_list_der_invalid();
    }
    return checked(std::move(crl), issuer_key);
}

}  // namespace detail

}  // namespace brenholt::monitoring_modules::libcertificatehelper
