# Shared by the real-kernel tests of acl-agent; sourced, not run.
#
#   source kernel-test-lib.sh
#   enter_private_namespace "$0" "$@"   # re-runs the test as root in private namespaces, or skips
#   start_agent ARGS...                  # acl-agent as a coprocess; `ask` drives it
#
# The test runs in a private mount and network namespace with its own /run,
# so it never touches the machine's own namespaces or rules; where that
# cannot be had it exits 77 (skipped) with the reason.

# Re-runs the calling script inside the private namespaces, or exits 77.
enter_private_namespace() {
  if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
    [ "$(id -u)" = 0 ] || { echo "skipped: needs root for network namespaces and iptables"; exit 77; }
    for tool in unshare ip iptables-restore iptables-save; do
      command -v "$tool" > /dev/null || { echo "skipped: $tool is not installed"; exit 77; }
    done
    unshare -m -n true 2> /dev/null || { echo "skipped: cannot make private namespaces here"; exit 77; }
    ACL_PRIVATE_NAMESPACE=1 exec unshare -m -n -- bash "$@"
  fi
  mount -t tmpfs tmpfs /run && mkdir -p /run/netns ||
    { echo "skipped: cannot mount a private /run"; exit 77; }
  ip link set lo up
  iptables-save > /dev/null 2>&1 || { echo "skipped: iptables cannot run here"; exit 77; }
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  failures=0
}

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# Ends the test: its status, and the agent's standard error when it failed.
finish() {
  if [ "$failures" -ne 0 ]; then
    echo "agent's standard error:"
    cat "$work/agent.err" 2> /dev/null
    echo "$failures check(s) failed"
    exit 1
  fi
  echo "all checks passed"
}

# How many of three datagrams sent to 224.0.0.251:5353 from "h-NAME" here
# arrived at INTF (default "v-NAME") in namespace NAME. Needs $probe. The
# waits are generous: on a loaded machine the sanitizer builds of the probe
# take a good part of a second to start.
datagrams_into() {
  local name=$1 intf=${2:-v-$1}
  ip netns exec "$name" "$probe" receive 224.0.0.251 5353 "$intf" 1500 > "$work/received" &
  local receiver=$!
  for _ in $(seq 500); do grep -q listening "$work/received" 2> /dev/null && break; sleep 0.02; done
  "$probe" send 224.0.0.251 5353 "h-$name" 3
  wait "$receiver"
  sed -n 's/^received //p' "$work/received"
}

# acl-agent ARGS as a coprocess; its standard error goes to $work/agent.err
# and its exit status to $work/agent.exit. Needs $agent.
start_agent() {
  coproc AGENT { "$agent" "$@" 2> "$work/agent.err"; echo "exit $?" > "$work/agent.exit"; }
  agent_pid=$AGENT_PID
}

# Sends SIGNAL to the agent itself (not the coprocess around it) and waits
# for it to end.
signal_agent() {
  local pid=$agent_pid
  pkill "-$1" -P "$pid" -x "$(basename "$agent")"
  wait "$pid" 2> /dev/null
}

# Sends the commands and keeps what they printed in $work/answer (the
# coprocess's pipes do not reach a subshell, so nothing is printed).
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

# Closes the agent's standard input and waits for it to end.
stop_agent() {
  local pid=$agent_pid
  exec {AGENT[1]}>&-
  wait "$pid" 2> /dev/null
}
