#!/usr/bin/env bash
# Sets up, builds, and runs the demo: miniprobe driving the module.
# Usage: scripts/run-demo.sh [--no-setup] [extra miniprobe arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
if [ "${1:-}" = "--no-setup" ]; then shift; else bash scripts/setup-deps.sh; fi
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target miniprobe OPCUA
build/bin/miniprobe info
echo
exec build/bin/miniprobe demo "$@"
