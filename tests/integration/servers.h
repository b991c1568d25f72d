#pragma once

// The opcua-sim servers the suites share, each started at its first use and kept for the
// rest of the process; every case that can runs against one of them.
#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "opcua_sim/address_spaces.h"
#include "opcua_sim/beckhoff.h"
#include "opcua_sim/diagnostics.h"
#include "opcua_sim/server.h"
#include "support/test_pki.h"

namespace integration {

namespace pki = brenholt::monitoring_modules::test_pki;

// A server certificate for whole `days` from now, an hour further away from now, as the
// certificate sensor cuts days towards zero. Keys of one size are made once and shared.
inline opcua_sim::certificate_options sim_certificate(const std::string& name, int days, int bits = 2048,
                                                      const pki::cert* issuer = nullptr) {
    pki::cert_profile profile = pki::leaf_profile(name);
    profile.key = pki::rsa_key(bits, 2);
    profile.subject_alt_names = {"URI:urn:opcua-sim:server", "DNS:localhost", "IP:127.0.0.1"};
    profile.not_before = pki::from_now(-pki::days(400));
    profile.not_after = pki::from_now(pki::days(days) + std::chrono::hours(days < 0 ? -1 : 1));
    const pki::cert made = pki::make_cert(profile, issuer);
    opcua_sim::certificate_options o;
    o.certificate_pem = made.pem();
    o.private_key_pem = made.key().private_pem();
    return o;
}

// plant: the custom address space and the diagnostics switch (off), a certificate of 30 days.
// ipc: a Beckhoff IPC, whose certificate ran out 3 days ago.
// plain: a None endpoint only, and a 1024-bit key too short for Basic256Sha256.
// strict: trusts no client certificate; its own comes from a CA and has 10 days left.
// Each accepts the user alice with the password wonderland.
enum class sim { plant, ipc, plain, strict };

inline opcua_sim::server& server(sim which) {
    static std::map<sim, std::unique_ptr<opcua_sim::server>> servers;
    auto& s = servers[which];
    if (!s) {
        opcua_sim::options o;
        o.users = {{"alice", "wonderland"}};
        if (which == sim::plant) {
            o.address_spaces = {opcua_sim::custom_address_space(), opcua_sim::diagnostics_address_space(false)};
            o.certificate = sim_certificate("sim-30-days", 30);
        } else if (which == sim::ipc) {
            o.address_spaces = {opcua_sim::beckhoff_address_space()};
            o.certificate = sim_certificate("sim-expired", -3);
        } else if (which == sim::plain) {
            o.endpoints = {{opcua_sim::security_policy::none, opcua_sim::security_mode::none}};
            o.certificate.generate.key_bits = 1024;  // the simulator's own making, of a year
            o.certificate.generate.common_name = "Plant, Line 4";
        } else {
            static const pki::cert ca = pki::make_cert(pki::ca_profile("KOLV Test CA"));
            o.strict = true;
            o.certificate = sim_certificate("server-from-ca", 10, 2048, &ca);
        }
        s = std::make_unique<opcua_sim::server>(o);
    }
    s->start();
    return *s;
}

inline int port(sim which) { return server(which).port(); }

}  // namespace integration
