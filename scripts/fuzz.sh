#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs one of them, or each in turn, for the
# given number of seconds. Extra arguments go to libFuzzer.
#
#   scripts/fuzz.sh scenario_parser_fuzz 600
#   scripts/fuzz.sh all 60
#   scripts/fuzz.sh scenario_run_fuzz 60 -seed=1
#
# Each target's corpus is build/fuzz/corpus/TARGET; it grows from run to run
# and is seeded, at every run, from the example and golden scenarios and the
# regression inputs (tests/fuzz/regressions). An input that breaks a target
# is saved under build/fuzz/crashes/TARGET/. To make it small, run
#
#   build/fuzz/tests/fuzz/TARGET -minimize_crash=1 -max_total_time=60 \
#     -exact_artifact_path=tests/fuzz/regressions/NAME.scn CRASH
#
# and keep it, under a name that says what it is, as a regression input:
# the test builds run every regression input through both targets.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(scenario_parser_fuzz scenario_run_fuzz)
usage() {
  echo "usage: scripts/fuzz.sh TARGET|all SECONDS [LIBFUZZER-FLAG ...]" >&2
  echo "targets: ${targets[*]}" >&2
  exit 2
}
[ $# -ge 2 ] || usage
case "$1" in
  all) run=("${targets[@]}") ;;
  scenario_parser_fuzz | scenario_run_fuzz) run=("$1") ;;
  *) usage ;;
esac
seconds=$2
shift 2
[[ "$seconds" =~ ^[0-9]+$ ]] || usage

scripts/install-deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${run[@]}"

export ASAN_OPTIONS="detect_leaks=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1${UBSAN_OPTIONS:+:$UBSAN_OPTIONS}"
for target in "${run[@]}"; do
  corpus=build/fuzz/corpus/$target
  crashes=build/fuzz/crashes/$target
  mkdir -p "$corpus" "$crashes"
  for seed in examples/*.scn tests/golden/*.scn tests/fuzz/regressions/*; do
    cp "$seed" "$corpus/seed-$(basename "$(dirname "$seed")")-$(basename "$seed")"
  done
  echo "== $target for ${seconds}s, corpus $corpus ($(ls "$corpus" | wc -l) inputs)"
  build/fuzz/tests/fuzz/"$target" -max_len=4096 -dict=tests/fuzz/scenario.dict \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$crashes/" "$@" "$corpus"
  echo "== $target: corpus $corpus holds $(ls "$corpus" | wc -l) inputs," \
       "$(du -sk "$corpus" | cut -f 1) KiB"
done
