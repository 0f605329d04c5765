#!/usr/bin/env bash
# Uses an installed tree as its users do: a program built through pkg-config with assertions, in
# C++17 and in C++20 linked as for a static library, one built through find_package without
# assertions, and the schemas.
#
#   ./tests/packaging/consume.sh PREFIX     e.g. /usr
set -euo pipefail

prefix=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name orv-device-tree.pc)")
export PKG_CONFIG_PATH
library_dir=$(pkg-config --variable=libdir orv-device-tree)

build_and_run() {  # STANDARD [OPTION OF PKG-CONFIG]
  # shellcheck disable=SC2046 # the flags are separate words
  "${CXX:-g++}" -std=c++"$1" "$here/consumer.cpp" -o "$work/consumer" \
    $(pkg-config --cflags --libs "${@:2}" orv-device-tree) -Wl,-rpath,"$library_dir"
  "$work/consumer"
}
build_and_run 17
build_and_run 20 --static

protoc --proto_path="$(pkg-config --variable=protodir orv-device-tree)" \
  --descriptor_set_out=/dev/null proto/monitoring/device_events.proto

cmake -S "$here/find_package" -B "$work/find_package" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release
cmake --build "$work/find_package"
"$work/find_package/consumer"
