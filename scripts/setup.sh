#!/usr/bin/env bash
# Installs what building and testing meterd need on Debian 12 (run as root).
# Idempotent: apt is only asked when something is missing. Packages that others
# only recommend (clang's sanitizer runtimes in libclang-rt-14-dev) are named here,
# since apt installs without recommends.
set -euo pipefail

packages=(
  build-essential binutils cmake g++ clang-14 clang libclang-rt-14-dev libgtest-dev googletest
  freeradius freeradius-utils openssl libssl-dev sqlite3 python3 faketime iproute2 util-linux mount
  musl-tools musl-dev shellcheck tshark
)
packages+=("$@")  # what a caller needs beyond these, e.g. scripts/cross-test.sh

# The tests resolve "localhost" as a server name. A root made by debootstrap
# has no /etc/hosts, and the test namespaces have no DNS.
if ! getent hosts localhost >/dev/null && [ "$(id -u)" -eq 0 ]; then
  printf '127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost ip6-loopback\n' >> /etc/hosts
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "setup.sh: missing packages (${missing[*]}); run as root to install them" >&2
  exit 1
fi
echo "setup.sh: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# The FreeRADIUS package would start a system-wide server; tests run their own.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' > "$policy" && chmod +x "$policy"
  trap 'rm -f "$policy"' EXIT
fi
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
