#!/usr/bin/env bash
# The Debian package, built by scripts/package.sh from the tree already built
# here: what it holds, what lintian says of it, the program run from the
# package unpacked into a scratch root, and its unit checked by
# systemd-analyze verify against the machine's /usr with the package laid
# over it (an overlay in a private mount namespace, so nothing of the
# machine changes).
#
#   package-test.sh SOURCE_DIR BUILD_DIR
#
# Exits 77 (skipped), after every check that could run, where a part could
# not run here, saying which and why.
set -uo pipefail
source_dir=$1 build_dir=$2
skip() {
  echo "skipped: $*"
  exit 77
}
for tool in dpkg-deb dpkg-shlibdeps fakeroot strip cmake; do
  command -v "$tool" > /dev/null || skip "$tool is not installed"
done
work=$(mktemp -d)
trap '[ -n "${ACL_KEEP_WORK:-}" ] || rm -rf "$work"' EXIT
failures=0
skipped=()
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

deb=$(bash "$source_dir/scripts/package.sh" --from "$build_dir" --out "$work/out" --fast) ||
  { echo "FAIL: scripts/package.sh failed"; exit 1; }
version=$(sed -n 's/^project(McastDnsAcl VERSION \([0-9.]*\).*/\1/p' "$source_dir/CMakeLists.txt")
[ "$(basename "$deb")" = "acl-agent_${version}_$(dpkg --print-architecture).deb" ] ||
  fail "the package is named $(basename "$deb")"

# --- what it holds
dpkg-deb -c "$deb" | awk '{print $1, $6}' > "$work/contents"
for file in -rwxr-xr-x:./usr/bin/acl-agent \
            -rw-r--r--:./usr/lib/acl-agent/McastDnsAclPlugin.so \
            -rw-r--r--:./usr/lib/acl-agent/libzovplatform.so \
            -rw-r--r--:./usr/share/man/man8/acl-agent.8.gz \
            -rw-r--r--:./etc/acl-agent/acl-agent.conf \
            -rw-r--r--:./usr/lib/systemd/system/acl-agent.service \
            -rw-r--r--:./usr/lib/sysusers.d/acl-agent.conf \
            -rw-r--r--:./usr/share/doc/acl-agent/copyright \
            -rw-r--r--:./usr/share/lintian/overrides/acl-agent; do
  grep -qx -- "${file%%:*} ${file#*:}" "$work/contents" || fail "the package lacks ${file#*:} (${file%%:*})"
done
[ "$(dpkg-deb -f "$deb" Package)" = acl-agent ] || fail "the package is not named acl-agent"
[ "$(dpkg-deb -I "$deb" conffiles)" = /etc/acl-agent/acl-agent.conf ] ||
  fail "the conffiles are: $(dpkg-deb -I "$deb" conffiles)"
depends=$(dpkg-deb -f "$deb" Depends)
for package in libc6 libmnl0 libnftnl11 iptables; do
  grep -q "\b$package\b" <<< "$depends" || fail "Depends lacks $package: $depends"
done
grep -qx 'ExecStart=/usr/bin/acl-agent --config /etc/acl-agent/acl-agent.conf' \
  "$source_dir/packaging/acl-agent.service" || fail "the unit does not start the packaged program"

# --- lintian: no error and no warning beyond the package's overrides
if command -v lintian > /dev/null; then
  lintian --fail-on error,warning "$deb" > "$work/lintian" 2>&1 ||
    fail "lintian: $(grep -v 'running with root privileges' "$work/lintian")"
else
  skipped+=("lintian is not installed (scripts/install-deps.sh installs it)")
fi

# --- the program, run from the package unpacked into a scratch root
root=$work/root
dpkg-deb -x "$deb" "$root"
"$root/usr/bin/acl-agent" --version > "$work/version" 2>&1
[ "$(cat "$work/version")" = "acl-agent $version" ] || fail "--version printed: $(cat "$work/version")"
libraries=$(ldd "$root/usr/bin/acl-agent")
[[ "$libraries" == *"libzovplatform.so => $root/usr/bin/../lib/acl-agent/libzovplatform.so"* ]] ||
  fail "the program does not take its library from beside itself: $libraries"
# A scenario with its expected output; the plugin can only come from the
# unpacked tree (the build tree's is not where the program looks from there).
bash "$source_dir/tests/golden/run-golden.sh" "$root/usr/bin/acl-agent" examples/demo > "$work/golden" 2>&1 ||
  fail "the demo scenario, run from the package: $(cat "$work/golden")"

# --- the unit, checked where /usr holds the package
if [ "$(id -u)" = 0 ] && command -v systemd-analyze > /dev/null && command -v unshare > /dev/null &&
  unshare -m mount -t overlay overlay -o "lowerdir=$root/usr:/usr" /usr 2> /dev/null; then
  unshare -m bash -c 'mount -t overlay overlay -o "lowerdir=$1/usr:/usr" /usr &&
                      systemd-analyze verify --man=no /usr/lib/systemd/system/acl-agent.service' \
    verify "$root" > "$work/verify" 2>&1
  status=$?
  [ "$status" = 0 ] && [ ! -s "$work/verify" ] ||
    fail "systemd-analyze verify exited $status: $(cat "$work/verify")"
else
  skipped+=("systemd-analyze verify needs root, unshare and an overlay mount over /usr")
fi

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
[ ${#skipped[@]} -eq 0 ] || skip "every other check passed; not checked: ${skipped[*]}"
echo "all checks passed"
