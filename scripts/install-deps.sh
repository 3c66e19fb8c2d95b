#!/usr/bin/env bash
# Installs, with apt-get, whatever a fresh Debian machine lacks to build, test and demo the project.
set -euo pipefail
pkgs=(cmake make g++ gcc clang libclang-rt-dev pkg-config libgtest-dev libgmock-dev googletest
      libbenchmark-dev snmpd snmp snmptrapd libsnmp-dev iproute2 util-linux procps
      systemd mandoc man-db dpkg-dev file gcovr)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  SUDO=; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  echo "installing: ${missing[*]}"
  $SUDO apt-get update -qq
  # The daemon tests start their own snmpd in private namespaces; the system service is not used.
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
