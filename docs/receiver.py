"""Follows a device tree: applies the events of one root to the tree that is kept of it.

As a program, receiver.py TREE <EVENT prints the tree after the event, all in the text format; "-"
stands for no tree.
"""

import copy
import pathlib
import sys

from google.protobuf import text_format
from proto.monitoring import device_events_pb2 as events
from proto.monitoring import device_tree_pb2

Event = events.DeviceToOrvServiceEvent


def walk(device):
    yield device
    for sub_device in device.sub_devices:
        yield from walk(sub_device)


def apply(event, tree):
    """Returns the tree after the event; None stands for no tree. May change `tree` in place."""
    if not event.HasField("event_type"):
        raise ValueError("event of an unknown type")
    if event.event_type == Event.DEVICE_REMOVE:
        return None
    if event.event_type == Event.DEVICE_ADD:
        return copy.deepcopy(event.Extensions[events.DeviceAddEvent.base].device)
    if event.event_type == Event.CONFIGURATION_CHANGE:
        return copy.deepcopy(event.Extensions[events.ConfigurationChangeEvent.base].device)

    if tree is None:
        raise LookupError("status change of a tree that is not kept")
    devices = {}
    for device in walk(tree):
        devices.setdefault(device.id, device)  # the first one, should an identifier repeat
    changes = event.Extensions[events.StatusChangeEvent.base]
    for change in changes.global_status_changes:
        if change.device_id in devices:
            devices[change.device_id].global_status.CopyFrom(change.status)
    for change in changes.named_status_changes:
        if change.device_id in devices:
            for status in devices[change.device_id].statuses:
                if status.name == change.status.name:
                    status.CopyFrom(change.status)
    return tree


def main():
    tree = None
    if sys.argv[1] != "-":
        text = pathlib.Path(sys.argv[1]).read_bytes()
        tree = text_format.Parse(text, device_tree_pb2.DeviceNode())
    tree = apply(text_format.Parse(sys.stdin.buffer.read(), Event()), tree)
    if tree is not None:
        sys.stdout.buffer.write(text_format.MessageToBytes(tree, as_utf8=True))


if __name__ == "__main__":
    main()
