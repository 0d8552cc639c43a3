#!/usr/bin/env bash
# acl-agent --apply against the real kernel: VRF namespaces joined to the
# test's namespace by veth pairs, INPUT policy DROP in each, and real
# multicast datagrams to 224.0.0.251:5353 that must arrive while the rule
# stands and must not once it is withdrawn. Rules that others put in place
# must survive every write, repair and removal byte for byte.
#
#   apply-kernel-test.sh ACL_AGENT MCAST_PROBE nft|iptables
#
# The agent writes with the backend given; the restart is made with the
# other one, which must find everything in place and write nothing.
#
# Runs as root in a private mount and network namespace with its own /run,
# so it never touches the machine's own namespaces or rules; exits 77
# (skipped) with the reason where that cannot be had.
set -uo pipefail
agent=$1 probe=$2
source "$(dirname "$0")/../kernel/kernel-test-lib.sh"
enter_private_namespace "$0" "$@"
use_backend "${3:-iptables}"

owned=ACLAGENT-INPUT

# vrf_namespace (kernel-test-lib.sh) with "v-NAME" up there, INPUT policy
# DROP there, and rules of someone else's in place.
guarded_namespace() {
  vrf_namespace "$@" && ip -n "$1" link set "v-$1" up
  ip netns exec "$1" iptables-restore --noflush << 'RULES'
*filter
:INPUT DROP [0:0]
:SOMEONE-ELSE - [0:0]
-A INPUT -p icmp -j ACCEPT
-A INPUT -j SOMEONE-ELSE
-A SOMEONE-ELSE -p tcp --dport 22 -j ACCEPT
COMMIT
RULES
}

# What stands in NAME's filter table that is not ours, without counters.
foreign_rules() {
  ip netns exec "$1" iptables-save -t filter | grep -v "^#" | grep -v "$owned" |
    sed 's/\[[0-9]*:[0-9]*\]//'
}

expect_applied() {
  local what=$1 expected=$2 got
  ask "show applied"
  got=$(grep "vrf=\"$what\"" "$work/answer")
  [[ "$got" == *"$expected"* ]] || fail "show applied for $what: expected [$expected] in [$got]"
}

guarded_namespace red 1
before=$(foreign_rules red)

# --- the rule stands while the link is up, and only then
start_agent -i --apply --resync 3600
ask "vrf add global red" "intf set v-red red" "link set v-red 1" "load" "settle"
[ "$(datagrams_into red)" = 3 ] || fail "datagrams did not arrive while the rule stands"
expect_applied red "netns=\"red\" state=ok rules=1 writes=1 repairs=0 backend=$backend"
first=$(ip netns exec red iptables -S INPUT | sed -n 2p)
[ "$first" = "-A INPUT -j $owned" ] || fail "the jump is not first in INPUT: [$first]"

# A refresh that changes nothing writes nothing.
ask "intf set spare red" "advance 20ms" "settle"
expect_applied red "writes=1 repairs=0"

ask "link set v-red 0" "advance 10ms" "settle"
[ "$(datagrams_into red)" = 0 ] || fail "datagrams arrived after the rule was withdrawn"
ip netns exec red iptables -S "$owned" > /dev/null 2>&1 && fail "the owned chain stayed without rules"
expect_applied red "state=ok rules=0 writes=2"

# --- drift: each kind is repaired by one write at the next resync
ask "link set v-red 1" "advance 10ms" "settle"
drifts=("iptables -F $owned" "iptables -D INPUT -j $owned"
        "iptables -I INPUT 1 -p tcp --dport 7 -j ACCEPT"
        "iptables -A $owned -p tcp --dport 8 -j ACCEPT")
# An edit made with nft, where iptables is the nf_tables variant.
if iptables --version | grep nf_tables > /dev/null && command -v nft > /dev/null; then
  drifts+=("nft flush chain ip filter $owned")
fi
writes=3
for drift in "${drifts[@]}"; do
  ip netns exec red $drift
  ask "resync" "settle"
  writes=$((writes + 1))
  expect_applied red "writes=$writes"
  [ "$(datagrams_into red)" = 3 ] || fail "not repaired after: $drift"
done
ip netns exec red iptables -D INPUT -p tcp --dport 7 -j ACCEPT

# --- a namespace that appears late
ask "vrf add global blue" "intf set v-blue blue" "link set v-blue 1" "advance 10ms" "settle"
expect_applied blue 'state=waiting rules=1 writes=0 repairs=0 error="no namespace"'
guarded_namespace blue 2
ask "resync" "settle"
expect_applied blue "state=ok rules=1"
[ "$(datagrams_into blue)" = 3 ] || fail "datagrams did not arrive in the late namespace"

stop_agent
[ "$agent_exit" = 0 ] || fail "the agent did not exit 0 but $agent_exit: $(cat "$work/agent.err")"
[ "$(datagrams_into red)" = 3 ] || fail "the rules did not stay in place after the agent ended"

# --- a restart with the same state writes nothing, with either backend
use_backend "$other_backend"
start_agent -i --apply --resync 3600
ask "vrf add global red" "vrf add global blue" "intf set v-red red" "intf set v-blue blue" \
    "link set v-red 1" "link set v-blue 1" "load" "settle"
expect_applied red "state=ok rules=1 writes=0"
expect_applied blue "state=ok rules=1 writes=0 repairs=0 backend=$backend"
stop_agent
use_backend "$other_backend"

# --- removal, and someone else's rules byte for byte
run_agent --remove-applied || fail "--remove-applied failed"
for name in red blue; do
  ip netns exec "$name" iptables-save | grep "$owned" > /dev/null && fail "$name still holds $owned"
done
[ "$(foreign_rules red)" = "$before" ] || fail "someone else's rules changed in red:
$(diff <(echo "$before") <(foreign_rules red))"
[ "$(datagrams_into red)" = 0 ] || fail "datagrams arrived after removal"

finish
