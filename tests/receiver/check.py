"""Applies the events in a directory, each twice, and compares the kept tree with the live one."""

import pathlib
import sys

import receiver
from proto.monitoring import device_tree_pb2

program = pathlib.Path(receiver.__file__)
if program.read_text() not in program.with_name("messages.md").read_text():
    sys.exit("docs/messages.md does not show docs/receiver.py as it is")

kinds = set()
kept = None
for event_file in sorted(pathlib.Path(sys.argv[1]).glob("*.event")):
    event = receiver.Event.FromString(event_file.read_bytes())
    kinds.add(event.event_type)
    tree_file = event_file.with_suffix(".tree")
    live = None
    if tree_file.exists():
        live = device_tree_pb2.DeviceNode.FromString(tree_file.read_bytes())
    for delivery in ("first", "second"):
        kept = receiver.apply(event, kept)
        if kept != live:
            sys.exit(f"{event_file.name}, {delivery} delivery: kept\n{kept}\nlive\n{live}")

if kinds != set(receiver.Event.EventType.values()):
    sys.exit(f"not every type of event was seen: {sorted(kinds)}")
