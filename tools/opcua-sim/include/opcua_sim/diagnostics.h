#pragma once

// The server's diagnostics switch (Server.ServerDiagnostics.EnabledFlag, ns=0;i=2294)
// and the counters of Server.ServerDiagnostics.ServerDiagnosticsSummary, for tests that
// need a server which turns its diagnostics on and off while clients are connected.
//
// open62541 keeps the summary counters itself and serves them live, whatever the flag
// says; the flag is a plain Boolean variable that the stack never reads. So switching it
// changes nothing but the answer a client gets for ns=0;i=2294, which is all that a
// client has to go by.

#include "opcua_sim/server.h"

#include <cstdint>

namespace opcua_sim {

// Sets the EnabledFlag at every start. Without this setup, the flag keeps the stack's
// default, which is true in open62541 1.4 built with diagnostics.
address_space_setup diagnostics_address_space(bool enabled);

// Switches the flag of the running server. A restart brings back what the setup (or the
// stack's default) says. Raises std::logic_error when stopped, std::runtime_error when
// the server refuses the write.
void diagnostics_set_enabled(server& s, bool enabled);

// The flag as a client reads it. Raises std::logic_error when stopped, std::runtime_error
// when the value cannot be read or is no Boolean.
bool diagnostics_enabled(server& s);

// The eight counters that monitoring clients read, by their NodeIDs below the summary.
struct diagnostics_counters {
    std::uint32_t current_session_count = 0;             // ns=0;i=2277
    std::uint32_t security_rejected_session_count = 0;   // ns=0;i=2279
    std::uint32_t session_timeout_count = 0;             // ns=0;i=2281
    std::uint32_t session_abort_count = 0;               // ns=0;i=2282
    std::uint32_t current_subscription_count = 0;        // ns=0;i=2285
    std::uint32_t security_rejected_requests_count = 0;  // ns=0;i=2287
    std::uint32_t rejected_requests_count = 0;           // ns=0;i=2288
    std::uint32_t rejected_session_count = 0;            // ns=0;i=3705
};

// Reads the counters from the running server, each through its own variable, as a
// client would see them. Raises as diagnostics_enabled does.
diagnostics_counters diagnostics_read_counters(server& s);

} // namespace opcua_sim
