"""Which connections the filter drops, and which it allows."""

import collections
import contextlib
import pathlib
import shutil
import socket
import ssl
import struct
import subprocess
import threading
import time

import name_server
import programs
from first_bytes import SERVED, FirstBytesServer, allow_many_descriptors, hello, request
from harness import ALLOW, DROP, FAMILIES, HELD, NEWS, PYTHON, World, check, connect, outcome


def DropsOnlyHeldHosts(world: World):
    curl = world.curl()
    with world.filtering("curl"):
        for family in FAMILIES:
            for scheme in ("http", "https"):
                check(world.fetch(curl, scheme, HELD, family), DROP, f"{scheme} {family}")
                check(world.fetch(curl, scheme, NEWS, family), ALLOW, f"{scheme} {family}")


def ReadsNamesSplitIntoTenSegments(world: World):
    with world.filtering(PYTHON):
        for port in (80, 443):
            for name, expected in ((HELD, DROP), (NEWS, ALLOW)):
                check(connect(name, port=port, pieces=10), expected, f"{name} on port {port}")


class RecordingServer:
    """Records the bytes of each connection. Answers with SERVED once, as soon as these bytes end with `last`.

    If `last` is empty, it answers the first bytes.
    """

    def __init__(self, port: int, last: bytes = b""):
        self.address, self._last, self.received = ("127.0.0.3", port), last, [b""]
        self._listener = socket.create_server(self.address, reuse_port=True)
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self) -> None:
        while True:
            connection, _ = self._listener.accept()
            self.received.append(b"")
            threading.Thread(target=self._read, args=(connection, len(self.received) - 1), daemon=True).start()

    def _read(self, connection: socket.socket, number: int) -> None:
        answered = False
        with connection, contextlib.suppress(ConnectionError):
            while data := connection.recv(1 << 20):
                self.received[number] += data
                if not answered and self.received[number].endswith(self._last):
                    connection.sendall(SERVED)
                    answered = True

    def send(self, *pieces: bytes) -> tuple[str, list[str]]:
        """Sends the pieces on one connection.

        Returns the outcome after the last piece, and a list of the outcomes after the earlier pieces.
        """
        seen = []
        with contextlib.suppress(ConnectionResetError), socket.create_connection(self.address, 20) as connection:
            for piece in pieces[:-1]:
                connection.sendall(piece)
                connection.settimeout(0.3)
                seen.append(outcome(connection))
            connection.settimeout(20)
            connection.sendall(pieces[-1])
            return outcome(connection), seen
        return DROP, seen


def ReadsNamesInEverySpelling(world: World):
    """A page can make a browser ask for a name in capitals, or for one that ends with the dot of the DNS root."""
    plain, secure = RecordingServer(80), RecordingServer(443)
    with world.extension(PYTHON) as extension:
        extension.hold(HELD, "held.exampl")
        for spelling in ("HELD.example", "held.example.", "Held.Example."):
            check(plain.send(request(spelling))[0], DROP, f"Host: {spelling}")
        for spelling in (b"HELD.example", b"held.exampl."):  # Python would send no final dot, so the hello is edited
            check(secure.send(hello(HELD).replace(HELD.encode(), spelling))[0], DROP, f"a hello for {spelling}")


def ReadsNamesInRequestHeadsOfAnyLength(world: World):
    server = RecordingServer(80, b"\r\n\r\n")
    with world.filtering(PYTHON):
        for kilobytes in (17, 64, 256):
            filler = b"x" * (kilobytes << 10)
            for what, head in (("URL", b"GET /?%s HTTP/1.1\r\n"), ("cookie", b"GET / HTTP/1.1\r\nCookie: %s\r\n")):
                for name, expected in ((HELD, DROP), (NEWS, ALLOW)):
                    text = head % filler + f"Host: {name}\r\n\r\n".encode()
                    check(server.send(text)[0], expected, f"{name} with a {what} of {kilobytes} KiB")
                    whole = server.received[-1] == text
                    check(whole, expected == ALLOW, f"the whole request for {name} arrives")
                    check(HELD.encode() in server.received[-1], False, "the held name arrives")


def HoldsEarlyAnswersBackUntilTheNameIsKnown(world: World):
    """A server may answer half of a request, and a browser shows this answer. So the filter must hold it back."""
    server = RecordingServer(80)
    for browser, name, expected in (
        (PYTHON, HELD, (DROP, ["silence"])),
        (PYTHON, NEWS, (ALLOW, ["silence"])),
        ("another program", HELD, (ALLOW, [ALLOW])),
    ):
        with world.filtering(browser):
            begin, end = request(name)[:24], request(name)[24:]
            check(server.send(begin, end + b"more"), expected, f"a server that answers {begin} for {name}")


def AppliesListChangesToNewConnectionsOnly(world: World):
    context = ssl.create_default_context(cafile=world.servers.authority)
    with world.extension(PYTHON) as extension:
        raw = socket.create_connection(("127.0.0.1", 443), 20)
        with context.wrap_socket(raw, server_hostname=NEWS) as connection:
            for step, names, expected in (("added", [NEWS], DROP), ("removed", [], ALLOW)):
                extension.hold(*names)
                connection.sendall(request(NEWS))
                check(outcome(connection), ALLOW, f"the open connection after its name was {step}")
                check(connect(NEWS), expected, f"the next connection after its name was {step}")


def JudgesEachConnectionThatReusesAPort(world: World):
    """The kernel keeps a reset connection and its mark for 10 s. A new connection must not inherit the mark."""
    abort = (socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    pairs = [(HELD, NEWS), (NEWS, HELD), (HELD, HELD), (NEWS, NEWS)]
    with world.filtering(PYTHON):
        for number, (first, second) in enumerate(pairs):
            for name in (first, second):
                with socket.socket() as connection:
                    connection.setsockopt(*abort)
                    connection.settimeout(20)
                    connection.bind(("127.0.0.1", 20000 + number))
                    connection.connect(("127.0.0.1", 443))
                    connection.sendall(hello(name))
                    verdict = outcome(connection)
                check(verdict, DROP if name == HELD else ALLOW, f"{name}, after {first}")


def AllowsOtherProgramsEverything(world: World):
    wget = world.program(programs.Wget, "wget", world.servers.authority)
    with world.filtering("curl") as extension:
        since = extension.log_size()
        for scheme in ("http", "https"):
            check(world.fetch(wget, scheme, HELD), ALLOW, "wget")
        check(extension.identifiers_judged(since), {"wget"}, "identifiers in the log")


class _BrowsersCurl(programs.Curl):
    """Runs curl as a child process of a browser, for which a copy of Python stands in."""

    def _run(self, *arguments):
        code = "import subprocess, sys; sys.exit(subprocess.call(sys.argv[1:]))"
        return super()._run("-I", "-c", code, shutil.which("curl"), *arguments)


def AttributesChildProcessesToTheirBrowser(world: World):
    folder = world.directory / "browser"
    folder.mkdir()
    browser = shutil.copy("/proc/self/exe", folder / "testbrowser")
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/usr/local/share"], check=True)
    entries = pathlib.Path("/usr/local/share/applications")
    entries.mkdir()
    (entries / "testbrowser.desktop").write_text(f"[Desktop Entry]\nType=Application\nName=T\nExec={browser} %u\n")
    child = _BrowsersCurl("curl of a browser", browser, "testbrowser", world.directory, world.servers.authority)
    with world.filtering("testbrowser"):
        for program, expected in ((child, DROP), (world.curl(), ALLOW)):
            for scheme in ("http", "https"):
                check(world.fetch(program, scheme, HELD), expected, program.name)


def AllowsConnectionsOpenedBeforeItsStart(world: World):
    with socket.create_connection(("127.0.0.1", 80), 20) as silent, socket.create_connection(("127.0.0.1", 80)) as used:
        used.sendall(request(HELD))
        check(outcome(used), ALLOW, "before the filter starts")
        with world.filtering(PYTHON):
            for connection in (silent, used):
                connection.sendall(request(HELD))
                check(outcome(connection), ALLOW, "the older connection")
            check(connect(HELD, port=80), DROP, "a new connection")


def JudgesTwoThousandConnectionsAtOnce(world: World):
    allow_many_descriptors()
    address = "127.0.0.9"
    server = FirstBytesServer(address, [80, 443], HELD, idle_limit=60)
    texts = [(request(HELD), 80), (request(NEWS), 80), (hello(HELD), 443), (hello(NEWS), 443)] * 500
    with world.filtering(PYTHON) as extension:
        connections = [socket.create_connection((address, port), 60) for _, port in texts]
        start = time.monotonic()
        for connection, (text, _) in zip(connections, texts):
            connection.sendall(text)
        verdicts = [outcome(connection) for connection in connections]
        print(f"2,000 verdicts in {time.monotonic() - start:.2f} s; {extension.counters()}")
        wrong = collections.Counter(pair for pair in zip(verdicts, [DROP, ALLOW] * 1000) if pair[0] != pair[1])
        check((dict(wrong), server.seen), ({}, 0), "wrong verdicts, and held connections at the server")
        check(extension.counters()["after a verdict"], 0, "packets after a verdict")


def AllowsDNSQuestionsAndLogsThem(world: World):
    with world.filtering(PYTHON) as extension:
        query = name_server.question(HELD)
        for kind, over in ((socket.SOCK_DGRAM, "UDP"), (socket.SOCK_STREAM, "TCP")):
            since = extension.log_size()
            with socket.socket(socket.AF_INET, kind) as connection:
                connection.settimeout(20)
                connection.connect(("127.0.0.1", 53))
                connection.sendall(query if over == "UDP" else struct.pack("!H", len(query)) + query)
                check(socket.inet_aton("127.0.0.1") in connection.recv(512), True, f"an answer over {over}")
            extension.wait_for(r"handleOutboundDataFromFlow: DNS flow", since)


def SafariProviderHonoursSuspensionDates(world: World):
    folder = world.directory / "safari"
    folder.mkdir()
    path = shutil.copy(shutil.which("curl"), folder / "com.apple.Safari")
    safari = programs.Curl("a copy of curl", path, "com.apple.Safari", world.directory, world.servers.authority)
    with world.filtering("curl", provider="PLSafariFilterDataProvider") as extension:
        for until, expected in (("2020", DROP), ("2099", ALLOW), ("2021", DROP)):
            extension.control("properties", HELD, "--dont-block-until", f"{until}-01-01T00:00:00Z").check_returncode()
            for scheme in ("http", "https"):
                check(world.fetch(safari, scheme, HELD), expected, f"suspended until {until}")
        check(world.fetch(world.curl(), "https", HELD), ALLOW, "another browser")
