#!/usr/bin/env bash
# Sets up what the build needs, builds the module, libVuroHelper, miniprobe and opcua-sim
# (no tests, no benchmarks) in build-demo/, and runs the demo: miniprobe driving the
# module against three opcua-sim servers. build-demo/ is the demo's own, so that
# scripts/run-tests.sh keeps build/ to itself.
# Usage: scripts/run-demo.sh [--no-setup] [extra miniprobe arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
if [ "${1:-}" = "--no-setup" ]; then shift; else bash scripts/setup-build-deps.sh; fi
dir=build-demo
echo "cmake: configuring $dir (tests and benchmarks off)"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOPCUA_BUILD_TESTS=OFF -DOPCUA_BUILD_BENCH=OFF >/dev/null
echo "cmake: building the module, libVuroHelper, miniprobe and opcua-sim in $dir"
cmake --build "$dir" -j "$(nproc 2>/dev/null || echo 2)" --target OPCUA VuroHelper miniprobe opcua-sim
echo
"$dir/bin/miniprobe" info
echo
exec "$dir/bin/miniprobe" demo "$@"
