#include "libcertificatehelper/source/detail/certificate_validator.h"

#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "libcertificatehelper/source/detail/openssl_handles.h"
#include "libcertificatehelper/source/exceptions.h"

namespace brenholt::monitoring_modules::libcertificatehelper {

namespace {

using detail::x509_ptr;

// Bundle files of the common distributions; whichever exist are loaded.
const char* const trust_bundle_files[] = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/etc/ssl/ca-bundle.pem",
    "/etc/pki/tls/cacert.pem",
    "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem",
};

struct x509_stack_deleter {
    void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};
using x509_stack_ptr = std::unique_ptr<STACK_OF(X509), x509_stack_deleter>;

x509_ptr to_x509(const std::shared_ptr<certificate_interface>& certificate) {
    if (!certificate) {
        return nullptr;
    }
    return detail::x509_from_der(certificate->to_der());
}

verification_status status_of(int error) {
    switch (error) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return verification_status::untrusted;
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return verification_status::not_yet_valid;
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return verification_status::expired;
        case X509_V_ERR_CERT_REVOKED:
            return verification_status::revoked;
        default:
            return verification_status::failed;
    }
}

}  // namespace

struct certificate_validator::implementation {
    std::shared_ptr<const allocator> maker;
    detail::x509_store_ptr store;

    verification_result verify(std::vector<x509_ptr> chain) const;
};

certificate_validator::certificate_validator(bool /*use_system_store*/, std::shared_ptr<const allocator> maker)
    : impl_(std::make_unique<implementation>()) {
    impl_->maker = std::move(maker);
    impl_->store.reset(X509_STORE_new());
    if (!impl_->store) {
        throw exceptions::bad_alloc("X509_STORE_new");
    }
    if (X509_STORE_set_default_paths(impl_->store.get()) != 1) {
        throw exceptions::store_set_default_paths_failed(detail::openssl_error_text());
    }
    for (const char* file : trust_bundle_files) {
        // An absent file is normal; its errors must not surface as the reason of a later failure.
        ERR_set_mark();
        X509_STORE_load_locations(impl_->store.get(), file, nullptr);
        ERR_pop_to_mark();
    }
}

certificate_validator::~certificate_validator() = default;

host_check_result certificate_validator::check_host(const std::shared_ptr<certificate_interface>& certificate,
                                                    const std::string& host) const {
    const detail::error_queue_guard guard;
    const x509_ptr x509 = to_x509(certificate);
    if (!x509) {
        return host_check_result::check_failed;
    }
    if (X509_check_ip_asc(x509.get(), host.c_str(), 0) == 1) {
        return host_check_result::match;
    }
    const int result =
        X509_check_host(x509.get(), host.data(), host.size(), X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS, nullptr);
    if (result == 1) {
        return host_check_result::match;
    }
    return result < 0 ? host_check_result::check_failed : host_check_result::no_match;
}

verification_result certificate_validator::verify(const std::shared_ptr<certificate_interface>& certificate) const {
    if (!certificate) {
        return {verification_status::empty, std::nullopt};
    }
    std::vector<x509_ptr> chain;
    chain.push_back(to_x509(certificate));
    return impl_->verify(std::move(chain));
}

verification_result certificate_validator::verify_chain(
    const std::vector<std::shared_ptr<certificate_interface>>& certificates) const {
    std::vector<x509_ptr> chain;
    for (const auto& certificate : certificates) {
        if (x509_ptr x509 = to_x509(certificate)) {
            chain.push_back(std::move(x509));
        }
    }
    return impl_->verify(std::move(chain));
}

bool certificate_validator::add_trusted(const std::shared_ptr<certificate_interface>& certificate) {
    const detail::error_queue_guard guard;
    const x509_ptr x509 = to_x509(certificate);
    // The store takes its own reference; our copy goes with x509.
    return x509 && X509_STORE_add_cert(impl_->store.get(), x509.get()) == 1;
}

verification_result certificate_validator::implementation::verify(std::vector<x509_ptr> chain) const {
    const detail::error_queue_guard guard;
    if (chain.empty()) {
        return {verification_status::empty, std::nullopt};
    }
    // A certificate that did not convert cannot be verified; OpenSSL would refuse the call alike.
    if (!chain.front()) {
        return {verification_status::failed, std::nullopt};
    }
    const x509_ptr leaf = std::move(chain.front());
    x509_stack_ptr intermediates(sk_X509_new_null());
    if (!intermediates) {
        throw exceptions::bad_alloc("sk_X509_new_null");
    }
    for (std::size_t i = 1; i < chain.size(); ++i) {
        if (sk_X509_push(intermediates.get(), chain[i].get()) <= 0) {
            throw exceptions::bad_alloc("sk_X509_push");
        }
        chain[i].release();  // now owned by the stack
    }
    const detail::x509_store_ctx_ptr context(X509_STORE_CTX_new());
    if (!context) {
        throw exceptions::bad_alloc("X509_STORE_CTX_new");
    }
    if (X509_STORE_CTX_init(context.get(), store.get(), leaf.get(), intermediates.get()) != 1) {
        throw exceptions::store_ctx_init_failed("X509_STORE_CTX_init: " + detail::openssl_error_text());
    }
    if (X509_verify_cert(context.get()) != 1) {
        return {status_of(X509_STORE_CTX_get_error(context.get())), std::nullopt};
    }
    const x509_stack_ptr verified(X509_STORE_CTX_get1_chain(context.get()));
    const int length = verified ? sk_X509_num(verified.get()) : 0;
    if (length <= 0) {
        return {verification_status::valid, std::nullopt};
    }
    X509* root = sk_X509_value(verified.get(), length - 1);
    if (root == nullptr) {
        return {verification_status::valid, std::nullopt};
    }
    std::shared_ptr<certificate_interface> root_certificate = maker->make_certificate_from_der(detail::x509_to_der(root));
    return {verification_status::valid, std::move(root_certificate)};
}

}  // namespace brenholt::monitoring_modules::libcertificatehelper
