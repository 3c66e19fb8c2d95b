#!/usr/bin/env bash
# Installs the DPI library into a scratch prefix and builds the C example through pkg-config,
# against the shared library and against the archive with pkg-config's static private
# libraries (no run-time library path: a dynamic libdpisa would not be found). Both must print
# the expected packets.   $1 build tree  $2 examples/dpi_c_api.c  $3 C compiler  $4 flags
set -euo pipefail
build=$1 example=$2 cc=$3
read -r -a flags <<< "${4:-}"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" --component dpisa > /dev/null
pc=$(find "$scratch/prefix" -name dpisa.pc)
[ -n "$pc" ] || { echo "dpisa.pc was not installed"; exit 1; }
export PKG_CONFIG_PATH=${pc%/*}
libdir=$(pkg-config --variable=libdir dpisa)
read -r -a cflags <<< "$(pkg-config --cflags dpisa)"
read -r -a libs <<< "$(pkg-config --libs dpisa)"
read -r -a private <<< "$(pkg-config --static --libs-only-l dpisa | sed 's/-ldpisa//')"
cc_example() { "$cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$example" "${cflags[@]}" "$@"; }
cc_example "${libs[@]}" -o "$scratch/shared"
cc_example "$libdir/libdpisa.a" "${private[@]}" -o "$scratch/static"
cat > "$scratch/expected" <<'OUT'
OPEN (50 bytes): 00 30 02 02 00 00 00 08 00 0A 00 01 00 31 2E 33 2E 36 2E 31 2E 34 2E 31 2E 32 2E 33 2E 31 00 65 78 61 6D 70 6C 65 20 73 75 62 61 67 65 6E 74 00 00 00
REGISTER (35 bytes): 00 21 02 02 00 00 01 06 FF FF FF FF 00 05 00 00 31 2E 33 2E 36 2E 31 2E 34 2E 31 2E 32 2E 33 2E 31 2E 00
handle 0 before connecting: -6
OUT
LD_LIBRARY_PATH=$libdir "$scratch/shared" | diff -u "$scratch/expected" -
"$scratch/static" | diff -u "$scratch/expected" -
