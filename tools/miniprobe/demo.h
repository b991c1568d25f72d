#pragma once

#include <iosfwd>

#include "probe_host.h"

namespace miniprobe {

// Starts two opcua-sim servers in this process on free loopback ports (a plant server
// and a Beckhoff IPC) and runs every check and every sensor of the module against them,
// printing a readable summary. Returns the number of steps that did not end as expected.
int run_demo(probe_host& host, std::ostream& out);

}  // namespace miniprobe
