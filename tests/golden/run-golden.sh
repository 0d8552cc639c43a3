#!/usr/bin/env bash
# Runs one golden case against acl-agent and compares what it printed, and
# how it exited, with what the case expects. See README.md in this folder.
#
#   run-golden.sh ACL_AGENT CASE
#
# CASE is a case name relative to this folder: "road-of-one-event", or
# "examples/burst" for an example scenario of the source tree.
set -uo pipefail

if [ $# -ne 2 ]; then
  echo "usage: run-golden.sh ACL_AGENT CASE" >&2
  exit 2
fi
agent=$1
case=$2

# Error messages name scenario files as given on the command line, so the
# case runs from here, and names its files relative to this folder.
cd "$(dirname "${BASH_SOURCE[0]}")" || exit 2

# The scenario: the case's own file, or else the file of the source tree
# under the same name (the examples).
if [ -f "$case.scn" ]; then
  scenario=$case.scn
elif [ -f "../../$case.scn" ]; then
  scenario=../../$case.scn
else
  echo "run-golden.sh: no scenario for case \"$case\"" >&2
  exit 2
fi

# The command line: one argument a line in CASE.args, or just the scenario.
args=()
if [ -f "$case.args" ]; then
  mapfile -t args < "$case.args"
else
  args=("$scenario")
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Standard input is the scenario too, for cases that read it as "-".
"$agent" "${args[@]}" < "$scenario" > "$work/out" 2> "$work/err"
echo "$?" > "$work/status"

# Addresses in framework errors differ from build to build.
sed -E -i 's/0x[0-9a-fA-F]+/0xADDR/g' "$work/err"

expected() {
  if [ -f "$case.$1" ]; then cat "$case.$1"; else printf '%s' "$2"; fi
}
expected out "" > "$work/expected.out"
expected err "" > "$work/expected.err"
expected status $'0\n' > "$work/expected.status"

status=0
for part in out err status; do
  if ! cmp -s "$work/expected.$part" "$work/$part"; then
    echo "golden/$case: $part differs (--- expected, +++ actual):"
    diff -u --label "expected $case.$part" --label "actual $part" \
      "$work/expected.$part" "$work/$part"
    status=1
  fi
done
exit $status
