#!/usr/bin/env bash
# Uses an installed tree as its users do: pkg-config in C++20 and as strictly as WARNINGS say,
# find_package in C++17, the schemas, the receiver. REPORTING=0 and HISTORY=0 for a tree without that
# library.
#   ./tests/packaging/consume.sh PREFIX PROGRAM [--static]     e.g. /usr program.cpp
set -euo pipefail

prefix=$1
program=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name orv-device-tree.pc)")
export PKG_CONFIG_PATH
reporting=${REPORTING:-1}
history=${HISTORY:-1}

use() {  # LIBRARY PROGRAM [--static]
  "${CXX:-g++}" -std=c++20 ${WARNINGS:-} "$here/$2.cpp" -o "$work/$2" \
    $(pkg-config --cflags --libs "$1" "${@:3}") -Wl,-rpath,"$(pkg-config --variable=libdir "$1")"
  "$work/$2"
}
use orv-device-tree boundary
[ "$reporting" = 0 ] || use orv-reporting reporting "${@:3}"
[ "$history" = 0 ] || use orv-history history "${@:3}"

cmake -S "$here/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DPROGRAM="$program" -DORV_BUILD_REPORTING="$reporting" \
  -DORV_BUILD_HISTORY="$history"
cmake --build "$work/build"
"$work/build/consumer"
[ "$reporting" = 0 ] || "$work/build/reporting"
[ "$history" = 0 ] || "$work/build/history"

schemas=$(pkg-config --variable=protodir orv-device-tree)
protoc --proto_path="$schemas" --python_out="$work" "$schemas"/proto/monitoring/*.proto
cp "$prefix"/share/doc/liborv-device-tree-dev/examples/receiver.py "$work"
(cd "$work" && /usr/bin/python3 -B -c 'import receiver')
