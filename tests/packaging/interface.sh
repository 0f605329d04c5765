#!/usr/bin/env bash
# Compares the binary interface of the shared library, its exported names and the layout of
# DeviceNode, with interface.txt, and shows what is gone (-) and what is new (+). A name that is
# gone, and any change of layout, breaks programs that are already linked: raise the ABI version.
#
#   ./tests/packaging/interface.sh LIBRARY LAYOUT_PROGRAM [--update]
set -euo pipefail
export LC_ALL=C

expected=$(dirname "$0")/interface.txt

interface() {
  {
    nm -DC --defined-only "$1" | cut -d ' ' -f 3- | sort -u
    "$2"
  } | sed -e 's/\[abi:cxx11\]//g' -e ':again; s/> >/>>/g; t again' -e 's/std::__cxx11::/std::/g' \
    -e 's/std::basic_string<char, std::char_traits<char>, std::allocator<char>>/std::string/g'
}

actual=$(interface "$1" "$2")
if [ "${3:-}" = --update ]; then
  echo "$actual" >"$expected"
fi
diff -U 0 --label interface.txt --label "$1" "$expected" - <<<"$actual"
