#!/usr/bin/env bash
# Measures one VRF's change and one read-back with the nft backend and with
# the iptables backend, side by side, against the real kernel.
#
#   bench/table-bench.sh                  # build preset "bench" (Release), run it
#   REPETITIONS=9 bench/table-bench.sh    # more repetitions (5 by default)
#
# Needs root. It runs in a private mount and network namespace with its own
# /run, so it never touches the machine's own rules; it exits 77 with the
# reason where that cannot be had.
set -uo pipefail
cd "$(dirname "$0")/.."

if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" = 0 ] || { echo "skipped: needs root for network namespaces"; exit 77; }
  set -e
  scripts/install-deps.sh
  cmake --preset bench > /dev/null
  cmake --build --preset bench --target acl_table_bench -- -j2
  set +e
  unshare -m -n true 2> /dev/null || { echo "skipped: cannot make private namespaces here"; exit 77; }
  echo "kernel:   $(uname -r), $(iptables-restore --version 2>&1 | head -n 1)"
  echo "load:     $(cut -d ' ' -f 1-3 /proc/loadavg)"
  ACL_OUTER_NETNS=$(readlink /proc/self/ns/net) ACL_PRIVATE_NAMESPACE=1 \
    exec unshare -m -n -- bash "$0" "$@"
fi

mount -t tmpfs tmpfs /run && mkdir -p /run/netns || { echo "skipped: cannot mount a private /run"; exit 77; }
ip link set lo up
exec build/bench/bench/acl_table_bench --benchmark_repetitions="${REPETITIONS:-5}" \
  --benchmark_report_aggregates_only=true "$@"
