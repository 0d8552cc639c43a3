#!/usr/bin/env bash
# Measures acl-agent --apply against the real kernel: how many iptables-restore
# runs a refresh costs, how long a change and a converge of 256 VRFs take
# against the floor of one iptables-restore per namespace, and how long the
# event loop is held meanwhile.
#
#   bench/apply-bench.sh                  # build preset "bench" (Release), run everything
#   REPETITIONS=9 bench/apply-bench.sh    # more repetitions of the timed part (5 by default)
#   VRFS=256 bench/apply-bench.sh         # VRFs of the write count (1024 by default)
#
# Needs root. It runs in a private mount and network namespace with its own
# /run, makes its VRF namespaces there with `ip netns add`, and so never
# touches the machine's own namespaces or rules; it exits 77 with the reason
# where that cannot be had. The Google Benchmark results, every repetition
# included, go to build/bench/acl_apply_bench.json.
set -uo pipefail
cd "$(dirname "$0")/.."
vrfs=${VRFS:-1024}
timed_vrfs=256

source bench/bench-lib.sh
bench_private_run "acl-agent McastDnsAclPlugin acl_apply_bench" "ip iptables-restore iptables-save" "$@"
if ! iptables-save > /dev/null 2>&1; then echo "skipped: iptables cannot run here"; exit 77; fi
[ "$vrfs" -ge "$timed_vrfs" ] || vrfs=$timed_vrfs
for i in $(seq "$vrfs"); do echo "netns add vrf$i"; done | ip -batch - ||
  { echo "cannot make $vrfs namespaces"; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
agent=build/bench/agent/acl-agent

# --- writes: one iptables-restore run or one nft transaction each, counted by the
# agent (`show applied`), with the backend `--backend auto` picks
# The tests' agent driver: `start_agent`, `ask` and `stop_agent`, with waits
# of up to two minutes: the first refresh of 1,024 VRFs takes a while.
export ACL_TEST_DEADLINE=${ACL_TEST_DEADLINE:-120}
source tests/agent/kernel/kernel-test-lib.sh
start_agent -i --apply --resync 3600
# Sums a field of `show applied` over every VRF.
applied() {
  ask "show applied"
  sed -n "s/.* $1=\([0-9]*\).*/\1/p" "$work/answer" | awk '{ n += $1 } END { print n + 0 }'
}
not_ok() {
  grep -vc 'state=ok' "$work/answer"
}

{
  for i in $(seq "$vrfs"); do
    echo "vrf add global vrf$i"
    echo "intf set e$i vrf$i"
    echo "link set e$i 1"
  done
} > "$work/setup"
mapfile -t setup < "$work/setup"
ask "${setup[@]}"
start=$(date +%s%N)
ask "load" "settle"
converge_ms=$((($(date +%s%N) - start) / 1000000))
first=$(applied writes)
backend=$(sed -n 's/.* backend=\([a-z]*\).*/\1/p' "$work/answer" | head -n 1)
# The agent's resident memory now: each child it starts copies its page tables.
rss=$(sed -n 's/^VmRSS:[[:space:]]*//p' "/proc/$agent_pid/status")
[ "$(not_ok)" = 0 ] || { echo "some VRF is not in place:"; grep -v 'state=ok' "$work/answer"; }
# A refresh that changes nothing: an interface joins a VRF without a link.
ask "intf set spare vrf1" "advance 20ms" "settle"
unchanged=$(($(applied writes) - first))
# One VRF of them changes: its link goes down.
ask "link set e7 0" "advance 20ms" "settle"
one=$(($(applied writes) - first - unchanged))
stop_agent
[ -s "$work/agent.err" ] && { echo "agent's standard error:"; cat "$work/agent.err"; }

echo
echo "writes, acl-agent with $vrfs VRFs, one link up in each (backend ${backend:-unknown})"
printf '  %-44s %6s %8s\n' "" writes expected
printf '  %-44s %6s %8s\n' "load (first refresh, from nothing)" "$first" "$vrfs"
printf '  %-44s %6s %8s\n' "a refresh that changes nothing" "$unchanged" 0
printf '  %-44s %6s %8s\n' "a refresh that changes one VRF" "$one" 1
echo "  (load to settled: $converge_ms ms, through the plugin, the rule service and the backend;"
echo "   the agent's resident memory then: ${rss:-unknown})"
echo

# --- times and the loop's stalls, in Google Benchmark
build/bench/bench/acl_apply_bench \
  --benchmark_repetitions="${REPETITIONS:-5}" \
  --benchmark_enable_random_interleaving=true \
  --benchmark_report_aggregates_only=true \
  --benchmark_out=build/bench/acl_apply_bench.json --benchmark_out_format=json \
  "$@"
