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

source bench/bench-lib.sh
bench_private_run "acl_table_bench" "ip iptables-restore nft" "$@"
exec build/bench/bench/acl_table_bench --benchmark_repetitions="${REPETITIONS:-5}" \
  --benchmark_report_aggregates_only=true "$@"
