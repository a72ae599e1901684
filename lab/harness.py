"""What the end-to-end cases share: servers, client programs, extensions, and raw connections."""

import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import time

import name_server
import programs
from browsers import Browser
from caddy import Caddy
from extension import Extension, Failure
from first_bytes import hello, request
from isolation import Unavailable
from programs import ALLOW, DROP, Destination
from web_servers import WebServers

HELD, NEWS = "held.example", "news.example"
BELOW = [f"www.{HELD}", f"a.b.{HELD}"]  # subdomains of HELD
BESIDE = [f"not{HELD}", "held.test"]  # names that only look like HELD
os.environ["PATH"] += ":/usr/sbin:/sbin"  # for iptables: a user's PATH often lacks these folders
PYTHON = os.path.basename(os.path.realpath(sys.executable))  # the bundle identifier of this Python process
FAMILIES = ["-4", "-6"] if socket.has_dualstack_ipv6() else ["-4"]


def check(actual, expected, what: str) -> None:
    if actual != expected:
        raise Failure(f"{what}: got {actual}, expected {expected}")


def outcome(connection: socket.socket) -> str:
    """What the first answer on the connection shows: a verdict (ALLOW or DROP), "closed" or "silence"."""
    try:
        return ALLOW if connection.recv(1) else "closed"
    except ConnectionResetError:
        return DROP
    except TimeoutError:
        return "silence"


def connect(name: str, address: str = "127.0.0.1", port: int = 443) -> str:
    """Connects, and sends the first bytes of a browser. Returns the outcome."""
    try:
        with socket.create_connection((address, port), 20) as connection:
            connection.sendall(hello(name) if port == 443 else request(name))
            return outcome(connection)
    except ConnectionRefusedError:
        return "refused"
    except ConnectionResetError:
        return DROP


def wait_until(condition, what: str, seconds: float = 300) -> None:
    """Waits until condition() is true, and prints how long that took.

    The limit is far above what an idle machine needs, so that a busy machine or a sanitizer does not exceed it.
    """
    start = time.monotonic()
    while not condition():
        if time.monotonic() - start > seconds:
            raise Failure(f"{what}: not within {seconds} s")
        time.sleep(0.02)
    print(f"{what}: {time.monotonic() - start:.2f} s")


def becomes(verdict: str, what: str, name: str = HELD, address: str = "127.0.0.1") -> None:
    """Waits until connections to the name get this verdict."""
    wait_until(lambda: connect(name, address) == verdict, what)


def iptables(arguments: str, family: str = "-4", text: str | None = None) -> str:
    command, *rest = arguments.split()
    program = {"-4": command, "-6": command.replace("iptables", "ip6tables", 1)}[family]
    return subprocess.run([program, *rest], input=text, check=True, capture_output=True, text=True).stdout


class World:
    def __init__(self, build: pathlib.Path, directory: pathlib.Path):
        self.build, self.directory = build, directory
        self.extensions: list[Extension] = []
        self._fetched = 0

    def require_netfilter(self) -> None:
        for arguments in ("-A OUTPUT -p 142 -j NFQUEUE --queue-num 1 --queue-bypass", "-F OUTPUT"):
            try:
                iptables(f"iptables -t mangle {arguments}")
            except FileNotFoundError:
                raise Unavailable("iptables is not installed") from None
            except subprocess.CalledProcessError as error:
                raise Unavailable(f"this kernel refuses a packet queue: {error.stderr.strip()}") from None

    def serve(self) -> None:
        """Starts the name server and the web servers. All names have the same addresses."""
        names = [HELD, NEWS, *BELOW, *BESIDE]
        self.addresses = {name: ["127.0.0.1", "::1"][: len(FAMILIES)] for name in names}
        self.hello_keys: dict[str, bytes] = {}
        name_server.serve(self.addresses, self.hello_keys)
        folder = self.directory / f"servers-{os.getpid()}"
        folder.mkdir()
        self.servers = WebServers(folder, names)

    def serve_with_caddy(self, *names: str) -> Caddy:
        """Moves the names to a server that speaks HTTP/2 and HTTP/3."""
        for name in names:
            self.addresses[name] = [Caddy.ADDRESS]
        return Caddy(self.directory, list(names), self.servers.certificate)

    def extension(
        self, *browsers: str, provider="FilterDataProvider", source: str | None = "netfilter", **more
    ) -> Extension:
        folder = self.directory / f"extension-{os.getpid()}-{len(self.extensions)}"
        self.extensions.append(Extension(self.build, folder, provider, list(browsers), source, **more))
        return self.extensions[-1]

    @contextlib.contextmanager
    def filtering(self, *browsers: str, **more):
        """A running extension for these browsers, with HELD on its list."""
        with self.extension(*browsers, **more) as extension:
            extension.hold(HELD)
            yield extension

    def browser(self, kind: type[Browser], *more) -> Browser:
        path = shutil.which(kind.PROGRAM)
        if path is None:
            raise Unavailable(f"{kind.PROGRAM} is not installed")
        browser = kind(kind.PROGRAM, path, kind.PROGRAM, self.directory, self.servers.authority, *more)
        if not browser.runs():
            raise Unavailable(f"{kind.PROGRAM} does not run here")
        return browser

    def curl(self) -> programs.Curl:
        return programs.Curl("curl", programs.find("curl"), "curl", self.directory, self.servers.authority)

    def fetch(self, program: programs.Program, scheme: str, host: str, *more, proxy: str | None = None) -> str:
        """Fetches a page. Returns the verdict that the program saw, and checks it against the web server's record."""
        self._fetched += 1
        path = f"/{self._fetched}"
        seen = program.fetch(Destination(scheme, host), path, proxy, *more)
        verdict = next(iter(seen.verdicts), seen.text)
        print(f"{program.name} {scheme}://{host} {' '.join(more)}: {seen.text}")
        reached = self.servers.have_served(path)
        if reached != (verdict == ALLOW):
            raise Failure(f"{program.name} saw {verdict}; a request that reached the web server: {reached}")
        return verdict
