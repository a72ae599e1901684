"""What the clients send and the servers do, as data. A script's name and seed determine all of it."""

import dataclasses
import random
import struct
from collections.abc import Callable

HELD, NEWS = "held.example", "news.example"
FIN, SYN, RST, PSH, ACK, URG, ECE, CWR = (1 << bit for bit in range(8))
ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nan answer"
FORGOTTEN = 2  # seconds after which connection tracking has forgotten a connection in the scripts of FORGETFUL


@dataclasses.dataclass
class Script:
    name: str
    family: int
    host: str
    is_browser: bool
    # The client.
    port: int
    text: bytes = b""  # what it sends
    named: tuple[int, int] = (0, 0)  # the bytes of `text` that name the host: the last of them to arrive completes it
    pauses: dict[int, float] = dataclasses.field(default_factory=dict)  # seconds after so many bytes; ends a write
    has_syn_payload: bool = False
    extension_headers: list[int] = dataclasses.field(default_factory=list)  # socket options of IPV6_DSTOPTS's kind
    client_port: int = 0
    earlier_host: str = ""  # of a connection with the same ports just before
    is_older: bool = False  # begins before the extension
    # The server.
    mss: int = 1460
    first_window: int = 0  # bytes that the client may send at first
    window: int = 65535  # from then on
    window_until: int = 0  # from so many bytes on the window is 65535
    pause: float = 0  # seconds with a window of zero
    pause_at: int = 0
    lost: list[int] = dataclasses.field(default_factory=list)  # segments with payload, from 1
    sack: bool = False
    reneges: bool = False
    repeated_acks: int = 0
    stray_acks: bool = False
    mtu: int = 0  # of an ICMP error that answers the first segment
    syn_flags: int = 0  # also set in SYN-ACK segments
    flags: int = 0  # also set in ACK segments
    syn_payload: bytes = b""  # of the SYN-ACK
    takes_syn_payload: bool = True
    opening: str = "SYN-ACK"  # or what the server sends first
    primed: int = 0  # the flags of a segment to the client's port before the client connects
    answers: list[tuple[int, bytes]] = dataclasses.field(default_factory=list)  # each after so many bytes
    answer_delay: float = 0
    sends_once: bool = False
    end: tuple[int, int] | None = None  # after so many bytes, FIN or RST
    end_distance: int = 0  # of the end's sequence number, ahead of what was sent

    def is_held(self) -> bool:
        return self.is_browser and self.host == HELD and not self.is_older

    def answer(self) -> bytes:
        return b"".join(data for _, data in self.answers)

    def __str__(self) -> str:
        """What differs from the defaults."""
        shown = {}
        for field in dataclasses.fields(self)[6:]:
            value = getattr(self, field.name)
            if value and value != field.default:
                shown[field.name] = value if len(str(value)) < 200 else "..."
        return f"{len(self.text)} bytes, {shown}"


def request(number: random.Random, host: str, length: int) -> tuple[bytes, tuple[int, int]]:
    """A request's head of about that length, and where its Host line is."""
    cuts = sorted(number.randrange(max(length - 99, 1)) for _ in range(2))
    target, before, behind = cuts[0], cuts[1] - cuts[0], max(length - 100, 0) - cuts[1]
    line = f"Host: {host}\r\n".encode()
    head = b"GET /" + b"u" * target + b" HTTP/1.1\r\n"
    head += b"Cookie: " + b"b" * before + b"\r\n" if number.random() < 0.7 else b""
    text = head + line + b"Accept: " + b"c" * behind + b"\r\n\r\n"
    return text, (len(head), len(head) + len(line))


def _extension(kind: int, data: bytes) -> bytes:
    return struct.pack("!HH", kind, len(data)) + data


def hello(number: random.Random, host: str, length: int) -> tuple[bytes, tuple[int, int]]:
    """A TLS client hello (RFC 8446, section 4.1.2) of about that length, and where its server name extension is."""
    SERVER_NAME, PADDING, VERSIONS, PRE_SHARED_KEY = 0, 21, 43, 41
    record = number.choice([16384, 16384, 4000, 300])
    filler, name = max(length - 150, 0), host.encode()
    before = number.choice([0, filler, number.randrange(filler + 1)])
    head = _extension(PADDING, bytes(before)) + _extension(VERSIONS, b"\x02\x03\x04")
    server_name = _extension(SERVER_NAME, struct.pack("!HBH", len(name) + 3, 0, len(name)) + name)
    extensions = head + server_name + _extension(PRE_SHARED_KEY, number.randbytes(filler - before))
    body = b"\3\3" + number.randbytes(32) + b"\x20" + number.randbytes(32) + struct.pack("!HHBB", 2, 0x1301, 1, 0)
    body += struct.pack("!H", len(extensions)) + extensions
    message = b"\1" + len(body).to_bytes(3, "big") + body
    parts = [message[at : at + record] for at in range(0, len(message), record)]
    text = b"".join(struct.pack("!BHH", 22, 0x0301, len(part)) + part for part in parts)
    start = message.index(server_name)
    first, last = (edge + 5 * (edge // record + 1) for edge in (start, start + len(server_name) - 1))
    return text, (first, last + 1)


def _text(script: Script, number: random.Random, length: int, host: str) -> dict:
    text, named = (request if script.port == 80 else hello)(number, host, length)
    return {"text": text, "named": named, "answers": [(len(text), ANSWER)]}


def _spelling(script: Script, number: random.Random) -> dict:
    host = "".join(number.choice([c.lower(), c.upper()]) for c in script.host) + number.choice(["", "."])
    return _text(script, number, number.randrange(100, 700), host)


def _long(script: Script, number: random.Random) -> dict:
    lengths = {80: [2000, 14000, 17000, 64000, 256 << 10], 443: [1400, 1800, 5000, 9000, 16000, 20000]}
    return _text(script, number, number.choice(lengths[script.port]), script.host)


def _narrow(script: Script, number: random.Random) -> dict:
    """The kernel sends less than a segment every 200 ms, so there are few of these windows."""
    window = number.choice([1, 2, 3, 7, 30, 100, 400])
    first = number.choice([window, max(script.named[0] - 2, 1), script.named[1] - 3])
    return {"window": window, "first_window": first, "window_until": first + 6 * window}


def _pause(script: Script, number: random.Random) -> dict:
    at, window = number.choice([0, 1, script.named[0] + 3]), number.choice([20, 60, 536])
    pause = {"pause": number.uniform(0.3, 1), "pause_at": at}
    return {**pause, "first_window": at, "window": window, "window_until": at + 50}


def _writes(script: Script, number: random.Random) -> dict:
    """Some of them end inside the name."""
    ends = [number.randrange(*bounds) for bounds in [script.named] * 4 + [(1, len(script.text))] * 8]
    return {"pauses": {at: number.choice([0, 0.005, 0.03]) for at in ends}}


def _end(script: Script, number: random.Random) -> dict:
    at = number.choice([0, 1, 30, script.named[0] + 1, len(script.text)])
    answers = [answer for answer in script.answers if answer[0] <= at]
    return {"end": (at, number.choice([FIN, RST])), "pauses": {at: 0.1}, "answers": answers}


def _answer(script: Script, at: int, pause: float) -> dict:
    """An answer while the rest of the request waits: for the window, or for the browser."""
    return {"answers": [(at, ANSWER), *script.answers], "pauses": {at: pause}}


# What scripts are made of. Each step returns the fields that it changes. A script takes its steps in this order: the
# others depend on the text, and the end on the answers.
STEPS: dict[str, Callable[[Script, random.Random], dict]] = {
    "plain": lambda _, n: {},
    "spelling": _spelling,
    "long": _long,
    "half": lambda s, n: {"pauses": {40: 0}},
    "narrow": _narrow,
    "segments": lambda s, n: {"mss": n.choice([88, 100, 300, 536, 1000, 1460])},
    "writes": _writes,
    "pause": _pause,
    "loss": lambda s, n: {
        "mss": n.choice([300, 536, 1460]),
        "lost": n.sample(range(1, 6), n.randrange(1, 3)),
        "sack": n.random() < 0.7,
        "reneges": n.random() < 0.4,
        "repeated_acks": n.choice([0, 3]),
    },
    "fragmentation": lambda s, n: {"mtu": n.choice([576, 600, 1000, 1300])},
    "stray": lambda s, n: {"stray_acks": True, "repeated_acks": n.randrange(4)},
    "flags": lambda s, n: {
        "syn_flags": n.choice([URG, URG | PSH, ECE | CWR | URG, ECE, CWR, PSH, FIN]),
        "flags": n.choice([0, PSH, ECE, CWR, URG, URG | PSH]),
    },
    "early": lambda s, n: _answer(s, n.choice([0, 1, 30, s.named[0], s.named[1] - 2]), 0.1),
    "syn answer": lambda s, n: {"syn_payload": ANSWER},
    "fast open": lambda s, n: {"has_syn_payload": True, "takes_syn_payload": n.random() < 0.5},
    "end": _end,
    "reuse": lambda s, n: {"earlier_host": n.choice([HELD, NEWS]), "client_port": n.randrange(20000, 30000)},
    "reuse dropped": lambda s, n: {"earlier_host": HELD, "client_port": n.randrange(20000, 30000)},
    # linux/in6.h: IPV6_HOPOPTS, IPV6_DSTOPTS
    "headers": lambda s, n: {"extension_headers": n.choice([[54], [59], [54, 59]])},
    "SYN": lambda s, n: {"opening": "SYN"},
    "RST": lambda s, n: {"opening": "RST"},
    "wrong": lambda s, n: {"opening": "wrong acknowledgment"},
    "primed SYN": lambda s, n: {"primed": SYN, "client_port": n.randrange(20000, 30000)},
    "primed ACK": lambda s, n: {"primed": ACK, "client_port": n.randrange(20000, 30000)},
    # Resets that end the tracked connection and not the socket's, which did not get what came before.
    "reset behind answer": lambda s, n: {
        **_answer(s, s.named[0] - 10, FORGOTTEN),
        "end": (s.named[0] - 10, RST),
        "sends_once": True,
    },
    "reset behind stray": lambda s, n: {
        **_answer(s, 0, FORGOTTEN + 0.3),
        "answer_delay": FORGOTTEN,
        "end": (0, RST),
        "end_distance": 1000,
    },
    "silence": lambda s, n: {
        "pauses": {n.choice([0, 1, s.named[0] + 1]): FORGOTTEN},
        "answer_delay": n.choice([0, FORGOTTEN]),
    },
    # Both sides are in the middle of something when the extension starts.
    "older": lambda s, n: {**_answer(s, len(s.text) // 2, 0), "answer_delay": 1.5, "is_older": True},
}
_MIXED = ["narrow", "segments", "writes", "pause", "loss", "fragmentation", "stray", "flags", "early", "fast open"]
_MIXED += ["end", "reuse"]

SCRIPTS = {
    "Plain": ["plain"],
    "Spelling": ["spelling"],
    "NarrowWindow": ["narrow"],
    "SmallSegments": ["segments"],
    "SmallWrites": ["writes"],
    "ZeroWindow": ["pause"],
    "LostSegments": ["loss"],
    "LostSegmentsOfLongText": ["long", "loss"],
    "FragmentationNeeded": ["long", "fragmentation"],
    "StrayAcknowledgments": ["stray"],
    "OddFlags": ["flags"],
    "OddFlagsAndEarlyAnswer": ["flags", "early"],
    "EarlyAnswer": ["early"],
    "EarlyAnswerAndNarrowWindow": ["narrow", "early"],
    "AnswerWithSynAck": ["syn answer"],
    "FastOpen": ["fast open"],
    "EndOfServer": ["end"],
    "LongText": ["long"],
    "LongTextInSmallSegments": ["long", "segments"],
    "ReusedPorts": ["reuse"],
    "SimultaneousOpen": ["SYN"],
    "SimultaneousOpenAndEarlyAnswer": ["early", "SYN"],
    "ResetAheadOfSynAck": ["RST"],
    "ResetAheadOfSynAckAndEarlyAnswer": ["early", "RST"],
    "WrongSynAckFirst": ["wrong"],
    "SynToClientFirst": ["primed SYN"],
    "AckToClientFirst": ["primed ACK"],
    "ExtensionHeaders": ["headers"],
    "ExtensionHeadersAndEarlyAnswer": ["early", "headers"],
    **{f"Mixed{number}": [] for number in range(1, 5)},  # random steps
}
# While connection tracking forgets connections after a second.
FORGETFUL = {
    "ResetBehindAnswer": ["reset behind answer"],
    "ResetBehindStrayAcknowledgment": ["reset behind stray"],
    "Silence": ["silence"],
}
# Those that the run starts at a certain moment.
TIMED = {"BegunBefore": ["older"], "HalfAndRest": ["half"], "DroppedBefore": ["reuse dropped"]}


def make(name: str, seed: int, family: int, host: str, is_browser: bool) -> Script:
    number = random.Random(f"{name} {seed} {family} {host} {is_browser}")
    script = Script(name, family, host, is_browser, number.choice([80, 443]))
    steps = (SCRIPTS | FORGETFUL | TIMED)[name]
    if not steps:
        steps = [number.choice(["spelling", "half", "long"])]
        steps += number.sample(_MIXED + ["headers"] * (family == 6), number.randrange(2, 5))
    script = dataclasses.replace(script, **_text(script, number, number.randrange(100, 700), host))
    for step in sorted(steps, key=list(STEPS).index):
        script = dataclasses.replace(script, **STEPS[step](script, number))
    return script


def earlier(script: Script) -> Script:
    """The connection before, with the same ports."""
    text, named = request(random.Random(0), script.earlier_host, 200)
    made = Script("earlier", script.family, script.earlier_host, script.is_browser, script.port, text, named)
    made.client_port, made.answers = script.client_port, [(len(text), ANSWER)]
    return made
