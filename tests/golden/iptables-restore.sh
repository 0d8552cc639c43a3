#!/usr/bin/env bash
# Feeds what `show iptables` prints to the real iptables-restore, one VRF's
# block at a time, each in a fresh private network namespace: the block must
# pass `--test --noflush`, then restore for real, after which iptables-save
# must show the block's rules standing in INPUT.
#
#   iptables-restore.sh ACL_AGENT
#
# Exit status 77 (skipped) where it cannot run: no iptables-restore, no way
# to make a private network namespace, or no netfilter inside it.
set -uo pipefail

if [ $# -ne 1 ]; then
  echo "usage: iptables-restore.sh ACL_AGENT" >&2
  exit 2
fi
agent=$1

skip() {
  echo "SKIPPED: $*" >&2
  exit 77
}

command -v unshare > /dev/null || skip "unshare is not installed"

# A private network namespace: as root directly, else in a user namespace.
netns=
for candidate in "unshare -n" "unshare -rn"; do
  if $candidate true 2> /dev/null; then
    netns=$candidate
    break
  fi
done
[ -n "$netns" ] || skip "cannot create a private network namespace (unshare -n, unshare -rn)"

# The first restore program that works in such a namespace.
restore=
for candidate in iptables-restore iptables-nft-restore iptables-legacy-restore; do
  command -v "$candidate" > /dev/null || continue
  if printf '*filter\nCOMMIT\n' | $netns "$candidate" --noflush 2> /dev/null; then
    restore=$candidate
    break
  fi
done
[ -n "$restore" ] || skip "no iptables-restore that works in a private network namespace" \
  "(install iptables; the kernel needs netfilter)"
save=${restore%-restore}-save
command -v "$save" > /dev/null || skip "$save is not installed"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Rules in several VRFs, the gateway rule in "default", and VRF names that
# need quoting in the comment lines.
"$agent" - > "$work/iptables" <<'EOF' || { echo "acl-agent failed" >&2; exit 1; }
vrf add global red
intf set Ethernet1 red
intf set Ethernet2 "blue \"east\""
intf set Ethernet3 "nl\nx\xc3\xa9"
intf set Ethernet4 ""
link set Ethernet1 1
link set Ethernet2 1
link set Ethernet3 1
link set Ethernet4 1
config gateway-enabled true
config gateway-setting 8853
load
settle
show iptables
EOF

# One file per VRF block; the comment line that opens a block is not input.
awk -v dir="$work" '
  /^# vrf / { n++; next }
  { print > (dir "/block" n) }
' "$work/iptables"

blocks=("$work"/block*)
if [ "${#blocks[@]}" -ne 5 ]; then
  echo "expected 5 VRF blocks, got ${#blocks[@]}:" >&2
  cat "$work/iptables" >&2
  exit 1
fi

status=0
for block in "${blocks[@]}"; do
  # Inside the namespace: test, restore, then list what stands in INPUT.
  if ! $netns sh -c '"$1" --test --noflush < "$3" && "$1" --noflush < "$3" && "$2" -t filter' \
      sh "$restore" "$save" "$block" > "$block.saved" 2> "$block.err"; then
    echo "$restore refused this input:" >&2
    cat "$block" "$block.err" >&2
    status=1
    continue
  fi
  wanted=$(grep -c '^-A INPUT ' "$block")
  standing=$(grep -c '^-A INPUT ' "$block.saved")
  ports=$(grep -o -- '--dport [0-9]*' "$block" | sort)
  saved_ports=$(grep '^-A INPUT ' "$block.saved" | grep -o -- '--dport [0-9]*' | sort)
  if [ "$wanted" -ne "$standing" ] || [ "$ports" != "$saved_ports" ]; then
    echo "after restoring this input:" >&2
    cat "$block" >&2
    echo "INPUT holds:" >&2
    cat "$block.saved" >&2
    status=1
  fi
done
[ $status -eq 0 ] && echo "${#blocks[@]} VRF blocks restored with $restore"
exit $status
