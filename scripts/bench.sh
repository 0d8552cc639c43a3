#!/usr/bin/env bash
# Builds the benchmark suite in Release (preset "bench") and runs it. Every
# benchmark is repeated; the console shows the median of each, then the
# ratios (refresh against its floor, disabled trace against none). The full
# results, every repetition included, go to build/bench/acl_bench.json.
#
#   scripts/bench.sh                                  # the whole suite
#   REPETITIONS=11 scripts/bench.sh                   # more repetitions (7 by default)
#   scripts/bench.sh --benchmark_filter='Refresh'     # any --benchmark_* flag
#
# Other work on the machine shows in the numbers. The repetitions of all
# benchmarks run in random order, so that a busy spell does not fall on one
# side of a comparison only; compare medians, prefer CPU time, and rerun when
# the load average is high.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset bench >/dev/null
cmake --build --preset bench --target acl_bench

compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' build/bench/CMakeCache.txt)
echo "machine:  $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
echo "compiler: $("$compiler" --version | head -n 1)"
echo "load:     $(cut -d ' ' -f 1-3 /proc/loadavg)"

exec build/bench/bench/acl_bench \
  --benchmark_repetitions="${REPETITIONS:-7}" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_out=build/bench/acl_bench.json --benchmark_out_format=json \
  "$@"
