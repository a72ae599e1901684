"""The filter's verdicts on HTTP/3. Without a browser, the first datagrams are a recording: Firefox's first to HELD."""

import base64
import collections
import contextlib
import hashlib
import pathlib
import shutil
import socket
import subprocess

from attackers import flood
from harness import ALLOW, DROP, FAMILIES, HELD, NEWS, PYTHON, World, check, wait_until
from http3_browsers import ChromiumOverHTTP3, FirefoxOverHTTP3, over_http3
from http3_server import HTTP3Server
from isolation import Unavailable
from programs import Browser

_RECORD = pathlib.Path(__file__).resolve().parents[3] / "fuzz/corpus/quic_initial/firefox_1"
_LONGEST_WAIT = 0.5  # seconds until a page or an error
_ADDRESSES = {"-4": (socket.AF_INET, "127.0.0.9"), "-6": (socket.AF_INET6, "::1")}


def _recorded() -> list[bytes]:
    """The datagrams of a recording, in which each comes after its length. The second one completes the name HELD."""
    text, datagrams = _RECORD.read_bytes(), []
    while text:
        end = 2 + int.from_bytes(text[:2], "big")
        datagrams.append(text[2:end])
        text = text[end:]
    return datagrams


class _Server:
    """A socket on port 443 that only receives."""

    def __init__(self, family: str = "-4"):
        self.family, address = _ADDRESSES[family]
        self.socket = socket.socket(self.family, socket.SOCK_DGRAM)
        self.socket.bind((address, 443))
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.address = (address, 443)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def client(self) -> socket.socket:
        connection = socket.socket(self.family, socket.SOCK_DGRAM)
        connection.connect(self.address)
        return connection

    def received(self) -> list[bytes]:
        """The datagrams that have arrived since the last call. Waits until no more arrive."""
        return [datagram for datagrams in self.received_by_client().values() for datagram in datagrams]

    def received_by_client(self) -> dict[tuple, list[bytes]]:
        self.socket.settimeout(0.3)
        datagrams = collections.defaultdict(list)
        with contextlib.suppress(TimeoutError):
            while True:
                datagram, client = self.socket.recvfrom(4096)
                datagrams[client].append(datagram)
        return datagrams


def HoldsBackTheDatagramThatCompletesAHeldName(world: World):
    first, second = _recorded()
    with world.filtering(PYTHON) as extension:
        for family in FAMILIES:
            with _Server(family) as server, server.client() as connection:
                connection.send(first)
                connection.send(second)
                check(server.received(), [first], f"what left {family}")
                failures = []
                for datagram in (first, second, first):
                    try:
                        connection.send(datagram)
                    except OSError as error:
                        failures.append(type(error).__name__)
                print(f"sent again {family}: {failures}")
                check((bool(failures), server.received()), (True, []), f"sent again {family}")
                extension.hold(NEWS)
                with server.client() as another:
                    another.send(first)
                    another.send(second)
                    check(server.received(), [first, second], f"of an unlisted name {family}")
                extension.hold(HELD)


def EndsAnOpenConversationWhenItsNameIsBlocked(world: World):
    first, second = _recorded()
    with world.extension(PYTHON) as extension:
        for count, family in enumerate(FAMILIES, 1):
            extension.hold(NEWS)
            with _Server(family) as server, server.client() as connection:
                for datagram in (first, second, b"@later"):
                    connection.send(datagram)
                check(server.received(), [first, second, b"@later"], f"before the edit {family}")
                extension.control("add", HELD).check_returncode()
                wait_until(lambda count=count: extension.counters()["ended"] == count, "the conversation has ended", 1)
                failures = []
                for _ in range(2):
                    try:
                        connection.send(b"@after")
                    except OSError as error:
                        failures.append(type(error).__name__)
                print(f"sent after the edit {family}: {failures}")
                check((bool(failures), server.received()), (True, []), f"after the edit {family}")


def JudgesAConversationThatTheServerBegan(world: World):
    first, second = _recorded()
    with world.filtering(PYTHON):
        for family in FAMILIES:
            with _Server(family) as server, server.client() as connection:
                server.socket.sendto(b"early", connection.getsockname())
                check(connection.recv(10), b"early", f"the server's datagram {family}")
                for datagram in (first, second, second):
                    with contextlib.suppress(OSError):
                        connection.send(datagram)
                check(server.received(), [first], f"what left {family}")


def SafariProviderJudgesHTTP3ByTheDate(world: World):
    first, second = _recorded()
    safari = shutil.copy("/proc/self/exe", world.directory / "com.apple.Safari")
    # The program keeps its socket for a while: a socket that is closed early has no owner.
    code = "import socket, sys, time\ns = socket.socket(type=socket.SOCK_DGRAM)\ns.connect(('127.0.0.9', 443))\n"
    code += "for text in sys.argv[1:]: s.send(bytes.fromhex(text))\ntime.sleep(0.5)"
    with world.filtering(PYTHON, provider="PLSafariFilterDataProvider") as extension, _Server() as server:
        for until, expected in (("2020", [first]), ("2099", [first, second])):
            extension.control("properties", HELD, "--dont-block-until", f"{until}-01-01T00:00:00Z").check_returncode()
            subprocess.run([safari, "-I", "-c", code, first.hex(), second.hex()], check=False)
            check(server.received(), expected, f"what left while suspended until {until}")


def EndsAConversationWhenItsNameIsBlocked(world: World):
    with world.extension(PYTHON) as extension, _Server() as server, server.client() as connection:
        for datagram in _recorded():
            connection.send(datagram)
        check(server.received(), _recorded(), "what left before the name was blocked")

        def arrives() -> bool:
            with contextlib.suppress(OSError):
                connection.send(b"\x41 a later packet")
            return bool(server.received())

        check(arrives(), True, "a later packet arrives")
        extension.hold(HELD)
        wait_until(lambda: not arrives(), "the conversation's end", 2)


def ExaminesOneDatagramOfAnotherProtocol(world: World):
    with world.filtering(PYTHON) as extension, _Server() as server, server.client() as connection:
        before = extension.counters()["packets"]
        connection.send(b"\4\0\0\0a tunnel's data")
        check(len(server.received()), 1, "the first datagram arrived")
        for _ in range(100):
            connection.send(b"\4\0\0\0a tunnel's data")
        check(len(server.received()), 100, "datagrams that arrived")
        check(extension.counters()["packets"] - before, 1, "datagrams that were examined")


def PassesNoHeldNameDuringAFlood(world: World):
    first, second = _recorded()
    with world.filtering(PYTHON) as extension, _Server() as server, flood(443):
        clients = [server.client() for _ in range(200)]
        for _ in range(3):
            for connection in clients:
                for datagram in (first, second):
                    with contextlib.suppress(OSError):
                        connection.send(datagram)
        received = server.received_by_client()
        print(f"datagrams of {len(received)} clients arrived; {extension.counters()}")
        # A datagram that is dropped beyond the limit completes nothing, so either one may arrive without the other.
        check([client for client, datagrams in received.items() if len(set(datagrams)) > 1], [], "whole hellos")
        for connection in clients:
            connection.close()


def LeavesHTTP3AloneIfTheSettingSaysSo(world: World):
    passing = world.filtering(PYTHON, settings={"OrvaneHTTP3": "pass"})
    with passing as extension, _Server() as server, server.client() as connection:
        for datagram in _recorded():
            connection.send(datagram)
        check(server.received(), _recorded(), "what left")
        check(extension.counters()["packets"], 0, "packets that were examined")


def _browse_over_http3(world: World, kind: type[Browser], name: str, *more) -> None:
    browser = world.program(kind, name, [HELD, NEWS], *more)
    if not browser.runs():
        raise Unavailable(f"{name} does not run here")
    server = HTTP3Server(world.directory, [HELD, NEWS], world.servers.certificate)
    for setting, expected in (("judge", DROP), ("pass", ALLOW)):
        with world.filtering(name, settings={"OrvaneHTTP3": setting}):
            for host, verdict in ((NEWS, ALLOW), (HELD, expected)):
                before = server.hosts()
                for _ in range(3):  # on a busy machine, one attempt may take longer
                    seen = browser.fetch(over_http3(host), "/", None)
                    print(f"{name} with {setting}: {host}: {seen.text}, {browser.seconds * 1000:.0f} ms")
                    if browser.seconds < _LONGEST_WAIT:
                        break
                check(seen.verdicts[:1], [verdict], f"{host} with {setting}: {seen.text}")
                check(host in server.hosts()[len(before) :], verdict == ALLOW, f"the server's log names {host}")
                check(browser.seconds < _LONGEST_WAIT, True, f"a page or an error within {_LONGEST_WAIT} s")


def _key_hash(certificate) -> str:
    """The hash of a certificate's public key, as Chromium expects it."""
    command = ["openssl", "x509", "-in", certificate, "-noout", "-pubkey"]
    key = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    binary = base64.b64decode("".join(key.splitlines()[1:-1]))
    return base64.b64encode(hashlib.sha256(binary).digest()).decode()


def JudgesHTTP3OfChromium(world: World):
    _browse_over_http3(world, ChromiumOverHTTP3, "chromium", _key_hash(world.servers.certificate))


def JudgesHTTP3OfFirefox(world: World):
    _browse_over_http3(world, FirefoxOverHTTP3, "firefox-esr")


def EndsTheOpenHTTP3ConnectionOfATab(world: World):
    hosts = [HELD, NEWS]
    chromium = world.program(ChromiumOverHTTP3, "chromium", hosts, _key_hash(world.servers.certificate))
    if not chromium.runs():
        raise Unavailable("chromium does not run here")
    server = HTTP3Server(world.directory, hosts, world.servers.certificate)
    with world.extension("chromium") as extension, chromium.tabs() as tabs:
        held, other = (tabs.start_requests(f"https://{host}") for host in hosts)
        for tab in (held, other):
            wait_until(lambda tab=tab: tabs.received(tab) > 2, "the requests of a tab have begun", 20)
        check(set(server.hosts()), set(hosts), "the hosts in the server's log")
        extension.control("add", HELD).check_returncode()
        answers = tabs.received(held)
        wait_until(lambda: tabs.error(held) is not None, "the requests fail after the edit", 3)
        check(tabs.received(held) - answers < 2, True, "no answers come after the edit")
        before = tabs.received(other)
        wait_until(lambda: tabs.received(other) > before + 2, "the other tab's requests go on", 2)
        check(tabs.error(other), None, "the other tab's error")
        check(extension.counters()["ended"] > 0, True, "ended flows")
