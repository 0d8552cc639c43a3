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
source "$(dirname "$0")/../../kernel/kernel-test-lib.sh"
# The tests check that they run in another network namespace than this.
enter_namespaces "iptables-$family-restore iptables-$family-save" "$0" "$@"
printf '*filter\nCOMMIT\n' | "iptables-$family-restore" --noflush 2> /dev/null ||
  skip "iptables-$family-restore cannot run here (the kernel needs netfilter for it)"
IPTABLES_FAMILY=$family exec "$program"
