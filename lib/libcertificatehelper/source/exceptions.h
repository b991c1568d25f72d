#pragma once

#include "libi18n/exceptions.h"

namespace brenholt::monitoring_modules::libcertificatehelper::exceptions {

namespace cat = ::brenholt::monitoring_modules::libi18n::catalogue;

// Catch point of every failure of the certificate library but the validator's own.
LIBI18N_CATCH_POINT(, exception, ::brenholt::monitoring_modules::libi18n::error_generic);

LIBI18N_EXCEPTION(, bad_alloc, exception, cat::certificate_helper_error_bad_alloc);
LIBI18N_EXCEPTION(, certificate_der_invalid, exception, cat::certificate_helper_error_certificate_der_invalid);
LIBI18N_EXCEPTION(, certificate_empty, exception, cat::certificate_helper_error_certificate_empty);
LIBI18N_EXCEPTION(, certificate_pem_invalid, exception, cat::certificate_helper_error_certificate_pem_invalid);
LIBI18N_EXCEPTION(, certificate_revocation_list_der_invalid, exception,
                  cat::certificate_helper_error_certificate_revocation_list_der_invalid);
LIBI18N_EXCEPTION(, certificate_revocation_list_empty, exception,
                  cat::certificate_helper_error_certificate_revocation_list_empty);
LIBI18N_EXCEPTION(, certificate_revocation_list_pem_invalid, exception,
                  cat::certificate_helper_error_certificate_revocation_list_pem_invalid);
LIBI18N_EXCEPTION(, certificate_revocation_list_signature_verification_failed, exception,
                  cat::certificate_helper_error_certificate_revocation_list_signature_verification_failed);
LIBI18N_EXCEPTION(, could_not_load_private_key, exception, cat::certificate_helper_error_could_not_load_private_key);
LIBI18N_EXCEPTION(, could_not_load_public_key, exception, cat::certificate_helper_error_could_not_load_public_key);
LIBI18N_EXCEPTION(, data_encipherment_not_supported, exception,
                  cat::certificate_helper_error_data_encipherment_not_supported);
LIBI18N_EXCEPTION(, get_x509_issuer_failed, exception, cat::certificate_helper_error_get_x509_issuer_failed);
LIBI18N_EXCEPTION(, get_x509_subject_failed, exception, cat::certificate_helper_error_get_x509_subject_failed);
LIBI18N_EXCEPTION(, missing_application_uri, exception, cat::certificate_helper_error_missing_application_uri);
LIBI18N_EXCEPTION(, private_key_empty, exception, cat::certificate_helper_error_private_key_empty);
LIBI18N_EXCEPTION(, public_key_empty, exception, cat::certificate_helper_error_public_key_empty);
LIBI18N_EXCEPTION(, signature_verification_failed, exception,
                  cat::certificate_helper_error_signature_verification_failed);
LIBI18N_EXCEPTION(, wrong_hash_length, exception, cat::certificate_helper_error_wrong_hash_length);

// Catch point of the failures that leave a validator unusable.
LIBI18N_CATCH_POINT(, certificate_validator_exception, ::brenholt::monitoring_modules::libi18n::error_generic);

LIBI18N_EXCEPTION(, store_ctx_init_failed, certificate_validator_exception,
                  cat::certificate_helper_error_store_ctx_init_failed);
LIBI18N_EXCEPTION(, store_set_default_paths_failed, certificate_validator_exception,
                  cat::certificate_helper_error_store_set_default_paths_failed);

}  // namespace brenholt::monitoring_modules::libcertificatehelper::exceptions
