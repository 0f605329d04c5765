"""A reporter that tests play: publish messages of the schemas with Debian's mosquitto_pub."""

import subprocess
import time


def wait(what, condition):
    end = time.monotonic() + 30
    while not (result := condition()):
        assert time.monotonic() < end, "waited in vain for " + what
        time.sleep(0.05)
    return result


def partition_of(root):
    value = 0xcbf29ce484222325
    for byte in root.encode():
        value = (value ^ byte) * 0x100000001b3 % 2**64
    return value % 1024


class Plant:
    def __init__(self, sources, broker, name):
        self.sources, self.port, self.name = sources, broker.rsplit(":", 1)[1], name

    def publish(self, message, text, topic, *options):
        schemas = ["proto/monitoring/device_events.proto", "proto/monitoring/reporting.proto"]
        payload = subprocess.run(
            ["protoc", "-I", self.sources, "--encode=orv.proto.monitoring." + message, *schemas],
            input=text.encode(), stdout=subprocess.PIPE, check=True).stdout
        subprocess.run(["mosquitto_pub", "-V", "5", "-p", self.port, "-q", "1", "-s",
                        "-t", "orv/1/" + topic, *options], input=payload, check=True)

    def event(self, root, sequence, kind, extension, content, *options):
        text = f"event_type: {kind} [orv.proto.monitoring.{extension}.base] {{ {content} }}"
        self.publish("DeviceToOrvServiceEvent", text, f"event/{partition_of(root)}/{root}",
                     "-D", "publish", "user-property", "sequence", sequence,
                     "-D", "publish", "user-property", "reporter", self.name, *options)

    def add(self, root, sequence, device):
        self.event(root, sequence, "DEVICE_ADD", "DeviceAddEvent", f"device {{ {device} }}", "-r")

    def change(self, root, sequence, changes):
        self.event(root, sequence, "STATUS_CHANGE", "StatusChangeEvent", changes)

    def state(self, version, roots):
        """`roots` says of each where it is. No two may have one partition."""
        parts = {partition_of(root): f'roots {{ root: "{root}" {where} }}'
                 for root, where in roots.items()}
        self.publish("ReporterState", f"start: 1 connection: 1 online: true version: {version} " +
                     " ".join(f"parts {{ partition: {part} version: {version} roots: 1 }}"
                              for part in parts), "state/" + self.name)
        for part, root in parts.items():
            self.publish("RootList", f"start: 1 version: {version} {root}",
                         f"roots/{part}/{self.name}")
