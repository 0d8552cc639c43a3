#!/usr/bin/env bash
# acl-agent --live --apply against the real kernel: links brought up and
# down, renamed out of and into the --mdns-intf globs, moved between
# namespaces, namespaces added and deleted; the state database follows, and
# real multicast datagrams arrive exactly while the rule stands.
#
#   live-kernel-test.sh ACL_AGENT MCAST_PROBE nft|iptables
#
# Runs as root in a private mount and network namespace with its own /run;
# exits 77 (skipped) with the reason where that cannot be had.
set -uo pipefail
agent=$1 probe=$2
source "$(dirname "$0")/../kernel/kernel-test-lib.sh"
enter_private_namespace "$0" "$@"
use_backend "${3:-iptables}"

# vrf_namespace (kernel-test-lib.sh) with INPUT policy DROP there.
dropping_namespace() {
  vrf_namespace "$@"
  ip netns exec "$1" iptables -P INPUT DROP
}

# The real iptables-save, noting which namespace each read-back is of (the
# iptables backend's read-backs are children; the nft backend's are not).
saves=()
[ "$backend" = iptables ] && saves=(--iptables-save "$work/iptables-save")
cat > "$work/iptables-save" << EOF
#!/bin/sh
echo "\$(ip netns identify)" >> "$work/saves"
exec iptables-save "\$@"
EOF
chmod +x "$work/iptables-save"

# The agent, and its first line; /run/netns does not exist yet, as at boot
# before the first `ip netns add`.
rmdir /run/netns
start_agent --live --apply --mdns-intf 'v-*' --resync 3600 "${saves[@]}"
await_ready

# Asks COMMAND again, a moment apart, until a line of the answer matches
# PATTERN (with a third argument: until none does), since the kernel's news
# and the refresh take a moment; fails with the last answer when that has
# not come within the deadline.
await() {
  local command=$1 pattern=$2 absent=${3:-} end=$((SECONDS + deadline))
  while true; do
    ask "$command"
    if [ -z "$absent" ]; then grep -q -- "$pattern" "$work/answer" && return 0
    else grep -q -- "$pattern" "$work/answer" || return 0; fi
    [ "$SECONDS" -lt "$end" ] || break
    sleep 0.05
  done
  fail "after $command: expected ${absent:+no }[$pattern] within ${deadline}s in: $(cat "$work/answer")"
}

red_rule='rule ipt=0 acl=0 vrf="red" dir=0 chain="INPUT" owner="McastDnsAclPlugin" seq=0'

# --- the first namespace makes /run/netns, which is followed from then on
dropping_namespace red 1
await "show state" 'intf set "red/v-red" "red"'

# --- a namespace that appears is read back alone, not every VRF with it
: > "$work/saves"
ip netns add lone
ip -n lone link add v-la type veth peer name v-lb
ip -n lone link set v-la up && ip -n lone link set v-lb up
await "show applied" 'vrf="lone" netns="lone" state=ok rules=1 '
if [ "$backend" = iptables ]; then
  grep -qx lone "$work/saves" || fail "the new namespace was not read back"
  grep -vx lone "$work/saves" &&
    fail "a new namespace made the agent read other namespaces back (listed above)"
fi
ip netns del lone

# --- a FIFO where a namespace should be is reported, and holds nothing up
mkfifo /run/netns/fifo

# --- a link comes up, and goes down
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

# --- a namespace deleted and made again starts from its own state: the old
# one's rule does not stand in it
dropping_namespace green 2
ip -n green link set v-green up
await "show applied" 'vrf="green" netns="green" state=ok rules=1'
ip netns del green
await "show state" '"green"' absent
ip netns add green
await "show state" 'vrf add global "green"'
ask resync
await "show applied" 'vrf="green" netns="green" state=ok rules=0'
await "show rules" 'vrf="green"' absent
ip netns exec green iptables-save | grep ACLAGENT > /dev/null && fail "the new green holds the old rule"
ip netns del green

# --- namespaces that cannot be VRFs are reported once, quoted, and the agent
# goes on: a name over a VRF name's 100 bytes (holding an escape sequence),
# and the namespace VRF default would have, which is the agent's own
long=$(printf '\e[31m%0150d' 0)
ip netns add "$long"
ip netns add default
ip netns add after
await "show state" 'vrf add global "after"'
long_report='acl-agent: vrf "\x1b[31m00000000000000000000000000000000000"... (155 bytes): a VRF name is at most 100 bytes'
default_report='acl-agent: vrf "default": namespace "default" is not followed'
[ "$(grep -cF "$long_report" "$work/agent.err")" = 1 ] ||
  fail "the namespace with a long name was not reported once as [$long_report]"
[ "$(grep -cF "$default_report" "$work/agent.err")" = 1 ] ||
  fail "the namespace default was not reported once as [$default_report]"
grep -q $'\e' "$work/agent.err" && fail "a namespace name reached standard error raw"
ip netns del "$long" && ip netns del default && ip netns del after

# --- namespaces made while inotify's queue overflowed are found all the same:
# the agent, stopped, misses more events than the queue holds
events=$(cat /proc/sys/fs/inotify/max_queued_events)
if [ "$events" -le 100000 ]; then
  kill -STOP "$agent_pid"
  (cd /run/netns && seq -f 'x%.0f' "$events" | xargs touch && seq -f 'x%.0f' "$events" | xargs rm)
  ip netns add late
  kill -CONT "$agent_pid"
  await "show state" 'vrf add global "late"'
  ip netns del late
  await "show state" '"late"' absent
else
  echo "not checked: inotify's queue holds $events events, too many to overflow here"
fi

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

# (it is tried again for a while first, as a namespace not mounted yet is)
end=$((SECONDS + deadline))
until grep -q 'vrf "fifo": "/run/netns/fifo" is not a namespace file' "$work/agent.err"; do
  [ "$SECONDS" -lt "$end" ] || { fail "the FIFO under /run/netns was not reported"; break; }
  sleep 0.05
done
rm /run/netns/fifo

# --- publishing what the kernel owns is refused
ask "link set v-red 0"
grep -q "kernel owns" "$work/agent.err" || fail "link set was not refused in live mode"

# --- SIGTERM ends it with status 0; the rules stay
signal_agent TERM
[ "$agent_exit" = 0 ] || fail "the agent did not exit 0 but $agent_exit on SIGTERM"
[ "$(datagrams_into red)" = 3 ] || fail "the rules did not stay after the agent ended"

# --- a template naming the VRF twice is read alike live, when applying and
# when removing: VRF gold is namespace gold-gold, and red is no VRF's
dropping_namespace gold-gold 3
start_agent --live --apply --netns '%s-%s' --mdns-intf 'v-*' --resync 3600
await_ready "the agent with --netns %s-%s"
await "show state" 'vrf add global "gold"'
await "show state" 'vrf add global "red"' absent
ip -n gold-gold link set v-gold-gold up
await "show applied" 'vrf="gold" netns="gold-gold" state=ok rules=1'
[ "$(datagrams_into gold-gold)" = 3 ] || fail "datagrams did not arrive in gold-gold"
signal_agent TERM
run_agent --netns '%s-%s' --remove-applied 2>> "$work/agent.err" ||
  fail "--remove-applied with --netns %s-%s failed"
ip netns exec gold-gold iptables-save | grep ACLAGENT > /dev/null && fail "gold-gold kept the agent's chain"
[ "$(datagrams_into red)" = 3 ] || fail "removal reached red, which %s-%s does not name"

finish
