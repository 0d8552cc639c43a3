#!/usr/bin/env bash
# acl-agent --live against links that change faster than it reads them: a
# dump the kernel marks interrupted because links came and went while it ran,
# and notifications lost because the agent's socket overran while it was
# stopped. Each time the agent must read the links again, and its state
# database must end exactly as the kernel is.
#
#   live-churn-kernel-test.sh ACL_AGENT
#
# Runs as root in a private mount and network namespace with its own /run;
# exits 77 (skipped) with the reason where that cannot be had.
set -uo pipefail
agent=$1
source "$(dirname "$0")/../kernel/kernel-test-lib.sh"
enter_private_namespace "$0" "$@"

# Each interface of the agent's own namespace and its link's state, one
# "NAME STATE" a line in bytewise order: as the agent shows them, and as the
# kernel has them (veth links are up and running once both ends are set up,
# and multicast-capable from the start).
shown_links() {
  ask "show state"
  sed -n 's/^link set "\([^"/]*\)"#0 \([01]\)$/\1 \2/p' "$work/answer" | LC_ALL=C sort
}
kernel_links() {
  ip -o link show | sed -n 's/^[0-9]*: \([^:@]*\)[^<]*<\([^>]*\)>.*/\1 \2/p' | grep -v '^lo ' |
    while read -r name flags; do
      case ",$flags," in
        *,MULTICAST,*UP,*LOWER_UP,*) echo "$name 1" ;;
        *) echo "$name 0" ;;
      esac
    done | LC_ALL=C sort
}

# Waits until the agent shows exactly the kernel's links; fails with the
# difference when that has not come within the deadline.
await_kernel_links() {
  local end=$((SECONDS + deadline))
  while true; do
    kernel_links > "$work/kernel"
    shown_links > "$work/shown"
    cmp -s "$work/kernel" "$work/shown" && return 0
    [ "$SECONDS" -lt "$end" ] || break
    sleep 0.1
  done
  fail "$1: the agent's links differ from the kernel's after ${deadline}s" \
    "(< kernel, > agent):"$'\n'"$(diff "$work/kernel" "$work/shown" | grep '^[<>]' | head -20)"
}

# Starts the agent with its dumps traced, and waits for its "ready".
start_traced_agent() {
  start_agent --live --trace LiveMode/0
  await_ready
}

# `ip -b` commands on veth pairs PREFIX1 N / PREFIX2 N for N from FIRST to
# LAST by STEP: "link add" makes both links, "link del" of one end removes
# both.
#   pairs add|up|down|del FIRST STEP LAST PREFIX1 PREFIX2
pairs() {
  local what=$1 first=$2 step=$3 last=$4 i
  for ((i = first; i <= last; i += step)); do
    case $what in
      add) echo "link add ${5}$i type veth peer name ${6}$i" ;;
      up) echo "link set ${5}$i up"$'\n'"link set ${6}$i up" ;;
      down) echo "link set ${5}$i down" ;;
      del) echo "link del ${5}$i" ;;
    esac
  done
}

# --- a dump interrupted by links that come and go is made again. The kernel
# marks a dump interrupted when the namespace's links changed between two of
# its parts, which the agent reads one at a time: with a few hundred links
# and others coming and going all along, the agent's first dump is
# interrupted more often than not. Tried until that is seen, within a bound.
{ pairs add 1 1 200 s t && pairs up 1 2 200 s t; } > "$work/steady"
ip -b "$work/steady" || give_up "cannot make 400 veth links"
{ pairs add 1 1 10 c d && pairs del 1 1 10 c; } > "$work/churn"
interrupted=
end=$((SECONDS + 3 * deadline))
while [ -z "$interrupted" ] && [ "$SECONDS" -lt "$end" ]; do
  # The churn goes on while $work/churning exists, which the end of the
  # test removes however it ends.
  touch "$work/churning"
  (while [ -e "$work/churning" ]; do ip -b "$work/churn" > /dev/null 2>&1; done) &
  churn=$!
  start_traced_agent
  rm "$work/churning"
  wait "$churn"
  grep -q 'LiveMode/0 .*the dump was interrupted' "$work/agent.err" && interrupted=yes
  await_kernel_links "after a start among links that come and go"
  signal_agent TERM
done
[ -n "$interrupted" ] ||
  fail "no dump of the agent was interrupted within $((3 * deadline))s: nothing was checked"

# --- notifications lost while the agent is stopped and its socket overruns
# are made up for by a new dump
start_traced_agent
await_kernel_links "at the start"
kill -STOP "$agent_pid"
{
  pairs add 1 1 1500 e f
  pairs up 1 3 1500 e f
  pairs del 2 2 1500 e
  pairs down 3 10 200 s
} > "$work/burst"
ip -b "$work/burst" || fail "cannot make the links come and go"
kill -CONT "$agent_pid"
await_kernel_links "after the socket overran"
grep -q 'LiveMode/0 .*notifications were lost' "$work/agent.err" ||
  fail "the agent's socket did not overrun: nothing was checked"
signal_agent TERM
[ "$agent_exit" = 0 ] || fail "the agent did not exit 0 but $agent_exit on SIGTERM"

finish
