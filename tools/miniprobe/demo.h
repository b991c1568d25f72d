#pragma once

#include <iosfwd>
#include <string>

#include "probe_host.h"

namespace miniprobe {

// Starts three opcua-sim servers in this process on free loopback ports (a plant server,
// a Beckhoff IPC and a server that trusts no client certificate) and runs every check
// and every sensor of the module against them, printing a readable summary. The servers'
// own logs go to `log_dir` when it is given, else nowhere. Returns the number of steps
// that did not end as expected.
int run_demo(probe_host& host, std::ostream& out, const std::string& log_dir);

}  // namespace miniprobe
