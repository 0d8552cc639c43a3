#!/usr/bin/env bash
# Measures acl-agent --live against the real kernel: how long after a link
# goes down its rule is gone from the namespace's table (against 10 ms of
# refresh delay plus one write), how long start-up takes with 1,000
# interfaces over 16 namespaces, and the resident memory with 16k
# interfaces against the scripted agent holding the same state.
#
# The rule's going is seen two ways, each with the same agent in turn: by an
# `nft monitor` that keeps its socket for the whole run and is woken by the
# kernel's notification of the agent's transaction (with an `ip monitor
# link` beside it, for the moment the kernel announced the link down), and
# by a new `iptables -S` each millisecond, which also holds each poll's own
# wait for the kernel's release of what the agent deleted.
#
#   bench/live-bench.sh                   # build preset "release", run everything
#   TRIES=100 bench/live-bench.sh         # more link flaps for the latency (50 by default)
#   STARTS=9 bench/live-bench.sh          # more start-ups (5 by default)
#   BACKENDS=nft bench/live-bench.sh      # the latency with one backend (nft and iptables by default)
#   PRESET=bench LATENCY_ONLY=1 bench/live-bench.sh   # another build; the latency alone
#
# Needs root. It runs in a private mount and network namespace with its own
# /run and makes its namespaces and interfaces there, so it never
# touches the machine's own namespaces or rules; it exits 77 with the reason
# where that cannot be had.
set -uo pipefail
cd "$(dirname "$0")/.."
tries=${TRIES:-50}
starts=${STARTS:-5}
preset=${PRESET:-release}
agent=build/$preset/agent/acl-agent

if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" = 0 ] || { echo "skipped: needs root for network namespaces and iptables"; exit 77; }
  set -e
  scripts/install-deps.sh
  cmake --preset "$preset" > /dev/null
  cmake --build --preset "$preset" --target acl-agent McastDnsAclPlugin -- -j2
  set +e
  for tool in unshare ip iptables iptables-restore iptables-save nft; do
    command -v "$tool" > /dev/null || { echo "skipped: $tool is not installed"; exit 77; }
  done
  unshare -m -n true 2> /dev/null || { echo "skipped: cannot make private namespaces here"; exit 77; }
  echo "machine:  $(nproc) cores, $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1)"
  echo "kernel:   $(uname -r), $(iptables-restore --version 2>&1 | head -n 1)"
  echo "load:     $(cut -d ' ' -f 1-3 /proc/loadavg)"
fi
# The tests' private namespaces and agent driver: `start_agent`, `ask`, `signal_agent`,
# with waits of up to two minutes: start-up with 16k interfaces takes a while.
export ACL_TEST_DEADLINE=${ACL_TEST_DEADLINE:-120}
source tests/agent/kernel/kernel-test-lib.sh
enter_private_namespace "$0" "$@"

# Median and maximum of numbers, one a line.
median_max() {
  sort -n | awk '{ v[NR] = $1 } END { printf "median %.1f, worst %.1f (of %d)", v[int((NR + 1) / 2)], v[NR], NR }'
}
# VmRSS of the agent.
agent_rss() {
  sed -n 's/^VmRSS:[[:space:]]*//p' "/proc/$agent_pid/status"
}
# Namespaces PREFIX1..PREFIXn, each with COUNT interfaces dK that are up and
# multicast-capable, so that every one is a link that wants the rule (ifb
# devices: the kernels this runs on may have no dummy driver).
make_namespaces() {
  local prefix=$1 n=$2 count=$3 i k
  for i in $(seq "$n"); do echo "netns add $prefix$i"; done | ip -batch - || exit 1
  for i in $(seq "$n"); do
    for k in $(seq "$count"); do
      echo "link add d$k type ifb"
      echo "link set d$k multicast on up"
    done | ip -n "$prefix$i" -batch - || exit 1
  done
}
delete_namespaces() {
  local prefix=$1 n=$2 i
  for i in $(seq "$n"); do echo "netns delete $prefix$i"; done | ip -batch -
}
await_ready() {
  local first=
  read_until 8 first $((SECONDS + deadline)) && [ "$first" = ready ] ||
    give_up "the agent ended, or did not say ready within ${deadline}s: [$first]"
}

# --- 1. a link down to its rule gone from the kernel, with each backend
# Each backend is timed twice with one agent, observer by observer, so that
# neither observer's work lands inside the other's tries.
for backend in ${BACKENDS:-nft iptables}; do
make_namespaces lat 1 1
start_agent --live --apply --resync 3600 --backend "$backend"
await_ready
# Run inside the namespace, so that neither the flap nor the observer pays
# for entering it.
#
# First observer: one `nft monitor`, started before the tries and kept for
# all of them. Its socket stays open, so it never waits on the kernel's
# release of what a deletion took away, and the kernel wakes it at the
# commit of the agent's transaction; it writes each event line out as it
# prints it, so the line reaches this shell then. Both backends take the
# rule away in one nf_tables transaction (the jump, the rule, the chain), so
# the first line naming the agent's chain going ends the try. Beside it, an
# `ip monitor link` into the same pipe tells when the kernel announced the
# link down, so that the `ip` command's own start-up can be told apart from
# the agent's part. The line of the rule coming back is awaited before the
# next flap, and whatever else the monitors printed is read before the
# flap, so that no line of an earlier change can end a try.
ip netns exec lat1 bash -c '
  work=$1 tries=$2 backend=$3 deadline=$4
  has_rule() { iptables -S | grep -- "--dport 5353" > /dev/null; }
  for _ in $(seq 5000); do has_rule && break; sleep 0.001; done
  has_rule || { echo "the rule never appeared" >&2; exit 1; }
  gone="^delete (rule|chain) ip filter ACLAGENT-"
  back="^add rule ip filter ACLAGENT-INPUT .*dport 5353 "
  link="^[0-9]+: d1: <([^>]*)>"
  coproc monitor {
    nft monitor & nft_pid=$!
    ip -o monitor link & ip_pid=$!
    trap "kill $nft_pid $ip_pid" TERM
    wait
  }
  trap "kill \"\$monitor_PID\" 2> /dev/null" EXIT
  # Reads the monitors until d1 was announced down and the agent took its
  # rule away, whatever the order of the two lines, and sets $down_at and
  # $gone_at to the times they arrived; fails, saying what it saw, when the
  # monitors end or the deadline passes first.
  await_down_and_gone() {
    local end=$((SECONDS + deadline)) line at
    down_at= gone_at=
    while [ "$SECONDS" -lt "$end" ] &&
          IFS= read -r -t "$((end - SECONDS))" -u "${monitor[0]}" line; do
      at=$EPOCHREALTIME
      if [ -z "$down_at" ] && [[ $line =~ $link ]] && [[ ,${BASH_REMATCH[1]}, != *,UP,* ]]; then
        down_at=$at
      elif [ -z "$gone_at" ] && [[ $line =~ $gone ]]; then
        gone_at=$at
      fi
      [ -n "$down_at" ] && [ -n "$gone_at" ] && return 0
    done
    echo "within ${deadline}s the monitors saw [${down_at:+d1 down}] [${gone_at:+the rule gone}]," \
      "last line: [$line]" >&2
    return 1
  }
  # Reads the monitors until a line matches the pattern; fails, saying what,
  # when they end or the deadline passes first.
  await_line() {
    local pattern=$1 what=$2 end=$((SECONDS + deadline)) line
    while [ "$SECONDS" -lt "$end" ] &&
          IFS= read -r -t "$((end - SECONDS))" -u "${monitor[0]}" line; do
      [[ $line =~ $pattern ]] && return 0
    done
    echo "$what within ${deadline}s (last line from the monitors: [$line])" >&2
    return 1
  }
  # Reads the lines the monitors have printed so far, without waiting. None
  # of them may be the agent taking its rule away: the link is up.
  read_left() {
    local line
    while read -t 0 -u "${monitor[0]}"; do
      IFS= read -r -u "${monitor[0]}" line || break
      if [[ $line =~ $gone ]]; then
        echo "the rule went while the link was up: [$line]" >&2
        return 1
      fi
    done
  }
  # A monitor listens once it prints a change made after it started; a
  # change made before it subscribed goes unseen, so one of each kind is
  # made each second until both have been heard.
  nft_heard= ip_heard=
  for _ in $(seq "$deadline"); do
    nft add table ip live_bench_probe && nft delete table ip live_bench_probe &&
      ip link add lb-probe type ifb && ip link delete lb-probe || exit 1
    while IFS= read -r -t 1 -u "${monitor[0]}" line; do
      [ "$line" = "delete table ip live_bench_probe" ] && nft_heard=1
      [[ $line =~ ^Deleted\ [0-9]+:\ lb-probe: ]] && ip_heard=1
      [ -n "$nft_heard" ] && [ -n "$ip_heard" ] && break 2
    done
  done
  [ -n "$nft_heard" ] && [ -n "$ip_heard" ] ||
    { echo "the monitors did not start within ${deadline}s (nft: [$nft_heard], ip: [$ip_heard])" >&2; exit 1; }
  for try in $(seq "$tries"); do
    sleep 0.05
    read_left || exit 1
    start=$EPOCHREALTIME
    # In the background, so that this shell already waits on the monitors
    # when the kernel announces the link down.
    ip link set d1 down &
    flap=$!
    await_down_and_gone || exit 1
    wait "$flap" || { echo "ip link set d1 down failed" >&2; exit 1; }
    echo "${start/./} ${gone_at/./} ${down_at/./}" >> "$work/latency-$backend-monitor"
    if [ "$try" = 1 ] && has_rule; then
      echo "nft monitor saw the rule go, yet iptables -S still shows it" >&2
      exit 1
    fi
    ip link set d1 up
    await_line "$back" "the rule did not come back" || exit 1
  done
' _ "$work" "$tries" "$backend" "$deadline" || exit 1
# Second observer: a new `iptables -S` each millisecond (the resolution of
# the figure), as the kernel's rules are seen from outside. Each of these
# processes, closing its socket right after the agent's deletion, waits
# for the kernel's release of what was deleted before it ends.
ip netns exec lat1 bash -c '
  has_rule() { iptables -S | grep -- "--dport 5353" > /dev/null; }
  for _ in $(seq 5000); do has_rule && break; sleep 0.001; done
  has_rule || { echo "the rule never appeared" >&2; exit 1; }
  iptables-save -t filter > "$1/up"
  for try in $(seq "$2"); do
    sleep 0.05
    start=$EPOCHREALTIME polls=0
    ip link set d1 down
    while has_rule; do polls=$((polls + 1)); sleep 0.001; done
    end=$EPOCHREALTIME
    echo "${start/./} ${end/./} $polls" >> "$1/latency-$3-poll"
    [ "$try" = 1 ] && iptables-save -t filter > "$1/down"
    ip link set d1 up
    for _ in $(seq 5000); do has_rule && break; sleep 0.001; done
    has_rule || { echo "the rule did not come back" >&2; exit 1; }
  done
  # One poll on its own, for the resolution.
  for _ in $(seq 20); do
    start=$EPOCHREALTIME; has_rule; end=$EPOCHREALTIME; echo "${start/./} ${end/./}" >> "$1/poll"
  done
' _ "$work" "$tries" "$backend" || exit 1
signal_agent TERM
delete_namespaces lat 1
done

# The floor: the one iptables-restore that takes the rule away, in a
# namespace of its own holding the same rules, timed directly.
ip netns add floor
ip netns exec floor bash -c '
  for _ in $(seq 20); do
    iptables-restore < "$1/up"
    start=$EPOCHREALTIME
    iptables-restore < "$1/down"
    end=$EPOCHREALTIME
    echo "${start/./} ${end/./}" >> "$1/restore"
    start=$EPOCHREALTIME
    iptables-save > /dev/null
    end=$EPOCHREALTIME
    echo "${start/./} ${end/./}" >> "$1/save"
  done
  # The command that starts a try, on a link that wants nothing.
  ip link add d1 type ifb && ip link set d1 multicast on up
  for _ in $(seq 20); do
    start=$EPOCHREALTIME
    ip link set d1 down
    end=$EPOCHREALTIME
    echo "${start/./} ${end/./}" >> "$1/flap"
    ip link set d1 up
  done
' _ "$work"
ip netns delete floor

ms() { awk '{ print ($2 - $1) / 1000 }' "$1"; }
restore_median=$(ms "$work/restore" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }')
echo
echo "1. link down to rule gone from the kernel, ms"
for backend in ${BACKENDS:-nft iptables}; do
  printf '  live agent, %-10s %-35s %s\n' "$backend:" "seen by nft monitor:" \
    "$(ms "$work/latency-$backend-monitor" | median_max)"
  printf '  %-22s %-35s %s\n' "" "the same from link down announced:" \
    "$(awk '{ print ($2 - $3) / 1000 }' "$work/latency-$backend-monitor" | median_max)"
  printf '  %-22s %-35s %s\n' "" "seen by a new iptables -S each ms:" \
    "$(ms "$work/latency-$backend-poll" | median_max)"
done
echo "  one iptables-restore:  $(ms "$work/restore" | median_max)"
echo "  floor (10 ms + that):  $(awk -v r="$restore_median" 'BEGIN { printf "%.1f", 10 + r }')"
echo "  one iptables-save:     $(ms "$work/save" | median_max)"
echo "  one ip link set down:  $(ms "$work/flap" | median_max)"
echo "  ip start to link down announced: $(cat "$work"/latency-*-monitor | awk '{ print ($3 - $1) / 1000 }' | median_max)"
echo "  one poll (resolution): $(ms "$work/poll" | median_max)"
echo "  polls per try:         $(cat "$work"/latency-*-poll | awk '{ print $3 }' | median_max)"

[ "${LATENCY_ONLY:-}" = 1 ] && exit 0

# --- 2. start-up with 1,000 interfaces over 16 namespaces
# 8 namespaces of 63 interfaces and 8 of 62.
for i in $(seq 16); do echo "netns add s$i"; done | ip -batch - || exit 1
for i in $(seq 16); do
  count=$((i <= 8 ? 63 : 62))
  for k in $(seq "$count"); do
    echo "link add d$k type ifb"
    echo "link set d$k multicast on up"
  done | ip -n "s$i" -batch - || exit 1
done
echo
echo "2. start-up, 1,000 interfaces over 16 namespaces, ms from start to ready"
for run in $(seq "$starts"); do
  # From nothing: no chain or jump of the agent's in any namespace.
  "$agent" --remove-applied > /dev/null 2>&1
  start=$EPOCHREALTIME
  start_agent --live --apply --resync 3600
  await_ready
  end=$EPOCHREALTIME
  echo "$(((${end/./} - ${start/./}) / 1000))" >> "$work/startup"
  ask "show applied"
  placed=$(grep -c 'rules=1 writes=1' "$work/answer")
  signal_agent TERM
  echo "  run $run: $(tail -n 1 "$work/startup") ms (VRFs with their rule written at ready: $placed of 16)"
done
echo "  $(median_max < "$work/startup")"
delete_namespaces s 16

# --- 3. resident memory with 16k interfaces: 16 namespaces of 1,024 interfaces
make_namespaces m 16 1024
echo
echo "3. resident memory, 16,384 interfaces over 16 namespaces, every link up"
for args in "--live" "--live --apply"; do
  "$agent" --remove-applied > /dev/null 2>&1
  # shellcheck disable=SC2086
  start_agent $args --resync 3600
  await_ready
  ask "show state"
  links=$(grep -c '^link set' "$work/answer")
  echo "  acl-agent $args: $(agent_rss) ($links links in the state database)"
  signal_agent TERM
done
# The scripted agent holding the same state.
{
  for i in $(seq 16); do
    echo "vrf add global m$i"
    for k in $(seq 1024); do
      echo "intf set \"m$i/d$k\" m$i"
      echo "link set \"m$i/d$k\" 1"
    done
  done
} > "$work/setup"
for args in "-i" "-i --apply"; do
  "$agent" --remove-applied > /dev/null 2>&1
  # shellcheck disable=SC2086
  start_agent $args --resync 3600
  mapfile -t setup < "$work/setup"
  ask "${setup[@]}" "load" "settle"
  ask "show state"
  links=$(grep -c '^link set' "$work/answer")
  echo "  acl-agent $args: $(agent_rss) ($links links in the state database)"
  stop_agent
done
delete_namespaces m 16
