"""Runs orvane-fetcher, and a web server of lists whose answers a test chooses."""

import http.server
import json
import os
import pathlib
import signal
import ssl
import subprocess
import threading
import time

from extension import Failure

# Seconds after which the fetcher ends a transfer that is too slow. Long, because a busy machine may pause a process for
# some seconds.
STALL = 10
LARGEST = 8  # MiB


class Fetcher:
    """An orvane-fetcher that runs for a with block. Its files, subscriptions included, are in `folder`."""

    def __init__(self, build: pathlib.Path, folder: pathlib.Path, authority: pathlib.Path):
        self._build, self._lists, self._own = build, folder / "machine", folder / "fetcher"
        self.fetched, self.state = self._own / "lists", self._own / "state.json"
        self.subscriptions, self.requests = self._lists / "subscriptions", self._lists / "subscriptions.refresh"
        for each in (self._lists, self._own):
            each.mkdir(parents=True)
        self._log = folder / "fetcher-log"
        self.prefix: list[str] = []  # runs the fetcher's command
        self._command = [build / "orvane-fetcher", "--lists", self._lists, "--folder", self._own]
        self._command += ["--authorities", authority, "--stall", str(STALL), "--largest", str(LARGEST)]

    def __enter__(self):
        self.start()
        return self

    def start(self):
        with open(self._log, "ab") as log:
            self.process = subprocess.Popen([*self.prefix, *self._command], stdout=log, stderr=log)
        end = time.monotonic() + 20
        while not self.state.exists() or json.loads(self.state.read_text()).get("process") != self.process.pid:
            if self.process.poll() is not None or time.monotonic() > end:
                raise Failure(f"the fetcher did not start\n{self._log.read_text()}")
            time.sleep(0.01)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        code = self.process.wait(15)
        if code != 0:
            raise Failure(f"the fetcher ended with {code}\n{self._log.read_text()}")

    def start_control(self, *arguments: str | pathlib.Path) -> subprocess.Popen:
        """Starts orvanectl with this fetcher's files."""
        command = [self._build / "orvanectl", "--list", self._lists / "list", "--fetched", self.fetched, *arguments]
        return subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def control(self, *arguments: str | pathlib.Path) -> str:
        """Runs orvanectl with this fetcher's files. Returns what it prints."""
        with self.start_control(*arguments) as process:
            return process.communicate(timeout=120)[0].strip()

    def in_force(self, name: str) -> list[str] | None:
        """The lines of a list, without the comments at its top; None if there is no list."""
        path = self.fetched / f"{name}.list"
        return [line for line in path.read_text().splitlines() if line[0] != "#"] if path.exists() else None


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        self.server.requests.append((self.path, dict(self.headers)))
        self.server.answers.get(self.path, _Handler.refuse)(self)
        self.close_connection = True

    def refuse(self):
        self.answer(b"No such file. " * 1000, status=404)

    def answer(self, body: bytes, status: int = 200, length: int | None = None, **headers: str):
        """Sends an answer. The names of headers have "_" in place of "-". `length`: a false value of Content-Length."""
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name.replace("_", "-"), value)
        self.send_header("Content-Length", str(len(body) if length is None else length))
        self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(body)

    def trickle(self):
        """Sends a byte each second, as long as the client listens."""
        self.send_response(200)
        self.send_header("Content-Length", "100000")
        self.end_headers()
        try:
            while True:
                self.wfile.write(b"a")
                time.sleep(1)
        except OSError:
            pass

    def log_message(self, *_):
        pass


class ListServer(http.server.ThreadingHTTPServer):
    """Answers a GET of each path with the function in `answers`, which gets the handler, until the process ends."""

    allow_reuse_port = True
    daemon_threads = True

    def __init__(self, address: str, certificate: pathlib.Path):
        super().__init__((address, 443), _Handler)
        self.answers, self.requests = {}, []
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, certificate.with_suffix(".key"))
        self.socket = context.wrap_socket(self.socket, server_side=True, do_handshake_on_connect=False)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def handle_error(self, *_):
        pass  # report no error: the fetcher ends some connections early on purpose


def sign(file: pathlib.Path, key: pathlib.Path, *options: str) -> bytes:
    """The signature that minisign makes of the file with a secret key."""
    signature = file.with_suffix(".minisig")
    command = ["minisign", "-S", "-W", "-s", key, "-m", file, "-x", signature, *options]
    subprocess.run(command, check=True, capture_output=True, env=os.environ)
    return signature.read_bytes()
