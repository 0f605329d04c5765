#!/usr/bin/env bash
# Installs a build and moves it to PREFIX. No file that people read names a directory of this machine,
# libraries are looked for beside themselves, headers compile alone as strictly as WARNINGS say.
#   ./tests/packaging/install.sh BUILD_DIR PREFIX
set -euo pipefail

build=$1
prefix=$2
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
refuse() { ! grep . || { echo "$1" >&2; exit 1; }; }  # what it reads, if anything

rm -rf "$prefix" "$prefix.staged"
cmake --install "$build" --prefix "$prefix.staged" >/dev/null
mv "$prefix.staged" "$prefix"

{ grep -rI -F -e "$source_dir" -e "$build" "$prefix" || true; } |
  refuse "What is installed must not name these directories"
find "$prefix" -name liborv_\*.so ! -exec sh -c 'readelf -d "$1" | grep -q -F "[\$ORIGIN]"' - {} \; -print |
  refuse "The library is not looked for beside itself"
find "$prefix" -name Comparison.h | refuse "An internal header must not be installed"

cd "$prefix/include/orv"
find . -name '*.h' ! -name '*.pb.h' -printf '#include "%P"\n' | while read -r include; do
  echo "$include"
  "${CXX:-g++}" -std=c++20 $WARNINGS -I . -fsyntax-only -x c++ - <<<"$include"
done
