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
source "$(dirname "$0")/../../kernel/kernel-test-lib.sh"
enter_namespaces "nft iptables-nft iptables-nft-restore iptables-nft-save" "$0" "$@"
nft list ruleset > /dev/null 2>&1 || skip "the kernel has no nf_tables here"
exec "$program"
