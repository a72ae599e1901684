"""Tables of what the clients and the servers do. With the same arguments, make() returns the same script."""

import dataclasses
import random
import struct
from collections.abc import Callable

from harness import HELD, NEWS
from tcp_peer import ACK, CWR, ECE, FIN, PSH, RST, SYN, URG, Script

ANSWER = b"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nan answer"
# Seconds of silence after which connection tracking has forgotten a connection, while the scripts of FORGETFUL run.
FORGOTTEN = 2


def request(number: random.Random, host: str, length: int) -> tuple[bytes, tuple[int, int]]:
    """A request head of about `length` bytes, and where its Host line is."""
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
    """A TLS client hello (RFC 8446, section 4.1.2) of about `length` bytes, and where its server name extension is."""
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
    """Narrows the window until the client has filled it six times. Each time takes its kernel 200 ms."""
    window = number.choice([1, 2, 3, 7, 30, 100, 400])
    first = number.choice([window, max(script.named[0] - 2, 1), script.named[1] - 3])
    return {"window": window, "first_window": first, "window_until": first + 6 * window}


def _pause(script: Script, number: random.Random) -> dict:
    at, window = number.choice([0, 1, script.named[0] + 3]), number.choice([20, 60, 536])
    pause = {"pause": number.uniform(0.3, 1), "pause_at": at}
    return {**pause, "first_window": at, "window": window, "window_until": at + 50}


def _writes(script: Script, number: random.Random) -> dict:
    """Ends writes at random positions, four of them inside the name."""
    ends = [number.randrange(*bounds) for bounds in [script.named] * 4 + [(1, len(script.text))] * 8]
    return {"pauses": {at: number.choice([0, 0.005, 0.03]) for at in ends}}


def _end(script: Script, number: random.Random) -> dict:
    at = number.choice([0, 1, 30, script.named[0] + 1, len(script.text)])
    answers = [answer for answer in script.answers if answer[0] <= at]
    return {"end": (at, number.choice([FIN, RST])), "pauses": {at: 0.1}, "answers": answers}


def _reuse(script: Script, number: random.Random, *hosts: str) -> dict:
    """A connection to one of the hosts, and the script's own connection with the same ports just after it."""
    host, port = number.choice(hosts), number.randrange(20000, 30000)
    text, named = request(random.Random(0), host, 200)
    more = {"text": text, "named": named, "client_port": port, "answers": [(len(text), ANSWER)]}
    return {"earlier": Script(script.family, host, script.port, **more), "client_port": port}


def _answer(script: Script, at: int, pause: float) -> dict:
    """The server answers as soon as it has `at` bytes of the text. After these bytes, the client pauses."""
    return {"answers": [(at, ANSWER), *script.answers], "pauses": {at: pause}}


# Each step returns the fields of the script that it changes. make() takes a script's steps in the order of this table.
# The steps that make the text come first, because the other steps depend on the text. "EndOfServer" removes some of the
# answers, so it comes after those steps that add answers and may be in the same script.
STEPS: dict[str, Callable[[Script, random.Random], dict]] = {
    "Plain": lambda _, n: {},
    "Spelling": _spelling,
    "LongText": _long,
    "HalfAndRest": lambda s, n: {"pauses": {40: 0}},
    "NarrowWindow": _narrow,
    "SmallSegments": lambda s, n: {"mss": n.choice([88, 100, 300, 536, 1000, 1460])},
    "SmallWrites": _writes,
    "ZeroWindow": _pause,
    "LostSegments": lambda s, n: {
        "mss": n.choice([300, 536, 1460]),
        "lost": n.sample(range(1, 6), n.randrange(1, 3)),
        "sack": n.random() < 0.7,
        "reneges": n.random() < 0.4,
        "repeated_acks": n.choice([0, 3]),
    },
    "SmallMTU": lambda s, n: {"mtu": n.choice([576, 600, 1000, 1300])},
    "StrayAcknowledgments": lambda s, n: {"stray_acks": True, "repeated_acks": n.randrange(4)},
    "OddFlags": lambda s, n: {
        "syn_flags": n.choice([URG, URG | PSH, ECE | CWR | URG, ECE, CWR, PSH, FIN]),
        "flags": n.choice([0, PSH, ECE, CWR, URG, URG | PSH]),
    },
    "EarlyAnswer": lambda s, n: _answer(s, n.choice([0, 1, 30, s.named[0], s.named[1] - 2]), 0.1),
    "AnswerWithSynAck": lambda s, n: {"syn_payload": ANSWER},
    "FastOpen": lambda s, n: {"has_syn_payload": True, "takes_syn_payload": n.random() < 0.5},
    "EndOfServer": _end,
    "ReusedPorts": lambda s, n: _reuse(s, n, HELD, NEWS),
    "DroppedBefore": lambda s, n: _reuse(s, n, HELD),
    # IPV6_HOPOPTS and IPV6_DSTOPTS of linux/in6.h
    "ExtensionHeaders": lambda s, n: {"extension_headers": n.choice([[54], [59], [54, 59]])},
    "SimultaneousOpen": lambda s, n: {"opening": "SYN"},
    "ResetAheadOfSynAck": lambda s, n: {"opening": "RST"},
    "WrongSynAckFirst": lambda s, n: {"opening": "wrong acknowledgment"},
    "SynToClientFirst": lambda s, n: {"primed": SYN, "client_port": n.randrange(20000, 30000)},
    "AckToClientFirst": lambda s, n: {"primed": ACK, "client_port": n.randrange(20000, 30000)},
    # Connection tracking takes these resets for the end of the connection. The client's socket ignores the resets,
    # because it has not received the bytes before them.
    "ResetBehindAnswer": lambda s, n: {
        **_answer(s, s.named[0] - 10, FORGOTTEN),
        "end": (s.named[0] - 10, RST),
        "sends_once": True,
    },
    "ResetBehindStrayAcknowledgment": lambda s, n: {
        **_answer(s, 0, FORGOTTEN + 0.3),
        "answer_delay": FORGOTTEN,
        "end": (0, RST),
        "end_distance": 1000,
    },
    "Silence": lambda s, n: {
        "pauses": {n.choice([0, 1, s.named[0] + 1]): FORGOTTEN},
        "answer_delay": n.choice([0, FORGOTTEN]),
    },
    # After connection tracking has forgotten the connection, the server sends before the client does. So connection
    # tracking takes the server for the side that opened the connection.
    "Keepalive": lambda s, n: {"pauses": {n.choice([0, 1]): FORGOTTEN + 1}, "keepalive": FORGOTTEN + 0.5},
    # When the extension starts, the client has sent half of the text, and the server's answer is on its way.
    "BegunBefore": lambda s, n: {**_answer(s, len(s.text) // 2, 0), "answer_delay": 1.5},
}
_MIXED = ["NarrowWindow", "SmallSegments", "SmallWrites", "ZeroWindow", "LostSegments", "SmallMTU"]
_MIXED += ["StrayAcknowledgments", "OddFlags", "EarlyAnswer", "FastOpen", "EndOfServer", "ReusedPorts"]

# The run plays these scripts while connection tracking forgets connections after a second.
FORGETFUL = ["ResetBehindAnswer", "ResetBehindStrayAcknowledgment", "Silence", "Keepalive"]
# The run begins and continues these scripts at set moments: "BegunBefore" begins before the extension starts.
_TIMED = ["BegunBefore", "HalfAndRest", "DroppedBefore"]
# Scripts of several steps. Each other script has the name of its only step.
_COMBINED = {
    "LostSegmentsOfLongText": ["LongText", "LostSegments"],
    "FragmentationNeeded": ["LongText", "SmallMTU"],
    "OddFlagsAndEarlyAnswer": ["OddFlags", "EarlyAnswer"],
    "EarlyAnswerAndNarrowWindow": ["NarrowWindow", "EarlyAnswer"],
    "LongTextInSmallSegments": ["LongText", "SmallSegments"],
    "ReusedPortsAndOddFlags": ["ZeroWindow", "OddFlags", "ReusedPorts"],
    "SimultaneousOpenAndEarlyAnswer": ["EarlyAnswer", "SimultaneousOpen"],
    "ResetAheadOfSynAckAndEarlyAnswer": ["EarlyAnswer", "ResetAheadOfSynAck"],
    "ExtensionHeadersAndEarlyAnswer": ["EarlyAnswer", "ExtensionHeaders"],
    **{f"Mixed{number}": [] for number in range(1, 5)},  # make() draws the steps
}
SCRIPTS = [name for name in (*STEPS, *_COMBINED) if name not in FORGETFUL + _TIMED]


def make(name: str, seed: int, family: int, host: str, is_browser: bool) -> Script:
    number = random.Random(f"{name} {seed} {family} {host} {is_browser}")
    script = Script(family, host, number.choice([80, 443]))
    steps = _COMBINED.get(name, [name])
    if not steps:
        steps = [number.choice(["Spelling", "HalfAndRest", "LongText"])]
        steps += number.sample(_MIXED + ["ExtensionHeaders"] * (family == 6), number.randrange(2, 5))
    script = dataclasses.replace(script, **_text(script, number, number.randrange(100, 700), host))
    for step in sorted(steps, key=list(STEPS).index):
        script = dataclasses.replace(script, **STEPS[step](script, number))
    for made in filter(None, [script, script.earlier]):
        made.is_held = is_browser and made.host == HELD and name != "BegunBefore"
    return script
