"""Follows a tree by what snapshot_diff reports of it: receiver_test.py PROTOC SNAPSHOT_DIFF"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

from google.protobuf import text_format

PROTOC, DIFF = sys.argv[1:]
ROOT = pathlib.Path(__file__).parents[2]
WORK = tempfile.TemporaryDirectory()
subprocess.run([PROTOC, f"--proto_path={ROOT}", f"--python_out={WORK.name}",
                *ROOT.glob("proto/monitoring/*.proto")], check=True)
sys.path += [WORK.name, str(ROOT / "docs")]

import receiver
from proto.monitoring import device_tree_pb2

Event = receiver.Event


def sample(name):
    text = (ROOT / f"examples/samples/{name}.textproto").read_text(encoding="utf-8")
    return text_format.Parse(text, device_tree_pb2.DeviceNode())


def report(old, new):
    files = []
    for tree in old, new:
        files.append(pathlib.Path(WORK.name, str(len(files))) if tree else "-")
        if tree:
            files[-1].write_text(text_format.MessageToString(tree))
    done = subprocess.run([DIFF, *files], capture_output=True, encoding="utf-8", timeout=60)
    return text_format.Parse(done.stdout, Event())


class ReceiverTest(unittest.TestCase):
    def test_follows_the_tree_event_by_event_even_if_each_comes_twice(self):
        rack, wired = sample("rack"), sample("rack_second_sensor")
        measured = sample("rack_second_sensor")
        measured.sub_devices[1].sub_devices[1].statuses[0].double_value = 4.5
        seen = []
        live = kept = None
        for step in [rack, sample("rack_fan_slow"), rack, wired, measured, wired, None, rack]:
            event = report(live, step)
            live = step
            seen.append(event.event_type)
            for _ in "first delivery", "second delivery":
                kept = receiver.apply(event, kept)
                self.assertEqual(live, kept)
        self.assertEqual([Event.DEVICE_ADD, Event.STATUS_CHANGE, Event.STATUS_CHANGE,
                          Event.CONFIGURATION_CHANGE, Event.STATUS_CHANGE, Event.STATUS_CHANGE,
                          Event.DEVICE_REMOVE, Event.DEVICE_ADD], seen)
        self.assertEqual(rack, receiver.apply(report(wired, measured), kept))  # an old event

    def test_refuses_what_it_cannot_apply(self):
        with self.assertRaises(ValueError):
            receiver.apply(Event(), sample("rack"))
        with self.assertRaises(LookupError):
            receiver.apply(Event(event_type=Event.STATUS_CHANGE), None)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
