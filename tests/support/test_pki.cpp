#include "support/test_pki.h"

#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>
#include <tuple>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace brenholt::monitoring_modules::test_pki {

namespace {

template <auto Free>
struct deleter {
    template <typename T>
    void operator()(T* p) const {
        Free(p);
    }
};

using asn1_time_ptr = std::unique_ptr<ASN1_TIME, deleter<ASN1_TIME_free>>;
using asn1_integer_ptr = std::unique_ptr<ASN1_INTEGER, deleter<ASN1_INTEGER_free>>;
using asn1_octets_ptr = std::unique_ptr<ASN1_OCTET_STRING, deleter<ASN1_OCTET_STRING_free>>;
using bio_ptr = std::unique_ptr<BIO, deleter<BIO_free_all>>;
using evp_pkey_ptr = std::unique_ptr<EVP_PKEY, deleter<EVP_PKEY_free>>;
using x509_ptr = std::unique_ptr<X509, deleter<X509_free>>;
using x509_crl_ptr = std::unique_ptr<X509_CRL, deleter<X509_CRL_free>>;
using x509_extension_ptr = std::unique_ptr<X509_EXTENSION, deleter<X509_EXTENSION_free>>;
using x509_name_ptr = std::unique_ptr<X509_NAME, deleter<X509_NAME_free>>;
using x509_revoked_ptr = std::unique_ptr<X509_REVOKED, deleter<X509_REVOKED_free>>;

[[noreturn]] void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    char reason[256] = "no OpenSSL error";
    if (code != 0) {
        ERR_error_string_n(code, reason, sizeof reason);
    }
    ERR_clear_error();
    throw std::runtime_error("test_pki: " + what + ": " + reason);
}

template <typename T>
T* check(T* value, const std::string& what) {
    if (value == nullptr) {
        fail(what);
    }
    return value;
}

void check(int result, const std::string& what) {
    if (result <= 0) {
        fail(what);
    }
}

bio_ptr memory_bio() { return bio_ptr(check(BIO_new(BIO_s_mem()), "BIO_new")); }

std::string bio_text(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

bytes bio_bytes(BIO* bio) {
    const std::string text = bio_text(bio);
    return bytes(text.begin(), text.end());
}

asn1_time_ptr asn1_time(time_point when) {
    return asn1_time_ptr(check(ASN1_TIME_set(nullptr, std::chrono::system_clock::to_time_t(when)), "ASN1_TIME_set"));
}

asn1_octets_ptr octets(const bytes& value) {
    asn1_octets_ptr result(check(ASN1_OCTET_STRING_new(), "ASN1_OCTET_STRING_new"));
    check(ASN1_OCTET_STRING_set(result.get(), value.data(), static_cast<int>(value.size())), "ASN1_OCTET_STRING_set");
    return result;
}

// Ed25519 and Ed448 sign the message itself, so they take no digest.
const EVP_MD* digest_for(const key_pair& key) {
    const key_algorithm algorithm = key.algorithm();
    return algorithm == key_algorithm::ed25519 || algorithm == key_algorithm::ed448 ? nullptr : EVP_sha256();
}

std::atomic<std::int64_t> next_serial{1000};

}  // namespace

struct key_pair::impl {
    key_algorithm algorithm;
    evp_pkey_ptr pkey;
};

struct cert::impl {
    x509_ptr x509;
    key_pair key;
    std::int64_t serial;
};

struct crl::impl {
    x509_crl_ptr x509_crl;
};

time_point from_now(std::chrono::seconds offset) { return std::chrono::system_clock::now() + offset; }

// ---- keys ----

key_pair::key_pair(std::shared_ptr<const impl> state) : state_(std::move(state)) {}

key_algorithm key_pair::algorithm() const { return state_->algorithm; }

int key_pair::bits() const { return EVP_PKEY_get_bits(state_->pkey.get()); }

std::string key_pair::private_pem() const {
    bio_ptr bio = memory_bio();
    check(PEM_write_bio_PKCS8PrivateKey(bio.get(), state_->pkey.get(), nullptr, nullptr, 0, nullptr, nullptr),
          "PEM_write_bio_PKCS8PrivateKey");
    return bio_text(bio.get());
}

std::string key_pair::private_pem_encrypted(const std::string& password) const {
    bio_ptr bio = memory_bio();
    std::string passphrase = password;
    check(PEM_write_bio_PKCS8PrivateKey(bio.get(), state_->pkey.get(), EVP_aes_256_cbc(), nullptr, 0, nullptr,
                                        passphrase.data()),
          "PEM_write_bio_PKCS8PrivateKey");
    return bio_text(bio.get());
}

bytes key_pair::private_der() const {
    bio_ptr bio = memory_bio();
    check(i2d_PrivateKey_bio(bio.get(), state_->pkey.get()), "i2d_PrivateKey_bio");
    return bio_bytes(bio.get());
}

bytes key_pair::public_der() const {
    bio_ptr bio = memory_bio();
    check(i2d_PUBKEY_bio(bio.get(), state_->pkey.get()), "i2d_PUBKEY_bio");
    return bio_bytes(bio.get());
}

key_pair make_key(key_algorithm algorithm, int bits, int slot) {
    static std::mutex mutex;
    static std::map<std::tuple<key_algorithm, int, int>, key_pair> cache;

    if (algorithm != key_algorithm::rsa && algorithm != key_algorithm::rsa_pss) {
        bits = 0;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    const auto key = std::make_tuple(algorithm, bits, slot);
    if (const auto found = cache.find(key); found != cache.end()) {
        return found->second;
    }
    EVP_PKEY* pkey = nullptr;
    switch (algorithm) {
        case key_algorithm::rsa:
            pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<std::size_t>(bits));
            break;
        case key_algorithm::rsa_pss: {
            // EVP_PKEY_Q_keygen of OpenSSL 3.0 knows plain RSA only.
            std::unique_ptr<EVP_PKEY_CTX, deleter<EVP_PKEY_CTX_free>> context(
                check(EVP_PKEY_CTX_new_from_name(nullptr, "RSA-PSS", nullptr), "EVP_PKEY_CTX_new_from_name"));
            check(EVP_PKEY_keygen_init(context.get()), "EVP_PKEY_keygen_init");
            check(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits), "EVP_PKEY_CTX_set_rsa_keygen_bits");
            check(EVP_PKEY_generate(context.get(), &pkey), "EVP_PKEY_generate");
            break;
        }
        case key_algorithm::ec_p256:
            pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
            break;
        case key_algorithm::ed25519:
            pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
            break;
        case key_algorithm::ed448:
            pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
            break;
    }
    auto state = std::make_shared<key_pair::impl>();
    state->algorithm = algorithm;
    state->pkey.reset(check(pkey, "EVP_PKEY_Q_keygen"));
    return cache.emplace(key, key_pair(std::move(state))).first->second;
}

// ---- certificates ----

cert_profile ca_profile(const std::string& common_name, key_pair key) {
    cert_profile profile;
    profile.subject = {{"CN", common_name}};
    profile.key = std::move(key);
    profile.not_after = from_now(days(3650));
    profile.key_usage = "critical,keyCertSign,cRLSign";
    profile.basic_constraints = "critical,CA:TRUE";
    return profile;
}

cert_profile leaf_profile(const std::string& common_name) {
    cert_profile profile;
    profile.subject = {{"CN", common_name}};
    return profile;
}

cert::cert(std::shared_ptr<const impl> state) : state_(std::move(state)) {}

std::string cert::pem() const {
    bio_ptr bio = memory_bio();
    check(PEM_write_bio_X509(bio.get(), state_->x509.get()), "PEM_write_bio_X509");
    return bio_text(bio.get());
}

bytes cert::der() const {
    bio_ptr bio = memory_bio();
    check(i2d_X509_bio(bio.get(), state_->x509.get()), "i2d_X509_bio");
    return bio_bytes(bio.get());
}

const key_pair& cert::key() const { return state_->key; }

std::int64_t cert::serial() const { return state_->serial; }

namespace {

void add_config_extension(X509* x509, X509V3_CTX* context, int nid, const std::string& value) {
    x509_extension_ptr extension(
        check(X509V3_EXT_conf_nid(nullptr, context, nid, value.c_str()), std::string("extension ") + OBJ_nid2sn(nid)));
    check(X509_add_ext(x509, extension.get(), -1), "X509_add_ext");
}

void add_octets_extension(X509* x509, int nid, const bytes& value) {
    asn1_octets_ptr id = octets(value);
    check(X509_add1_ext_i2d(x509, nid, id.get(), 0, X509V3_ADD_DEFAULT), "X509_add1_ext_i2d");
}

bytes key_hash(X509* x509) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    check(X509_pubkey_digest(x509, EVP_sha1(), digest, &length), "X509_pubkey_digest");
    return bytes(digest, digest + length);
}

bytes subject_key_of(X509* x509) {
    if (const ASN1_OCTET_STRING* id = X509_get0_subject_key_id(x509)) {
        return bytes(ASN1_STRING_get0_data(id), ASN1_STRING_get0_data(id) + ASN1_STRING_length(id));
    }
    return key_hash(x509);
}

}  // namespace

cert make_cert(const cert_profile& profile, const cert* issuer) {
    const key_pair key = profile.key ? *profile.key : rsa_key();
    const std::int64_t serial = profile.serial ? *profile.serial : next_serial++;

    x509_ptr x509(check(X509_new(), "X509_new"));
    X509* x = x509.get();
    check(X509_set_version(x, X509_VERSION_3), "X509_set_version");
    check(ASN1_INTEGER_set_int64(X509_get_serialNumber(x), serial), "ASN1_INTEGER_set_int64");

    x509_name_ptr subject(check(X509_NAME_new(), "X509_NAME_new"));
    for (const name_entry& entry : profile.subject) {
        const int type = entry.type == string_type::bmp ? V_ASN1_BMPSTRING : MBSTRING_UTF8;
        check(X509_NAME_add_entry_by_txt(subject.get(), entry.field.c_str(), type,
                                         reinterpret_cast<const unsigned char*>(entry.value.data()),
                                         static_cast<int>(entry.value.size()), -1, 0),
              "name entry " + entry.field);
    }
    check(X509_set_subject_name(x, subject.get()), "X509_set_subject_name");
    X509* issuer_x509 = issuer != nullptr ? issuer->state().x509.get() : nullptr;
    check(X509_set_issuer_name(x, issuer_x509 != nullptr ? X509_get_subject_name(issuer_x509) : subject.get()),
          "X509_set_issuer_name");

    check(X509_set1_notBefore(x, asn1_time(profile.not_before ? *profile.not_before : from_now(-std::chrono::hours(1))).get()),
          "notBefore");
    check(X509_set1_notAfter(x, asn1_time(profile.not_after ? *profile.not_after : from_now(days(365))).get()), "notAfter");
    check(X509_set_pubkey(x, key.state().pkey.get()), "X509_set_pubkey");

    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer_x509 != nullptr ? issuer_x509 : x, x, nullptr, nullptr, 0);
    if (profile.basic_constraints) {
        add_config_extension(x, &context, NID_basic_constraints, *profile.basic_constraints);
    }
    if (profile.key_usage) {
        add_config_extension(x, &context, NID_key_usage, *profile.key_usage);
    }
    if (profile.extended_key_usage) {
        add_config_extension(x, &context, NID_ext_key_usage, *profile.extended_key_usage);
    }
    if (!profile.subject_alt_names.empty()) {
        std::string names;
        for (const std::string& name : profile.subject_alt_names) {
            names += (names.empty() ? "" : ",") + name;
        }
        add_config_extension(x, &context, NID_subject_alt_name, names);
    }

    bytes own_key_id;
    switch (profile.subject_key_id.how) {
        case key_identifier::kind::absent:
            break;
        case key_identifier::kind::derived:
            own_key_id = key_hash(x);
            add_octets_extension(x, NID_subject_key_identifier, own_key_id);
            break;
        case key_identifier::kind::given:
            own_key_id = profile.subject_key_id.value;
            add_octets_extension(x, NID_subject_key_identifier, own_key_id);
            break;
    }
    if (profile.authority_key_id.how != key_identifier::kind::absent) {
        bytes value = profile.authority_key_id.value;
        if (profile.authority_key_id.how == key_identifier::kind::derived) {
            value = issuer_x509 != nullptr ? subject_key_of(issuer_x509) : (own_key_id.empty() ? key_hash(x) : own_key_id);
        }
        std::unique_ptr<AUTHORITY_KEYID, deleter<AUTHORITY_KEYID_free>> authority(
            check(AUTHORITY_KEYID_new(), "AUTHORITY_KEYID_new"));
        authority->keyid = octets(value).release();
        check(X509_add1_ext_i2d(x, NID_authority_key_identifier, authority.get(), 0, X509V3_ADD_DEFAULT),
              "authority key identifier");
    }

    const key_pair signer = profile.signing_key ? *profile.signing_key : issuer != nullptr ? issuer->key() : key;
    check(X509_sign(x, signer.state().pkey.get(), digest_for(signer)), "X509_sign");

    auto state = std::make_shared<cert::impl>(cert::impl{std::move(x509), key, serial});
    return cert(std::move(state));
}

// ---- revocation lists ----

crl::crl(std::shared_ptr<const impl> state) : state_(std::move(state)) {}

std::string crl::pem() const {
    bio_ptr bio = memory_bio();
    check(PEM_write_bio_X509_CRL(bio.get(), state_->x509_crl.get()), "PEM_write_bio_X509_CRL");
    return bio_text(bio.get());
}

bytes crl::der() const {
    bio_ptr bio = memory_bio();
    check(i2d_X509_CRL_bio(bio.get(), state_->x509_crl.get()), "i2d_X509_CRL_bio");
    return bio_bytes(bio.get());
}

crl make_crl(const crl_profile& profile, const cert& issuer) {
    x509_crl_ptr list(check(X509_CRL_new(), "X509_CRL_new"));
    X509_CRL* c = list.get();
    check(X509_CRL_set_version(c, X509_CRL_VERSION_2), "X509_CRL_set_version");
    check(X509_CRL_set_issuer_name(c, X509_get_subject_name(issuer.state().x509.get())), "X509_CRL_set_issuer_name");
    check(X509_CRL_set1_lastUpdate(c, asn1_time(profile.last_update ? *profile.last_update
                                                                  : from_now(-std::chrono::hours(1)))
                                          .get()),
          "lastUpdate");
    if (!profile.omit_next_update) {
        check(X509_CRL_set1_nextUpdate(c, asn1_time(profile.next_update ? *profile.next_update : from_now(days(30))).get()),
              "nextUpdate");
    }
    for (const revoked_entry& entry : profile.revoked) {
        x509_revoked_ptr revoked(check(X509_REVOKED_new(), "X509_REVOKED_new"));
        asn1_integer_ptr serial(check(ASN1_INTEGER_new(), "ASN1_INTEGER_new"));
        check(ASN1_INTEGER_set_int64(serial.get(), entry.serial), "ASN1_INTEGER_set_int64");
        check(X509_REVOKED_set_serialNumber(revoked.get(), serial.get()), "X509_REVOKED_set_serialNumber");
        check(X509_REVOKED_set_revocationDate(
                  revoked.get(), asn1_time(entry.revoked_at ? *entry.revoked_at : from_now(-std::chrono::hours(1))).get()),
              "X509_REVOKED_set_revocationDate");
        if (entry.reason) {
            std::unique_ptr<ASN1_ENUMERATED, deleter<ASN1_ENUMERATED_free>> reason(
                check(ASN1_ENUMERATED_new(), "ASN1_ENUMERATED_new"));
            check(ASN1_ENUMERATED_set(reason.get(), *entry.reason), "ASN1_ENUMERATED_set");
            check(X509_REVOKED_add1_ext_i2d(revoked.get(), NID_crl_reason, reason.get(), 0, X509V3_ADD_DEFAULT),
                  "crl reason");
        }
        check(X509_CRL_add0_revoked(c, revoked.get()), "X509_CRL_add0_revoked");
        revoked.release();
    }
    check(X509_CRL_sort(c), "X509_CRL_sort");
    const key_pair signer = profile.signing_key ? *profile.signing_key : issuer.key();
    check(X509_CRL_sign(c, signer.state().pkey.get(), digest_for(signer)), "X509_CRL_sign");

    return crl(std::make_shared<crl::impl>(crl::impl{std::move(list)}));
}

}  // namespace brenholt::monitoring_modules::test_pki
