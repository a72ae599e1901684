"""The filter's verdicts on HTTP/3. Most cases send a recording of a browser's first datagrams to HELD."""

import collections
import contextlib
import errno
import itertools
import pathlib
import socket
import time

from attackers import flood, locked, sender_from
from browsers import Browser, ChromiumWithHTTP3, FirefoxWithHTTP3
from harness import ALLOW, DROP, FAMILIES, HELD, NEWS, PYTHON, World, check, connect, wait_until
from programs import Destination

_RECORDS = pathlib.Path(__file__).resolve().parents[3] / "fuzz/corpus/quic_initial"
# A socket that the extension aborts loses its peer. It also loses its port, unless the program has chosen the port. So
# a test that goes on with the socket chooses a port, and connects the socket again.
_PORTS = itertools.count(4433)
_ADDRESSES = {"-4": (socket.AF_INET, "127.0.0.9"), "-6": (socket.AF_INET6, "::1")}


def _recorded(file: str = "firefox_1") -> list[bytes]:
    """The datagrams of a record, each after its length. A browser's record has two, and HELD is complete with both."""
    text, datagrams = (_RECORDS / file).read_bytes(), []
    while text:
        end = 2 + int.from_bytes(text[:2], "big")
        datagrams.append(text[2:end])
        text = text[end:]
    return datagrams


class _Server:
    """A server on UDP port 443. It records the datagrams that arrive, and does not answer them."""

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

    def client(self, port: int = 0) -> socket.socket:
        connection = socket.socket(self.family, socket.SOCK_DGRAM)
        connection.bind(("", port))
        connection.connect(self.address)
        return connection

    def check_received(self, expected: list[bytes], what: str) -> None:
        """Checks the datagrams that have arrived since the last call."""
        received = self.received_by_client(len(expected)).values()
        check(list(itertools.chain(*received)), expected, what)

    def received_by_client(self, count: int = 0) -> dict[tuple, list[bytes]]:
        """The datagrams that have arrived. Waits for `count` datagrams, and then until no more arrive."""
        datagrams = collections.defaultdict(list)
        with contextlib.suppress(TimeoutError):
            for number in itertools.count():
                self.socket.settimeout(30 if number < count else 0.3)
                datagram, client = self.socket.recvfrom(4096)
                datagrams[client].append(datagram)
        return datagrams


def _send(connection: socket.socket, *datagrams: bytes) -> bool:
    """Sends the datagrams. Returns whether sending one of them failed."""
    failed = False
    for datagram in datagrams:
        try:
            connection.send(datagram)
        except OSError:
            failed = True
    return failed


def _wait_for_abort(client: socket.socket) -> None:
    wait_until(lambda: client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == errno.ECONNABORTED, "the abort")


def HoldsBackTheDatagramThatCompletesAHeldName(world: World):
    first, second = _recorded()
    with world.filtering(PYTHON):
        for family in FAMILIES:
            # Like Firefox, this client does not connect its socket, so the kernel reports no rejection to the socket.
            with _Server(family) as server, socket.socket(server.family, socket.SOCK_DGRAM) as client:
                for _ in range(2):
                    client.sendto(first, server.address)
                    client.sendto(second, server.address)
                    _wait_for_abort(client)
                    server.check_received([first], f"what left {family}")


def HoldsBack0RTTInTheMiddleOfAHello(world: World):
    first, second = _recorded()
    request = b"\xd0\0\0\0\1\x08destined\0\x40\x40" + bytes(64)  # a 0-RTT packet (RFC 9000, section 17.2.3)
    with world.filtering(PYTHON), _Server() as server, server.client() as browser:
        check(_send(browser, first, request, second), False, "whether sending failed")
        server.check_received([first], "what left")


def FreesThePortsOfADroppedConversation(world: World):
    with world.extension(PYTHON) as extension, _Server() as server:
        extension.hold("example.com")
        with server.client() as connection:
            port = connection.getsockname()[1]
            _send(connection, *_recorded("rfc9369"))  # the whole hello to example.com
            _wait_for_abort(connection)
        with server.client(port) as other:
            wait_until(lambda: not _send(other, b"@other") and server.received_by_client(), "another socket can send")


def EndsAnOpenConversationWhenItsNameIsBlocked(world: World):
    first, second = _recorded()
    timeout = pathlib.Path("/proc/sys/net/netfilter/nf_conntrack_udp_timeout")
    for name, server_begins, is_forgotten in (
        ("a conversation that the browser began", False, False),
        ("a conversation that the server began", True, False),
        ("a conversation that connection tracking forgot", False, True),
    ):
        with world.extension(PYTHON) as extension:
            for count, family in enumerate(FAMILIES, 1):
                extension.hold(NEWS)
                timeout.write_text("1" if is_forgotten else "30")  # in seconds
                with _Server(family) as server, server.client(next(_PORTS)) as connection, server.client() as moved:
                    if server_begins:
                        server.socket.sendto(b"early", connection.getsockname())
                        check(connection.recv(10), b"early", f"the server's datagram, {name} {family}")
                    _send(connection, first, second, b"@later")
                    server.check_received([first, second, b"@later"], f"before the edit, {name} {family}")
                    if is_forgotten:
                        time.sleep(6)  # the extension remembers the verdict on a flow for 5 s
                    timeout.write_text("30")
                    extension.control("add", HELD).check_returncode()
                    wait_until(lambda count=count: extension.counters()["ended"] == count, f"{name} has ended")
                    _wait_for_abort(connection)
                    connection.connect(server.address)
                    _send(connection, b"@after", b"@after")
                    server.check_received([], f"after the edit, {name} {family}")
                    _send(moved, b"@moved")
                    server.check_received([], f"from another port, {name} {family}")


def JudgesANewConnectionOnThePortsOfAnAllowedOne(world: World):
    first, second = _recorded()
    with world.extension(PYTHON, settings={"OrvaneOpenConnections": "keep"}) as extension:
        for name, datagrams, is_new_socket in (
            ("the same hello on another socket", [first, second], True),
            ("another connection of the socket", _recorded("chromium_1"), False),
        ):
            for family in FAMILIES:
                extension.hold(NEWS)
                with _Server(family) as server, contextlib.ExitStack() as stack:
                    connection = stack.enter_context(server.client())
                    _send(connection, first, second)
                    server.check_received([first, second], f"an unlisted name, before {name} {family}")
                    extension.hold(HELD)
                    _send(connection, first, second)
                    server.check_received([first, second], f"the same connection again, before {name} {family}")
                    if is_new_socket:
                        port = connection.getsockname()[1]
                        connection.close()
                        connection = stack.enter_context(server.client(port))
                    _send(connection, *datagrams)
                    server.check_received(datagrams[:1], f"what left of {name} {family}")


def ExaminesNoMoreDatagramsThanItNeeds(world: World):
    cases = (("judge", [b"\4\0\0\0a tunnel's data"] * 101, 1), ("pass", _recorded(), 0))
    for setting, datagrams, expected in cases:
        filtering = world.filtering(PYTHON, settings={"OrvaneHTTP3": setting})
        with filtering as extension, _Server() as server, server.client() as connection:
            before = extension.counters()["packets"]
            _send(connection, datagrams[0])
            server.check_received(datagrams[:1], f"the first datagram with {setting}")
            _send(connection, *datagrams[1:])
            server.check_received(datagrams[1:], f"later datagrams with {setting}")
            check(extension.counters()["packets"] - before, expected, f"packets that were examined with {setting}")


def PassesNoHeldNameDuringAFlood(world: World):
    first, second = _recorded()
    with world.filtering(PYTHON) as extension, _Server() as server, flood(443):
        clients = [server.client() for _ in range(200)]
        for _ in range(3):
            for connection in clients:
                _send(connection, first, second)
        received = server.received_by_client()
        print(f"datagrams of {len(received)} clients arrived; {extension.counters()}")
        # In the flood, the filter drops some datagrams without reading them, and then may let the client's other
        # datagram pass. But the two must never both arrive, because together they contain the whole name.
        check([client for client, datagrams in received.items() if len(set(datagrams)) > 1], [], "whole hellos")
        for connection in clients:
            connection.close()


def FiltersWhileAUserKeepsADroppedSocketLocked(world: World):
    first, second = _recorded()
    with world.filtering(PYTHON) as extension, _Server() as server, contextlib.ExitStack() as stack:
        clients = [stack.enter_context(server.client()) for _ in range(3)]
        with locked(clients[0]):
            for client in clients[:2]:
                _send(client, first, second)
                server.check_received([first], "what left a socket")
                wait_until(lambda client=client: _send(client, b"@later"), "the kernel rejects a later datagram")
            check([connect(name) for name in (HELD, NEWS)], [DROP, ALLOW], "other connections")
        for client in clients[:2]:
            _wait_for_abort(client)
        with locked(clients[2]):
            _send(clients[2], first, second)
            server.check_received([first], "what left the last socket")
            extension.process.terminate()
            check(extension.process.wait(60), 0, "the exit code")
            extension.start()
            extension.hold(HELD)
            check([connect(name) for name in (HELD, NEWS)], [DROP, ALLOW], "connections after a restart")


def LetsNoUserEndAnothersConversation(world: World):
    begin, attack = _recorded(), _recorded("chromium_1")  # two connections to HELD
    keep = {"OrvaneOpenConnections": "keep"}
    with world.extension(PYTHON, settings=keep) as extension, _Server() as server:
        for name, connects in (("connected", True), ("not connected", False)):
            extension.hold(NEWS)
            with socket.socket(server.family, socket.SOCK_DGRAM) as client:
                client.bind(("127.0.0.1", 0))
                if connects:
                    client.connect(server.address)
                for datagram in begin:
                    client.sendto(datagram, server.address)
                server.check_received(begin, f"before the attack, {name}")
                extension.hold(HELD)
                with sender_from(client.getsockname(), server.address, attack):
                    server.check_received(attack, f"the other user's datagrams, {name}")
                check(client.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR), 0, f"the socket's error, {name}")
                client.sendto(b"@later", server.address)
                server.check_received([b"@later"], f"after the attack, {name}")


def _browse_over_http3(world: World, kind: type[Browser]) -> None:
    browser = world.browser(kind, [HELD, NEWS])
    server = world.serve_with_caddy(HELD, NEWS)
    for setting, expected in (("judge", DROP), ("pass", ALLOW)):
        with world.filtering(browser.identifier, settings={"OrvaneHTTP3": setting}), browser.tabs():
            for host, verdict in ((NEWS, ALLOW), (HELD, expected)):
                path = f"/{setting}"
                seen = browser.fetch(Destination("h3", host), path, None)
                print(f"{browser.name} with {setting}: {host}: {seen.text}, {browser.seconds * 1000:.0f} ms")
                check(seen.verdicts[:1], [verdict], f"{host} with {setting}: {seen.text}")
                check(server.has_served(host, path), verdict == ALLOW, f"the server has served {host}")


def JudgesHTTP3OfChromium(world: World):
    _browse_over_http3(world, ChromiumWithHTTP3)


def JudgesHTTP3OfFirefox(world: World):
    _browse_over_http3(world, FirefoxWithHTTP3)
