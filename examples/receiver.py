"""Follows a device tree: applies the events of one root to the tree that is kept of it.

As a program, receiver.py TREE <EVENT prints the tree after the event, all in the text format; "-"
stands for no tree. receiver.py --broker HOST[:PORT] [--tls CAFILE] [--user USER] ROOT... follows roots
over an MQTT broker until it is interrupted, and prints a line for each step. The password of the user
is ORV_PASSWORD of the environment; --tls encrypts the connection.
"""

import argparse
import copy
import os
import pathlib
import random
import sys
import time
import uuid

from google.protobuf import text_format
from proto.monitoring import device_events_pb2 as events
from proto.monitoring import device_tree_pb2
from proto.monitoring import reporting_pb2

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


class Follower:
    """What is known of one root, from messages in whatever order and number."""

    def __init__(self):
        self.tree = None
        self.epoch = None
        self.n = 0
        self.highest = 0  # n that arrived in the epoch
        self.left = set()  # epochs that were left
        self.lost = False
        self.reported = None  # the reporter's own word: its name, the current epoch, the last n
        self.held_back = ""

    def take(self, epoch, n, event):
        """Returns whether the event was applied; otherwise the tree stays as it is."""
        is_same = epoch == self.epoch
        is_whole = event.event_type in (Event.DEVICE_ADD, Event.CONFIGURATION_CHANGE)
        is_removal = event.event_type == Event.DEVICE_REMOVE
        is_named = self.reported is not None and self.reported[1] == epoch
        if n <= self.n if is_same else epoch in self.left and not is_named:
            return False  # old
        if not is_whole and not (is_same and (is_removal or n == self.n + 1)):
            self.highest = max(self.highest, n) if is_same else self.highest
            self.lost = self.lost or not is_same
            return False  # something is missing before it
        try:
            self.tree = apply(event, self.tree)
        except (LookupError, ValueError):
            self.lost = True
            raise
        if not is_same:
            self.left.add(self.epoch)
            self.highest = 0
        self.lost = self.lost and not (is_whole or is_removal)
        self.epoch, self.n, self.highest = epoch, n, max(self.highest, n)
        return True

    def hear(self, reporter, epoch, n, held_back):
        self.reported = (reporter, epoch, n)
        self.held_back = held_back  # why the broker has not got the latest tree; empty: it has
        if epoch == self.epoch:  # a higher n was none of the reporter's, or comes up again
            self.highest = max(self.n, min(self.highest, n))

    def is_current(self):
        return (self.epoch is not None and not self.lost and not self.held_back
                and self.highest <= self.n
                and (self.reported is None or self.reported[1] == self.epoch))

    def can_catch_up(self):
        return (self.tree is not None and not self.lost and self.reported is not None
                and self.reported[1] == self.epoch)

    def is_behind(self):
        return self.reported is not None and self.reported[2] > self.n


def level(text):
    """The text as one level of a topic."""
    if not text:
        return "%"
    special = set("/+#%") | {chr(code) for code in (*range(0x20), *range(0x7f, 0xa0))}
    return "".join("".join(f"%{byte:02X}" for byte in character.encode())
                   if character in special else character for character in text)


def partition(root):
    value = 0xcbf29ce484222325
    for byte in root.encode():
        value = (value ^ byte) * 0x100000001b3 % 2**64
    return value % 1024


class Due:
    """When to ask for a root: at first after a second, then after pauses that double."""

    def __init__(self):
        self.in_step = self.due = time.monotonic()
        self.pause = 1
        self.asked = 0  # so many times

    def has_come(self, follower, now):
        if not follower.is_behind():
            self.in_step = now
        if (follower.reported is None or follower.reported[2] == 0 or follower.held_back
                or follower.is_current() and now - self.in_step < 5):
            self.due, self.pause, self.asked = now + 1, 1, 0
            return False
        if now < self.due:
            return False
        self.asked += 1
        self.pause = min(2 * self.pause, 60)
        self.due = now + self.pause
        return True


def follow(options):
    from paho.mqtt import client as mqtt  # Debian's python3-paho-mqtt
    from paho.mqtt.packettypes import PacketTypes
    from paho.mqtt.properties import Properties

    followers = {root: Follower() for root in options.roots}
    dues = {root: Due() for root in options.roots}
    topics = {f"orv/1/event/{partition(root)}/{level(root)}": root for root in options.roots}
    partitions = {partition(root) for root in followers}
    reporters = {}  # the last state of each, by name
    summaries = {}  # the last of each list, by name and partition
    versions = {}  # of the last lists
    lacking = {}  # lists to be asked for, and when

    def on_connect(client, *_):
        client.subscribe([("orv/1/state/+", 1), ("orv/1/gone/+", 1), *((f"orv/1/roots/{part}/+", 1) for part in partitions),
                          *((topic, 1) for topic in topics)])

    def on_message(client, _, message):
        try:
            *_, kind, part, name = message.topic.split("/")
            if part in ("state", "gone"):
                take_state(name, reporting_pb2.ReporterState.FromString(message.payload))
            elif kind == "roots":
                take_list(name, int(part), reporting_pb2.RootList.FromString(message.payload))
            elif message.payload:  # an empty one clears the topic after a removal
                root = topics[message.topic]
                sequence = dict(getattr(message.properties, "UserProperty", ())).get("sequence")
                if sequence is None:
                    raise ValueError(f"{root} has no sequence: is there a bridge without MQTT 5?")
                event = Event.FromString(message.payload)
                done = followers[root].take(*map(int, sequence.split(".")), event)
                print(root, sequence, Event.EventType.Name(event.event_type),
                      "applied" if done else "not applied", flush=True)
        except Exception as fault:  # whoever may publish can send anything
            print("refused:", repr(fault), flush=True)

    def take_state(name, state):
        last = reporters.get(name)
        if last and (not state.online if state.start != last.start
                     else state.connection < last.connection or state.online and
                     (state.connection, state.version) < (last.connection, last.version)):
            return  # the late will of an earlier connection, or an earlier state
        reporters[name] = state
        if not state.online:
            for part in partitions:
                summaries.pop((name, part), None)
        parts = {part.partition: part for part in state.parts if state.online}
        for root, follower in followers.items():
            if partition(root) not in parts and follower.reported and follower.reported[0] == name:
                follower.reported = None  # gone, or it has the root no longer
        for number in partitions & parts.keys():
            # Where the roots of the part are has changed, and the list says which of them it was.
            if summaries.get((name, number)) != parts[number].SerializeToString():
                summaries[name, number] = parts[number].SerializeToString()
                lacking.setdefault((name, number), time.monotonic() + random.random())

    def take_list(name, number, listing):
        state = reporters.get(name)
        if (state is None or listing.start != state.start
                or listing.version < versions.get((name, number, listing.start), 0)):
            return  # that of an earlier process, or an earlier one
        versions[name, number, listing.start] = listing.version
        lacking.pop((name, number), None)
        listed = {entry.root: entry for entry in listing.roots}
        for root, follower in followers.items():
            if root in listed:
                entry = listed[root]
                follower.hear(name, entry.epoch, entry.n, entry.held_back)
            elif (partition(root) == number and follower.reported
                  and follower.reported[0] == name):
                follower.reported = None

    client = mqtt.Client(client_id=f"orv-{uuid.uuid4()}", protocol=mqtt.MQTTv5)
    client.on_connect = on_connect
    client.on_message = on_message
    if options.tls:
        client.tls_set(options.tls)
    if options.user:
        client.username_pw_set(options.user, os.environ.get("ORV_PASSWORD"))
    host, _, port = options.broker.partition(":")
    client.connect(host, int(port or (8883 if options.tls else 1883)))
    expires = Properties(PacketTypes.PUBLISH)
    expires.MessageExpiryInterval = 60
    while True:
        if client.loop(timeout=0.2):  # an error: the connection is lost
            time.sleep(1)
            try:
                client.reconnect()
            except OSError as fault:
                print("no connection:", fault, flush=True)
                continue
        now = time.monotonic()
        requests = {}
        for root, follower in followers.items():
            if dues[root].has_come(follower, now):
                name = follower.reported[0]
                request = requests.setdefault(name, reporting_pb2.TreeRequest())
                if follower.can_catch_up() and dues[root].asked < 3:
                    print(root, "asking for what follows", follower.n, flush=True)
                    request.have.add(root=root, epoch=follower.epoch, n=follower.n)
                else:
                    print(root, "asking for the tree", flush=True)
                    request.roots.append(root)
        for (name, number), due in lacking.items():
            if due < now and reporters[name].online:
                lacking[name, number] = now + 10
                requests.setdefault(name, reporting_pb2.TreeRequest()).parts.append(number)
        for name, request in requests.items():
            client.publish("orv/1/request/" + name, request.SerializeToString(), 1,
                           properties=expires)


def main():
    if sys.argv[1] == "--broker":
        parser = argparse.ArgumentParser()
        parser.add_argument("--broker", metavar="HOST[:PORT]")
        parser.add_argument("--tls", metavar="CAFILE")
        parser.add_argument("--user")
        parser.add_argument("roots", nargs="+", metavar="ROOT")
        return follow(parser.parse_args())
    tree = None
    if sys.argv[1] != "-":
        text = pathlib.Path(sys.argv[1]).read_bytes()
        tree = text_format.Parse(text, device_tree_pb2.DeviceNode())
    tree = apply(text_format.Parse(sys.stdin.buffer.read(), Event()), tree)
    if tree is not None:
        sys.stdout.buffer.write(text_format.MessageToBytes(tree, as_utf8=True))


if __name__ == "__main__":
    main()
