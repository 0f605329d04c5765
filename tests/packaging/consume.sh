#!/usr/bin/env bash
# Uses an installed tree as its users do: pkg-config in C++20 and as strictly as WARNINGS say,
# find_package in C++17, the schemas, the receiver.
#   ./tests/packaging/consume.sh PREFIX PROGRAM [OPTION OF PKG-CONFIG]     e.g. /usr program.cpp
set -euo pipefail

prefix=$1
program=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name orv-device-tree.pc)")
export PKG_CONFIG_PATH
library() { pkg-config "$@" orv-device-tree; }

"${CXX:-g++}" -std=c++20 ${WARNINGS:-} "$here/boundary.cpp" -o "$work/boundary" \
  $(library --cflags --libs "${@:3}") -Wl,-rpath,"$(library --variable=libdir)"
"$work/boundary"

cmake -S "$here/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DPROGRAM="$program"
cmake --build "$work/build"
"$work/build/consumer"

schemas=$(library --variable=protodir)
protoc --proto_path="$schemas" --python_out="$work" "$schemas"/proto/monitoring/*.proto
cp "$prefix"/share/doc/liborv-device-tree-dev/examples/receiver.py "$work"
(cd "$work" && /usr/bin/python3 -B -c 'import receiver')
