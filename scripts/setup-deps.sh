#!/usr/bin/env bash
# Installs everything the build, the tests and the demo need. Idempotent, no prompts.
# open62541 1.4 comes from the next Debian release; the rest of the system stays on
# the current one.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then exec sudo -E bash "$0" "$@"; fi
  echo "setup-deps.sh must run as root" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
here=$(cd "$(dirname "$0")" && pwd)

src=/etc/apt/sources.list.d/debian.sources
trixie=/etc/apt/sources.list.d/opcua-trixie.sources
pin=/etc/apt/preferences.d/opcua-trixie

if [ ! -f "$trixie" ]; then
  if [ ! -f "$src" ]; then
    echo "no $src to derive the trixie entry from" >&2
    exit 1
  fi
  # First stanza of the existing entry, with the suite swapped.
  awk 'BEGIN{s=0} /^[[:space:]]*$/{if(s) exit; next} {s=1; print}' "$src" \
    | sed -E 's/^Suites:.*/Suites: trixie/' > "$trixie.tmp"
  grep -q '^Suites: trixie$' "$trixie.tmp" || { echo "could not derive trixie entry" >&2; rm -f "$trixie.tmp"; exit 1; }
  mv "$trixie.tmp" "$trixie"
fi

if [ ! -f "$pin" ]; then
  cat > "$pin" <<'PIN'
Package: *
Pin: release n=trixie
Pin-Priority: 100
PIN
fi

pkgs=(build-essential cmake pkg-config python3 libssl-dev openssl libprotobuf-dev protobuf-compiler
      nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev binutils)
# node and npm may come from another source already; any working pair will do.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  pkgs+=(nodejs npm)
fi
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
need_update=0
for p in "${pkgs[@]}" libopen62541-1.4-dev; do
  installed "$p" || need_update=1
done

if [ "$need_update" = 1 ]; then
  apt-get update -qq
  missing=()
  for p in "${pkgs[@]}"; do
    installed "$p" || missing+=("$p")
  done
  if [ "${#missing[@]}" -gt 0 ]; then
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
  if ! installed libopen62541-1.4-dev; then
    apt-get install -y -qq --no-install-recommends -t trixie libopen62541-1.4-dev
  fi
fi

# node-opcua for the interoperability tests, kept inside the tree.
if [ -f "$here/../tests/interop/package.json" ]; then
  if [ ! -d "$here/../tests/interop/node_modules/node-opcua" ]; then
    (cd "$here/../tests/interop" && npm install --no-audit --no-fund --loglevel=error)
  fi
fi
echo "dependencies ready"
