#!/usr/bin/env bash
# What an operator installs, checked from the installed files rather than the sources:
#   unit        the systemd unit passes systemd-analyze verify and names the installed daemon
#   man         both manual pages are clean for mandoc's linter and for man-db's groff
#   pc          snmpkit.pc sits beside dpisa.pc and builds a C program against the library
#   deb         cpack builds the Debian package into <build>/operator-test with what
#               `cmake --install` installs, under /usr, and a unit that starts /usr/sbin/varnex2
#   deb-install dpkg installs that package (inside a private mount namespace whose /usr,
#               /etc and /var are throw-away overlays), everything works from there, and
#               dpkg removes it again
# Exit status 77 marks a check that cannot run here (CTest shows it as skipped).
#   $1 mode   $2 build tree   $3 C compiler (pc)   $4 extra compiler flags (pc)
set -euo pipefail
mode=$1 build=$2
skip() { echo "SKIPPED: $*"; exit 77; }
need() { command -v "$1" > /dev/null || skip "$1 is not installed (scripts/install-deps.sh installs it)"; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
install_tree() { cmake --install "$build" --prefix "$prefix" > /dev/null; }
libdir() { sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt"; }

case $mode in
unit)
    need systemd-analyze
    install_tree
    unit=$(find "$prefix" -name varnex2.service)
    [ -n "$unit" ] || { echo "varnex2.service was not installed"; exit 1; }
    # The unit was written at install time for this prefix; verify also runs the daemon's
    # path and looks its manual page up, so both must be installed where the unit says.
    grep -qx "ExecStart=$prefix/sbin/varnex2" "$unit"
    # It goes on past what it only warns about (an unknown key, say), so its report on our
    # unit must be empty too.
    MANPATH=$prefix/share/man: systemd-analyze verify "$unit" > "$scratch/verify" 2>&1 ||
        { cat "$scratch/verify"; exit 1; }
    if grep varnex2 "$scratch/verify"; then exit 1; fi
    for line in Wants=snmpd.service After=snmpd.service Restart=on-failure \
        StandardOutput=journal Environment=VARNEX2_DPI_ADDRESS=127.0.0.1 NoNewPrivileges=yes \
        ProtectSystem=strict PrivateTmp=yes RestrictAddressFamilies=AF_INET; do
        grep -qE "^${line%%=*}=(.* )?${line#*=}( |$)" "$unit" || { echo "no $line"; exit 1; }
    done
    echo "the installed unit verifies"
    ;;
man)
    need mandoc
    need man
    install_tree
    pages=("$prefix/share/man/man8/varnex2.8" "$prefix/share/man/man3/dpisa.3")
    # -W warning: style notes include "referenced manual not found", which depends on
    # which other manuals this machine has.
    mandoc -T lint -W warning "${pages[@]}"
    for page in "${pages[@]}"; do
        warnings=$(MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 > /dev/null)
        [ -z "$warnings" ] || { echo "$page: $warnings"; exit 1; }
    done
    echo "both manual pages are lint-clean"
    ;;
pc)
    cc=$3
    read -r -a flags <<< "${4:-}"
    install_tree
    pcdir=$prefix/$(libdir)/pkgconfig
    [ -f "$pcdir/snmpkit.pc" ] && [ -f "$pcdir/dpisa.pc" ] || { ls -R "$prefix"; exit 1; }
    export PKG_CONFIG_PATH=$pcdir
    read -r -a cflags <<< "$(pkg-config --cflags snmpkit)"
    read -r -a libs <<< "$(pkg-config --libs snmpkit)"
    src=$(dirname "$0")/snmp_c_abi.c
    "$cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$src" "${cflags[@]}" "${libs[@]}" \
        -o "$scratch/abi"
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir snmpkit) "$scratch/abi"
    echo "snmpkit.pc builds a C program against the installed library"
    ;;
deb)
    need dpkg-deb
    need dpkg-shlibdeps
    out=$build/operator-test
    rm -rf "$out"
    cpack -G DEB -B "$out" --config "$build/CPackConfig.cmake" > "$scratch/cpack.log" ||
        { cat "$scratch/cpack.log"; exit 1; }
    deb=$(ls "$out"/varnex2_*.deb)
    # The package holds exactly what an install holds, moved to /usr.
    install_tree
    (cd "$prefix" && find . ! -type d | sed 's#^\./#/usr/#' | sort) > "$scratch/installed"
    dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | sed 's#^\./#/#' | sort > "$scratch/packaged"
    diff -u "$scratch/installed" "$scratch/packaged"
    lib=/usr/$(libdir)
    for f in /usr/sbin/varnex2 /usr/lib/systemd/system/varnex2.service \
        /usr/share/man/man8/varnex2.8 /usr/share/man/man3/dpisa.3 \
        "$lib"/libdpisa.so.1 "$lib"/libdpisa.so "$lib"/libdpisa.a \
        "$lib"/libsnmpkit.so.1 "$lib"/libsnmpkit.so "$lib"/libsnmpkit.a \
        "$lib"/pkgconfig/dpisa.pc "$lib"/pkgconfig/snmpkit.pc \
        /usr/include/dpisa/snmp_dpi.h /usr/include/snmpkit/smux_ed.h; do
        grep -qx "$f" "$scratch/packaged" || { echo "the package lacks $f"; exit 1; }
    done
    dpkg-deb -x "$deb" "$scratch/root"
    grep -qx "ExecStart=/usr/sbin/varnex2" "$scratch/root/usr/lib/systemd/system/varnex2.service"
    [ "$(dpkg-deb -f "$deb" Package)" = varnex2 ]
    dpkg-deb -f "$deb" Depends | grep -q libc6
    dpkg-deb -e "$deb" "$scratch/control"
    grep -qx "activate-noawait ldconfig" "$scratch/control/triggers"
    for script in postinst prerm postrm; do
        [ -x "$scratch/control/$script" ] && sh -n "$scratch/control/$script"
    done
    echo "$deb holds the install under /usr"
    ;;
deb-install)
    [ "$(id -u)" -eq 0 ] || skip "needs root for a private mount namespace"
    deb=$(ls "$build"/operator-test/varnex2_*.deb)
    cat > "$scratch/inside.sh" <<'INSIDE'
set -euo pipefail
deb=$1 work=$2
mount -t tmpfs tmpfs "$work"
for d in usr etc var; do
    mkdir "$work/$d.up" "$work/$d.work"
    mount -t overlay overlay -o "lowerdir=/$d,upperdir=$work/$d.up,workdir=$work/$d.work" "/$d"
done
dpkg -i "$deb" > "$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
set +e
/usr/sbin/varnex2 -x > "$work/usage" 2>&1
status=$?
set -e
[ $status -eq 1 ] && grep -q '^usage:  /usr/sbin/varnex2 \[-d \[level\]\]$' "$work/usage"
ldconfig -p | grep -q 'libdpisa.so.1 '
ldconfig -p | grep -q 'libsnmpkit.so.1 '
pkg-config --exists dpisa snmpkit
# Slim images tell dpkg to leave manual pages out.
if ! grep -rqs '^path-exclude=/usr/share/man' /etc/dpkg/dpkg.cfg.d; then
    [ "$(man -w varnex2)" = /usr/share/man/man8/varnex2.8 ]
    [ "$(man -w 3 dpisa)" = /usr/share/man/man3/dpisa.3 ]
fi
if command -v systemd-analyze > /dev/null; then
    systemd-analyze verify /usr/lib/systemd/system/varnex2.service
fi
dpkg -r varnex2 > "$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
[ ! -e /usr/sbin/varnex2 ] && [ ! -e /usr/lib/systemd/system/varnex2.service ]
INSIDE
    mkdir "$scratch/work"
    unshare -m --propagation private true 2> /dev/null || skip "cannot make a mount namespace"
    unshare -m --propagation private bash "$scratch/inside.sh" "$deb" "$scratch/work"
    echo "dpkg installs, uses and removes $deb"
    ;;
*)
    echo "unknown mode $mode"
    exit 2
    ;;
esac
