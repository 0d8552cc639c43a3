#!/usr/bin/env bash
# Builds the Debian package of acl-agent: build/package/acl-agent_VERSION_ARCH.deb
#
#   scripts/package.sh
#
# The optimised build is installed into a staging tree (prefix /usr, the
# configuration under /etc), its shared-library dependencies are computed
# from the binaries by dpkg-shlibdeps, and dpkg-deb makes the package. These
# are the tools debhelper itself calls; done here in a few lines, the package
# builds wherever dpkg-dev is, with nothing else installed.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${JOBS:-2}
cmake --preset release > /dev/null
cmake --build --preset release -- -j"$jobs"

version=$(sed -n 's/^project(McastDnsAcl VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
arch=$(dpkg --print-architecture)
out=build/package
stage=$out/stage
rm -rf "$stage" && mkdir -p "$stage"
DESTDIR=$PWD/$stage cmake --install build/release --prefix /usr > /dev/null
# Configuration lives in /etc, not under the prefix.
mv "$stage/usr/etc" "$stage/etc"
strip --strip-unneeded "$stage/usr/bin/acl-agent" "$stage"/usr/lib/acl-agent/*.so
gzip -9n "$stage/usr/share/man/man8/acl-agent.8"
mkdir -p "$stage/usr/share/doc/acl-agent"
gzip -9nc > "$stage/usr/share/doc/acl-agent/changelog.gz" << CHANGELOG
acl-agent ($version) unstable; urgency=medium

  * Built from the source tree.

 -- acl-agent maintainers <acl-agent@localhost>  $(date -R -d @"${SOURCE_DATE_EPOCH:-$(date +%s)}")
CHANGELOG

# Dependencies from the binaries: dpkg-shlibdeps wants a debian/control.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/debian"
printf 'Source: acl-agent\n\nPackage: acl-agent\nArchitecture: any\n' > "$work/debian/control"
depends=$(cd "$work" && dpkg-shlibdeps -O -l"$PWD/$stage/usr/lib/acl-agent" \
  "$OLDPWD/$stage/usr/bin/acl-agent" "$OLDPWD/$stage/usr/lib/acl-agent/McastDnsAclPlugin.so" \
  2> /dev/null | sed -n 's/^shlibs:Depends=//p')

mkdir -p "$stage/DEBIAN"
cat > "$stage/DEBIAN/control" << CONTROL
Package: acl-agent
Version: $version
Architecture: $arch
Maintainer: acl-agent maintainers <acl-agent@localhost>
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
cat > "$stage/DEBIAN/postinst" << 'POSTINST'
#!/bin/sh
set -e
if [ "$1" = configure ]; then
  systemd-sysusers acl-agent.conf || true
  if [ -d /run/systemd/system ]; then
    systemctl daemon-reload || true
    systemctl try-restart acl-agent.service || true
  fi
fi
POSTINST
cat > "$stage/DEBIAN/prerm" << 'PRERM'
#!/bin/sh
set -e
if [ -d /run/systemd/system ] && [ "$1" = remove ]; then
  systemctl stop acl-agent.service || true
fi
PRERM
cat > "$stage/DEBIAN/postrm" << 'POSTRM'
#!/bin/sh
set -e
if [ -d /run/systemd/system ]; then systemctl daemon-reload || true; fi
POSTRM
chmod 0755 "$stage/DEBIAN/postinst" "$stage/DEBIAN/prerm" "$stage/DEBIAN/postrm"
deb=$out/acl-agent_${version}_${arch}.deb
fakeroot dpkg-deb --build -Zxz "$stage" "$deb" > /dev/null
echo "$deb"
