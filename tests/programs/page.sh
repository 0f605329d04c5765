#!/usr/bin/env bash
# Uses the page of the collector in Debian's chromium, with three recorded machines that report over a
# broker. Exits with 77 where that or selenium is not installed.
#   ./tests/programs/page.sh PROGRAMS [--pictures]    PROGRAMS is a directory, e.g. build/release/programs
# With --pictures, it also writes docs/pictures/fleet*.png.
set -euo pipefail
PATH=$(realpath "$1"):$PATH
cd "$(dirname "$0")/../.."
pictures=()
[ "${2:-}" != --pictures ] || pictures=("$PWD/docs/pictures")

. scripts/functions.sh
cd "$work"
need chromium chromedriver mosquitto_pub protoc
/usr/bin/python3 -c 'import selenium' || exit 77

start_broker
for name in station-7 station-8 station-9; do
  report_machine $name 0.5
done
put station-9/sys/class/net/eth1/carrier 1  # a machine that is well
/usr/bin/python3 -B "$sources/tests/programs/page.py" "$sources" "$broker" "$(free_port)" \
  "${pictures[@]}"
