"""Runs the example programs: examples_test.py HOST_MONITOR SNAPSHOT_DIFF"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

MONITOR, DIFF = sys.argv[1:]
HERE = pathlib.Path(__file__).parent
SAMPLES = HERE.parents[1] / "examples/samples"


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
        (self.directory / "new").write_text(text, encoding="utf-8")
        (self.directory / name).parent.mkdir(parents=True, exist_ok=True)
        os.replace(self.directory / "new", self.directory / name)

    def assert_refused(self, fault, *command):
        status, output, error = run(*command)
        self.assertEqual((2, ""), (status, output), command)
        self.assertRegex(error, rf"\A{re.escape(command[0])}: .*{re.escape(fault)}.*\n\Z")


class HostMonitorTest(ProgramTest):
    def setUp(self):
        super().setUp()
        recorded = (HERE / "machine.txt").read_text(encoding="utf-8")
        for file in recorded.split("== ")[1:]:  # "== NAME", then what it holds
            self.write(*file.split("\n", 1))

    def start(self, *options):
        program = subprocess.Popen([MONITOR, "--root", self.directory, *options],
                                   stdout=subprocess.PIPE, encoding="utf-8")
        for clean_up in program.stdout.close, program.wait, program.kill:
            self.addCleanup(clean_up)
        self.assertEqual("1 host: added, 11 devices, Warning: host/net/eth1\n",
                         program.stdout.readline())
        return program

    def test_recorded_machine(self):
        tree = (HERE / "machine_tree.txt").read_text(encoding="utf-8")
        report = "\n1 host: added, 11 devices, Warning: host/net/eth1\n"
        options = ["--root", str(self.directory), "--count=2", "--interval=0.01"]
        self.assertEqual((0, tree + report, ""), run(MONITOR, "--tree", *options))
        status, text, _ = run(MONITOR, "--format", "text", *options)
        self.assertEqual(0, status)
        self.assertRegex(text, r'\A# reading 1\nevent_type: DEVICE_ADD\n[^#]*"host/fs/srv/my data"')

    def test_changes_between_readings(self):
        program = self.start("--interval", "0.2", "--count", "0")
        for file, text, expected in [
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
                    "host/net/eth0: property mtu changed"])]:
            self.write(file, text + "\n")
            lines = [program.stdout.readline().rstrip("\n").split(" ", 1) for _ in expected]
            self.assertEqual(expected, [change for _, change in lines])
            self.assertEqual(1, len({reading for reading, _ in lines}), lines)

        # A reading may meet a directory half gone, so other changes may come first.
        for source, change in [
                ("proc/mounts", "host/fs/srv/my data: device removed"),
                ("sys/class/net/eth0", "host/net/eth0: device removed"),
                ("sys/class/hwmon", "host/hwmon0/temp2: device removed"),
                ("sys/block/sda/device/model", "host/block/sda: property model changed"),
                ("proc/stat", "host/cpu0: state (string offline)"),
                ("sys", "host/cpu0: device removed")]:
            os.rename(self.directory / source, self.directory / ("was " + source.replace("/", "-")))
            while change not in (line := program.stdout.readline()):
                self.assertNotEqual("", line, change)
        self.assertIsNone(program.poll())

    def test_ends_at_once_when_interrupted(self):
        for number in signal.SIGINT, signal.SIGTERM:
            program = self.start("--interval", "86400")
            program.send_signal(number)
            self.assertEqual(0, program.wait(timeout=30))

    def test_options(self):
        for program in MONITOR, DIFF:
            status, output, error = run(program, "--help")
            self.assertEqual((0, ""), (status, error))
            self.assertTrue(output.startswith(f"Usage: {os.path.basename(program)} "))
        for options in ["--colour", "here", "--tree=yes", "--format xml", "--interval 0",
                        "--interval nan", "--interval 2s", "--count -1", "--count 1.5", "--count "]:
            fault = "--tree" if "=" in options else options.split(" ")[-1]
            self.assert_refused(f"'{fault}'", MONITOR, *options.split(" "))
        self.assert_refused("/nowhere/proc/stat: No such file", MONITOR, "--root", "/nowhere")


class SnapshotDiffTest(ProgramTest):
    def test_events(self):
        rack, slow, second = (str(SAMPLES / f"rack{change}.textproto")
                              for change in ("", "_fan_slow", "_second_sensor"))
        removal = ('event_type: DEVICE_REMOVE\n[orv.proto.monitoring.DeviceRemoveEvent.base] {\n'
                   '  device_id: "station-7"\n}\n')
        self.assertEqual((0, "", ""), run(DIFF, rack, rack))
        self.assertEqual((0, "", ""), run(DIFF, "-", "-"))
        self.assertEqual((1, removal, ""), run(DIFF, rack, "-"))
        self.assertIn('value: "°C"', run(DIFF, slow, second)[1])
        explained = ("station-7: reconfigured, 5 devices, OK\n"
                     "station-7/recorder/temperature: device added\n")
        self.assertEqual((1, explained, ""), run(DIFF, "--explain", slow, second))

    def test_refuses_bad_input(self):
        file = str(self.directory / "tree")
        for text, fault in [
                ('id: "a"\nname: oops', f'{file}:2:7: Expected string, got: oops'),
                ('id: "a"' + 'sub_devices {' * 10**5, 'recursion limit'),
                ('id: "a" sub_devices { id: "a" }',
                 f'{file}: Device a - : Device a - : Sub-device has same ID as parent: a')]:
            self.write("tree", text)
            self.assert_refused(fault, DIFF, "-", file)
        self.assert_refused("/nowhere: No such file or directory", DIFF, "/nowhere", "-")
        self.assert_refused(f"{self.directory}: Is a directory", DIFF, str(self.directory), "-")
        self.assert_refused("OLD and NEW", DIFF, file)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
