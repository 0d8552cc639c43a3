#!/usr/bin/env bash
# Builds the Debian package of acl-agent: build/package/acl-agent_VERSION_ARCH.deb
#
#   scripts/package.sh                           # the optimised build, packaged
#   scripts/package.sh --from DIR --out OUTDIR   # a tree already built in DIR
#
# DEBFULLNAME and DEBEMAIL, as for dch(1), name the maintainer; without them
# the package carries a placeholder that lintian reports (see
# packaging/acl-agent.lintian-overrides).
#
# The optimised build is installed into a staging tree (prefix /usr, the
# configuration under /etc), its shared-library dependencies are computed
# from the binaries by dpkg-shlibdeps, and dpkg-deb makes the package. These
# are the tools debhelper itself calls; done here in a few lines, the package
# builds wherever dpkg-dev is, with nothing else installed. `--from` skips
# the build and packages what DIR holds (the package test does so with the
# test build, to check the packaging without another build); `--fast`
# compresses with gzip at its fastest rather than xz, for a package that is
# only inspected.
set -euo pipefail
cd "$(dirname "$0")/.."
from= out=build/package compress=(-Zxz)
while [ $# -gt 0 ]; do
  case $1 in
    --from) from=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --fast) compress=(-Zgzip -z1); shift ;;
    *) echo "usage: scripts/package.sh [--from BUILD_DIR] [--out DIR] [--fast]" >&2; exit 2 ;;
  esac
done
if [ -z "$from" ]; then
  jobs=${JOBS:-2}
  cmake --preset release > /dev/null
  cmake --build --preset release -- -j"$jobs"
  from=build/release
fi

version=$(sed -n 's/^project(McastDnsAcl VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
arch=$(dpkg --print-architecture)
stage=$out/stage
rm -rf "$stage" && mkdir -p "$stage"
case $stage in /*) ;; *) stage=$PWD/$stage ;; esac
DESTDIR=$stage cmake --install "$from" --prefix /usr > /dev/null
# Configuration lives in /etc, not under the prefix.
mv "$stage/usr/etc" "$stage/etc"
maintainer="${DEBFULLNAME:-acl-agent maintainers} <${DEBEMAIL:-acl-agent@localhost}>"
# As dh_strip does: no symbols the loader does not need, no compiler notes.
strip --remove-section=.comment --remove-section=.note --strip-unneeded \
  "$stage/usr/bin/acl-agent" "$stage"/usr/lib/acl-agent/*.so
chmod 0644 "$stage"/usr/lib/acl-agent/*.so
gzip -9n "$stage/usr/share/man/man8/acl-agent.8"
mkdir -p "$stage/usr/share/doc/acl-agent"
gzip -9nc > "$stage/usr/share/doc/acl-agent/changelog.gz" << CHANGELOG
acl-agent ($version) unstable; urgency=medium

  * Built from the source tree.

 -- $maintainer  $(date -R -d @"${SOURCE_DATE_EPOCH:-$(date +%s)}")
CHANGELOG
cp packaging/copyright "$stage/usr/share/doc/acl-agent/copyright"
mkdir -p "$stage/usr/share/lintian/overrides"
cp packaging/acl-agent.lintian-overrides "$stage/usr/share/lintian/overrides/acl-agent"

# Dependencies from the binaries: dpkg-shlibdeps wants a debian/control.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/debian"
printf 'Source: acl-agent\n\nPackage: acl-agent\nArchitecture: any\n' > "$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O -l"$stage/usr/lib/acl-agent" \
  "$stage/usr/bin/acl-agent" "$stage/usr/lib/acl-agent/McastDnsAclPlugin.so" \
  2> /dev/null | sed -n 's/^shlibs:Depends=//p')

mkdir -p "$stage/DEBIAN"
cat > "$stage/DEBIAN/control" << CONTROL
Package: acl-agent
Version: $version
Architecture: $arch
Maintainer: $maintainer
Installed-Size: $(du -sk --exclude=DEBIAN "$stage" | cut -f1)
Depends: $depends, iptables, systemd
Section: net
Priority: optional
Description: ACL agent putting multicast DNS rules in place in VRF namespaces
 acl-agent follows the kernel's links, interfaces and network namespaces,
 runs the multicast DNS ACL plugin against them, and puts the rules it asks
 for in place with iptables in each VRF's namespace. It runs as a service
 with a configuration file, a control socket (acl-agent ctl) and reload.
CONTROL
echo /etc/acl-agent/acl-agent.conf > "$stage/DEBIAN/conffiles"
(cd "$stage" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z |
  xargs -0 md5sum) > "$stage/DEBIAN/md5sums"
# The service is not enabled on install (the configuration file says what it
# should do first); a running one restarts on upgrade and stops on removal,
# through the helpers debhelper's scripts use.
cat > "$stage/DEBIAN/postinst" << 'POSTINST'
#!/bin/sh
set -e
if [ "$1" = configure ]; then
  systemd-sysusers acl-agent.conf || true
  if [ -d /run/systemd/system ]; then
    systemctl --system daemon-reload > /dev/null || true
    deb-systemd-invoke try-restart acl-agent.service > /dev/null || true
  fi
fi
POSTINST
cat > "$stage/DEBIAN/prerm" << 'PRERM'
#!/bin/sh
set -e
if [ -d /run/systemd/system ] && [ "$1" = remove ]; then
  deb-systemd-invoke stop acl-agent.service > /dev/null || true
fi
PRERM
cat > "$stage/DEBIAN/postrm" << 'POSTRM'
#!/bin/sh
set -e
if [ -d /run/systemd/system ]; then systemctl --system daemon-reload > /dev/null || true; fi
POSTRM
chmod 0755 "$stage/DEBIAN/postinst" "$stage/DEBIAN/prerm" "$stage/DEBIAN/postrm"
deb=$out/acl-agent_${version}_${arch}.deb
fakeroot dpkg-deb --build "${compress[@]}" "$stage" "$deb" > /dev/null
echo "$deb"
