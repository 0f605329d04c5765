"""Runs host_monitor and snapshot_diff: examples_test.py HOST_MONITOR SNAPSHOT_DIFF SAMPLES"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

MONITOR, DIFF, SAMPLES = sys.argv[1:4]
HERE = pathlib.Path(__file__).parent


def run(*command):
    done = subprocess.run(command, capture_output=True, encoding="utf-8", timeout=60)
    return done.returncode, done.stdout, done.stderr


class ProgramTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def write(self, name, text):
        """Replaces the file at once, so that no reader finds half of it."""
        new = self.directory / "new"
        new.write_text(text, encoding="utf-8")
        os.replace(new, self.directory / name)
        return str(self.directory / name)

    def assert_refused(self, fault, *command):
        status, output, error = run(*command)
        self.assertEqual((2, ""), (status, output), command)
        self.assertRegex(error, rf"\A{re.escape(command[0])}: .*{re.escape(fault)}.*\n\Z")


class HostMonitorTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.root = self.directory / "machine"
        shutil.copytree(HERE / "machine", self.root)

    def start(self, *options):
        program = subprocess.Popen(
            [MONITOR, "--root", self.root, *options], stdout=subprocess.PIPE, encoding="utf-8")
        self.addCleanup(program.stdout.close)
        self.addCleanup(program.wait)
        self.addCleanup(program.kill)
        self.assertIn(" host: added", program.stdout.readline())
        return program

    def next_changes(self, program, count):
        """That many lines of one report, without the number of its reading."""
        lines = [program.stdout.readline().rstrip("\n").split(" ", 1) for _ in range(count)]
        self.assertEqual(1, len({number for number, _ in lines}), lines)
        return [change for _, change in lines]

    def test_recorded_machine(self):
        tree = (HERE / "machine.txt").read_text(encoding="utf-8")
        report = "\n1 host: added, 11 devices, Warning: host/net/eth1\n"
        options = ["--root", self.root, "--count=2", "--interval=0.01"]
        self.assertEqual((0, tree + report, ""), run(MONITOR, "--tree", *options))

        status, text, _ = run(MONITOR, "--format", "text", *options)
        self.assertEqual(0, status)
        self.assertTrue(text.startswith("# reading 1\nevent_type: DEVICE_ADD\n"), text)
        self.assertIn('id: "host/fs/srv/my data"', text)

    def test_changes_between_readings(self):
        program = self.start("--interval", "0.2")
        steps = [
            ("proc/loadavg", "1.5 1 1", ["host: load (double 1.500000)"]),
            ("sys/class/net/eth0/carrier", "0", [
                "host: Warning: host/net/eth0, host/net/eth1",
                "host/net/eth0: Warning: link down"]),
            ("sys/class/net/eth1/carrier", "1", [
                "host: Warning: host/net/eth0", "host/net/eth1: OK"]),
            ("sys/class/hwmon/hwmon0/temp1_input", "95000", [
                "host: Warning: host/hwmon0/temp1, host/net/eth0",
                "host/hwmon0/temp1: Warning: critical temperature",
                "host/hwmon0/temp1: celsius (double 95.000000)"]),
            ("sys/class/net/eth0/speed", "unreadable", [
                "host/net/eth0: speed_mbit (uint not set)"]),
            ("sys/class/net/eth0/mtu", "1400", [
                "host: reconfigured, 11 devices, Warning: host/hwmon0/temp1, host/net/eth0",
                "host/net/eth0: property mtu changed"]),
            ("proc/mounts", "/dev/sda1 / ext4 rw 0 0\n/dev/sdb1 /media/disc iso9660 ro 0 0\n", [
                None, "host/fs/: device added", "host/fs/srv/my data: device removed"]),
        ]
        for file, text, expected in steps:
            self.write("machine/" + file, text + "\n")
            changes = self.next_changes(program, len(expected))
            if expected[0] is None:  # whether the disk of this test is nearly full
                expected[0] = changes[0]
            self.assertEqual(expected, changes)

    def test_sources_that_disappear(self):
        program = self.start("--interval", "0.2", "--count", "0")
        for source, change in [
                ("sys/class/net/eth0", "host/net/eth0: device removed"),
                ("sys/class/hwmon", "host/hwmon0/temp2: device removed"),
                ("sys/block/sda/device/model", "host/block/sda: property model changed"),
                ("proc/stat", "host/cpu0: state (string offline)"),
                ("sys", "host/cpu0: device removed")]:
            os.rename(self.root / source, self.directory / "away")
            while change not in (line := program.stdout.readline()):
                self.assertNotEqual("", line, change)
            away = self.directory / "away"
            shutil.rmtree(away) if away.is_dir() else away.unlink()
        self.assertIsNone(program.poll())

    def test_ends_at_once_when_interrupted(self):
        for number in signal.SIGINT, signal.SIGTERM:
            program = self.start("--interval", "86400")
            program.send_signal(number)
            self.assertEqual(0, program.wait(timeout=30))

    def test_options(self):
        status, output, error = run(MONITOR, "--help")
        self.assertEqual((0, ""), (status, error))
        self.assertTrue(output.startswith("Usage: host_monitor "))
        (self.directory / "proc").mkdir()
        for fault, *options in [
                ("'--colour'", "--colour"), ("'x'", "-x"), ("'here'", "here"),
                ("'--tree'", "--tree=yes"), ("'xml'", "--format", "xml"),
                ("'--interval'", "--interval"), ("'0'", "--interval", "0"),
                ("'nan'", "--interval", "nan"), ("'2s'", "--interval", "2s"),
                ("'1e9'", "--interval", "1e9"), ("'-1'", "--count", "-1"),
                ("'1.5'", "--count", "1.5"), ("''", "--count", ""),
                (f"{self.directory}/proc/stat: No such file", "--root", str(self.directory))]:
            self.assert_refused(fault, MONITOR, *options)


class SnapshotDiffTest(ProgramTest):
    rack = os.path.join(SAMPLES, "rack.textproto")

    def test_events(self):
        removal = ('event_type: DEVICE_REMOVE\n[orv.proto.monitoring.DeviceRemoveEvent.base] {\n'
                   '  device_id: "station-7"\n}\n')
        self.assertEqual((0, "", ""), run(DIFF, self.rack, self.rack))
        self.assertEqual((0, "", ""), run(DIFF, "-", "-"))
        self.assertEqual((1, removal, ""), run(DIFF, self.rack, "-"))
        for new, expected in [
                ("rack_fan_slow", ["STATUS_CHANGE", '"fan slow: 840 of 3000 rpm"', "_value: 48511"]),
                ("rack_second_sensor", ["CONFIGURATION_CHANGE", 'value: "°C"'])]:
            status, output, error = run(DIFF, self.rack, os.path.join(SAMPLES, new + ".textproto"))
            self.assertEqual((1, ""), (status, error))
            for text in expected:
                self.assertIn(text, output)

    def test_refuses_bad_input(self):
        file = str(self.directory / "tree")
        for text, fault in [
                ('id: "a"\nname: oops', ':2:7: Expected string, got: oops'),
                ('id: "a"\n statuses { unit: "m" }', ':2:17: Message type'),
                ('id: "a"' + 'sub_devices {' * 10**5, 'recursion limit'),
                ('id: "a" sub_devices { id: "a" }',
                 ': Device a - : Device a - : Sub-device has same ID as parent: a'),
                ('id: "a" statuses { name: "s" } statuses { name: "s" }',
                 ': Device a - : Device a - : Status s already exists')]:
            self.write("tree", text)
            self.assert_refused(file + fault if fault[0] == ":" else fault, DIFF, "-", file)
        self.assert_refused("/nowhere: No such file or directory", DIFF, "/nowhere", "-")
        self.assert_refused(f"{self.directory}: Is a directory", DIFF, str(self.directory), "-")
        self.assert_refused("OLD and NEW", DIFF, self.rack)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
