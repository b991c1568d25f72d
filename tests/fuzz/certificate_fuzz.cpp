// Certificates, keys and revocation lists as PEM or DER. The first byte picks the
// loader; every object that loads is asked all that the module asks of it.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <openssl/err.h>

#include "libcertificatehelper/source/allocator.h"
#include "libi18n/i18n.h"

namespace mm = ::brenholt::monitoring_modules;
namespace ch = mm::libcertificatehelper;

namespace {

// The seeds' encrypted keys use this password, so that decryption can succeed.
const char* const password = "fuzz";

const std::shared_ptr<const ch::allocator>& openssl() {
    static const std::shared_ptr<const ch::allocator> instance = ch::make_openssl_allocator();
    return instance;
}

// Operations leave the error queue as they found it: empty here.
void queue_is_clean() {
    if (ERR_peek_error() != 0) {
        ERR_print_errors_fp(stderr);
        std::abort();
    }
}

void inspect(const ch::certificate_interface& c) {
    (void)c.to_der();
    (void)c.get_subject();
    (void)c.get_issuer();
    try {
        (void)c.get_common_name();
    } catch (const std::out_of_range&) {
        // No common name.
    }
    (void)c.get_application_uris();
    (void)c.is_self_signed();
    (void)c.get_thumbprint();
    (void)c.get_signature_size();
    (void)c.get_public_key_bits();
    (void)c.get_public_key_type();
    (void)c.get_days_until_expiry(std::chrono::system_clock::now());
    (void)c.supports_data_encipherment();
    (void)c.get_crl_distribution_points();
    (void)c.verify_signature(c);
    (void)c.get_public_key()->to_der();
}

void load(unsigned mode, const std::string& text) {
    const std::vector<std::uint8_t> bytes(text.begin(), text.end());
    const auto& a = openssl();
    switch (mode) {
        case 0: inspect(*a->make_certificate_from_pem(text)); break;
        case 1: inspect(*a->make_certificate_from_der(bytes)); break;
        case 2: (void)a->make_private_key(text, password)->to_der(); break;
        case 3: (void)a->make_public_key(bytes)->to_der(); break;
        case 4:
        case 5: {
            const auto list = mode == 4 ? a->make_revocation_list_from_pem(text, std::nullopt)
                                        : a->make_revocation_list_from_der(bytes, std::nullopt);
            (void)list->to_der();
            (void)list->get_last_update();
            (void)list->get_next_update();
            break;
        }
        default: {
            // A certificate checked against the trust store and its own list-less checks.
            // Reading the system's trust bundles takes long; one store serves all inputs.
            static const std::unique_ptr<ch::certificate_validator_interface> validator =
                a->make_certificate_validator(false);
            const std::shared_ptr<ch::certificate_interface> c = a->make_certificate_from_der(bytes);
            (void)validator->verify(c);
            (void)validator->check_host(c, "localhost");
            (void)validator->check_host(c, "127.0.0.1");
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    ERR_clear_error();
    try {
        load(data[0] % 7, std::string(reinterpret_cast<const char*>(data + 1), size - 1));
    } catch (const mm::libi18n::i18n_exception&) {
        // Refused input, or a check that could not be made.
    }
    queue_is_clean();
    return 0;
}
