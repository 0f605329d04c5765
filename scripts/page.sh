#!/usr/bin/env bash
# Checks the page of the collector in Debian's chromium, with three recorded machines that report over
# a broker. Installs what is missing, builds into build/demo, and ends everything that it started.
#
#   ./scripts/page.sh               checks the page
#   ./scripts/page.sh --pictures    also writes docs/pictures/fleet.png and fleet_small.png
set -euo pipefail
cd "$(dirname "$0")/.."

pictures=()
case ${1:-} in
  --pictures) pictures=("$PWD/docs/pictures") ;;
  '') ;;
  *)
    echo "usage: page.sh [--pictures]" >&2
    exit 2
    ;;
esac

./scripts/dependencies.sh page
. scripts/fleet_of.sh
build_fleet
cd "$work"

start_broker
for name in station-7 station-8 station-9; do
  unpack_machine $name
done
put station-9/sys/class/net/eth1/carrier 1  # a machine that is well
for name in station-7 station-8 station-9; do
  host_monitor --broker "$broker" --root $name --interval 0.5 >/dev/null 2>$name.log &
  echo $! >$name.pid
done
last=$(<station-8.pid)
disown "$last"  # it is killed, which needs no word of the shell
/usr/bin/python3 "$sources/tests/examples/page.py" "$broker" "$(free_port 18080)" "${pictures[@]}"
