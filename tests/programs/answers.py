"""What the collector answers over HTTP: as docs/openapi.yaml says, and to clients that are hostile, slow
or gone: answers.py SOURCES BROKER PORT PROCESS, the process number of the collector."""

import contextlib
import gzip
import json
import os
import pathlib
import re
import select
import socket
import subprocess
import sys
import urllib.request

import jsonschema
import yaml

from plant import Plant, wait

SOURCES, BROKER, PORT, PROCESS = sys.argv[1:]
API = yaml.safe_load(pathlib.Path(SOURCES, "docs/openapi.yaml").read_text(encoding="utf-8"))
OPENER = urllib.request.build_opener(urllib.request.ProxyHandler({}))
ODD = "a b/ü%\x01"  # the root whose identifier needs care in a URL


def check(schema, content):
    schemas = json.loads(json.dumps(API["components"]).replace("#/components", "#"))
    jsonschema.Draft202012Validator({**schema, **schemas}).validate(content)


def schema(name):
    return {"$ref": "#/schemas/" + name}


class Pipe:
    """A connection, for which the kernel keeps little."""

    def __init__(self, text=b""):
        self.socket = socket.socket()
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
        self.socket.settimeout(60)
        self.socket.connect(("127.0.0.1", int(PORT)))
        self.got = b""
        self.socket.sendall(text)

    def read(self):
        part = self.socket.recv(65536)
        self.got += part
        return part

    def until(self, end):
        """What comes up to the end, which is taken too."""
        while end not in self.got:
            assert self.read(), (end, self.got)
        text, _, self.got = self.got.partition(end)
        return text

    def rest(self):
        with contextlib.suppress(ConnectionResetError):
            while self.read():
                pass
        self.socket.close()
        return self.got

    def answer(self):
        """The status line, the header fields and, where there is a Content-Length, the content."""
        status, *fields = self.until(b"\r\n\r\n").decode().split("\r\n")
        fields = dict(field.split(": ", 1) for field in fields)
        size = int(fields.get("Content-Length", 0))
        while len(self.got) < size:
            assert self.read()
        content, self.got = self.got[:size], self.got[size:]
        return int(status.split()[1]), fields, content

    def news(self):
        """The next server-sent event of a chunked answer, and its data."""
        while True:
            event = re.match(rb"(?:event: (\w+)\n|id: (.+)\n)*data: (.*)\n\n$", self.chunk())
            if event and event[1] != b"beat":
                return event[1].decode(), (event[2] or b"").decode(), json.loads(event[3])

    def chunk(self):
        if not getattr(self, "left", None):
            size = int(self.until(b"\r\n"), 16)
            while len(self.got) < size + 2:
                assert self.read()
            self.left, self.got = self.got[:size], self.got[size + 2:]
        text, end, self.left = self.left.partition(b"\n\n")
        return text + end


def get(path, method="GET", **fields):
    """Status, header fields and content of an answer."""
    names = {name.replace("_", "-"): value for name, value in fields.items()}
    request = urllib.request.Request(f"http://127.0.0.1:{PORT}{path}", method=method, headers=names)
    try:
        with OPENER.open(request, timeout=60) as answer:
            return answer.status, answer.headers, answer.read()
    except urllib.error.HTTPError as refusal:
        return refusal.code, refusal.headers, refusal.read()


def events(**parameters):
    query = urllib.parse.urlencode(parameters)
    pipe = Pipe(f"GET /api/events?{query} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
    status, fields, _ = pipe.answer()
    assert (status, fields["Content-Type"]) == (200, "text/event-stream")
    return pipe


def device(name, text=""):
    return f'id: "{name}" name: "{name}" global_status {{ level: OK }} {text}'


def report():
    plant = Plant(SOURCES, BROKER, "plants")
    plant.state(1, {"pumps": "epoch: 7 n: 1", "late": "epoch: 8 n: 0"})
    values = """statuses { name: "none" type: DOUBLE } statuses { name: "nan" type: DOUBLE double_value: nan }
        statuses { name: "i" type: INT int_value: -3 } statuses { name: "u" type: UINT uint_value: 3 }
        statuses { name: "s" type: STRING string_value: "\\\\377" }"""
    plant.add("pumps", "7.1", device("pumps", f"sub_devices {{ {device('p-1', values)} }}" +
              f"sub_devices {{ {device('p-2')} }}").replace("\\\\377", "x"))
    return plant


def check_interface():
    """Each answer is as documented, and each documented one is met."""
    wait("the roots", lambda: len(json.loads(get("/api/roots")[2])["roots"]) == 3)
    tags = {path: get(path)[1]["ETag"] for path in ("/api/roots", "/api/roots/late")}
    wait("the history", lambda: json.loads(get("/api/changes?root=pumps")[2])["changes"])
    assert b"\norv_history_recording 1\n" in get("/metrics")[2]
    met = set()
    for path, url, fields, status in (
            ("/api/roots", "/api/roots", {}, 200),
            ("/api/roots", "/api/roots", {"If_None_Match": "*"}, 304),
            ("/api/roots", "/api/roots", {"Host": "example.org"}, 403),
            ("/api/roots/{root}", "/api/roots/pumps", {}, 200),
            ("/api/roots/{root}", "/api/roots/station-7", {}, 200),
            ("/api/roots/{root}", "/api/roots/late", {"If_None_Match": tags["/api/roots/late"]}, 304),
            ("/api/roots/{root}", "/api/roots/%00%ff", {}, 404),
            ("/api/roots/{root}", "/api/roots/pumps?at=now", {}, 200),
            ("/api/roots/{root}", "/api/roots/pumps?at=2h+ago", {}, 404),
            ("/api/roots/{root}", "/api/roots/pumps?at=noon", {}, 400),
            ("/api/history", "/api/history", {}, 200),
            ("/api/changes", "/api/changes?root=pumps&limit=1", {}, 200),
            ("/api/changes", "/api/changes?limit=0", {}, 400),
            ("/api/values", "/api/values?root=pumps&device=p-1&status=u", {}, 200),
            ("/api/values", "/api/values?root=pumps&device=p-1", {}, 400),
            ("/api/devices", "/api/devices?find=P-", {}, 200),
            ("/api/devices", "/api/devices?find=", {}, 400),
            ("/metrics", "/metrics", {}, 200),
            ("/metrics", "/metrics?partitions=3-2", {}, 400)):
        got, header, content = get(url, **fields)
        assert got == status, (url, got, content)
        answers = API["paths"][path]["get"]["responses"]
        met.add((path, str(got)))
        answer = answers.get(str(got), answers["default"])
        answer = API["components"]["responses"][answer["$ref"].split("/")[-1]] if "$ref" in answer else answer
        kinds = answer.get("content", {})
        assert header.get_content_type() in kinds or not kinds and not content, (url, header)
        if "application/json" in kinds:
            form = json.dumps(kinds["application/json"]["schema"]).replace("#/components", "#")
            check(json.loads(form), json.loads(content))
        assert "ETag" not in answer.get("headers", {}) or header["ETag"] or "at=" in url, url
    documented = {(path, status) for path, methods in API["paths"].items() if path != "/api/events"
                  for status in methods["get"]["responses"] if status != "default"}
    assert documented <= met, documented - met


def check_events(plant):
    """News say what has changed and nothing else, to whoever knows what was before."""
    stream = events(root="pumps")
    first = sorted((stream.news() for _ in range(2)), key=lambda news: news[0])
    (_, told, whole), (_, _, root) = first
    check(schema("ListNews"), whole)
    check(schema("RootNews"), root)
    assert whole["complete"] and len(whole["roots"]) == 3
    assert [one["id"] for one in root["tree"]["sub_devices"]] == ["p-1", "p-2"]
    plant.change("pumps", "7.2", """
        global_status_changes { device_id: "p-2" status { level: ERROR message: "dry" } }""")
    news = {}
    while news.keys() != {"list", "root"}:
        kind, number, data = stream.news()
        check(schema("ListNews" if kind == "list" else "RootNews"), data)
        if kind == "root" or any(one["id"] == "pumps" for one in data["roots"]):
            news[kind] = number, data
    assert [one["id"] for one in news["root"][1]["devices"]] == ["p-2"]
    (summary,) = [one for one in news["list"][1]["roots"] if one["id"] == "pumps"]
    assert (summary["health"], summary["errors"]) == ("ERROR", 1) and not news["list"][1]["complete"]
    assert summary["health_since"] >= whole["time"]
    # A reader who comes back is told what it has missed; one from another time, all.
    later = events(after=told).news()[2]
    assert not later["complete"] and "pumps" in [one["id"] for one in later["roots"]]
    assert events(after="1." + told.split(".")[1]).news()[2]["complete"]
    plant.event("pumps", "7.3", "DEVICE_REMOVE", "DeviceRemoveEvent", 'device_id: "pumps"')
    gone = [stream.news() for _ in range(2)]
    assert {True} == {data["gone"] == ["pumps"] if kind == "list" else not data["known"]
                      for kind, _, data in gone}, gone


def check_protocol():
    """Two requests at once, HEAD, HTTP/1.0, gzip; and what is no request."""
    pipe = Pipe(b"HEAD /metrics HTTP/1.1\r\nHost: localhost\r\n\r\n"
                b"GET /page.css HTTP/1.1\r\nHost: localhost\r\n\r\n"
                b"HEAD /api/events HTTP/1.1\r\nHost: localhost\r\n\r\n"
                b"GET /nothing HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
    assert pipe.answer()[0] == 200
    assert b"color-scheme" in pipe.answer()[2]
    assert pipe.answer()[0] == 200
    status, _, content = pipe.answer()
    assert status == 404 and "error" in json.loads(content) and not pipe.rest()
    old = Pipe(b"GET /metrics HTTP/1.0\r\nHost: localhost\r\n\r\n").rest()
    plain = old.partition(b"\r\n\r\n")[2]
    assert b"chunked" not in old and plain.endswith(b"\n") and b"\norv_root_up{" in plain
    _, fields, packed = get("/metrics", Accept_Encoding="br, gzip;q=0.5")
    assert fields["Content-Encoding"] == "gzip"
    assert gzip.decompress(packed).count(b"\n") == plain.count(b"\n")
    assert get("/metrics", Accept_Encoding="gzip;q=0")[1]["Content-Encoding"] is None
    for status, text in (
            (400, b"\x00\xff\x16\x03\r\n\r\n"), (400, b"GET / HTTP/9.9\r\n\r\n"),
            (400, b"GET /%zz HTTP/1.1\r\n\r\n"), (400, b"GET http://localhost/ HTTP/1.1\r\n\r\n"),
            (403, b"GET / HTTP/1.1\r\n\r\n"), (405, b"POST / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
            (413, b"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nhello"),
            (413, b"GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"),
            (431, b"GET / HTTP/1.1\r\nX: " + b"x" * 40000 + b"\r\n\r\n"),
            (431, b"GET /" + b"x" * 40000)):
        got, _, content = Pipe(text).answer()
        assert got == status and "error" in json.loads(content), (text[:40], got, content)


def check_strangers():
    """Each bad message is counted, and a flood of them makes no flood of lines."""
    def strangers():
        return int(re.search(rb"orv_collector_strangers_total (\d+)", get("/metrics")[2])[1])

    before = strangers()
    host, port = BROKER.rsplit("/", 1)[1].split(":")
    subprocess.run(["mosquitto_pub", "-h", host, "-p", port, "-q", "1", "-l", "-t", "orv/1/state/x"],
                   input=b"bad\n" * 1000, check=True)
    wait("the strangers", lambda: strangers() == before + 1000)
    lines = pathlib.Path("collector.log").read_text(encoding="utf-8").count("A state of x cannot be read")
    assert lines == 20, lines


def check_urgent():
    """The metrics do not wait for questions that do not come to an end."""
    pathlib.Path("fleet.history").rename("kept")
    os.mkfifo("fleet.history")  # whoever opens it to read waits for somebody who writes
    held = [Pipe(b"GET /api/changes HTTP/1.1\r\nHost: localhost\r\n\r\n") for _ in range(3)]
    late = Pipe(b"GET /page.css HTTP/1.1\r\nHost: localhost\r\n\r\n")
    assert b"orv_root_up" in get("/metrics")[2]
    assert not select.select([late.socket], [], [], 0.5)[0], "nobody is held up"
    with open("fleet.history", "wb"):
        pathlib.Path("kept").replace("fleet.history")
    assert [pipe.answer()[0] for pipe in [*held, late]] == [503, 503, 503, 200]


def check_clients(plant):
    """Clients that never read, stop in a request or leave cost no thread and hold nobody up."""
    def threads():
        return len(list(pathlib.Path(f"/proc/{PROCESS}/task").iterdir()))

    before = threads()
    plant.add("big", "9.1", device("big", 'statuses { name: "n" type: UINT uint_value: 1 }' + "".join(
        f"sub_devices {{ {device(f'big/{i}')} }}" for i in range(20000))))
    wait("a big tree", lambda: len(get("/api/roots/big")[2]) > 1_000_000)
    question = b"GET /api/roots/big HTTP/1.1\r\nHost: localhost\r\n\r\n"
    clients = [Pipe(text) for _ in range(100) for text in (question, question[:30])]
    slow = [events(root="big") for _ in range(100)]
    for _ in range(50):
        events(root="big").socket.close()
    for n in range(2, 42):
        plant.change("big", f"9.{n}", f"""named_status_changes {{ device_id: "big"
            status {{ name: "n" type: UINT uint_value: {n} }} }}""")
    wait("the latest", lambda: b'"uint_value":"41"' in get("/api/roots/big")[2][:1000])
    assert threads() <= before
    # One that reads at last is told what is so now, and not all that was so meanwhile.
    met = []
    while met[-1:] != ["41"]:
        kind, _, data = slow[0].news()
        if kind == "root" and data["known"]:
            root = data.get("tree") or data["devices"][0]
            met += [status["uint_value"] for status in root["statuses"]]
    assert len(met) < 10, met
    # More than there may be are turned away; when some leave, others are welcome.
    crowd = [Pipe() for _ in range(400)]
    with contextlib.suppress(OSError):
        assert get("/api/roots")[0] == 503
    for pipe in crowd + clients + slow:
        pipe.socket.close()

    def answers():
        with contextlib.suppress(OSError):
            return get("/api/roots")[0] == 200
    wait("an answer", answers)


PLANT = report()
check_interface()
check_events(PLANT)
check_protocol()
check_strangers()
check_urgent()
check_clients(PLANT)
print("Everything is answered as documented")
