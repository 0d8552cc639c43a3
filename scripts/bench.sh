#!/usr/bin/env bash
# Builds the benchmark suite in Release (preset "bench") and runs it. Every
# benchmark is repeated; the console shows the median of each, then the
# ratios (refresh and start-up against their floors, the rule service against
# a context that only counts, disabled trace against none). The full
# results, every repetition included, go to build/bench/acl_bench.json.
#
#   scripts/bench.sh                                  # the whole suite
#   REPETITIONS=11 scripts/bench.sh                   # more repetitions (7 by default)
#   scripts/bench.sh --benchmark_filter='Refresh'     # any --benchmark_* flag
#
# Against another revision: builds REV (any git revision; its files exported
# under build/compare/, without touching the repository) and the working
# tree, then runs the two suites interleaved: in each round, every benchmark
# once with each binary, one right after the other, the first to run
# alternating from round to round. It prints per benchmark the median CPU
# time of each and the ratio new/old (below 1: the working tree is faster),
# and the same ratio of wall times.
#
#   scripts/bench.sh --compare HEAD                   # the changes not yet committed
#   scripts/bench.sh --compare main~3 --benchmark_filter='RuleService'
#   ROUNDS=9 scripts/bench.sh --compare HEAD          # more rounds (5 by default)
#
# Other work on the machine shows in the numbers. The repetitions of all
# benchmarks run in random order, so that a busy spell does not fall on one
# side of a comparison only; compare medians, prefer CPU time, and rerun when
# the load average is high.
set -euo pipefail
cd "$(dirname "$0")/.."

compare=""
if [ "${1:-}" = "--compare" ]; then
  if [ $# -lt 2 ]; then
    echo "usage: scripts/bench.sh --compare REV [--benchmark_...]..." >&2
    exit 2
  fi
  compare=$2
  shift 2
  if ! old_rev=$(git rev-parse --verify --quiet "$compare^{commit}"); then
    echo "scripts/bench.sh: --compare: no such revision: $compare" >&2
    exit 2
  fi
fi

scripts/install-deps.sh
cmake --preset bench >/dev/null
cmake --build --preset bench --target acl_bench

compiler=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' build/bench/CMakeCache.txt)
echo "machine:  $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
echo "compiler: $("$compiler" --version | head -n 1)"
echo "load:     $(cut -d ' ' -f 1-3 /proc/loadavg)"

if [ -z "$compare" ]; then
  exec build/bench/bench/acl_bench \
    --benchmark_repetitions="${REPETITIONS:-7}" \
    --benchmark_enable_random_interleaving=true \
    --benchmark_out=build/bench/acl_bench.json --benchmark_out_format=json \
    "$@"
fi

# --- the comparison ---------------------------------------------------------

# REV's files, as they stand in the repository, built with the same options
# as preset "bench". A commit's export never changes, so it is kept and built
# again incrementally next time.
old_dir=build/compare/$old_rev
if [ ! -f "$old_dir/src/CMakeLists.txt" ]; then
  rm -rf "$old_dir/src"
  mkdir -p "$old_dir/src"
  git archive --format=tar "$old_rev" | tar -x -C "$old_dir/src"
fi
echo "old:      $compare ($old_rev)"
cmake -S "$old_dir/src" -B "$old_dir/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DACL_TESTS=OFF -DACL_BENCH=ON >/dev/null
cmake --build "$old_dir/build" --target acl_bench
old_bin=$old_dir/build/bench/acl_bench
new_bin=build/bench/bench/acl_bench

# The filter selects the benchmarks; every other flag goes to every run.
filter=""
flags=()
for arg in "$@"; do
  case $arg in
    --benchmark_filter=*) filter=${arg#--benchmark_filter=} ;;
    *) flags+=("$arg") ;;
  esac
done

runs=build/compare/runs
rm -rf "$runs"
mkdir -p "$runs"
# The benchmarks of both suites, the working tree's first, each once.
for side in new old; do
  [ "$side" = old ] && bin=$old_bin || bin=$new_bin
  "$bin" --benchmark_list_tests=true --benchmark_filter="$filter" "${flags[@]}" >"$runs/$side.names"
done
awk 'NF && !seen[$0]++' "$runs/new.names" "$runs/old.names" >"$runs/names"
if [ ! -s "$runs/names" ]; then
  echo "scripts/bench.sh: no benchmark matches the filter" >&2
  exit 1
fi

# Runs benchmark $2 once with side $1 (old or new), its results into $3.
run_one() {
  local side=$1 name=$2 out=$3 bin
  [ "$side" = old ] && bin=$old_bin || bin=$new_bin
  grep -qxF -- "$name" "$runs/$side.names" || return 0
  local exact
  exact=$(printf '%s' "$name" | sed 's/[][\.^$*+?(){}|]/\\&/g')
  if ! "$bin" "${flags[@]}" --benchmark_filter="^$exact\$" --benchmark_repetitions=1 \
    --benchmark_out="$out" --benchmark_out_format=json >/dev/null 2>"$runs/stderr"; then
    echo "scripts/bench.sh: $side $name failed:" >&2
    cat "$runs/stderr" >&2
    exit 1
  fi
}

rounds=${ROUNDS:-5}
count=$(wc -l <"$runs/names")
echo "rounds:   $rounds of $count benchmarks, each run with both binaries in turn"
for round in $(seq 1 "$rounds"); do
  index=0
  while IFS= read -r name; do
    index=$((index + 1))
    if [ $(((round + index) % 2)) -eq 0 ]; then order="old new"; else order="new old"; fi
    for side in $order; do
      run_one "$side" "$name" "$runs/$side-$round-$index.json"
    done
  done <"$runs/names"
  echo "  round $round of $rounds done (load $(cut -d ' ' -f 1 /proc/loadavg))"
done
echo "load:     $(cut -d ' ' -f 1-3 /proc/loadavg)"
echo

# Google Benchmark writes one field a line; each run object starts with its
# name. Times are brought to nanoseconds and shown in the new run's unit.
awk '
  function ns(unit) { return unit == "s" ? 1e9 : unit == "ms" ? 1e6 : unit == "us" ? 1e3 : 1 }
  function median(list,    n, v, i, j, t) {
    n = split(list, v, " ")
    for (i = 2; i <= n; i++) { t = v[i] + 0; for (j = i - 1; j >= 1 && v[j] + 0 > t; j--) v[j + 1] = v[j]; v[j + 1] = t }
    return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
  }
  function flush() {
    if (name != "" && iteration && !failed) {
      cpu[side, name] = cpu[side, name] " " cpuTime * ns(unit)
      wall[side, name] = wall[side, name] " " realTime * ns(unit)
      units[side, name] = unit
    }
    name = ""; iteration = 0; failed = 0
  }
  FILENAME == names { order[++count] = $0; next }
  FNR == 1 { flush(); side = FILENAME; sub(/.*\//, "", side); sub(/-.*/, "", side) }
  {
    line = $0; sub(/^[ \t]*/, "", line); sub(/,[ \t]*$/, "", line)
    if (line ~ /^"name": /) { flush(); name = substr(line, 10, length(line) - 10) }
    else if (line == "\"run_type\": \"iteration\"") iteration = 1
    else if (line == "\"error_occurred\": true") failed = 1
    else if (line ~ /^"cpu_time": /) cpuTime = substr(line, 13) + 0
    else if (line ~ /^"real_time": /) realTime = substr(line, 14) + 0
    else if (line ~ /^"time_unit": /) unit = substr(line, 15, length(line) - 15)
  }
  END {
    flush()
    width = 9
    for (i = 1; i <= count; i++) if (length(order[i]) > width) width = length(order[i])
    printf "%-" width "s %14s %14s %8s %8s\n", "benchmark", "old CPU", "new CPU", "new/old", "wall"
    for (i = 1; i <= count; i++) {
      n = order[i]
      u = ("new", n) in units ? units["new", n] : units["old", n]
      o = ("old", n) in cpu ? median(cpu["old", n]) : -1
      w = ("new", n) in cpu ? median(cpu["new", n]) : -1
      os = o < 0 ? "-" : sprintf("%.4g %s", o / ns(u), u)
      ws = w < 0 ? "-" : sprintf("%.4g %s", w / ns(u), u)
      r = o > 0 && w >= 0 ? sprintf("%.3f", w / o) : "-"
      wr = o > 0 && w >= 0 ? sprintf("%.3f", median(wall["new", n]) / median(wall["old", n])) : "-"
      printf "%-" width "s %14s %14s %8s %8s\n", n, os, ws, r, wr
    }
  }
' names="$runs/names" "$runs/names" "$runs"/old-*.json "$runs"/new-*.json
