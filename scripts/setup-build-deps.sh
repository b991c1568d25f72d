#!/usr/bin/env bash
# Installs what the build itself needs, and no more: compilers, CMake, pkg-config,
# python3 (the code generators), OpenSSL 3, protobuf, nlohmann-json, and open62541 1.4
# from the next Debian release with the rest of the system left on the current one.
# Enough for the module, libVuroHelper, miniprobe and opcua-sim, so for the demo; the
# tests' own tools come from scripts/setup-deps.sh. Idempotent, no prompts: a second
# run only checks. Says what it does before each step that changes anything.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then exec sudo -E bash "$0" "$@"; fi
  echo "setup-build-deps.sh must run as root" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
step() { echo "$*"; }

src=/etc/apt/sources.list.d/debian.sources
trixie=/etc/apt/sources.list.d/opcua-trixie.sources
pin=/etc/apt/preferences.d/opcua-trixie

if [ ! -f "$trixie" ]; then
  if [ ! -f "$src" ]; then
    echo "no $src to derive the trixie entry from" >&2
    exit 1
  fi
  step "apt: adding trixie (for open62541 1.4 only) to the package sources"
  # First stanza of the existing entry, with the suite swapped.
  awk 'BEGIN{s=0} /^[[:space:]]*$/{if(s) exit; next} {s=1; print}' "$src" \
    | sed -E 's/^Suites:.*/Suites: trixie/' > "$trixie.tmp"
  grep -q '^Suites: trixie$' "$trixie.tmp" || { echo "could not derive trixie entry" >&2; rm -f "$trixie.tmp"; exit 1; }
  mv "$trixie.tmp" "$trixie"
fi

if [ ! -f "$pin" ]; then
  step "apt: pinning trixie at low priority, so that nothing else leaves Debian 12"
  cat > "$pin" <<'PIN'
Package: *
Pin: release n=trixie
Pin-Priority: 100
PIN
fi

pkgs=(build-essential cmake pkg-config python3 libssl-dev openssl libprotobuf-dev protobuf-compiler
      nlohmann-json3-dev binutils)
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
missing=()
for p in "${pkgs[@]}"; do
  installed "$p" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ] || ! installed libopen62541-1.4-dev; then
  step "apt: updating package lists"
  apt-get update -qq
  if [ "${#missing[@]}" -gt 0 ]; then
    step "apt: installing ${missing[*]}"
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
  fi
  if ! installed libopen62541-1.4-dev; then
    step "apt: installing libopen62541-1.4-dev from trixie"
    apt-get install -y -qq --no-install-recommends -t trixie libopen62541-1.4-dev
  fi
fi
echo "build dependencies ready"
