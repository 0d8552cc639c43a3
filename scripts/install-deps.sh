#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, when
# any is missing. Safe to run again: it does nothing when all are present.
set -euo pipefail

packages=(g++ binutils cmake ninja-build libgtest-dev libgmock-dev libbenchmark-dev libedit-dev
          libmnl-dev libnftnl-dev iptables nftables iproute2 procps clang libclang-rt-14-dev
          dpkg-dev fakeroot lintian)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep "install ok installed" > /dev/null || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
