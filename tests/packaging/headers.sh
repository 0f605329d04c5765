#!/usr/bin/env bash
# Compiles every installed header alone, and a program that uses them, in C++17 and C++20 with g++
# and with clang++ where that is found. A warning in a header or at its use is a failure.
#
#   ./tests/packaging/headers.sh PREFIX     e.g. /usr
set -euo pipefail

program=$(cd "$(dirname "$0")" && pwd)/consumer.cpp
cd "$1/include/orv"
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual)

for compiler in g++ clang++; do
  command -v "$compiler" >/dev/null || continue
  find . -name '*.h' -printf '%P\n' | while read -r header; do
    echo "$compiler: $header"
    "$compiler" -std=c++17 "${warnings[@]}" -Werror -I. -fsyntax-only -x c++ - \
      <<<"#include \"$header\""
  done
  for standard in 17 20; do
    echo "$compiler -std=c++$standard: $program"
    "$compiler" -std=c++"$standard" "${warnings[@]}" -Werror -I. -fsyntax-only "$program"
  done
done
