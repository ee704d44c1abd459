#!/usr/bin/env bash
# The Debian package of a build: CPack makes it into a temp dir; its file
# list holds the programs, libraries, data, configuration (a conffile) and
# unit; its postinst creates the user kelp and enables or starts nothing (an
# upgrade restarts an agent that runs), its prerm stops the agent on remove
# and its postrm drops the unit's enable links on purge; dpkg unpacks it into
# a scratch root, and the scripts run against that root work there only.
# Usage: package_test.sh BUILD_DIR PREFIX SYSCONFDIR
set -euo pipefail
build=$1 prefix=$2 sysconfdir=$3
tmp=$(mktemp -d /tmp/kelp-package-XXXXXX)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$tmp/out" >"$tmp/cpack.log" 2>&1) ||
  { cat "$tmp/cpack.log" >&2; fail "cpack did not make the package"; }
debs=("$tmp"/out/kelp_*.deb)
[ -f "${debs[0]}" ] || fail "no kelp_*.deb in $tmp/out"
deb=${debs[0]}

dpkg-deb -c "$deb" | awk '{print $NF}' | sed 's|^\./|/|' >"$tmp/files"
for f in "$prefix/sbin/kelpagent" "$prefix/bin/kelpctl" "$prefix/bin/kelpgen" \
         "$prefix/lib/kelp/libkelpimp64.so" "$prefix/lib/kelp/libkelpruntime.so" \
         "$prefix/share/kelp/models/sample.xml" "$prefix/share/kelp/alerts.txt" \
         "$sysconfdir/kelp/kelpagent.conf" "$prefix/lib/systemd/system/kelpagent.service" \
         "$prefix/lib/sysusers.d/kelp.conf"; do
  grep -qx "$f" "$tmp/files" || fail "the package lacks $f"
done
! grep -q "$build" "$tmp/files" || fail "the package holds build-tree paths"

dpkg-deb -e "$deb" "$tmp/control"
grep -qx "$sysconfdir/kelp/kelpagent.conf" "$tmp/control/conffiles" ||
  fail "the configuration is not a conffile"
[ -x "$tmp/control/postinst" ] || fail "no executable postinst"
grep -q 'systemd-sysusers' "$tmp/control/postinst" || fail "postinst does not create the user"
grep -q 'adduser --system' "$tmp/control/postinst" || fail "postinst has no adduser fallback"
if grep -hv '^[[:space:]]*#' "$tmp/control/"p* |
     grep -Eq 'systemctl[^|]*([[:space:]]enable|[[:space:]]start)\b|deb-systemd-(helper|invoke)|invoke-rc.d'; then
  fail "a control script enables or starts a service"
fi
[ -x "$tmp/control/prerm" ] || fail "no executable prerm"
grep -q 'systemctl --system stop kelpagent.service' "$tmp/control/prerm" ||
  fail "prerm does not stop the agent"
grep -q '"\$1" = remove' "$tmp/control/prerm" || fail "prerm stops the agent on an upgrade too"
grep -q 'systemctl --system try-restart kelpagent.service' "$tmp/control/postinst" ||
  fail "an upgrade does not restart a running agent"
grep -q '^Package: kelp$' "$tmp/control/control" || fail "control names no package kelp"
grep -q '^Depends: .*libsnmp' "$tmp/control/control" || fail "control lacks the net-snmp library"

# Unpack with dpkg's own database in a scratch root (no maintainer script
# runs at unpack), then configure by hand: the postinst with DPKG_ROOT set
# works on that root only.
root=$tmp/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/etc"
: >"$root/var/lib/dpkg/status"
printf 'root:x:0:0:root:/root:/bin/sh\n' >"$root/etc/passwd"
printf 'root:x:0:\n' >"$root/etc/group"
dpkg --root="$root" --force-not-root --force-depends --force-script-chrootless \
     --log=/dev/null --unpack "$deb" >"$tmp/dpkg.log" 2>&1 ||
  { cat "$tmp/dpkg.log" >&2; fail "dpkg --unpack into a scratch root failed"; }
[ -x "$root$prefix/sbin/kelpagent" ] || fail "dpkg did not unpack kelpagent"
dpkg --root="$root" -s kelp | grep -q '^Status: install ok unpacked' ||
  fail "dpkg does not list kelp as unpacked"

if command -v systemd-sysusers >/dev/null 2>&1; then
  DPKG_ROOT=$root sh "$tmp/control/postinst" configure >"$tmp/postinst.log" 2>&1 ||
    { cat "$tmp/postinst.log" >&2; fail "postinst configure failed"; }
  grep -q '^kelp:' "$root/etc/passwd" || fail "postinst did not add the user kelp"
  # Run again, as an upgrade does: nothing changes.
  cp "$root/etc/passwd" "$tmp/passwd.before"
  DPKG_ROOT=$root sh "$tmp/control/postinst" configure >/dev/null 2>&1 ||
    fail "postinst configure failed the second time"
  cmp -s "$tmp/passwd.before" "$root/etc/passwd" || fail "a second postinst changed passwd"
fi
# A purge leaves no link of the enabled unit behind; other units' stay.
wants=$root/etc/systemd/system/multi-user.target.wants
mkdir -p "$wants"
ln -s "$prefix/lib/systemd/system/kelpagent.service" "$wants/kelpagent.service"
ln -s /lib/systemd/system/other.service "$wants/other.service"
DPKG_ROOT=$root sh "$tmp/control/prerm" remove >/dev/null 2>&1 || fail "prerm remove failed"
DPKG_ROOT=$root sh "$tmp/control/postrm" remove >/dev/null 2>&1 || fail "postrm remove failed"
[ -L "$wants/kelpagent.service" ] || fail "a remove dropped the unit's enable link"
DPKG_ROOT=$root sh "$tmp/control/postrm" purge >/dev/null 2>&1 || fail "postrm purge failed"
[ ! -L "$wants/kelpagent.service" ] || fail "a purge left the unit's enable link"
[ -L "$wants/other.service" ] || fail "a purge removed another unit's link"
echo "ok: $(basename "$deb"), $(wc -l <"$tmp/files") entries"
