"""Follows a device tree: applies the events of one root to the tree that is kept of it."""

import copy

from proto.monitoring import device_events_pb2 as events

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
