# Shared by the real-kernel tests of acl-agent; sourced, not run.
#
#   source kernel-test-lib.sh
#   enter_private_namespace "$0" "$@"   # re-runs the test as root in private namespaces, or skips
#   use_backend nft|iptables             # every agent started runs with --backend that
#   start_agent ARGS...                  # acl-agent in the background; `ask` drives it
#
# The test runs in a private mount and network namespace with its own /run,
# so it never touches the machine's own namespaces or rules; where that
# cannot be had it exits 77 (skipped) with the reason.
#
# Every wait has a deadline of ACL_TEST_DEADLINE seconds (30 by default):
# these tests run on loaded machines, where a sanitizer build of the agent or
# of the probe can take seconds to start or to answer. A wait blocks on the
# event it waits for (a line read with a timeout) where there is one; a wait
# that runs out fails with what was last seen.

deadline=${ACL_TEST_DEADLINE:-30}
[[ "$deadline" =~ ^[1-9][0-9]*$ ]] ||
  { echo "ACL_TEST_DEADLINE must be a whole number of seconds, not [$deadline]"; exit 2; }

skip() {
  echo "skipped: $*"
  exit 77
}

# Re-runs the calling script (SCRIPT ARGS...) as root inside private mount
# and network namespaces, noting the outer network namespace in
# ACL_OUTER_NETNS, and once inside gives it its own /run with lo up; skips
# unless the tools named in TOOLS (a space-separated list) are installed.
enter_namespaces() {
  local tools=$1
  shift
  if [ "${ACL_PRIVATE_NAMESPACE:-}" != 1 ]; then
    [ "$(id -u)" = 0 ] || skip "needs root for network namespaces and the kernel's tables"
    for tool in unshare mount ip $tools; do
      command -v "$tool" > /dev/null || skip "$tool is not installed"
    done
    unshare -m -n true 2> /dev/null || skip "cannot make private namespaces here"
    ACL_OUTER_NETNS=$(readlink /proc/self/ns/net) ACL_PRIVATE_NAMESPACE=1 \
      exec unshare -m -n -- bash "$@"
  fi
  mount -t tmpfs tmpfs /run && mkdir -p /run/netns || skip "cannot mount a private /run"
  ip link set lo up
}

# Re-runs the calling script inside the private namespaces, or exits 77.
enter_private_namespace() {
  enter_namespaces "iptables-restore iptables-save" "$@"
  iptables-save > /dev/null 2>&1 || skip "iptables cannot run here"
  work=$(mktemp -d)
  trap end_test EXIT
  failures=0
}

# Every agent the test starts (start_agent, run_agent) runs with
# `--backend BACKEND`; skips where nf_tables cannot be had for nft. Sets
# $backend, and $other_backend to the other one.
use_backend() {
  case $1 in
    nft) other_backend=iptables
         nft list ruleset > /dev/null 2>&1 || { echo "skipped: the kernel has no nf_tables here"; exit 77; } ;;
    iptables) other_backend=nft ;;
    *) echo "unknown backend [$1]"; exit 2 ;;
  esac
  backend=$1
}

# acl-agent run to the end, with the backend chosen.
run_agent() {
  "$agent" ${backend:+--backend "$backend"} "$@"
}

# On the way out, however the test ends: an agent still running is stopped
# (a live one would outlive the test otherwise), and the files go.
end_test() {
  if [ -n "${agent_pid:-}" ]; then
    kill -KILL "$agent_pid" 2> /dev/null
    wait "$agent_pid" 2> /dev/null
  fi
  rm -rf "$work"
}

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# Ends the test at once: for a wait on the agent that ran out, after which
# whatever it prints could no longer be told apart from the answers.
give_up() {
  echo "FAIL: $*"
  echo "the agent's last answer:"
  cat "$work/answer" 2> /dev/null
  echo "agent's standard error:"
  cat "$work/agent.err" 2> /dev/null
  exit 1
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

# Namespace NAME joined to ours by "h-NAME" (10.78.N.1, up) here and
# "v-NAME" (10.78.N.2, left down) there, with lo up there.
vrf_namespace() {
  local name=$1 n=$2
  ip netns add "$name"
  ip link add "h-$name" type veth peer name "v-$name"
  ip link set "v-$name" netns "$name"
  ip addr add "10.78.$n.1/24" dev "h-$name" && ip link set "h-$name" up
  ip -n "$name" addr add "10.78.$n.2/24" dev "v-$name" && ip -n "$name" link set lo up
}

# Reads one line from descriptor FD into the variable named VAR, waiting
# until END (a time on $SECONDS) at the latest. Returns 0 for a line, 1 at
# the end of the input, 2 when END came first.
read_until() {
  local read_fd=$1 read_var=$2 read_left=$(($3 - SECONDS)) read_status
  [ "$read_left" -gt 0 ] || return 2
  IFS= read -r -t "$read_left" -u "$read_fd" "$read_var"
  read_status=$?
  [ "$read_status" = 0 ] && return 0
  [ "$read_status" -gt 128 ] && return 2
  return 1
}

# How many of three datagrams sent to 224.0.0.251:5353 from "h-NAME" here
# arrived at INTF (default "v-NAME") in namespace NAME; nothing, and the
# reason on standard error, when the receiver did not answer. Needs $probe.
# The receiver's standard input and output are FIFOs held here as
# descriptors 5 and 6: it says when it listens, and stops counting when it
# has all three or a second after descriptor 5 closes (the sending is done),
# the time datagrams still in the kernel get to arrive.
datagrams_into() {
  local name=$1 intf=${2:-v-$1} end=$((SECONDS + deadline)) line=
  rm -f "$work/probe.in" "$work/probe.out"
  mkfifo "$work/probe.in" "$work/probe.out"
  ip netns exec "$name" "$probe" receive 224.0.0.251 5353 "$intf" 3 1000 \
    < "$work/probe.in" > "$work/probe.out" &
  local receiver=$!
  # Opening a FIFO waits for its other end: the same order on both sides.
  exec 5> "$work/probe.in" 6< "$work/probe.out"
  if ! read_until 6 line "$end" || [ "$line" != listening ]; then
    echo "the receiver in $name ended, or did not listen within ${deadline}s: [$line]" >&2
    exec 5>&- 6<&-
    kill -KILL "$receiver" 2> /dev/null
    wait "$receiver"
    return
  fi
  "$probe" send 224.0.0.251 5353 "h-$name" 3
  exec 5>&-
  if ! read_until 6 line "$end"; then
    echo "the receiver in $name ended, or did not count within ${deadline}s: [$line]" >&2
    line=
    kill -KILL "$receiver" 2> /dev/null
  fi
  exec 6<&-
  wait "$receiver"
  echo "${line#received }"
}

# acl-agent ARGS in the background, so that $agent_pid is the agent's own
# process id. Its standard input and output are FIFOs held here as
# descriptors 7 (to it) and 8 (from it); its standard error goes to
# $work/agent.err. Needs $agent.
start_agent() {
  rm -f "$work/agent.in" "$work/agent.out"
  mkfifo "$work/agent.in" "$work/agent.out"
  "$agent" ${backend:+--backend "$backend"} "$@" < "$work/agent.in" > "$work/agent.out" \
    2> "$work/agent.err" &
  agent_pid=$!
  exec 7> "$work/agent.in" 8< "$work/agent.out"
}

# Waits for the agent's first line, "ready"; without it the test ends,
# saying that WHO (the agent by default) ended or did not say it in time.
await_ready() {
  local who=${1:-the agent ended, or} first=
  read_until 8 first $((SECONDS + deadline)) && [ "$first" = ready ] ||
    give_up "$who did not say ready within ${deadline}s: [$first]"
}

# Sends the commands and keeps what they printed in $work/answer. An agent
# that has ended, or that does not answer within the deadline, ends the test.
ask() {
  local end=$((SECONDS + deadline)) line status
  # From a subshell, so that writing to an agent that has ended costs that
  # subshell a SIGPIPE and not this shell. Commands that fill the FIFO wait
  # for the agent to read them, which it does as it runs them.
  if ! (printf '%s\n' "$@" "echo --end--" >&7) 2> /dev/null; then
    await_agent_end
    give_up "the agent had ended with status $agent_exit; it was asked: $*"
  fi
  : > "$work/answer"
  while true; do
    read_until 8 line "$end"
    status=$?
    if [ "$status" = 1 ]; then
      await_agent_end
      give_up "the agent ended with status $agent_exit while it was asked: $*"
    fi
    [ "$status" = 2 ] && give_up "the agent did not answer within ${deadline}s: $*"
    [ "$line" = "--end--" ] && return 0
    echo "$line" >> "$work/answer"
  done
}

# Waits until the agent has ended (its standard output has), reading past
# what it still prints, and keeps its exit status in $agent_exit.
await_agent_end() {
  local end=$((SECONDS + deadline)) line status=0
  while [ "$status" = 0 ]; do
    read_until 8 line "$end"
    status=$?
  done
  exec 7>&- 8<&-
  if [ "$status" = 2 ]; then
    kill -KILL "$agent_pid"
    wait "$agent_pid"
    agent_pid=
    give_up "the agent did not end within ${deadline}s"
  fi
  wait "$agent_pid"
  agent_exit=$?
  agent_pid=
}

# Sends SIGNAL to the agent and waits for it to end.
signal_agent() {
  kill "-$1" "$agent_pid"
  await_agent_end
}

# Closes the agent's standard input and waits for it to end.
stop_agent() {
  exec 7>&-
  await_agent_end
}
