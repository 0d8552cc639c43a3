#!/usr/bin/env bash
# acl-agent --live --apply run as the service unit runs it: as a user of its
# own (here `nobody`) holding exactly the unit's capabilities and no more,
# given by setpriv, with the unit's runtime directory and environment. In
# two VRF namespaces with their links up the rule is put in place; a link
# taken down withdraws it; `acl-agent ctl show applied` answers through the
# socket in the runtime directory; `--remove-applied`, run the same way,
# cleans up. One case per way of writing:
#
#   privilege-kernel-test.sh ACL_AGENT UNIT_FILE nft|iptables-nft|iptables-legacy
#
#   nft              --backend nft, with CAP_NET_ADMIN and CAP_SYS_ADMIN
#   iptables-nft     --backend iptables with the nf_tables programs, the same
#   iptables-legacy  the legacy programs, with CAP_NET_RAW as well; they take
#                    their lock in the runtime directory (the unit's
#                    XTABLES_LOCKFILE), since /run/xtables.lock is not theirs
#
# Runs as root in a private mount and network namespace with its own /run;
# exits 77 (skipped) with the reason where that cannot be had.
set -uo pipefail
real_agent=$1 unit=$2 case=$3
source "$(dirname "$0")/../kernel/kernel-test-lib.sh"
command -v setpriv > /dev/null || skip "setpriv (util-linux) is not installed"
user=nobody
id "$user" > /dev/null 2>&1 || skip "there is no user $user to run the agent as"
group=$(id -gn "$user")
enter_private_namespace "$0" "$@"

case $case in
  nft) use_backend nft
       caps=(net_admin sys_admin) ;;
  iptables-nft) use_backend iptables
       iptables-restore --version 2> /dev/null | grep nf_tables > /dev/null ||
         skip "the iptables-restore on PATH is not the nf_tables variant"
       caps=(net_admin sys_admin) ;;
  iptables-legacy) use_backend iptables
       for tool in iptables-legacy-restore iptables-legacy-save iptables-legacy; do
         command -v "$tool" > /dev/null || skip "$tool is not installed"
       done
       printf '*filter\nCOMMIT\n' | iptables-legacy-restore --noflush 2> /dev/null ||
         skip "the legacy iptables programs cannot run here (the kernel needs ip_tables)"
       caps=(net_admin sys_admin net_raw) ;;
  *) echo "unknown case [$case]"; exit 2 ;;
esac
programs=()
list=(iptables -S)
if [ "$case" = iptables-legacy ]; then
  programs=(--iptables-restore iptables-legacy-restore --iptables-save iptables-legacy-save)
  list=(iptables-legacy -S)
fi

# Each capability the case uses must be one the unit grants.
for cap in "${caps[@]}"; do
  name="CAP_${cap^^}"
  grep -Eq "^AmbientCapabilities=(.* )?$name( |$)" "$unit" ||
    fail "the unit's AmbientCapabilities lack $name"
  grep -Eq "^CapabilityBoundingSet=(.* )?$name( |$)" "$unit" ||
    fail "the unit's CapabilityBoundingSet lacks $name"
done

# The unit's runtime directory and environment, as the service manager makes
# them (%t is /run for a system service).
runtime=/run/acl-agent
mkdir -m 0750 "$runtime" && chown "$user:$group" "$runtime"
environment=(RUNTIME_DIRECTORY="$runtime")
while IFS= read -r setting; do
  environment+=("${setting//%t/\/run}")
done < <(sed -n 's/^Environment=//p' "$unit")

# The agent as the service: its user, no other group, no new privileges, and
# the capabilities of the case as ambient, inheritable and bounding set.
set_caps=-all
for cap in "${caps[@]}"; do set_caps+=",+$cap"; done
with_caps=(setpriv --reuid="$user" --regid="$group" --clear-groups --no-new-privs
           --inh-caps="$set_caps" --ambient-caps="$set_caps" --bounding-set="$set_caps" --)
as_service() {
  env "${environment[@]}" "${with_caps[@]}" "$@"
}
as_service test -x "$real_agent" ||
  skip "$user cannot run $real_agent (a folder on its way is closed to others)"
# What start_agent runs; each step execs the next, so that $agent_pid is the
# agent's own.
printf '#!/bin/sh\nexec %s "$@"\n' "$(printf '%q ' env "${environment[@]}" "${with_caps[@]}" \
  "$real_agent")" > "$work/as-service"
chmod 0755 "$work/as-service"
agent=$work/as-service

# The legacy programs cannot write as this user without the unit's lock
# file, nor without CAP_NET_RAW: both are needed, and checked here.
if [ "$case" = iptables-legacy ]; then
  printf '*filter\nCOMMIT\n' | "${with_caps[@]}" iptables-legacy-restore --noflush -w 2> /dev/null &&
    fail "the legacy programs wrote as $user without the unit's XTABLES_LOCKFILE"
  printf '*filter\nCOMMIT\n' | env "${environment[@]}" "${with_caps[@]/,+net_raw/}" \
    iptables-legacy-restore --noflush -w 2> /dev/null &&
    fail "the legacy programs wrote as $user without CAP_NET_RAW"
fi

vrf_namespace red 1 && ip -n red link set v-red up
vrf_namespace blue 2 && ip -n blue link set v-blue up

# Waits until NAMESPACE's filter table holds the rule (yes) or not (no).
await_rule() {
  local name=$1 want=$2 end=$((SECONDS + deadline)) has
  while true; do
    has=no
    ip netns exec "$name" "${list[@]}" 2> /dev/null | grep -- '--dport 5353' > /dev/null && has=yes
    [ "$has" = "$want" ] && return 0
    [ "$SECONDS" -lt "$end" ] || break
    sleep 0.05
  done
  fail "the rule in $name is not [$want] within ${deadline}s: $(ip netns exec "$name" "${list[@]}")"
}

start_agent --live --apply --mdns-intf 'v-*' --resync 3600 "${programs[@]}"
await_ready

# --- it runs as the user, with exactly the capabilities of the case
want=0
for cap in "${caps[@]}"; do
  case $cap in
    net_admin) want=$((want | 1 << 12)) ;;
    net_raw) want=$((want | 1 << 13)) ;;
    sys_admin) want=$((want | 1 << 21)) ;;
  esac
done
want=$(printf '%016x' "$want")
status=$(cat "/proc/$agent_pid/status")
grep -Eq "^Uid:\s+$(id -u "$user")\s" <<< "$status" || fail "the agent does not run as $user"
for set in CapEff CapPrm CapAmb CapBnd; do
  grep -q "^$set:\s*$want$" <<< "$status" ||
    fail "the agent's $set is not $want: $(grep "^$set:" <<< "$status")"
done

# --- the rule is put in place in each VRF, and follows a link taken down
await_rule red yes
await_rule blue yes
ip -n red link set v-red down
await_rule red no
await_rule blue yes

# --- the control socket in the runtime directory answers
answer=$(as_service "$real_agent" ctl show applied 2>&1)
ctl_status=$?
[ "$ctl_status" = 0 ] || fail "ctl show applied exited $ctl_status: $answer"
grep -q '^applied vrf="blue" netns="blue" state=ok rules=1 ' <<< "$answer" ||
  fail "ctl show applied printed: $answer"
grep -q '^applied vrf="red" netns="red" state=ok rules=0 ' <<< "$answer" ||
  fail "ctl show applied printed: $answer"
ip -n red link set v-red up
await_rule red yes

signal_agent TERM
[ "$agent_exit" = 0 ] || fail "the agent exited $agent_exit at SIGTERM"
await_rule red yes

# --- --remove-applied, with the same privileges, cleans up
"$agent" ${backend:+--backend "$backend"} "${programs[@]}" --remove-applied 2> "$work/remove.err" ||
  fail "--remove-applied failed: $(cat "$work/remove.err")"
for name in red blue; do
  ip netns exec "$name" "${list[@]}" | grep ACLAGENT > /dev/null &&
    fail "--remove-applied left in $name: $(ip netns exec "$name" "${list[@]}")"
done

finish
