#pragma once

// The command line of the opcua-sim executable, parsed into server options.

#include "opcua_sim/server.h"

#include <string>
#include <vector>

namespace opcua_sim {

struct command_line {
    options server_options;
    bool help = false;
    // Files named by --cert and --key; read by the caller, so that parsing stays pure.
    std::string certificate_file;
    std::string key_file;
    // Names given with --address-space, each once, in the order of their setups in
    // server_options.address_spaces.
    std::vector<std::string> address_spaces;
};

// Raises std::invalid_argument with a message for the user on a bad command line.
// The executable's default port is 4840, unlike the library's.
command_line parse_command_line(const std::vector<std::string>& args);

std::string usage_text();

} // namespace opcua_sim
