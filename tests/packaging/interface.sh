#!/usr/bin/env bash
# Shows what of the binary interface below PREFIX is gone (-) or new (+) since interface.txt was
# written: names that are exported, sizes, bases and virtual functions of classes. A name that is
# gone, and any change of a class, breaks linked programs and needs a new major version, or in
# orv::reporting or orv::history a new minor one.
#   ./tests/packaging/interface.sh PREFIX [--update]
set -euo pipefail
export LC_ALL=C

expected=$(dirname "$0")/interface.txt
actual=$({
  nm -DC --defined-only "$1"/lib/liborv_{device_tree,reporting,history}.so | cut -s -d ' ' -f 3- | sort -u
  g++ -std=c++17 -I "$1/include/orv" -fsyntax-only -fdump-lang-class=/dev/stdout \
    -include device_tree/Utils.h -include reporting/Connection.h -include reporting/Collector.h \
    -include reporting/Reporter.h -include reporting/Sender.h \
    -include history/Recorder.h -include history/Reader.h \
    -x c++ /dev/null |
    awk -v RS= '/^(Class|Vtable for) orv::(device_tree|reporting|history|utils)::[A-Za-z:]+\n/'
} | sed -e 's/\[abi:cxx11\]//g' -e ':again; s/> >/>>/g; t again' -e 's/std::__cxx11::/std::/g' \
  -e 's/std::basic_string<char, std::char_traits<char>, std::allocator<char>>/std::string/g' \
  -e 's/std::chrono::time_point<std::chrono::_V2::steady_clock, [^>]*>>>/std::chrono::steady_clock::time_point/g' \
  -e 's/ (0x0x[0-9a-f]*)//' -e '/base size=\|vptr=\|primary-for/d')

if [ "${2:-}" = --update ]; then
  echo "$actual" >"$expected"
fi
diff -U 0 --label interface.txt --label "$1" "$expected" - <<<"$actual"
