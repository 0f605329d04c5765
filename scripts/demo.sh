#!/usr/bin/env bash
# Shows the programs at work: the device tree of this machine, the events of two seconds,
# and the event between two sample trees. Installs what is missing and builds into build/demo.
set -euo pipefail
cd "$(dirname "$0")/.."

heading() { printf '\n== %s ==\n\n' "$1"; }

./scripts/dependencies.sh build
. scripts/functions.sh
build_programs host_monitor snapshot_diff

heading "This machine as a device tree, and what changed after one and after two seconds"
host_monitor --tree --count 3 --interval 1

heading "From one sample tree to the next: examples/samples/rack.textproto, rack_fan_slow.textproto"
snapshot_diff \
  examples/samples/rack.textproto examples/samples/rack_fan_slow.textproto || [ $? -eq 1 ]
