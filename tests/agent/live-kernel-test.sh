#!/usr/bin/env bash
# acl-agent --live --apply against the real kernel: links brought up and
# down, renamed out of and into the --mdns-intf globs, moved between
# namespaces, namespaces added and deleted; the state database follows, and
# real multicast datagrams arrive exactly while the rule stands.
#
#   live-kernel-test.sh ACL_AGENT MCAST_PROBE
#
# Runs as root in a private mount and network namespace with its own /run;
# exits 77 (skipped) with the reason where that cannot be had.
set -uo pipefail
agent=$1 probe=$2

if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
  [ "$(id -u)" = 0 ] || { echo "skipped: needs root for network namespaces and iptables"; exit 77; }
  for tool in unshare ip iptables-restore iptables-save; do
    command -v "$tool" > /dev/null || { echo "skipped: $tool is not installed"; exit 77; }
  done
  unshare -m -n true 2> /dev/null || { echo "skipped: cannot make private namespaces here"; exit 77; }
  ACL_PRIVATE_NAMESPACE=1 exec unshare -m -n -- bash "$0" "$@"
fi

mount -t tmpfs tmpfs /run && mkdir -p /run/netns || { echo "skipped: cannot mount a private /run"; exit 77; }
ip link set lo up
if ! iptables-save > /dev/null 2>&1; then echo "skipped: iptables cannot run here"; exit 77; fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# Namespace NAME joined to ours by "h-NAME" here and "v-NAME" there (left
# down), with INPUT policy DROP there.
vrf_namespace() {
  local name=$1 n=$2
  ip netns add "$name"
  ip link add "h-$name" type veth peer name "v-$name"
  ip link set "v-$name" netns "$name"
  ip addr add "10.78.$n.1/24" dev "h-$name" && ip link set "h-$name" up
  ip -n "$name" addr add "10.78.$n.2/24" dev "v-$name" && ip -n "$name" link set lo up
  ip netns exec "$name" iptables -P INPUT DROP
}

# How many of three datagrams sent into NAME through INTF arrived.
datagrams_into() {
  local name=$1 intf=${2:-v-$1}
  ip netns exec "$name" "$probe" receive 224.0.0.251 5353 "$intf" 600 > "$work/received" &
  local receiver=$!
  for _ in $(seq 50); do grep -q listening "$work/received" 2> /dev/null && break; sleep 0.02; done
  "$probe" send 224.0.0.251 5353 "h-$name" 3
  wait "$receiver"
  sed -n 's/^received //p' "$work/received"
}

# The agent; `ask` sends commands and keeps what they printed in
# $work/answer, `await` asks again until a line matches (the kernel's news
# and the refresh take a moment).
coproc AGENT { exec "$agent" --live --apply --mdns-intf 'v-*' --resync 3600 2> "$work/agent.err"; }
agent_pid=$AGENT_PID
IFS= read -r -t 20 -u "${AGENT[0]}" first
[ "$first" = ready ] || { echo "FAIL: the agent did not say ready: $first $(cat "$work/agent.err")"; exit 1; }
ask() {
  for command in "$@"; do echo "$command" >&"${AGENT[1]}"; done
  echo "echo --end--" >&"${AGENT[1]}"
  local line
  : > "$work/answer"
  while IFS= read -r -u "${AGENT[0]}" line; do
    [ "$line" = "--end--" ] && break
    echo "$line" >> "$work/answer"
  done
}
await() {
  local command=$1 pattern=$2 absent=${3:-}
  for _ in $(seq 100); do
    ask "$command"
    if [ -z "$absent" ]; then grep -q -- "$pattern" "$work/answer" && return 0
    else grep -q -- "$pattern" "$work/answer" || return 0; fi
    sleep 0.03
  done
  fail "after $command: expected ${absent:+no }[$pattern] in: $(cat "$work/answer")"
}

red_rule='rule ipt=0 acl=0 vrf="red" dir=0 chain="INPUT" owner="McastDnsAclPlugin" seq=0'

# --- a link comes up, and goes down
vrf_namespace red 1
await "show state" 'intf set "red/v-red" "red"'
await "show state" 'link set "red/v-red"#0 0'
ip -n red link set v-red up
await "show rules" "$red_rule"
await "show applied" 'vrf="red" netns="red" state=ok rules=1'
[ "$(datagrams_into red)" = 3 ] || fail "datagrams did not arrive while the link is up"
ip -n red link set v-red down
await "show rules" "$red_rule" absent
await "show applied" 'vrf="red" netns="red" state=ok rules=0'
[ "$(datagrams_into red)" = 0 ] || fail "datagrams arrived after the link went down"

# --- renamed out of the globs and back into them
ip -n red link set v-red name x-red
ip -n red link set x-red up
await "show state" 'link set "red/x-red"#0 0'
await "show state" '"red/v-red"' absent
await "show rules" "$red_rule" absent
ip -n red link set x-red down
ip -n red link set x-red name v-red
ip -n red link set v-red up
await "show rules" "$red_rule"
[ "$(datagrams_into red)" = 3 ] || fail "datagrams did not arrive after the rename back"

# --- an interface moved into another namespace follows it
ip link add v-move type veth peer name h-move
await "show state" 'intf set "v-move" "default"'
ip netns add blue
await "show state" 'vrf add global "blue"'
ip link set v-move netns blue
await "show state" 'intf set "blue/v-move" "blue"'
await "show state" 'intf set "v-move"' absent
ip -n blue link set v-move up
ip link set h-move up
await "show rules" 'vrf="blue"'

# --- a namespace that goes takes its VRF, interfaces and links with it
ip netns del blue
await "show state" '"blue' absent

# --- publishing what the kernel owns is refused
ask "link set v-red 0"
grep -q "kernel owns" "$work/agent.err" || fail "link set was not refused in live mode"

# --- SIGTERM ends it with status 0; the rules stay
kill -TERM "$agent_pid"
wait "$agent_pid"
status=$?
[ "$status" = 0 ] || fail "the agent exited $status on SIGTERM"
[ "$(datagrams_into red)" = 3 ] || fail "the rules did not stay after the agent ended"

if [ $failures -ne 0 ]; then
  echo "agent's standard error:"; cat "$work/agent.err"
  echo "$failures check(s) failed"; exit 1
fi
echo "all checks passed"
