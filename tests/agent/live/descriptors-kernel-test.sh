#!/usr/bin/env bash
# acl-agent --live --apply started with a soft limit on descriptors below what
# its namespaces need (one route netlink socket each) and a hard limit with
# room for them, as a service manager may start it: the agent takes the hard
# limit, and every VRF, default included, gets its rule in the kernel. Then a
# hard limit too low for them all: one namespace too many is refused, not
# every write, and is followed once a namespace followed goes.
#
#   descriptors-kernel-test.sh ACL_AGENT [nft|iptables]
#
# With the nft backend each namespace also costs the backend's two sockets
# there, so fewer namespaces fit under the low limit; none may go short.
#
# Runs as root in a private mount and network namespace with its own /run;
# exits 77 (skipped) with the reason where that cannot be had.
set -uo pipefail
agent=$1
command -v prlimit > /dev/null || { echo "skipped: prlimit is not installed"; exit 77; }
source "$(dirname "$0")/../kernel/kernel-test-lib.sh"
enter_private_namespace "$0" "$@"
use_backend "${2:-iptables}"
# The agent runs under prlimit, which takes no --backend: given by hand.
kind=$backend backend=

soft=64 hard=4096 namespaces=100

# Each namespace holds a veth pair, both ends up (so running and multicast),
# so that its VRF must have the rule.
for ((n = 1; n <= namespaces; n++)); do
  ip netns add "ns$n" &&
    ip -n "ns$n" link add va type veth peer name vb &&
    ip -n "ns$n" link set va up && ip -n "ns$n" link set vb up ||
    { echo "FAIL: cannot make namespace ns$n"; exit 1; }
done

real_agent=$agent agent=prlimit
start_agent "--nofile=$soft:$hard" -- "$real_agent" --backend "$kind" --live --apply --gateway-setting 5353 \
  --resync 3600
await_ready

limits=$(grep '^Max open files' "/proc/$agent_pid/limits")
read -r -a words <<< "$limits"
[ "${words[3]}" = "$hard" ] || fail "the soft limit was not raised to the hard one: [$limits]"

# Every VRF is in place, as the agent sees it and as the kernel has it.
end=$((SECONDS + deadline))
while true; do
  ask "show applied"
  in_place=$(grep -c 'state=ok rules=1 ' "$work/answer")
  [ "$in_place" = $((namespaces + 1)) ] && break
  [ "$SECONDS" -lt "$end" ] || {
    fail "$in_place of $((namespaces + 1)) VRFs in place within ${deadline}s"
    break
  }
  sleep 0.1
done
grep -q 'vrf="default" netns="" state=ok rules=1 ' "$work/answer" || fail "VRF default is not in place"
missing=0
for ((n = 1; n <= namespaces; n++)); do
  ip netns exec "ns$n" iptables -S ACLAGENT-INPUT 2> /dev/null | grep 'dport 5353' > /dev/null ||
    missing=$((missing + 1))
done
[ "$missing" = 0 ] || fail "$missing of $namespaces namespaces have no rule in the kernel"
iptables -S ACLAGENT-INPUT 2> /dev/null | grep '^-A ACLAGENT-INPUT' > /dev/null ||
  fail "the agent's own namespace has no rule in the kernel"
echo "descriptors open with $namespaces namespaces followed: $(ls "/proc/$agent_pid/fd" | wc -l)"

signal_agent TERM
[ "$agent_exit" = 0 ] || fail "the agent did not exit 0 but $agent_exit on SIGTERM"

# --- a hard limit too low for every namespace: the namespaces past what it
# leaves room for are reported, each once, and not followed; every VRF that
# is followed, default included, is in place, and no write lacks descriptors
start_agent "--nofile=100:100" -- "$real_agent" --backend "$kind" --live --apply --gateway-setting 5353 \
  --resync 3600
await_ready "the agent at a hard limit of 100"
ask "show applied"
known=$(grep -c '^applied ' "$work/answer")
in_place=$(grep -c 'state=ok rules=1 ' "$work/answer")
refused=$(grep -c ': not followed: ' "$work/agent.err")
[ "$known" -gt 1 ] && [ "$in_place" = "$known" ] ||
  fail "at a hard limit of 100, $in_place of $known VRFs known are in place"
[ $((known - 1 + refused)) = "$namespaces" ] ||
  fail "$((known - 1)) namespaces followed and $refused refused, of $namespaces"
grep -q 'Too many open files\|cannot make a pipe\|cannot make a memory file' "$work/agent.err" &&
  fail "the agent ran out of descriptors: $(grep -m 3 'Too many\|cannot make' "$work/agent.err")"
echo "at a hard limit of 100: $((known - 1)) namespaces followed, $refused refused"

# Namespaces followed that go make room: as many refused ones are followed
# now, and get their rule.
gone=5
followed=$(grep -o '^applied vrf="ns[0-9]*"' "$work/answer" | grep -o 'ns[0-9]*' | head -n $gone)
for name in $followed; do ip netns del "$name"; done
end=$((SECONDS + deadline))
while [ "$(grep -c ': followed now: ' "$work/agent.err")" -lt $gone ]; do
  [ "$SECONDS" -lt "$end" ] || give_up "no refused namespace was taken up within ${deadline}s"
  sleep 0.1
done
taken=$(grep ': followed now: ' "$work/agent.err" | grep -o 'vrf "ns[0-9]*"' | grep -o 'ns[0-9]*')
for name in $taken; do
  end=$((SECONDS + deadline))
  until ip netns exec "$name" iptables -S ACLAGENT-INPUT 2> /dev/null | grep 'dport 5353' > /dev/null; do
    [ "$SECONDS" -lt "$end" ] || { fail "namespace $name was taken up but has no rule"; break; }
    sleep 0.1
  done
done
signal_agent TERM
[ "$agent_exit" = 0 ] || fail "the agent did not exit 0 but $agent_exit on SIGTERM"
finish
