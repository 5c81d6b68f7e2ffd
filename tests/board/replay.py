#!/usr/bin/env python3
"""Sends every request that the description of the daemon's interface documents, with its examples, to the daemon on a
virtual board, and holds the answers to the description: their status, their type, their content. Every documented
status must have been seen in the end, apart from those that stand for all others ("default").

Usage: replay.py BOARD STAGE DESCRIPTION
BOARD        the program board/board
STAGE        the installed tree, which becomes the board's /opt/qx
DESCRIPTION  the OpenAPI file
QX_BOARD_SUITE in the environment chooses the board's suite.
"""

import base64
import concurrent.futures
import contextlib
import ctypes
import hashlib
import http.client
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

sys.dont_write_bytecode = True  # nothing is left in the sources
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "checks"))
from interface import Description, closed, example_of, faults  # noqa: E402

PATIENCE = 120  # seconds for an answer, and for the board
TCP_PORT = 8089
LONGEST_UPLOAD = 64 << 20
MOST_JSON = 64 << 10
MOST_COMPOSE = 1 << 20
BEGIN = f"""
mkdir -p /etc/quolex
printf '[Cores]\\nTotal=2\\nUsable=2\\nHypervisor=0\\n' >/etc/quolex/platform.ini
exec /opt/qx/bin/qxcontainerd --enable --cores 1 --listen 127.0.0.1:{TCP_PORT} --max-upload {LONGEST_UPLOAD} \\
    --liveness-deadline {PATIENCE}
"""
# What the examples are about, made as the description says where it does.
PREPARE = """
set -e
podman import /opt/board/busybox.tar localhost/busybox:1
podman save -o /tmp/busybox.tar localhost/busybox:1
podman run -d --network=none --name clock localhost/busybox:1 sh -c 'while :; do date +%s; sleep 0.2; done'
/opt/qx/bin/crp pack --name network --version 1.0.0 --image /tmp/network.squashfs -o /tmp/network.crp
mkdir -p /userstorage1/container_rte/utilities/compose-files
head -c 1100000 /dev/zero >/userstorage1/container_rte/utilities/compose-files/long.yaml
"""


def end_with_parent() -> None:
    """In a child: it goes with this program, however that ends; a board goes with the program that runs it."""
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)  # PR_SET_PDEATHSIG


class Board:
    """A board on which the daemon runs; it ends with the daemon."""

    def __init__(self, program: str, stage: str):
        self.program = program
        self.name = f"replay-{os.getpid()}"
        self.output = tempfile.TemporaryFile()
        self.forwarder = None
        words = [program, "run", "--quiet", "--name", self.name, "--suite", os.environ.get("QX_BOARD_SUITE", "auto")]
        words += ["--bind", f"{stage}:/opt/qx:ro", "--", "sh", "-c", BEGIN]
        self.process = subprocess.Popen(
            words, stdin=subprocess.DEVNULL, stdout=self.output, stderr=self.output, preexec_fn=end_with_parent
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in (self.forwarder, self.process):
            if process is not None:
                process.terminate()
                process.wait()

    def said(self) -> str:
        self.output.seek(0)
        return self.output.read().decode(errors="replace")

    def root(self) -> pathlib.Path:
        listing = subprocess.run([self.program, "list"], check=True, capture_output=True, text=True).stdout
        rows = [line.split() for line in listing.splitlines()]
        inits = [row[3] for row in rows if row[0] == self.name and row[3].isdigit()]
        return pathlib.Path(f"/proc/{inits[0] if inits else 0}/root")

    def await_socket(self) -> str:
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end and self.process.poll() is None:
            path = self.root() / "run/qxcontainerd/api.sock"
            if path.exists():
                return str(path)
            time.sleep(0.1)
        raise RuntimeError("the daemon does not serve its socket")

    def run(self, script: str) -> None:
        words = [self.program, "exec", self.name, "--", "sh", "-c", script]
        done = subprocess.run(words, stdin=subprocess.DEVNULL, capture_output=True, text=True)
        if done.returncode != 0:
            raise RuntimeError(f"on the board: {done.stdout}{done.stderr}")

    def forward(self) -> int:
        """Makes the daemon's TCP port reachable here."""
        words = [self.program, "forward", self.name, str(TCP_PORT)]
        self.forwarder = subprocess.Popen(words, stdout=subprocess.PIPE, text=True, preexec_fn=end_with_parent)
        return int(self.forwarder.stdout.readline())

    def put_plugin_image(self) -> None:
        with tempfile.TemporaryDirectory() as work:
            content = pathlib.Path(work, "content")
            content.mkdir()
            (content / "here").write_text("in the image\n")
            subprocess.run(["mksquashfs", content, f"{work}/image", "-quiet", "-no-progress"], check=True)
            (self.root() / "tmp/network.squashfs").write_bytes(pathlib.Path(work, "image").read_bytes())


class Connection(http.client.HTTPConnection):
    """To a Unix socket when the place is a path, else to a port of the loopback."""

    def __init__(self, place):
        super().__init__("127.0.0.1", timeout=PATIENCE)
        self.place = place

    def connect(self):
        if isinstance(self.place, int):
            self.sock = socket.create_connection(("127.0.0.1", self.place), PATIENCE)
        else:
            self.sock = socket.socket(socket.AF_UNIX)
            self.sock.settimeout(PATIENCE)
            self.sock.connect(self.place)


class Answer:
    def __init__(self, status: int, media: str, body: bytes):
        self.status = status
        self.media = media.partition(";")[0]
        self.body = body

    def json(self):
        return json.loads(self.body)


class Replay:
    def __init__(self, description: Description, board: Board):
        self.board = board
        self.socket = board.await_socket()
        self.operations = {operation.id: operation for operation in description.operations}
        self.seen = {name: set() for name in self.operations}
        self.problems = []

    def fault(self, text: str) -> None:
        print(f"  {text}", flush=True)
        self.problems.append(text)

    # --- Requests ---

    def target(self, operation, values: dict, query) -> str:
        path = operation.path
        for parameter in operation.placed("path"):
            value = values.get(parameter["name"], example_of(parameter))
            path = path.replace("{%s}" % parameter["name"], urllib.parse.quote(str(value), safe=""))
        if query is None:
            query = {parameter["name"]: example_of(parameter) for parameter in operation.placed("query")}
        words = {name: json.dumps(value) if isinstance(value, bool) else value for name, value in query.items()}
        return f"/api/v1{path}" + (f"?{urllib.parse.urlencode(words)}" if words else "")

    def example_body(self, operation):
        """Gives the documented body and its type."""
        for media, part in operation.body["content"].items() if operation.body else ():
            if "example" in part:
                text = part["example"]
                return (text if isinstance(text, str) else json.dumps(text)).encode(), media
            url = next(iter(part["examples"].values()))["externalValue"]
            return (self.board.root() / urllib.parse.urlsplit(url).path.lstrip("/")).read_bytes(), media
        return None, None

    def send(self, name: str, values={}, query=None, body=None, headers={}, via=None) -> Answer:
        operation = self.operations[name]
        example, media = self.example_body(operation)
        headers = {**({"Content-Type": media} if media else {}), **headers}
        with contextlib.closing(Connection(via or self.socket)) as connection:
            # A daemon that refuses at once has answered already.
            with contextlib.suppress(BrokenPipeError):
                connection.request(
                    operation.method, self.target(operation, values, query), example if body is None else body, headers
                )
            response = connection.getresponse()
            return Answer(response.status, response.headers.get("Content-Type", ""), response.read())

    def call(self, name: str, status: int, values={}, **how) -> Answer:
        """Sends a request and judges the answer."""
        answer = self.send(name, values, **how)
        self.judge(name, status, answer)
        return answer

    def refuse(self, name: str, status: int, **how) -> None:
        """Sends a request without its body, which a daemon that refuses does not read."""
        self.call(name, status, body=b"" if self.operations[name].body else None, **how)

    def upgrade(self, name: str, status: int, values={}, query=None, via=None):
        """Asks for a WebSocket and judges the answer, and the first message when there is one.
        Returns that message, None when there is none.
        """
        operation = self.operations[name]
        key = base64.b64encode(os.urandom(16)).decode()
        with contextlib.closing(Connection(via or self.socket)) as connection:
            headers = {"Connection": "Upgrade", "Upgrade": "websocket"}
            headers |= {"Sec-WebSocket-Version": "13", "Sec-WebSocket-Key": key}
            connection.request("GET", self.target(operation, values, query), headers=headers)
            sock = connection.sock
            response = http.client.HTTPResponse(sock, method="GET")
            # What follows the header belongs to the WebSocket, so both are read from the same buffer.
            response.begin()
            if response.status != 101:
                media = response.headers.get("Content-Type", "")
                self.judge(name, status, Answer(response.status, media, response.read()))
                return None
            accept = hashlib.sha1(f"{key}258EAFA5-E914-47DA-95CA-C5AB0DC85B11".encode()).digest()
            if response.headers["Sec-WebSocket-Accept"] != base64.b64encode(accept).decode():
                self.fault(f"{name}: the upgrade is answered for another key")
            return self.judge_message(name, status, response.fp)

    # --- Judging ---

    def judge(self, name: str, status: int, answer: Answer) -> None:
        what = f"{name} {answer.status}"
        documented = self.operations[name].responses.get(str(answer.status))
        if answer.status != status:
            self.fault(f"{what}: {status} was expected: {answer.body[:300]!r}")
        if documented is None:
            self.fault(f"{what}: this status is not documented")
            return
        self.seen[name].add(str(answer.status))
        content = documented.get("content", {})
        if not content:
            if answer.body:
                self.fault(f"{what}: there is a body, but none is documented: {answer.body[:300]!r}")
        elif answer.media not in content:
            self.fault(f"{what}: its type is '{answer.media}', documented are {list(content)}")
        elif answer.media.endswith("json"):
            for fault in faults(answer.json(), closed(content[answer.media]["schema"])):
                self.fault(f"{what}: {fault}")
            if answer.status >= 400 and (answer.json()["status"] != answer.status or not answer.json()["detail"]):
                self.fault(f"{what}: the problem is not told: {answer.body!r}")

    def judge_message(self, name: str, status: int, stream):
        self.seen[name].add("101")
        if status != 101:
            self.fault(f"{name}: a WebSocket, but {status} was expected")
        ((media, part),) = self.operations[name].responses["101"]["content"].items()
        first, length = stream.read(2)
        if length >= 126:
            (length,) = struct.unpack(*((">H", stream.read(2)) if length == 126 else (">Q", stream.read(8))))
        message = stream.read(length)
        is_text = media == "application/json"
        if first != (0x81 if is_text else 0x82):  # a whole message, text or binary
            self.fault(f"{name}: the WebSocket begins with a frame of type {first:#x}")
        elif is_text:
            for fault in faults(json.loads(message), closed(part["schema"])):
                self.fault(f"{name}: the first message: {fault}")
        elif not message:
            self.fault(f"{name}: the first message is empty")
        return message

    def expect(self, what: str, is_so: bool) -> None:
        if not is_so:
            self.fault(f"{what}: that is not so")

    def documenting(self, status: str) -> list[str]:
        return [name for name, operation in self.operations.items() if status in operation.responses]

    # --- What is replayed, in this order ---

    def await_state(self, state: str) -> None:
        end = time.monotonic() + PATIENCE
        while self.send("getService").json()["state"] != state:
            if time.monotonic() > end:
                raise RuntimeError(f"the service is not {state}: {self.send('getService').body!r}")
            time.sleep(0.2)

    def look_around(self, text: str) -> None:
        for name in ("getService", "check", "getCores", "getMetrics", "getMessages", "getSession"):
            self.call(name, 200)
        self.expect("the daemon serves this description", self.call("getDescription", 200).body.decode() == text)
        self.upgrade("getMessages", 101)
        self.call("getMessages", 400, query={"tail": "some"})
        self.upgrade("getMessages", 400, query={"tail": -1})

    def change_settings(self) -> None:
        changed = self.call("changeSettings", 200).json()["settings"]
        self.expect("the settings are those of the example", (changed["tcpPort"], changed["cores"]) == (8443, 1))
        self.call("changeSettings", 200, body='{"tcpPort": 0}')
        self.call("changeSettings", 400, body='{"colour": 1}')
        self.call("changeSettings", 413, body=" " * (MOST_JSON + 1))

    def use_containers(self) -> None:
        self.expect("the container of the examples is there", b'"clock"' in self.call("listContainers", 200).body)
        self.call("inspectContainer", 200)
        self.call("getLogs", 200)
        start = json.loads(self.upgrade("getLogs", 101))
        self.expect("a live log starts with 'start'", start["type"] == "start")
        self.upgrade("streamRawLogs", 101)
        self.call("streamRawLogs", 426)
        for name in ("inspectContainer", "removeContainer", "actOnContainer", "getLogs"):
            self.call(name, 404, {"container": "nobody"})
            self.call(name, 400, {"container": "-bad"})
        for name in ("getLogs", "streamRawLogs"):
            self.upgrade(name, 404, {"container": "nobody"})
            self.upgrade(name, 400, query={"tail": "some"})
        self.upgrade("getLogs", 400, query={"after": "no cursor"})
        self.call("removeContainer", 409)
        for action in ("restart", "stop", "start"):
            self.call("actOnContainer", 204, {"action": action})
        self.call("actOnContainer", 404, {"action": "paint"})
        self.board.run("podman pause clock")
        self.call("actOnContainer", 409, {"action": "start"})
        self.board.run("podman unpause clock")
        self.call("removeImage", 409)
        self.call("actOnContainer", 204, {"action": "stop"})
        self.call("removeContainer", 204)

    def use_images(self) -> None:
        self.call("listImages", 200)
        self.call("removeImage", 204)
        self.call("removeImage", 404)
        self.call("removeImage", 400, {"image": "-bad"})
        names = self.call("loadImage", 200).json()["names"]
        self.expect("the image of the example is loaded", names == ["localhost/busybox:1"])
        self.call("listImages", 200)
        self.call("loadImage", 422, body="no archive")
        self.refuse_long_uploads("loadImage")

    def refuse_long_uploads(self, name: str) -> None:
        """By their announced length; nothing of them is sent."""
        self.call(name, 413, body=b"", headers={"Content-Length": str(LONGEST_UPLOAD + 1)})
        self.call(name, 507, body=b"", headers={"Content-Length": "5000000000"})

    def use_projects(self) -> None:
        self.expect("the example is a project", self.call("checkComposeFile", 200).json()["valid"])
        self.call("checkComposeFile", 200, body="services: 7")
        self.call("checkComposeFile", 413, body="#" * (MOST_COMPOSE + 1))
        self.call("writeComposeFile", 201)
        self.call("writeComposeFile", 204)
        self.refuse_long_uploads("writeComposeFile")
        self.call("listComposeFiles", 200)
        text = self.call("readComposeFile", 200).body
        self.expect("the file is as it was written", text == self.example_body(self.operations["writeComposeFile"])[0])
        self.call("readComposeFile", 404, {"file": "missing.yaml"})
        self.call("readComposeFile", 422, {"file": "long.yaml"})
        for name in ("readComposeFile", "writeComposeFile", "deleteComposeFile", "operateProject"):
            self.call(name, 400, {"file": "demo.txt"})
        for operation in ("create", "start"):
            answer = self.call("operateProject", 200, {"operation": operation})
            self.expect(f"{operation} works: {answer.body!r}", answer.json()["ok"])
        self.expect("the project runs", b'"state":"running"' in self.call("listProjects", 200).body)
        self.call("operateProject", 404, {"operation": "paint"})
        self.use_project_twice()
        for operation in ("stop", "remove"):
            answer = self.call("operateProject", 200, {"operation": operation})
            self.expect(f"{operation} works: {answer.body!r}", answer.json()["ok"])
        self.call("operateProject", 200, {"file": "missing.yaml"})
        self.call("deleteComposeFile", 204)
        self.call("deleteComposeFile", 404)

    def use_project_twice(self) -> None:
        """Of two operations that come at once, one is refused, unless they came one after the other after all."""
        for _ in range(10):
            answers = []
            threads = [
                threading.Thread(target=lambda: answers.append(self.send("operateProject", {"operation": "stop"})))
                for _ in range(2)
            ]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            statuses = sorted(answer.status for answer in answers)
            self.expect(f"two operations at once are answered by {statuses}", statuses in ([200, 200], [200, 409]))
            for answer in answers:
                self.judge("operateProject", answer.status, answer)
            if 409 in statuses:
                break
            self.call("operateProject", 200, {"operation": "start"})

    def use_plugins(self) -> None:
        self.call("uploadPlugin", 201)
        self.call("uploadPlugin", 204)
        self.call("uploadPlugin", 422, {"file": "other.crp"}, body="no plugin")
        self.refuse_long_uploads("uploadPlugin")
        for name in ("listPlugins", "rescanPlugins"):
            plugins = self.call(name, 200).json()["plugins"]
            self.expect(f"{name} tells of the example", [plugin["name"] for plugin in plugins] == ["network"])
        for action in ("deactivate", "activate"):
            self.call("switchPlugin", 204, {"action": action})
        for name in ("uploadPlugin", "deletePlugin"):
            self.call(name, 400, {"file": "-bad"})
        self.call("switchPlugin", 400, query={"directory": "home"})
        self.call("switchPlugin", 404, {"file": "missing.crp"})
        self.call("deletePlugin", 204)
        self.call("deletePlugin", 404)

    def use_tokens(self) -> None:
        look = self.call("makeToken", 201).json()["token"]
        self.call("makeToken", 409)
        act = self.call("makeToken", 201, body='{"name": "operator", "right": "act"}').json()["token"]
        self.call("makeToken", 400, body='{"name": "-bad", "right": "act"}')
        for name in ("makeToken", "openSession"):
            self.call(name, 413, body=" " * (MOST_JSON + 1))
        self.call("listTokens", 200)
        self.call("openSession", 200)
        self.call("openSession", 400, body="[]")
        self.use_tcp(look, act)
        self.call("removeToken", 204)
        self.call("removeToken", 404)

    def use_tcp(self, look: str, act: str) -> None:
        port = self.board.forward()
        self.call("openSession", 401, via=port)
        session = self.call("openSession", 200, via=port, body=json.dumps({"token": act}))
        self.expect("the session is the token's", session.json() == {"name": "operator", "right": "act"})
        by_cookie = self.call("getSession", 200, via=port, headers={"Cookie": f"qx-session={act}"})
        self.expect("the cookie is the token's", by_cookie.json() == {"name": "operator", "right": "act"})
        self.call("closeSession", 204, via=port)
        self.call("getDescription", 200, via=port)
        for name in self.documenting("401"):
            if "101" in self.operations[name].responses:
                self.upgrade(name, 401, via=port)
            if name not in ("openSession", "streamRawLogs"):
                self.refuse(name, 401, via=port)
        for name, operation in self.operations.items():
            if operation.method != "GET" and "401" in operation.responses and name != "openSession":
                self.refuse(name, 403, via=port, headers={"Authorization": f"Bearer {look}"})
        for name in ("listTokens", "makeToken", "removeToken"):
            self.refuse(name, 403, via=port, headers={"Authorization": f"Bearer {act}"})

    def come_from_elsewhere(self) -> None:
        for name in self.operations:
            self.refuse(name, 403, headers={"Origin": "http://elsewhere.example"})

    def stop_and_start(self) -> None:
        self.call("actOnService", 200)
        self.call("actOnService", 404, {"action": "paint"})
        # A container that does not hear SIGTERM takes ten seconds.
        self.board.run("podman run -d --network=none --name deaf localhost/busybox:1 sleep 100")
        with concurrent.futures.ThreadPoolExecutor() as aside:
            stop = aside.submit(self.call, "actOnService", 200, {"action": "stop"})
            self.await_state("stopping")
            self.call("changeSettings", 409)
            self.call("listPlugins", 503)
            service = stop.result().json()
        self.expect("it is stopped, and says why", service["state"] == "stopped" and bool(service["problem"]))
        for name in self.documenting("503"):
            if name == "streamRawLogs":
                self.upgrade(name, 503)
            elif name not in ("checkComposeFile", "listPlugins"):
                self.call(name, 503)
        self.upgrade("getLogs", 503)
        for name in ("listProjects", "check", "getCores", "listPlugins", "listComposeFiles"):
            self.call(name, 200)
        self.call("actOnService", 200, {"action": "disable"})
        self.call("actOnService", 409, {"action": "start"})
        self.call("getService", 200)
        self.call("actOnService", 200, {"action": "enable"})
        self.call("actOnService", 200, {"action": "start"})
        self.call("listContainers", 200)
        self.call("actOnService", 200, {"action": "stop"})
        self.board.run("umount -l /mnt/containers_tools")
        self.call("checkComposeFile", 503)

    def all(self, text: str) -> None:
        self.await_state("running")
        self.board.put_plugin_image()
        self.board.run(PREPARE)
        self.look_around(text)
        for part in (
            self.change_settings,
            self.use_containers,
            self.use_images,
            self.use_projects,
            self.use_plugins,
            self.use_tokens,
            self.come_from_elsewhere,
            self.stop_and_start,
        ):
            print(part.__name__.replace("_", " "), flush=True)
            part()
        for name, operation in self.operations.items():
            for status in sorted(operation.responses.keys() - {"default"} - self.seen[name]):
                self.fault(f"{name}: {status} is documented, but was not seen")


def main() -> int:
    program, stage, path = sys.argv[1:]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    description = Description(path)
    with Board(program, stage) as board:
        try:
            replay = Replay(description, board)
            replay.all(pathlib.Path(path).read_text())
        except Exception:
            print(board.said())
            raise
        if replay.problems:
            print(board.said())
    answers = sum(len(statuses) for statuses in replay.seen.values())
    print(f"{len(replay.seen)} operations, {answers} documented answers seen, {len(replay.problems)} problems")
    return 1 if replay.problems or not replay.seen else 0


if __name__ == "__main__":
    sys.exit(main())
