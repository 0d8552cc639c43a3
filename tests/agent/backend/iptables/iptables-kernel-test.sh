#!/usr/bin/env bash
# Runs the real-kernel tests of the iptables backend for one iptables family,
# as root, inside private mount and network namespaces with their own /run,
# so that nothing of the machine's own rules or namespaces is touched.
#
#   iptables-kernel-test.sh TEST_PROGRAM nft|legacy
#
# Exits 77 (skipped) with the reason where that cannot run.
set -uo pipefail
if [ $# -ne 2 ]; then
  echo "usage: iptables-kernel-test.sh TEST_PROGRAM nft|legacy" >&2
  exit 2
fi
program=$1 family=$2
skip() {
  echo "skipped: $*"
  exit 77
}

if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" = 0 ] || skip "needs root for network namespaces and iptables"
  for tool in unshare mount ip "iptables-$family-restore" "iptables-$family-save"; do
    command -v "$tool" > /dev/null || skip "$tool is not installed"
  done
  unshare -m -n true 2> /dev/null || skip "cannot make private namespaces here"
  # The tests check that they run in another network namespace than this.
  ACL_OUTER_NETNS=$(readlink /proc/self/ns/net) ACL_PRIVATE_NAMESPACE=1 \
    exec unshare -m -n -- bash "$0" "$@"
fi

mount -t tmpfs tmpfs /run && mkdir -p /run/netns || skip "cannot mount a private /run"
ip link set lo up
printf '*filter\nCOMMIT\n' | "iptables-$family-restore" --noflush 2> /dev/null ||
  skip "iptables-$family-restore cannot run here (the kernel needs netfilter for it)"
IPTABLES_FAMILY=$family exec "$program"
