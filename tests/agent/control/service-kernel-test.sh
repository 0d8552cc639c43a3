#!/usr/bin/env bash
# acl-agent as a service against the real kernel: started from a
# configuration file, asked through its control socket by `acl-agent ctl`
# (alone, twenty at once, and beside clients that send garbage, a 10 MB
# line, half a line, or never read), reloaded at SIGHUP, and telling a
# notification socket the test owns what the service manager would hear.
#
#   service-kernel-test.sh ACL_AGENT MCAST_PROBE
#
# Runs as root in a private mount and network namespace with its own /run;
# exits 77 (skipped) with the reason where that cannot be had.
set -uo pipefail
agent=$1 probe=$2
source "$(dirname "$0")/../kernel/kernel-test-lib.sh"
command -v python3 > /dev/null || { echo "skipped: python3 plays the clients"; exit 77; }
enter_private_namespace "$0" "$@"

vrf_namespace red 1
ip netns exec red iptables -P INPUT DROP

# The service manager's notification socket: each datagram one line of
# $work/notify, its lines joined by "|".
notify_name="acl-notify-$$"
python3 -c '
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("\0" + sys.argv[1])
out = open(sys.argv[2], "w", buffering=1)
out.write("listening\n")
while True:
    out.write(s.recv(65536).decode().replace("\n", "|") + "\n")
' "$notify_name" "$work/notify" &
notify_pid=$!
trap 'kill $notify_pid ${abuse_pid:-} 2> /dev/null; end_test' EXIT

# Waits until a line of FILE matches PATTERN.
await_line() {
  local file=$1 pattern=$2 end=$((SECONDS + deadline))
  until grep -q -- "$pattern" "$file" 2> /dev/null; do
    [ "$SECONDS" -lt "$end" ] || { fail "no line [$pattern] in $file within ${deadline}s: $(cat "$file")"; return 1; }
    sleep 0.05
  done
}
await_line "$work/notify" '^listening$'

# Runs `acl-agent ctl` with the test's socket; output in $work/ctl.out and
# .err, status in $ctl_status.
ctl() {
  "$agent" ctl --control "$work/run/control" "$@" > "$work/ctl.out" 2> "$work/ctl.err"
  ctl_status=$?
}
# Asks WORDS again until the answer matches PATTERN.
await_ctl() {
  local pattern=$1 end=$((SECONDS + deadline))
  shift
  while true; do
    ctl "$@"
    grep -q -- "$pattern" "$work/ctl.out" && return 0
    [ "$SECONDS" -lt "$end" ] || break
    sleep 0.05
  done
  fail "after ctl $*: expected [$pattern] within ${deadline}s in: $(cat "$work/ctl.out" "$work/ctl.err")"
}
default_has_rule() { iptables-save -t filter | grep -- '--dport 8853' > /dev/null; }
await_default() {
  local want=$1 end=$((SECONDS + deadline))
  until { default_has_rule && [ "$want" = yes ]; } || { ! default_has_rule && [ "$want" = no ]; }; do
    [ "$SECONDS" -lt "$end" ] || { fail "the gateway rule in default is not [$want]: $(iptables-save -t filter)"; return; }
    sleep 0.05
  done
}

conf=$work/acl-agent.conf
cat > "$conf" << 'CONF'
# as the package's service runs it
live
apply
mdns-intf "v-*"
resync 3600
CONF
# Standard error is the journal's stream, as the service manager says.
: > "$work/agent.err"
export JOURNAL_STREAM=$(stat -c '%d:%i' "$work/agent.err")
export NOTIFY_SOCKET="@$notify_name" WATCHDOG_USEC=400000 RUNTIME_DIRECTORY=$work/run
start_agent --config "$conf"
unset JOURNAL_STREAM NOTIFY_SOCKET WATCHDOG_USEC RUNTIME_DIRECTORY
await_ready

# --- readiness, status and the watchdog
await_line "$work/notify" '^READY=1$'
await_line "$work/notify" '^STATUS=.* VRFs in place'
end=$((SECONDS + deadline))
until [ "$(grep -c '^WATCHDOG=1$' "$work/notify")" -ge 3 ]; do
  [ "$SECONDS" -lt "$end" ] || { fail "WATCHDOG=1 did not come three times"; break; }
  sleep 0.1
done
[ "$(stat -c '%a' "$work/run/control")" = 660 ] || fail "the control socket is not mode 0660"

# --- ctl: show applied, resync, a config change that reaches the kernel
ip -n red link set v-red up
await_ctl 'vrf="red" netns="red" state=ok rules=1' show applied
[ "$ctl_status" = 0 ] || fail "ctl show applied exited $ctl_status"
ctl resync
[ "$ctl_status" = 0 ] && [ ! -s "$work/ctl.out" ] || fail "ctl resync: $ctl_status $(cat "$work/ctl.out")"
await_default no
ctl config gateway-setting 5353
ctl config gateway-enabled true
await_default yes
ctl config gateway-enabled false
await_default no
# The same answer on standard input of ctl, line by line.
printf 'echo one\nshow applied\n' | "$agent" ctl --control "$work/run/control" > "$work/ctl.out"
[ "$(head -1 "$work/ctl.out")" = one ] && grep -q 'vrf="red"' "$work/ctl.out" ||
  fail "ctl on standard input printed: $(cat "$work/ctl.out")"

# --- what the kernel owns is refused, as on standard input
ctl link set v-red 0
[ "$ctl_status" = 1 ] || fail "ctl link set exited $ctl_status, not 1"
grep -q '^acl-agent ctl: error: link set is refused: in live mode the kernel owns' "$work/ctl.err" ||
  fail "ctl link set said: $(cat "$work/ctl.err")"
"$agent" ctl --control "$work/nothing" show applied 2> /dev/null
[ $? = 2 ] || fail "ctl with no agent at the path did not exit 2"

# --- twenty clients at once
for i in $(seq 20); do
  "$agent" ctl --control "$work/run/control" show applied > "$work/many.$i" 2>&1 &
  pids+=($!)
done
for i in $(seq 20); do
  wait "${pids[$((i - 1))]}" || fail "client $i of 20 failed"
  grep -q 'vrf="red" netns="red" state=ok' "$work/many.$i" || fail "client $i printed $(cat "$work/many.$i")"
done

# --- clients that misbehave, all at once and held open: the others are
# still answered, and the rules stay
python3 -c '
import socket, sys, time
def client():
    c = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    c.connect(sys.argv[1])
    return c
garbage = client()
garbage.sendall(b"\x00\xff\x1b[31m garbage \"unterminated\n\x80\x81\n")
huge = client()
huge.sendall(b"x" * (10 << 20))   # no end: the agent answers and drops it
half = client()
half.sendall(b"show appl")
deaf = client()
deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
deaf.setblocking(False)
try:
    for _ in range(20000):
        deaf.send(b"show state\n")
except BlockingIOError:
    pass
answers = b""
while answers.count(b"\n") < 2:
    answers += garbage.recv(65536)
print("garbage:", answers.decode("ascii", "replace").replace("\n", "|"), flush=True)
huge.settimeout(30)
print("huge:", huge.recv(100).decode().replace("\n", "|"), flush=True)
print("set", flush=True)
time.sleep(3600)
' "$work/run/control" > "$work/abuse" 2>&1 &
abuse_pid=$!
await_line "$work/abuse" '^set$'
grep -q '^garbage: 1 0 [0-9]*|unknown command' "$work/abuse" || fail "garbage got: $(cat "$work/abuse")"
grep -q '^huge: 1 0 [0-9]*|line longer than 65536 bytes' "$work/abuse" || fail "the 10 MB line got: $(cat "$work/abuse")"
ctl show applied
grep -q 'vrf="red" netns="red" state=ok rules=1' "$work/ctl.out" || fail "beside the bad clients: $(cat "$work/ctl.out")"
[ "$(datagrams_into red)" = 3 ] || fail "the rule did not stand beside the bad clients"
kill "$abuse_pid"; wait "$abuse_pid" 2> /dev/null; abuse_pid=

# --- SIGHUP: a changed gateway reaches the kernel; a broken file changes
# nothing; what needs a restart stays
reloads() { grep -c '^RELOADING=1|MONOTONIC_USEC=[0-9]*$' "$work/notify"; }
echo 'gateway-setting 5353' >> "$conf"
kill -HUP "$agent_pid"
await_default yes
await_line "$work/agent.err" '^<6>acl-agent: reload: configuration changed$'
[ "$(reloads)" = 1 ] || fail "RELOADING=1 was not sent once at the first reload"
[ "$(grep -c '^READY=1$' "$work/notify")" -ge 2 ] || fail "no READY=1 after the reload"
echo 'bogus option' >> "$conf"
sed -i '/gateway-setting/d' "$conf"
kill -HUP "$agent_pid"
await_line "$work/agent.err" "^<3>acl-agent: reload refused, nothing changed: $conf:[0-9]*: error: unknown option \"bogus\"$"
default_has_rule || fail "a broken file at reload took the gateway rule away"
sed -i '/bogus/d' "$conf"
echo 'netns "vrf-%s"' >> "$conf"
kill -HUP "$agent_pid"
await_line "$work/agent.err" '^<4>acl-agent: warning: reload: netns needs a restart; it stays as it was$'
await_default no
await_ctl 'vrf add global "red"' show state

# --- SIGTERM: STOPPING=1, status 0, the rule stays
signal_agent TERM
[ "$agent_exit" = 0 ] || fail "the agent exited $agent_exit at SIGTERM"
await_line "$work/notify" '^STOPPING=1$'
[ -e "$work/run/control" ] && fail "the control socket outlived the agent"
[ "$(datagrams_into red)" = 3 ] || fail "the rule did not stay after the agent ended"

finish
