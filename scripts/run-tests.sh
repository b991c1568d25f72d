#!/usr/bin/env bash
# Builds the project twice and runs every test suite in both builds:
#   build/       the regular build
#   build-asan/  with AddressSanitizer and UndefinedBehaviorSanitizer
# Usage: scripts/run-tests.sh [--no-setup] [--no-asan]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

setup=1 asan=1
for a in "$@"; do
  case "$a" in
    --no-setup) setup=0 ;;
    --no-asan) asan=0 ;;
    *) echo "unknown option $a" >&2; exit 2 ;;
  esac
done

if [ "$setup" = 1 ]; then
  bash scripts/setup-deps.sh
fi

jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1 type=$2; shift 2
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300)
}

echo "== regular build =="
run_suite build RelWithDebInfo
if [ "$asan" = 1 ]; then
  echo "== sanitizer build (address, undefined) =="
  # Leak checking stays on; open62541 and protobuf free what they allocate. Unoptimised:
  # the sanitizers find the same faults, and the build takes half the time.
  ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} \
    run_suite build-asan Debug -DOPCUA_SANITIZE=ON -DOPCUA_BUILD_BENCH=OFF
fi
echo "all test suites passed"
