#!/usr/bin/env bash
# Makes a recorded machine for host_monitor --root: DIRECTORY RECORDING... A recording has the files of
# a machine's proc, sys and run one after the other: "== FILE" and what is in it, and "== LINK -> WHERE".
set -euo pipefail
to=$1
shift
cat "$@" | awk -v to="$to/" -v quote="'" '
  function quoted(text) { gsub(quote, "&\\\\&&", text); return quote text quote }
  /^== / {
    if (file) close(file)
    arrow = index($0, " -> ")
    file = to substr($0, 4, arrow ? arrow - 4 : length($0))
    system("d=" quoted(file) "; mkdir -p \"${d%/*}\"")
    if (arrow) system("ln -s " quoted(substr($0, arrow + 4)) " " quoted(file))
    next
  }
  { print >file }'
