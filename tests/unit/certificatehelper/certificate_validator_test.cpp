#include <map>

#include "test_helpers.h"

namespace certificatehelper_test {
namespace {

using namespace std::chrono_literals;
using status = ch::verification_status;

// A certificate whose DER OpenSSL cannot read.
class undecodable_certificate : public ch::certificate_interface {
public:
    std::vector<std::uint8_t> to_der() const override { return {0x30, 0x03, 0x01}; }
    std::string get_subject() const override { return {}; }
    std::string get_issuer() const override { return {}; }
    std::shared_ptr<ch::key_interface> get_public_key() const override { return nullptr; }
    std::string get_common_name() const override { return {}; }
    std::vector<std::string> get_common_names() const override { return {}; }
    std::vector<std::string> get_subject_alternative_names() const override { return {}; }
    std::vector<std::string> get_application_uris() const override { return {}; }
    bool is_self_signed() const override { return false; }
    std::string get_thumbprint() const override { return {}; }
    std::int32_t get_signature_size() const override { return 0; }
    std::int32_t get_public_key_bits() const override { return 0; }
    ch::public_key_type get_public_key_type() const override { return ch::public_key_type::unknown; }
    std::int32_t get_days_until_expiry(std::chrono::system_clock::time_point) const override { return 0; }
    bool supports_data_encipherment() const override { return false; }
    std::vector<std::string> get_crl_distribution_points() const override { return {}; }
    bool verify_signature(const ch::certificate_interface&) const override { return false; }
};

// root -> intermediate -> leaves, and a second, untrusted hierarchy. Built once: keys are slow.
struct hierarchy {
    pki::cert root = pki::make_cert(pki::ca_profile("Test Root"));
    pki::cert intermediate = [this] {
        pki::cert_profile profile = pki::ca_profile("Test Intermediate", pki::rsa_key(2048, 3));
        return pki::make_cert(profile, &root);
    }();
    pki::cert other_root = pki::make_cert(pki::ca_profile("Other Root", pki::rsa_key(2048, 2)));
    std::map<std::string, pki::cert> leaves;

    hierarchy() {
        const auto now = std::chrono::system_clock::now();
        pki::cert_profile profile = pki::leaf_profile("leaf");
        leaves.emplace("valid", pki::make_cert(profile, &intermediate));
        profile.not_before = now - pki::days(10);
        profile.not_after = now - 36h;
        leaves.emplace("expired", pki::make_cert(profile, &intermediate));
        profile.not_before = now + 36h;
        profile.not_after = now + pki::days(10);
        leaves.emplace("not_yet_valid", pki::make_cert(profile, &intermediate));
        leaves.emplace("from_other_root", pki::make_cert(pki::leaf_profile("leaf"), &other_root));
        leaves.emplace("self_signed", pki::make_cert(pki::leaf_profile("self")));
        // An end-entity certificate that poses as an issuer.
        leaves.emplace("issued_by_a_leaf", pki::make_cert(pki::leaf_profile("leaf of leaf"), &leaves.at("valid")));
    }
};

const hierarchy& pki_hierarchy() {
    static const hierarchy instance;
    return instance;
}

class validator_test : public clean_openssl_errors {
protected:
    std::unique_ptr<ch::certificate_validator_interface> validator = openssl()->make_certificate_validator(false);
};

struct chain_case {
    const char* name;
    std::vector<std::string> chain;  // names of leaves, or "intermediate", "root"
    status expected;
};

void PrintTo(const chain_case& c, std::ostream* out) { *out << c.name; }

class chains : public validator_test, public ::testing::WithParamInterface<chain_case> {};

TEST_P(chains, verify_against_a_trusted_root) {
    const hierarchy& h = pki_hierarchy();
    ASSERT_TRUE(validator->add_trusted(load(h.root)));
    std::vector<std::shared_ptr<ch::certificate_interface>> chain;
    for (const std::string& name : GetParam().chain) {
        chain.push_back(name == "intermediate" ? load(h.intermediate) : name == "root" ? load(h.root) : load(h.leaves.at(name)));
    }
    const ch::verification_result result = validator->verify_chain(chain);
    EXPECT_EQ(result.status, GetParam().expected);
    if (GetParam().expected == status::valid) {
        ASSERT_TRUE(result.root.has_value());
        ASSERT_TRUE(*result.root);
        EXPECT_EQ((*result.root)->get_thumbprint(), load(h.root)->get_thumbprint());
    } else {
        EXPECT_FALSE(result.root.has_value());
    }
}

INSTANTIATE_TEST_SUITE_P(
    validator_test, chains,
    ::testing::Values(chain_case{"leaf_with_intermediate", {"valid", "intermediate"}, status::valid},
                      chain_case{"root_itself", {"root"}, status::valid},
                      chain_case{"leaf_without_intermediate", {"valid"}, status::untrusted},
                      chain_case{"expired_leaf", {"expired", "intermediate"}, status::expired},
                      chain_case{"not_yet_valid_leaf", {"not_yet_valid", "intermediate"}, status::not_yet_valid},
                      chain_case{"other_hierarchy", {"from_other_root"}, status::untrusted},
                      chain_case{"self_signed_not_trusted", {"self_signed"}, status::untrusted},
                      chain_case{"issuer_is_no_ca", {"issued_by_a_leaf", "valid", "intermediate"}, status::failed}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(validator_test, nothing_to_verify_is_empty) {
    EXPECT_EQ(validator->verify(nullptr).status, status::empty);
    EXPECT_EQ(validator->verify_chain({}).status, status::empty);
    // Null and undecodable entries are dropped from a chain.
    const ch::verification_result dropped =
        validator->verify_chain({nullptr, std::make_shared<undecodable_certificate>()});
    EXPECT_EQ(dropped.status, status::empty);
    EXPECT_FALSE(dropped.root.has_value());
}

TEST_F(validator_test, a_single_certificate_that_does_not_convert_fails) {
    EXPECT_EQ(validator->verify(std::make_shared<undecodable_certificate>()).status, status::failed);
}

TEST_F(validator_test, add_trusted_makes_a_self_signed_certificate_valid_for_this_validator_only) {
    const auto self_signed = load(pki_hierarchy().leaves.at("self_signed"));
    EXPECT_EQ(validator->verify(self_signed).status, status::untrusted);

    EXPECT_TRUE(validator->add_trusted(self_signed));
    const ch::verification_result result = validator->verify(self_signed);
    EXPECT_EQ(result.status, status::valid);
    ASSERT_TRUE(result.root.has_value());
    EXPECT_EQ((*result.root)->to_der(), self_signed->to_der());

    EXPECT_EQ(openssl()->make_certificate_validator(true)->verify(self_signed).status, status::untrusted);
}

TEST_F(validator_test, add_trusted_refuses_what_it_cannot_read) {
    EXPECT_FALSE(validator->add_trusted(nullptr));
    EXPECT_FALSE(validator->add_trusted(std::make_shared<undecodable_certificate>()));
}

struct host_case {
    const char* name;
    std::vector<std::string> alt_names;
    std::string host;
    ch::host_check_result expected;
};

void PrintTo(const host_case& c, std::ostream* out) { *out << c.name; }

class hosts : public validator_test, public ::testing::WithParamInterface<host_case> {};

TEST_P(hosts, check_host) {
    pki::cert_profile profile = pki::leaf_profile("server");
    profile.subject_alt_names = GetParam().alt_names;
    EXPECT_EQ(validator->check_host(load(pki::make_cert(profile)), GetParam().host), GetParam().expected);
}

using host = ch::host_check_result;
INSTANTIATE_TEST_SUITE_P(
    validator_test, hosts,
    ::testing::Values(host_case{"ip_address", {"IP:192.0.2.1"}, "192.0.2.1", host::match},
                      host_case{"other_ip_address", {"IP:192.0.2.1"}, "192.0.2.2", host::no_match},
                      host_case{"dns_name", {"DNS:host.example.com"}, "host.example.com", host::match},
                      host_case{"dns_name_other_case", {"DNS:host.example.com"}, "HOST.Example.com", host::match},
                      host_case{"other_dns_name", {"DNS:host.example.com"}, "other.example.com", host::no_match},
                      host_case{"wildcard", {"DNS:*.example.com"}, "www.example.com", host::match},
                      host_case{"partial_wildcard", {"DNS:w*.example.com"}, "www.example.com", host::no_match},
                      host_case{"name_against_ip_only", {"IP:192.0.2.1"}, "host.example.com", host::no_match},
                      // OpenSSL refuses a name with an embedded NUL.
                      host_case{"embedded_nul", {"DNS:host.example.com"}, std::string("host.example.com\0x", 18),
                                host::check_failed}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(validator_test, check_host_without_a_readable_certificate_fails) {
    EXPECT_EQ(validator->check_host(nullptr, "host.example.com"), host::check_failed);
    EXPECT_EQ(validator->check_host(std::make_shared<undecodable_certificate>(), "host.example.com"), host::check_failed);
}

}  // namespace
}  // namespace certificatehelper_test
