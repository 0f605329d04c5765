#!/usr/bin/env bash
# Shows a fleet at work: a broker of its own on the loopback, this machine and two recorded ones that
# report to it, and the collector, which prints what changes in them and shows them on a page.
# Installs what is missing, builds into build/demo, and ends everything that it started.
#
#   ./scripts/fleet.sh [--stay] [SECONDS]
#
# One of the recorded machines fails after three quarters of SECONDS, 30 unless told otherwise. At
# their end everything ends; with --stay it goes on until it is interrupted with Ctrl-C. What
# changed stays in the collector's history, build/demo/fleet-history.
set -euo pipefail
cd "$(dirname "$0")/.."

limit=(timeout --foreground --signal=INT)
if [ "${1:-}" = --stay ]; then
  limit=()
  shift
fi
seconds=${1:-30}
if [ $# -gt 1 ] || ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: fleet.sh [--stay] [SECONDS]" >&2
  exit 2
fi

./scripts/dependencies.sh build broker web
. scripts/functions.sh
build_programs host_monitor collector history
cd "$work"

# Makes the recorded machine live: MACHINE SECONDS.
replay() {
  while sleep "$2"; do
    put "$1/proc/loadavg" "0.$((RANDOM % 90 + 10)) 0.50 0.75 1/120 4711"
    put "$1/sys/class/hwmon/hwmon0/temp1_input" "$((40000 + RANDOM * 2))"
    put "$1/sys/class/net/eth0/carrier" "$((RANDOM % 8 != 0))"
  done
}

start_broker
host_monitor --broker "$broker" --interval 10 >/dev/null 2>live.log &
for name in station-7 station-8; do
  report_machine $name 1
done
replay station-7 3 &
replay station-8 4 &
# Near the end the second recorded machine fails.
(sleep $((seconds * 3 / 4)) && kill -9 "$(<station-8.pid)") &

echo "A broker at $broker, the page at the address below, and what the collector prints:"
echo
[ ${#limit[@]} -eq 0 ] || limit+=("$seconds")
history=build/demo/fleet-history
rm -f "$sources/$history"*
"${limit[@]}" collector --broker "$broker" --http "$(free_port)" --history "$sources/$history" ||
  [ $? -eq 124 ]

cd "$sources"
echo
echo "What changed in station-7 at last, as the collector's history has it:"
orv-history $history changes --root station-7 --newest --count 5
echo
echo "Ask it more, with a time as in \"5m ago\" or 2026-11-24T10:00:00Z:"
ask=build/demo/programs/orv-history
echo "  $ask $history changes --root station-8 --newest --count 20"
echo "  $ask $history tree --root station-7 --at \"20s ago\" --against now"
echo "  $ask $history values --root station-7 --device station-7 --status load"
