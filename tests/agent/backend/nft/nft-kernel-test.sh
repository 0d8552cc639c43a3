#!/usr/bin/env bash
# Runs the real-kernel tests of the nft backend as root, inside private mount
# and network namespaces with their own /run, so that nothing of the
# machine's own rules or namespaces is touched.
#
#   nft-kernel-test.sh TEST_PROGRAM
#
# Exits 77 (skipped) with the reason where that cannot run.
set -uo pipefail
if [ $# -ne 1 ]; then
  echo "usage: nft-kernel-test.sh TEST_PROGRAM" >&2
  exit 2
fi
program=$1
skip() {
  echo "skipped: $*"
  exit 77
}

if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" = 0 ] || skip "needs root for network namespaces and nf_tables"
  for tool in unshare mount ip nft iptables-nft iptables-nft-restore iptables-nft-save; do
    command -v "$tool" > /dev/null || skip "$tool is not installed"
  done
  unshare -m -n true 2> /dev/null || skip "cannot make private namespaces here"
  ACL_OUTER_NETNS=$(readlink /proc/self/ns/net) ACL_PRIVATE_NAMESPACE=1 \
    exec unshare -m -n -- bash "$0" "$@"
fi

mount -t tmpfs tmpfs /run && mkdir -p /run/netns || skip "cannot mount a private /run"
ip link set lo up
nft list ruleset > /dev/null 2>&1 || skip "the kernel has no nf_tables here"
exec "$program"
