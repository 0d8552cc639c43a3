#!/usr/bin/env bash
# acl-agent's command line as a user meets it: scenarios that cannot be read,
# plugin paths, output that cannot be written and trace options. Each case
# checks the exit status, standard output and standard error.
#
#   command-line-test.sh ACL_AGENT PLUGIN NO_PLUGIN_OBJECT STICKY_PLUGIN
set -uo pipefail
agent=$1 plugin=$2 no_plugin=$3 sticky=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# expect NAME STATUS OUT ERR: compares the last run's results.
expect() {
  local name=$1 status=$2 out=$3 err=$4
  local got_status got_out got_err
  got_status=$(cat "$work/status") got_out=$(cat "$work/out") got_err=$(cat "$work/err")
  if [ "$got_status" != "$status" ] || [ "$got_out" != "$out" ] || [ "$got_err" != "$err" ]; then
    echo "FAIL $name"
    echo "  status: expected $status, got $got_status"
    echo "  out:    expected [$out]"
    echo "          got      [$got_out]"
    echo "  err:    expected [$err]"
    echo "          got      [$got_err]"
    failures=$((failures + 1))
  fi
}

# run ARGS... < stdin: runs the agent with its output captured.
run() {
  "$agent" "$@" > "$work/out" 2> "$work/err"
  echo $? > "$work/status"
}

scenario=$work/rules.scn
printf 'vrf add global red\nintf set e1 red\nlink set e1 1\nload\nsettle\nshow rules\n' > "$scenario"
rule='rule ipt=0 acl=0 vrf="red" dir=0 chain="INPUT" owner="McastDnsAclPlugin" seq=0 rule="-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n"'

# A scenario that is a directory, as a file or as standard input.
mkdir "$work/dir"
run "$work/dir" < /dev/null
expect directory-file 2 "" "acl-agent: cannot read scenario \"$work/dir\": Is a directory"
run < "$work/dir"
expect directory-stdin 2 "" 'acl-agent: cannot read scenario "-": Is a directory'
run <&-
expect stdin-closed 2 "" 'acl-agent: cannot read scenario "-": Bad file descriptor'

# A --plugin value is a file path: a bare name is a file here, not one on the
# dynamic loader's search path.
(cd "$(dirname "$plugin")" && run --plugin "$(basename "$plugin")" "$scenario")
expect plugin-bare-name 0 "$rule" ""
(cd "$work" && run --plugin libc.so.6 "$scenario")
expect plugin-not-here 2 "" 'acl-agent: cannot read plugin "./libc.so.6": No such file or directory'
run --plugin "" "$scenario"
expect plugin-empty 2 "" 'acl-agent: --plugin wants the path of a shared object, got ""'
run --plugin "$work/dir" "$scenario"
expect plugin-directory 2 "" "acl-agent: plugin \"$work/dir\" is a directory"
# Found at start, before any of the scenario runs.
printf 'echo started\nload\n' | run --plugin /nonexistent/plugin.so
expect plugin-missing 2 "" 'acl-agent: cannot read plugin "/nonexistent/plugin.so": No such file or directory'
printf 'echo started\nload\necho after\n' | run --plugin "$no_plugin"
expect plugin-registers-nothing 2 "started" \
  "-:2: error: cannot load plugin $no_plugin: it registers no plugin with the Acl loader"
# An object that cannot be unmapped fails its unload; the run goes on.
printf 'load\nunload\necho after\n' | run --plugin "$sticky"
expect plugin-stays-mapped 1 "after" "-:2: error: plugin $sticky stayed loaded after it was closed"

# Output that cannot be written ends the run with an error.
printf 'echo one\necho two\n' | "$agent" > /dev/full 2> "$work/err"
echo $? > "$work/status"; : > "$work/out"
expect output-full 1 "" "acl-agent: cannot write to standard output: No space left on device"
printf 'echo one\n' | "$agent" >&- 2> "$work/err"
echo $? > "$work/status"
expect output-closed 1 "" "acl-agent: cannot write to standard output: Bad file descriptor"
printf 'load\nsettle\n' | "$agent" >&- 2> "$work/err"
echo $? > "$work/status"
expect output-closed-unused 0 "" ""
# A pipe whose reader has gone (descriptor 5, once the FIFO's only reader
# closed): the write fails and is reported, rather than SIGPIPE ending the
# program unheard; a live agent, whose `ready` is its first write, stops too.
mkfifo "$work/pipe"
exec 4<> "$work/pipe" 5> "$work/pipe" 4<&-
printf 'echo one\n' | "$agent" >&5 2> "$work/err"
echo $? > "$work/status"
expect output-reader-gone 1 "" "acl-agent: cannot write to standard output: Broken pipe"
timeout -s KILL 60 "$agent" --live < /dev/null >&5 2> "$work/err"
live_status=$?
if [ "$live_status" != 1 ] ||
  ! grep -qx "acl-agent: cannot write to standard output: Broken pipe" "$work/err"; then
  echo "FAIL live-output-reader-gone: status $live_status (expected 1), err [$(cat "$work/err")]"
  failures=$((failures + 1))
fi
exec 5>&-

# -i runs standard input line by line even from a pipe: a line that does not
# parse is reported and the session goes on. --live reads no scenario file.
printf 'echo one\nlnk\necho two\n' | run -i
expect interactive-goes-on 0 "$(printf 'one\ntwo')" '-:2: error: unknown command "lnk"'
# A live agent with standard input closed says once that it reads no
# commands, and goes on until a signal.
mkfifo "$work/live.out"
"$agent" --live <&- > "$work/live.out" 2> "$work/err" &
live_pid=$!
exec 6< "$work/live.out"
read -r -t 30 -u 6 first_line
end=$((SECONDS + 30))
until grep -q "commands are not read" "$work/err" || [ "$SECONDS" -ge "$end" ]; do sleep 0.05; done
kill -TERM "$live_pid"
wait "$live_pid"
live_status=$?
exec 6<&-
if [ "$first_line" != ready ] || [ "$live_status" != 0 ] ||
  [ "$(grep -c "standard input\|scenario" "$work/err")" != 1 ] ||
  ! grep -qx "acl-agent: commands are not read: standard input is closed" "$work/err"; then
  echo "FAIL live-stdin-closed: first line [$first_line], status $live_status, err [$(cat "$work/err")]"
  failures=$((failures + 1))
fi
run --live "$scenario"
expect live-takes-no-file 2 "" "acl-agent: --live reads its commands from standard input, not from \"$scenario\"
usage: acl-agent [OPTIONS] [SCENARIO ...] (--help lists them)"

# Trace options: a bad level list is a usage error; a handle that nothing
# made is reported when the run ends.
run --trace McastDnsAclPlugin/0, "$scenario"
expect trace-empty-level 2 "" 'acl-agent: --trace: bad level "" in "McastDnsAclPlugin/0," (levels are 0 to 15, e.g. 0,8 or 0-15)
usage: acl-agent [OPTIONS] [SCENARIO ...] (--help lists them)'

# --help lists every option, on standard output, and exits 0.
run --help
for option in --plugin --trace --realtime --apply --netns --resync --live --help --version; do
  if ! grep -q -- "^  $option" "$work/out" || [ "$(cat "$work/status")" != 0 ]; then
    echo "FAIL help: $option is not listed"
    failures=$((failures + 1))
  fi
done
run --trace McastDnsAclPlugn/0-15 "$scenario"
expect trace-unknown-handle 0 "$rule" \
  'acl-agent: warning: --trace McastDnsAclPlugn/0-15: no trace handle named "McastDnsAclPlugn" was made during the run (handles made: McastDnsAclPlugin)'

if [ $failures -ne 0 ]; then
  echo "$failures case(s) failed"
  exit 1
fi
echo "all cases passed"
