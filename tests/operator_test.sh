#!/usr/bin/env bash
# What an operator installs, checked on the installed files: the systemd unit verifies (unit),
# the manual pages lint clean (man), and the Debian package holds the install moved to /usr
# and, as root, installs, works and goes again with dpkg in a private mount namespace over
# throw-away /usr, /etc and /var (deb). 77: cannot run here. Arguments: mode, build tree.
set -euo pipefail
mode=$1 build=$2
skip() { echo "SKIPPED: $*"; exit 77; }
fail() { echo "$*"; exit 1; }
need() { for c; do command -v "$c" > /dev/null || skip "no $c (scripts/install-deps.sh)"; done; }
tmp=$(mktemp -d) && trap 'rm -rf "$tmp"' EXIT && prefix=$tmp/prefix
[ "$mode" = deb-inside ] || cmake --install "$build" --prefix "$prefix" > /dev/null
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")

case $mode in
unit)
    need systemd-analyze
    unit=$(find "$prefix" -name varnex2.service)
    grep -qx "ExecStart=$prefix/sbin/varnex2" "$unit"
    # verify checks the daemon's path and page, and goes on past mere warnings about the unit.
    MANPATH=$prefix/share/man: systemd-analyze verify "$unit" > "$tmp/verify" 2>&1 || fail "$(cat "$tmp/verify")"
    ! grep varnex2 "$tmp/verify" || fail "verify warns about the unit" ;;
man)
    need mandoc man
    pages=("$prefix/share/man/man8/varnex2.8" "$prefix/share/man/man3/dpisa.3")
    # -W warning: the style notes depend on which other manuals this machine has.
    mandoc -T lint -W warning "${pages[@]}"
    for page in "${pages[@]}"; do
        w=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 > /dev/null)
        [ -z "$w" ] || fail "$page: $w"
    done ;;
deb)
    need dpkg-deb dpkg-shlibdeps
    rm -rf "$build/operator-test"
    cpack -G DEB -B "$build/operator-test" --config "$build/CPackConfig.cmake" > "$tmp/cpack.log" ||
        fail "$(cat "$tmp/cpack.log")"
    deb=$(ls "$build"/operator-test/varnex2_*.deb)
    (cd "$prefix" && find . ! -type d | sed 's#^\./#/usr/#' | sort) > "$tmp/installed"
    dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | sed 's#^\./#/#' | sort > "$tmp/packaged"
    diff -u "$tmp/installed" "$tmp/packaged"
    # What no other case uses from the install (the package holds all of it, as just shown).
    for f in /usr/$libdir/libsnmpkit.{so,a} /usr/include/snmpkit/smux_ed.h; do
        grep -qx "$f" "$tmp/packaged" || fail "the package lacks $f"
    done
    dpkg-deb -f "$deb" Depends | grep -q libc6
    [ "$(id -u)" -eq 0 ] || skip "the package is right; installing it needs root"
    unshare -m --propagation private true 2> /dev/null || skip "cannot make a mount namespace"
    mkdir "$tmp/work"
    unshare -m --propagation private bash "$0" deb-inside "$build" "$deb" "$tmp/work" ;;
deb-inside)
    deb=$3 work=$4
    mount -t tmpfs tmpfs "$work"
    for d in usr etc var; do
        mkdir "$work/$d.up" "$work/$d.work"
        mount -t overlay overlay -o "lowerdir=/$d,upperdir=$work/$d.up,workdir=$work/$d.work" "/$d"
    done
    dpkg -i "$deb" > "$work/dpkg.log" 2>&1 || fail "$(cat "$work/dpkg.log")"
    { /usr/sbin/varnex2 -x 2>&1 || true; } | grep -q '^usage:  /usr/sbin/varnex2 \[-d \[level\]\]$'
    [ "$(ldconfig -p | grep -c 'lib\(dpisa\|snmpkit\).so.1 ')" -ge 2 ] || fail "ldconfig does not know the libraries"
    pkg-config --exists dpisa snmpkit
    grep -qx "ExecStart=/usr/sbin/varnex2" /usr/lib/systemd/system/varnex2.service
    # Slim images tell dpkg to leave manual pages out.
    grep -rqs '^path-exclude=/usr/share/man' /etc/dpkg/dpkg.cfg.d ||
        [ "$(man -w varnex2) $(man -w 3 dpisa)" = "/usr/share/man/man8/varnex2.8 /usr/share/man/man3/dpisa.3" ]
    dpkg -r varnex2 > "$work/dpkg.log" 2>&1 || fail "$(cat "$work/dpkg.log")"
    [ ! -e /usr/sbin/varnex2 ] && [ ! -e /usr/lib/systemd/system/varnex2.service ] || fail "dpkg -r left files" ;;
*) fail "unknown mode $mode" ;;
esac
echo "operator check $mode passed"
