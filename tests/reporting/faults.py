"""Plays faults against real brokers, with reporters and collectors in processes:
faults.py PEER MOSQUITTO PROTOC FAKETIME SOURCES [SCENARIO...]

The trees change all the time. After each fault the collector, and one that starts only then, must
come to what the reporters have. All scenarios run at once, as they mostly wait.
"""

import concurrent.futures
import contextlib
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

PEER, MOSQUITTO, PROTOC, FAKETIME, SOURCES, *CHOSEN = sys.argv[1:]


def run(*command, **options):
    return subprocess.run(command, check=True, timeout=60, **options)


def wait(what, condition):
    end = time.monotonic() + 60
    while not condition():
        assert time.monotonic() < end, "waited in vain for " + what
        time.sleep(0.1)


def heads(trees):
    return {tree.split("\n")[0] for tree in trees}


class Peer:
    def __init__(self, path, environment, *command):
        self.path = path
        with open(path, "w") as output:
            self.process = subprocess.Popen(command, stdin=subprocess.PIPE, text=True,
                                            stdout=output, stderr=output, env=environment)

    def order(self, order):
        print(order, file=self.process.stdin, flush=True)

    def count(self, text):
        return self.path.read_text().count(text)

    def tells(self, text, times=1):
        wait(text, lambda: self.count(text) >= times)

    def trees(self, order="show"):
        return self.ask(order)()

    def ask(self, order):
        """What waits for the answer."""
        answers = self.count("== end\n")

        def answer():
            self.tells("== end\n", answers + 1)
            return set(self.path.read_text().split("== end\n")[answers].split("== ")[1:])
        self.order(order)
        return answer

    def end(self):
        self.process.stdin.close()
        assert self.process.wait(60) == 0, "not ended in order"


class Stage:
    """The broker, the reporters and the collector of one scenario."""

    def __init__(self, directory):
        self.directory, self.port, self.broker = directory, next(PORTS), None
        self.url, self.environment, self.within = f"mqtt://localhost:{self.port}", {}, ()
        self.peers, self.reporters, self.others = [], {}, []

    def another(self, name):
        (self.directory / name).mkdir()
        self.others.append(Stage(self.directory / name))
        return self.others[-1]

    def processes(self):
        own = [peer.process for peer in self.peers] + [self.broker]
        return sum((other.processes() for other in self.others), [one for one in own if one])

    def start_broker(self, *settings):
        self.start_broker_with(f"listener {self.port} localhost", "user root",
                               "allow_anonymous true", "max_queued_messages 0", *settings)

    def start_broker_with(self, *settings):
        """In place of the one that runs, which can save nothing at its end."""
        if self.broker:
            self.broker.kill()
            self.broker.wait()
        configuration, log = self.directory / "broker.conf", self.directory / "broker.log"
        configuration.write_text("\n".join([
            "persistence true", f"persistence_location {self.directory}/", *settings]))
        with open(log, "w") as output:
            self.broker = subprocess.Popen([MOSQUITTO, "-c", configuration], stderr=output)
        wait("a broker", lambda: " running" in log.read_text())

    def certify(self, *names):
        key, certificate = [self.directory / name for name in names]
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
            "-addext", "subjectAltName=DNS:localhost", "-keyout", key, "-out", certificate,
            stderr=subprocess.DEVNULL)
        return key, certificate

    def start(self, mode, *arguments):
        path = self.directory / f"{len(self.peers)} {mode}"
        self.peers.append(Peer(path, os.environ | self.environment, *self.within, PEER, mode, self.url,
                               *arguments))
        return self.peers[-1]

    def report(self, name, roots="3", ease="1"):
        self.reporters[name] = self.start("reporter", name, str(len(self.peers)), roots, ease)

    def begin(self, *settings):
        self.start_broker(*settings)
        self.collector = self.start("collector")
        self.report("hall/a")
        self.report("hall/b")
        self.agree()

    def hold(self):
        answers = [reporter.ask("hold") for reporter in self.reporters.values()]
        return set().union(*(answer() for answer in answers))

    def agree(self):
        held = self.hold()
        newcomer = self.start("collector")
        for collector in (self.collector, newcomer):
            wait("equal trees", lambda: collector.trees() == held)
        newcomer.end()
        for reporter in self.reporters.values():
            reporter.order("go")
        wait("changes", lambda: held.isdisjoint(self.collector.trees()))

    def end(self):
        gone = {tree.replace(" 0\n", " 2\n", 1) for tree in self.hold()}
        for reporter in self.reporters.values():
            reporter.process.stdin.close()
        for reporter in self.reporters.values():
            reporter.end()
        wait("the end of the reporters", lambda: self.collector.trees() == gone)
        newcomer = self.start("collector")  # gets what the broker has kept, which may be older
        wait("what is left", lambda: heads(newcomer.trees()) == heads(gone))
        newcomer.end()
        self.collector.end()


def broker_back_in_an_earlier_state(stage):
    stage.begin()
    stage.broker.send_signal(signal.SIGUSR1)
    wait("the saved state", (stage.directory / "mosquitto.db").exists)
    stage.reporters["hall/a"].order("remove")
    stage.agree()
    stage.start_broker()
    stage.agree()


def broker_that_does_not_answer(stage):
    stage.begin()
    stage.broker.send_signal(signal.SIGSTOP)
    for peer in (stage.collector, *stage.reporters.values()):
        peer.tells("No connection")
    stage.broker.send_signal(signal.SIGCONT)
    stage.agree()


def mute_listener(is_full):
    """Says nothing; with a full queue, does not even take a connection."""
    listener = socket.create_server(("127.0.0.1", 0), backlog=0 if is_full else 9)
    waiting = [socket.socket() for _ in range(3 if is_full else 0)]
    for client in waiting:
        client.setblocking(False)
        client.connect_ex(listener.getsockname())
    return [listener, *waiting]


MUTE_NAME_SERVER = """
import fcntl, os, socket, struct, sys
server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
fcntl.ioctl(server, 0x8914, struct.pack("16sh14x", b"lo", 65))  # the loopback is up
server.bind(("127.0.0.1", 53))
server.set_inheritable(True)
os.execv(sys.argv[1], sys.argv[1:])
"""


def addresses_that_do_not_answer(stage):
    """And a name server, where one may have namespaces with such a one."""
    listeners, held = [mute_listener(False), mute_listener(True)], []
    for listener, *_ in listeners:
        for scheme in ("mqtt", "mqtts"):
            stage.url = f"{scheme}://127.0.0.1:{listener.getsockname()[1]}"
            held.append(stage.start("hurry"))
    stage.within = ("unshare", "-rnm")
    if subprocess.run([*stage.within, "true"], stderr=subprocess.DEVNULL).returncode == 0:
        settings, server = stage.directory / "resolv.conf", stage.directory / "server.py"
        settings.write_text("nameserver 127.0.0.1\noptions timeout:30\n")
        server.write_text(MUTE_NAME_SERVER)
        stage.url = "mqtt://broker.example.org"
        stage.within += ("sh", "-c", 'mount --bind "$0" /etc/resolv.conf && exec "$@"', settings,
                         sys.executable, server)
        held.append(stage.start("hurry"))
    for peer in held:
        peer.tells("longest ")
        assert int(peer.path.read_text().split("longest ")[1]) < 2000, "held up"
        assert peer.count("onnect") == 0, "not held up"
        peer.end()
    stage.within, stage.url = (), f"mqtt://localhost:{stage.port}"
    stage.begin()


def brokers_that_stand_in(stage):
    ports = [stage.port, next(PORTS)]
    stage.url = ",".join(f"mqtt://localhost:{port}" for port in ports)
    for stage.port in reversed(ports):
        stage.start_broker() if stage.reporters else stage.begin()
        for peer in (stage.collector, *stage.reporters.values()):
            peer.tells(f"Connected to localhost:{stage.port}")
        stage.agree()


class Line:
    """To a port, which can be cut."""

    def __init__(self, port):
        self.port, self.target, self.sockets = next(PORTS), port, []
        self.mend()

    def mend(self):
        self.sockets = [socket.create_server(("127.0.0.1", self.port))]
        threading.Thread(target=self.accept, args=self.sockets, daemon=True).start()

    def cut(self):
        for end in self.sockets:
            with contextlib.suppress(OSError):  # it is broken already
                end.shutdown(socket.SHUT_RDWR)
            end.close()

    def accept(self, listener):
        with contextlib.suppress(OSError):  # it is cut
            while True:
                ends = [listener.accept()[0], socket.create_connection(("localhost", self.target))]
                self.sockets += ends
                for pair in (ends, ends[::-1]):
                    threading.Thread(target=self.carry, args=pair, daemon=True).start()

    def carry(self, source, sink):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                sink.sendall(data)


def site_and_centre(stage):
    """At first without MQTT 5. Then the line is cut, and the site goes on by itself."""
    centre = stage.another("centre")
    centre.start_broker()
    centre.collector = centre.start("collector")
    line = Line(centre.port)
    bridge = pathlib.Path(SOURCES, "examples/broker/bridge.conf").read_text()
    bridge = bridge.replace("centre.example.org:1883", f"127.0.0.1:{line.port}")
    stage.begin(bridge.replace("mqttv50", "mqttv311"))
    for end in (centre.collector, stage.reporters["hall/a"]):
        end.tells("is there a bridge without MQTT 5?")
    assert not any(head.endswith(" 0") for head in heads(centre.collector.trees())), "takes them"
    stage.start_broker(bridge)
    centre.reporters = stage.reporters
    for end in (stage, centre):
        end.agree()
    line.cut()
    stage.reporters["hall/a"].order("remove")
    stage.report("hall/c")
    stage.agree()
    line.mend()
    centre.agree()
    stage.start_broker(bridge)
    for end in (centre, stage):
        end.agree()
    centre.collector.end()


def sessions_that_go_on(stage):
    """Through the end of the broker, and of the collector that has one of its own name."""
    log = stage.directory / "broker.log"
    stage.start_broker("log_type all")
    stage.collector = stage.start("collector", "history")
    stage.report("hall/a")
    stage.agree()
    stage.broker.terminate()
    stage.broker.wait()
    stage.start_broker("log_type all")
    wait("a session", lambda: re.search(r"SUBACK to history", log.read_text()))
    wait("events", lambda: re.search(r"PUBLISH to history .* r0, .*/event/", log.read_text()))
    assert not re.search(r"PUBLISH to history .* r1, .*/event/", log.read_text()), "trees again"
    stage.collector.end()
    begin = log.stat().st_size
    wait("events", lambda: log.read_text()[begin:].count("/event/") > 20)
    stage.collector = stage.start("collector", "history")
    wait("what came meanwhile", lambda: re.search(
        r"CONNACK to history \(1, 0\)(.|\n)*PUBLISH to history .* r0, .*/event/(.|\n)*"
        r"PUBLISH to history .* r1, .*/event/", log.read_text()))
    stage.agree()


def own_event_loop(stage):
    """Idle for longer than the broker waits: 1.5 times the keep-alive of 15 s."""
    stage.start_broker()
    stage.collector = stage.start("idle")
    time.sleep(25)
    assert stage.collector.path.read_text().count("onnect") == 1, "connected and lost"
    stage.collector.end()
    stage.collector = stage.start("collector")


def more_messages_than_numbers(stage):
    stage.start_broker()
    stage.start("talker").tells("all are settled")
    stage.collector = stage.start("collector")


def peers_killed(stage):
    """A reporter while it removes one root; the next of its name lacks another one, too."""
    stage.begin()
    for name, reporter in list(stage.reporters.items()):
        reporter.order("remove")
        time.sleep(random.uniform(0, 0.05))  # wherever it is then
        reporter.process.kill()
        wait("its end", lambda: name + "/0 2" in heads(stage.collector.trees()))
        stage.report(name, roots="1")
        stage.agree()
    stage.collector.process.kill()
    stage.collector = stage.start("collector")
    stage.agree()


def collector_among_many_reporters(stage):
    """It is killed and starts again while each of 200 has gone on since its last whole tree."""
    stage.begin()
    for number in range(200):
        stage.report(f"one/{number}", roots="1", ease="20")
    stage.agree()
    stage.collector.process.kill()
    stage.collector = stage.start("collector")
    stage.agree()


def two_reporters_of_one_name(stage):
    stage.begin()
    second = stage.start("reporter", "hall/a", "99", "2")
    for peer in (second, stage.reporters["hall/a"], stage.collector):
        peer.tells("under the name hall/a\n")
    second.end()
    stage.agree()
    assert sum(peer.count("under the name hall/a\n") for peer in stage.peers) == 3, "told again"


def clocks_set_back(stage):
    offset = stage.directory / "offset"
    offset.write_text("+0")
    stage.environment = {
        "LD_PRELOAD": FAKETIME, "FAKETIME_TIMESTAMP_FILE": str(offset), "FAKETIME_NO_CACHE": "1",
        "FAKETIME_DONT_FAKE_MONOTONIC": "1", "ASAN_OPTIONS": "verify_asan_link_order=0"}
    stage.begin()
    offset.write_text("-1d")
    for peer in (stage.collector, *stage.reporters.values()):
        peer.order("clock")
        peer.tells("clock ")
        seconds = int(peer.path.read_text().partition("clock ")[2].split()[0])
        assert time.time() - seconds > 80000, "the clock is right"
    stage.agree()


def event_too_large(stage):
    """By the limit that a broker tells its clients, and by one that it keeps to itself."""
    stage.begin()
    reporter, refusal = stage.reporters["hall/a"], "The broker refuses hall/a/0: "
    for times, limit in enumerate(["max_packet_size 20000", "message_size_limit 20000"], 1):
        stage.start_broker(limit)
        stage.agree()
        reporter.order("big")
        reporter.tells(refusal, times)
        others = {tree for tree in stage.collector.trees() if not tree.startswith("hall/a/0 ")}
        wait("other changes", lambda: others.isdisjoint(stage.collector.trees()))
        reporter.order("small")
        stage.agree()
    assert reporter.count(refusal) == 2, "told again"


def event_not_allowed(stage):
    """The broker ends the connection too; the other roots, too many for a will, go on."""
    rules = stage.directory / "rules"
    rules.write_text("topic readwrite #\ntopic deny orv/1/event/+/hall%2Fa%2F7\n")
    stage.start_broker(f"acl_file {rules}")
    stage.collector = stage.start("collector")
    stage.report("hall/a", roots="3000")
    stage.reporters["hall/a"].tells("The broker refuses hall/a/7: a user without name may not publish to")
    wait("other trees", lambda: 2999 == sum(head.endswith(" 0")
                                            for head in heads(stage.collector.trees())))
    rules.write_text("topic readwrite #\n")
    stage.broker.send_signal(signal.SIGHUP)
    held = stage.hold()
    wait("equal trees", lambda: stage.collector.trees() == held)
    assert stage.collector.count("gone: ") == 0, "its roots were gone"


def rights_that_are_missing(stage):
    """Of a reporter that is not called like its user, and of collectors."""
    events = "topic read orv/1/event/#"
    states = "topic read orv/1/state/#\ntopic read orv/1/gone/#\ntopic read orv/1/roots/#"
    requests = "topic write orv/1/request/#"
    rules = stage.directory / "rules"
    rules.write_text("\n".join([
        "topic readwrite #", "user other", "topic read #", "user mute", events, states,
        "user deaf", requests, "user blind", events, requests, "user waiting", states, requests]))
    stage.begin(f"acl_file {rules}")
    for reporter in stage.reporters.values():  # so that who may not ask has to
        reporter.process.send_signal(signal.SIGSTOP)
    url, peers = stage.url, {}
    for user, problem in {
            "other": "The broker refuses the state of hall/c: user other may not publish to "
                     "orv/1/state/hall%2Fc",
            "mute": "The broker refuses a request for trees: user mute may not publish to "
                    "orv/1/request/hall%2F",
            "deaf": "Nothing arrives: either nobody reports, or the broker does not let this user "
                    "read orv/1/state/+ and orv/1/event/+/+",
            "blind": "Events arrive and no states: it seems that this user may not read "
                     "orv/1/state/+",
            "waiting": "States arrive and no events: it seems that this user may not read "
                       "orv/1/event/+/+"}.items():
        stage.url = url.replace("//", f"//{user}@")
        arguments = ("reporter", "hall/c", "99", "2") if user == "other" else ("collector",)
        peers[user] = stage.start(*arguments), problem
    for peer, problem in peers.values():
        peer.tells(problem)
        for line in (problem, "Connected", "The connection was lost"):  # with each refusal
            assert peer.count(line) <= 1, "told again"
    assert peers["blind"][0].count("gone: ") == 0, "takes live roots for roots whose reporter is gone"
    for peer, _ in peers.values():
        peer.end()
    for reporter in stage.reporters.values():
        reporter.process.send_signal(signal.SIGCONT)
    stage.url = url
    stage.agree()


def wrong_password(stage):
    log, passwords = stage.directory / "broker.log", stage.directory / "passwords"
    run("mosquitto_passwd", "-c", "-b", passwords, "user", "right")
    stage.start_broker(f"password_file {passwords}")
    stage.url, password = f"mqtt://user@localhost:{stage.port}", stage.directory / "password"
    stage.environment = {"ORV_PASSWORD_FILE": str(password)}
    password.write_text("wrong")
    begin = time.monotonic()
    stage.collector = stage.start("collector")
    stage.report("hall/a")
    wait("attempts", lambda: log.read_text().count("not authorised") >= 10)
    assert time.monotonic() - begin > 3, "the pauses do not grow"
    assert all(peer.count("Not authorized") == 1 for peer in stage.peers), "not told once"
    password.write_text("right")
    stage.agree()


def encrypted(stage):
    key, certificate = stage.certify("key", "certificate")
    stage.url = f"mqtts://localhost:{stage.port}"
    strangers = [stage.start("collector")]
    strangers[0].tells("Connection refused or reset")
    stage.environment = {"ORV_CA": str(certificate)}
    stage.url = f"mqtts://127.0.0.1:{stage.port}"
    strangers.append(stage.start("collector"))
    stage.url = f"mqtts://localhost:{stage.port}"
    stage.begin(f"certfile {certificate}", f"keyfile {key}")
    stage.environment = {"SSL_CERT_FILE": str(certificate)}  # as if the system trusted it
    stage.start_broker(f"certfile {certificate}", f"keyfile {key}")
    stage.agree()
    for peer in strangers:
        peer.tells("The broker's certificate is no good for ")
        assert peer.count("Connected") == 0, "connected to a broker that it cannot trust"


def example_of_a_broker(stage):
    """Each line of it in use, below a main file as Debian has one, and its files for nobody else."""
    example = pathlib.Path(SOURCES, "examples/broker")
    settings = re.sub("^#(?! |$)", "", (example / "mosquitto.conf").read_text(), flags=re.M)
    settings = settings.replace("listener 8883", f"listener {stage.port} localhost")
    settings = re.sub("/etc/mosquitto/(certs/)?", f"{stage.directory}/", settings)
    included = stage.directory / "conf.d"
    included.mkdir()
    (included / "fleet.conf").write_text(settings)
    shutil.copy(example / "rules", stage.directory)
    stage.certify("broker.key", "broker.crt")
    shutil.copy(stage.directory / "broker.crt", stage.directory / "ca.crt")
    for first, user in (("-c", "collector"), ("", "plant-3"), ("", "stranger")):
        run("mosquitto_passwd", *first.split(), "-b", stage.directory / "passwords", user, "secret")
    if os.geteuid() == 0:
        for path in (stage.directory, included, *stage.directory.glob("[pr]*"),
                     *stage.directory.glob("*.*")):
            shutil.chown(path, "mosquitto")
            path.chmod(0o700 if path.is_dir() else 0o400)
    stage.start_broker_with("user mosquitto", f"include_dir {included}")
    stage.environment = {"ORV_PASSWORD": "secret", "ORV_CA": str(stage.directory / "ca.crt")}
    stage.url = f"mqtts://collector@localhost:{stage.port}"
    stage.collector = stage.start("collector")
    stage.url = f"mqtts://plant-3@localhost:{stage.port}"
    stage.report("plant-3")
    stage.url = f"mqtts://collector@localhost:{stage.port}"
    stage.agree()
    for user in ("stranger", "plant-3"):
        run("mosquitto_pub", "--cafile", stage.directory / "ca.crt", "-p", str(stage.port), "-u", user,
            "-P", "secret", "-V", "5", "-q", "1", "-t", "orv/1/event/429/plant-3%2F0", "-s", "-D",
            "PUBLISH", "user-property", "sequence", "1.1", input=b"\xff", stderr=subprocess.DEVNULL)
    problem = "An event of plant-3/0 cannot be read"
    stage.collector.tells(problem)
    assert stage.collector.count(problem) == 1, "a stranger's event is taken"


def strangers(stage):
    stage.begin()
    reporter, collector = stage.reporters["hall/a"], stage.collector
    topic, tree = run("mosquitto_sub", "-p", str(stage.port), "-t", "orv/1/event/+/hall%2Fa%2F0",
                      "-C", "1", "-F", "%t %x", text=True, stdout=subprocess.PIPE).stdout.split()
    tree, state = bytes.fromhex(tree), b"\x18\x01"
    list_of_it = b"\x10\x01\x1a\x0a\x0a\x08hall/a/0"
    for topic, payload, sequence, problem, *hearers in [
            (topic, b"\xff", "1.1", "An event of hall/a/0 cannot be read", collector),
            (topic, b"\x08\x32", "1.1", "An event of hall/a/0 is refused", collector),
            (topic, tree, "", "An event of hall/a/0 has no sequence: is there a bridge", collector),
            (topic, tree, "1.1", ""),
            ("orv/1/event/1024/it", tree, "1.1", "the topic orv/1/event/1024/it", collector),
            ("orv/1/state/%2", b"", "", "the topic orv/1/state/%2", collector),
            ("orv/1/state/it", state, "", ""),
            (topic.replace("event", "roots").replace("hall%2Fa%2F0", "it"), list_of_it, "",
             "reported by hall/a and by it", collector),
            (topic.replace("event", "roots").replace("hall%2Fa%2F0", "it"), b"\xff", "",
             "A list of the roots of it cannot be read", collector),
            (topic.replace("event", "roots").replace("hall%2Fa%2F0", "it"), b"", "", ""),
            ("orv/1/state/it", b"", "", ""),
            ("orv/1/state/hall%2Fa", b"", "", ""),
            ("orv/1/state/hall%2Fa", b"\xff", "", "A state of hall/a cannot be read", collector,
             reporter),
            ("orv/1/request/hall%2Fa", b"\xff", "", "A request to hall/a cannot", reporter)]:
        run("mosquitto_pub", "-V", "5", "-q", "1", "-p", str(stage.port), "-t", topic, "-r",
            "-D", "PUBLISH", "user-property", "sequence", sequence, "-s" if payload else "-n",
            input=payload)
        for hearer in hearers:
            hearer.tells(problem)
    stage.agree()


def packets(stream):
    """The packets of an MQTT connection: the first byte, the length as it stands, the rest."""
    while first := stream.read(1):
        size, length = 0, b""
        while not length or length[-1] & 128:
            length += stream.read(1)
            size |= (length[-1] & 127) << 7 * (len(length) - 1)
        yield first, length, stream.read(size)


def lose_events(listener, port):
    """Passes on between a collector and the broker, and loses every tenth event, as if it had come."""
    client = listener.accept()[0]
    broker = socket.create_connection(("localhost", port))
    threading.Thread(target=lambda: [broker.sendall(b"".join(packet)) for packet in
                                     packets(client.makefile("rb"))], daemon=True).start()
    events = 0
    for first, length, rest in packets(broker.makefile("rb")):
        topic = 2 + int.from_bytes(rest[:2], "big")
        if first[0] & 0xf1 == 0x30 and rest[2:].startswith(b"orv/1/event/"):
            events += 1
            if events % 10 == 0:
                broker.sendall(b"\x40\x02" + rest[topic:topic + 2])
                continue
        client.sendall(first + length + rest)


def events_that_are_lost(stage):
    stage.begin()
    listener = socket.create_server(("localhost", 0))
    threading.Thread(target=lose_events, args=(listener, stage.port), daemon=True).start()
    url, stage.url = stage.url, f"mqtt://localhost:{listener.getsockname()[1]}"
    stage.collector = stage.start("collector")
    stage.url = url
    for _ in range(3):
        stage.agree()
        time.sleep(2)
    stage.collector.order("requests")
    stage.collector.tells("of whole trees ")
    asked, whole = map(int, re.search(r"requests (\d+), of whole trees (\d+)\.",
                                      stage.collector.path.read_text()).groups())
    assert asked > 3 and whole * 5 < asked, f"asks {asked} times, {whole} times for whole trees"
    stage.collector.end()  # what is lost at the end stays lost
    stage.collector = stage.start("collector")
    stage.agree()


def receiver_in_python(stage):
    """Encrypted, with a password, of two roots, of which one then misses something."""
    key, certificate = stage.certify("key", "certificate")
    run("mosquitto_passwd", "-c", "-b", stage.directory / "passwords", "user", "secret")
    stage.url = f"mqtts://user@localhost:{stage.port}"
    stage.environment = {"ORV_CA": str(certificate), "ORV_PASSWORD": "secret",
                         "PYTHONPATH": str(stage.directory)}
    stage.begin("allow_anonymous false", f"password_file {stage.directory}/passwords",
                f"certfile {certificate}", f"keyfile {key}")
    schemas = pathlib.Path(SOURCES, "proto/monitoring").glob("*.proto")
    run(PROTOC, f"--proto_path={SOURCES}", f"--python_out={stage.directory}", *schemas)
    path = stage.directory / "receiver"
    with open(path, "w") as output:
        receiver = subprocess.Popen(
            [sys.executable, "-B", f"{SOURCES}/examples/receiver.py", "--broker",
             f"localhost:{stage.port}", "--tls", certificate, "--user", "user", "hall/a/0",
             "hall/b/1"], stdout=output, stderr=output, env=os.environ | stage.environment)
    for root in ("hall/a/0", "hall/b/1"):
        wait("events", lambda: len(re.findall(f"{root} .* STATUS_CHANGE applied",
                                              path.read_text())) > 2)
    stage.hold()  # or the next whole tree comes by itself,
    stage.collector.end()  # or on another's request
    run("mosquitto_pub", "--cafile", certificate, "-u", "user", "-P", "secret", "-V", "5", "-q", "1",
        "-p", str(stage.port), "-s", "-t", "orv/1/event/341/hall%2Fa%2F0", "-D", "PUBLISH",
        "user-property", "sequence", "1.2", input=b"\x08\x01")
    for step in ("STATUS_CHANGE not applied", "asking for the tree", "DEVICE_ADD applied"):
        wait(step, lambda: step in path.read_text().partition("hall/a/0 1.2 ")[2])
    assert "hall/b/1 asking" not in path.read_text().partition("hall/a/0 1.2 ")[2], "not missing"
    receiver.terminate()
    stage.collector = stage.start("collector")
    stage.agree()


def play(scenario):
    begin = time.monotonic()
    with tempfile.TemporaryDirectory() as directory:
        stage = Stage(pathlib.Path(directory))
        try:
            scenario(stage)
            stage.end()
            print(f"{scenario.__name__}: {time.monotonic() - begin:.0f} s\n", end="", flush=True)
            return True
        except Exception as failure:
            said = [f"-- {path.name}:\n{path.read_text(errors='replace')[-5000:]}\n"
                    for path in sorted(stage.directory.rglob("*")) if path.is_file()]
            print(f"{scenario.__name__}: {failure!r}\n" + "".join(said), end="", flush=True)
            return False
        finally:
            for process in stage.processes():
                process.kill()


SCENARIOS = [
    broker_back_in_an_earlier_state, broker_that_does_not_answer, addresses_that_do_not_answer,
    brokers_that_stand_in, site_and_centre, sessions_that_go_on, own_event_loop, more_messages_than_numbers,
    peers_killed, collector_among_many_reporters, two_reporters_of_one_name, clocks_set_back,
    event_too_large, event_not_allowed,
    rights_that_are_missing, wrong_password,
    encrypted, example_of_a_broker, strangers, receiver_in_python, events_that_are_lost]
# Free ports below those that the system gives to clients.
PORTS = iter([port for port in random.sample(range(20000, 32000), 4 * len(SCENARIOS))
              if socket.socket().connect_ex(("localhost", port)) != 0])
PLAYED = [scenario for scenario in SCENARIOS if not CHOSEN or scenario.__name__ in CHOSEN]
with concurrent.futures.ThreadPoolExecutor(len(SCENARIOS)) as pool:
    sys.exit(not all(list(pool.map(play, PLAYED))))
