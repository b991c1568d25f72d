#include "support/test_pki.h"

#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>
#include <tuple>
#include <type_traits>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace brenholt::monitoring_modules::test_pki {

template <auto Free>
struct deleter {
    template <typename T>
    void operator()(T* p) const { Free(p); }
};
template <typename T, auto Free>
using handle = std::unique_ptr<T, deleter<Free>>;

struct key_pair::impl { handle<EVP_PKEY, EVP_PKEY_free> pkey; };
struct cert::impl {
    handle<X509, X509_free> x509;
    key_pair key;
    std::int64_t serial;
};
struct crl::impl { handle<X509_CRL, X509_CRL_free> list; };

namespace {

// Passes a non-null pointer or a positive result through; anything else raises with OpenSSL's reason.
template <typename T>
T check(T result, const std::string& what) {
    if constexpr (std::is_pointer_v<T>) {
        if (result != nullptr) return result;
    } else if (result > 0) {
        return result;
    }
    char reason[256] = "no OpenSSL error";
    if (const unsigned long code = ERR_get_error()) ERR_error_string_n(code, reason, sizeof reason);
    ERR_clear_error();
    throw std::runtime_error("test_pki: " + what + ": " + reason);
}

// What `write` puts into a memory BIO.
template <typename Write>
std::string written(Write write) {
    handle<BIO, BIO_free_all> bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
    check(write(bio.get()), "writing to a memory BIO");
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

template <auto Write, typename T>
std::string text_of(const T* object) { return written([&](BIO* bio) { return Write(bio, object); }); }

template <auto Write, typename T>
bytes bytes_of(const T* object) {
    const std::string text = text_of<Write>(object);
    return bytes(text.begin(), text.end());
}

handle<ASN1_TIME, ASN1_TIME_free> asn1_time(time_point when) {
    return handle<ASN1_TIME, ASN1_TIME_free>(
        check(ASN1_TIME_set(nullptr, std::chrono::system_clock::to_time_t(when)), "ASN1_TIME_set"));
}

handle<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> octets(const bytes& value) {
    handle<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free> result(check(ASN1_OCTET_STRING_new(), "ASN1_OCTET_STRING_new"));
    check(ASN1_OCTET_STRING_set(result.get(), value.data(), static_cast<int>(value.size())), "ASN1_OCTET_STRING_set");
    return result;
}

// Ed25519 and Ed448 sign the message itself, so they take no digest.
const EVP_MD* digest_for(const key_pair& key) {
    const EVP_PKEY* pkey = key.state->pkey.get();
    return EVP_PKEY_is_a(pkey, "ED25519") || EVP_PKEY_is_a(pkey, "ED448") ? nullptr : EVP_sha256();
}

const auto hour_ago = [] { return from_now(-std::chrono::hours(1)); };
std::atomic<std::int64_t> next_serial{1000};

std::string pkcs8(const EVP_PKEY* pkey, const EVP_CIPHER* cipher, std::string password) {
    return written([&](BIO* bio) { return PEM_write_bio_PKCS8PrivateKey(bio, pkey, cipher, nullptr, 0, nullptr, password.data()); });
}

void add_config_extension(X509* x509, X509V3_CTX* context, int nid, const std::optional<std::string>& value) {
    if (!value) return;
    handle<X509_EXTENSION, X509_EXTENSION_free> extension(
        check(X509V3_EXT_conf_nid(nullptr, context, nid, value->c_str()), std::string("extension ") + OBJ_nid2sn(nid)));
    check(X509_add_ext(x509, extension.get(), -1), "X509_add_ext");
}

bytes key_hash(X509* x509) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    check(X509_pubkey_digest(x509, EVP_sha1(), digest, &length), "X509_pubkey_digest");
    return bytes(digest, digest + length);
}

bytes subject_key_of(X509* x509) {
    if (const ASN1_OCTET_STRING* id = X509_get0_subject_key_id(x509))
        return bytes(ASN1_STRING_get0_data(id), ASN1_STRING_get0_data(id) + ASN1_STRING_length(id));
    return key_hash(x509);
}

}  // namespace

time_point from_now(std::chrono::seconds offset) { return std::chrono::system_clock::now() + offset; }

// ---- keys ----

std::string key_pair::private_pem() const { return pkcs8(state->pkey.get(), nullptr, ""); }

std::string key_pair::private_pem_encrypted(const std::string& password) const {
    return pkcs8(state->pkey.get(), EVP_aes_256_cbc(), password);
}

bytes key_pair::private_der() const { return bytes_of<i2d_PrivateKey_bio>(state->pkey.get()); }

bytes key_pair::public_der() const { return bytes_of<i2d_PUBKEY_bio>(state->pkey.get()); }

key_pair make_key(key_algorithm algorithm, int bits, int slot) {
    static std::mutex mutex;
    static std::map<std::tuple<key_algorithm, int, int>, key_pair> cache;
    const bool rsa = algorithm == key_algorithm::rsa || algorithm == key_algorithm::rsa_pss;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto id = std::make_tuple(algorithm, rsa ? bits : 0, slot);
    if (const auto found = cache.find(id); found != cache.end()) return found->second;

    static const char* const names[] = {"RSA", "RSA-PSS", "EC", "ED25519", "ED448"};
    handle<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(
        check(EVP_PKEY_CTX_new_from_name(nullptr, names[static_cast<int>(algorithm)], nullptr), "EVP_PKEY_CTX_new_from_name"));
    check(EVP_PKEY_keygen_init(context.get()), "EVP_PKEY_keygen_init");
    if (rsa) check(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), bits), "EVP_PKEY_CTX_set_rsa_keygen_bits");
    if (algorithm == key_algorithm::ec_p256) check(EVP_PKEY_CTX_set_group_name(context.get(), "P-256"), "P-256");
    EVP_PKEY* pkey = nullptr;
    check(EVP_PKEY_generate(context.get(), &pkey), "EVP_PKEY_generate");
    return cache.emplace(id, key_pair{std::make_shared<key_pair::impl>(key_pair::impl{handle<EVP_PKEY, EVP_PKEY_free>(pkey)})}).first->second;
}

// ---- certificates ----

cert_profile ca_profile(const std::string& common_name, key_pair key) {
    cert_profile profile = leaf_profile(common_name);
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

std::string cert::pem() const { return text_of<PEM_write_bio_X509>(state->x509.get()); }

bytes cert::der() const { return bytes_of<i2d_X509_bio>(state->x509.get()); }

const key_pair& cert::key() const { return state->key; }

std::int64_t cert::serial() const { return state->serial; }

cert make_cert(const cert_profile& profile, const cert* issuer) {
    const key_pair key = profile.key ? *profile.key : rsa_key();
    const std::int64_t serial = profile.serial ? *profile.serial : next_serial++;

    handle<X509, X509_free> x509(check(X509_new(), "X509_new"));
    X509* x = x509.get();
    check(X509_set_version(x, X509_VERSION_3), "X509_set_version");
    check(ASN1_INTEGER_set_int64(X509_get_serialNumber(x), serial), "ASN1_INTEGER_set_int64");
    handle<X509_NAME, X509_NAME_free> subject(check(X509_NAME_new(), "X509_NAME_new"));
    for (const name_entry& entry : profile.subject) {
        check(X509_NAME_add_entry_by_txt(subject.get(), entry.field.c_str(),
                                         entry.type == string_type::bmp ? V_ASN1_BMPSTRING : MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>(entry.value.data()),
                                         static_cast<int>(entry.value.size()), -1, 0),
              "name entry " + entry.field);
    }
    check(X509_set_subject_name(x, subject.get()), "X509_set_subject_name");
    X509* issuer_x509 = issuer != nullptr ? issuer->state->x509.get() : nullptr;
    check(X509_set_issuer_name(x, issuer_x509 != nullptr ? X509_get_subject_name(issuer_x509) : subject.get()),
          "X509_set_issuer_name");
    check(X509_set1_notBefore(x, asn1_time(profile.not_before.value_or(hour_ago())).get()), "notBefore");
    check(X509_set1_notAfter(x, asn1_time(profile.not_after.value_or(from_now(days(365)))).get()), "notAfter");
    check(X509_set_pubkey(x, key.state->pkey.get()), "X509_set_pubkey");

    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer_x509 != nullptr ? issuer_x509 : x, x, nullptr, nullptr, 0);
    add_config_extension(x, &context, NID_basic_constraints, profile.basic_constraints);
    add_config_extension(x, &context, NID_key_usage, profile.key_usage);
    std::string names;
    for (const std::string& name : profile.subject_alt_names) names += (names.empty() ? "" : ",") + name;
    if (!names.empty()) add_config_extension(x, &context, NID_subject_alt_name, names);

    bytes own_key_id;
    if (profile.subject_key_id.how != key_identifier::kind::absent) {
        own_key_id = profile.subject_key_id.how == key_identifier::kind::given ? profile.subject_key_id.value : key_hash(x);
        check(X509_add1_ext_i2d(x, NID_subject_key_identifier, octets(own_key_id).get(), 0, X509V3_ADD_DEFAULT),
              "subject key identifier");
    }
    if (profile.authority_key_id.how != key_identifier::kind::absent) {
        bytes value = profile.authority_key_id.value;
        if (profile.authority_key_id.how == key_identifier::kind::derived)
            value = issuer_x509 != nullptr ? subject_key_of(issuer_x509) : own_key_id.empty() ? key_hash(x) : own_key_id;
        handle<AUTHORITY_KEYID, AUTHORITY_KEYID_free> authority(check(AUTHORITY_KEYID_new(), "AUTHORITY_KEYID_new"));
        authority->keyid = octets(value).release();
        check(X509_add1_ext_i2d(x, NID_authority_key_identifier, authority.get(), 0, X509V3_ADD_DEFAULT),
              "authority key identifier");
    }

    const key_pair signer = profile.signing_key ? *profile.signing_key : issuer != nullptr ? issuer->key() : key;
    check(X509_sign(x, signer.state->pkey.get(), digest_for(signer)), "X509_sign");
    return cert{std::make_shared<cert::impl>(cert::impl{std::move(x509), key, serial})};
}

// ---- revocation lists ----

std::string crl::pem() const { return text_of<PEM_write_bio_X509_CRL>(state->list.get()); }

bytes crl::der() const { return bytes_of<i2d_X509_CRL_bio>(state->list.get()); }

crl make_crl(const crl_profile& profile, const cert& issuer) {
    handle<X509_CRL, X509_CRL_free> list(check(X509_CRL_new(), "X509_CRL_new"));
    X509_CRL* c = list.get();
    check(X509_CRL_set_version(c, X509_CRL_VERSION_2), "X509_CRL_set_version");
    check(X509_CRL_set_issuer_name(c, X509_get_subject_name(issuer.state->x509.get())), "X509_CRL_set_issuer_name");
    check(X509_CRL_set1_lastUpdate(c, asn1_time(hour_ago()).get()), "lastUpdate");
    check(X509_CRL_set1_nextUpdate(c, asn1_time(from_now(days(30))).get()), "nextUpdate");
    for (const revoked_entry& entry : profile.revoked) {
        handle<X509_REVOKED, X509_REVOKED_free> revoked(check(X509_REVOKED_new(), "X509_REVOKED_new"));
        handle<ASN1_INTEGER, ASN1_INTEGER_free> serial(check(ASN1_INTEGER_new(), "ASN1_INTEGER_new"));
        check(ASN1_INTEGER_set_int64(serial.get(), entry.serial), "ASN1_INTEGER_set_int64");
        check(X509_REVOKED_set_serialNumber(revoked.get(), serial.get()), "X509_REVOKED_set_serialNumber");
        check(X509_REVOKED_set_revocationDate(revoked.get(), asn1_time(hour_ago()).get()), "revocation date");
        if (entry.reason) {
            handle<ASN1_ENUMERATED, ASN1_ENUMERATED_free> reason(check(ASN1_ENUMERATED_new(), "ASN1_ENUMERATED_new"));
            check(ASN1_ENUMERATED_set(reason.get(), *entry.reason), "ASN1_ENUMERATED_set");
            check(X509_REVOKED_add1_ext_i2d(revoked.get(), NID_crl_reason, reason.get(), 0, X509V3_ADD_DEFAULT),
                  "crl reason");
        }
        check(X509_CRL_add0_revoked(c, revoked.get()), "X509_CRL_add0_revoked");
        revoked.release();
    }
    check(X509_CRL_sort(c), "X509_CRL_sort");
    const key_pair signer = profile.signing_key ? *profile.signing_key : issuer.key();
    check(X509_CRL_sign(c, signer.state->pkey.get(), digest_for(signer)), "X509_CRL_sign");
    return crl{std::make_shared<crl::impl>(crl::impl{std::move(list)})};
}

}  // namespace brenholt::monitoring_modules::test_pki
