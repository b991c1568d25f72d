#pragma once

#include <iosfwd>

#include "probe_host.h"

namespace miniprobe {

// Starts opcua-sim in this process on a free loopback port and runs the module's
// checks against it, printing a readable summary. Returns the number of steps that
// did not end as expected.
int run_demo(probe_host& host, std::ostream& out);

}  // namespace miniprobe
