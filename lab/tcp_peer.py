"""TCP servers (RFC 9293) behind a TUN device. They do what scripts say, even if TCP forbids it.

The clients are sockets of this machine's kernel. Each flow has its own server address, by which the class Peer finds
the flow's script.
"""

import dataclasses
import fcntl
import heapq
import ipaddress
import itertools
import os
import select
import socket
import struct
import subprocess
import threading
import time

from isolation import Unavailable

FIN, SYN, RST, PSH, ACK, URG, ECE, CWR = (1 << bit for bit in range(8))
_DEVICE = "peer0"
# The addresses of the clients. All other addresses of these two networks are the servers'.
_LOCAL = {4: "10.77.255.254/16", 6: "fd77::ffff:1/64"}
# How many seconds a server waits before each retransmission. While the window is narrow, the client's kernel sends only
# when a timer expires, and each segment from the server restarts this timer. So the later waits are long enough for the
# timer to expire.
_RESENDS = [0.15, 0.15, 0.3, 0.6, *[1] * 12]


@dataclasses.dataclass
class Script:
    """What the client and the server of a flow do. A position is a byte offset in the client's text."""

    # The client.
    family: int  # 4 or 6
    host: str  # the host that the text names
    port: int  # of the server
    is_held: bool = False  # the filter drops this flow, so the client waits for a reset
    text: bytes = b""  # what the client sends
    named: tuple[int, int] = (0, 0)  # where the host's name begins in the text, and the position after its end
    pauses: dict[int, float] = dataclasses.field(default_factory=dict)  # {position: seconds}: the client's pauses
    has_syn_payload: bool = False
    extension_headers: list[int] = dataclasses.field(default_factory=list)  # socket options like IPV6_DSTOPTS
    client_port: int = 0  # 0: the kernel chooses
    earlier: "Script | None" = None  # the script of a connection with the same ports, just before this one
    # The server.
    mss: int = 1460
    first_window: int = 0  # if not 0, the first window ends at this position
    window: int = 65535  # the window, in bytes, from first_window to window_until
    window_until: int = 0  # from this position on, the window is 65535
    pause: float = 0  # if not 0, the window is zero for this many seconds, from pause_at on
    pause_at: int = 0
    lost: list[int] = dataclasses.field(default_factory=list)  # which segments with payload are lost; the first is 1
    sack: bool = False
    reneges: bool = False  # drops segments that arrive after a gap, even if it has confirmed them by SACK
    repeated_acks: int = 0
    stray_acks: bool = False  # also sends acknowledgments of bytes that are far away or already acknowledged
    keepalive: float = 0  # if not 0, the server sends an acknowledgment after this many seconds
    mtu: int = 0  # if not 0, an ICMP error with this MTU answers the first segment with payload
    syn_flags: int = 0  # more flags of SYN-ACK segments
    flags: int = 0  # more flags of ACK segments
    syn_payload: bytes = b""  # the payload of the SYN-ACK
    takes_syn_payload: bool = True
    opening: str = "SYN-ACK"  # "SYN" replaces the SYN-ACK; "RST" or "wrong acknowledgment" precedes it
    primed: int = 0  # if not 0, the server sends a segment with these flags before the client's SYN
    answers: list[tuple[int, bytes]] = dataclasses.field(default_factory=list)  # (position, the server's answer there)
    answer_delay: float = 0
    sends_once: bool = False  # no retransmissions
    end: tuple[int, int] | None = None  # (position, how the server ends the connection there: FIN or RST)
    end_distance: int = 0  # how many bytes the sequence number of this FIN or RST is ahead of the server's last byte

    def answer(self) -> bytes:
        return b"".join(data for _, data in self.answers)

    def __str__(self) -> str:
        """The text's length, and the fields that differ from their defaults."""
        shown = [f"{len(self.text)} bytes"]
        for field in dataclasses.fields(self):
            value = getattr(self, field.name)
            if value and value != field.default and field.name != "text":
                shown.append(f"{field.name} {value if len(str(value)) < 200 else '...'}")
        return ", ".join(shown)


def server_address(family: int, number: int) -> str:
    return str(ipaddress.ip_address("10.77.0.0" if family == 4 else "fd77::") + number % 60000 + 1)


def _checksum(data: bytes) -> int:
    """The Internet checksum, RFC 1071."""
    total = sum(struct.unpack(f"!{(len(data) + 1) // 2}H", data + b"\0" * (len(data) % 2)))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def _packet(source: bytes, destination: bytes, protocol: int, body: bytes, checksum_at: int) -> bytes:
    """An IP packet. Fills in the body's checksum.

    In ICMP over IPv4 the checksum covers the body only, in all other protocols also a pseudo header.
    """
    pseudo = b"" if protocol == socket.IPPROTO_ICMP else source + destination + struct.pack("!II", len(body), protocol)
    checksum = struct.pack("!H", _checksum(pseudo + body))
    body = body[:checksum_at] + checksum + body[checksum_at + 2 :]
    if len(source) == 16:
        return struct.pack("!IHBB", 6 << 28, len(body), protocol, 64) + source + destination + body
    head = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(body), 0, 0, 64, protocol, 0) + source + destination
    return head[:10] + struct.pack("!H", _checksum(head)) + head[12:] + body


class Connection:
    """One client's connection to a server. Offsets count the client's bytes, without SYN and FIN."""

    def __init__(self, peer: "Peer", script: Script, endpoints: tuple, initial: int):
        self._peer, self._script, self.endpoints = peer, script, endpoints
        self.initial = initial  # the client's initial sequence number
        self._initial = 0x10000000 + initial % 0x1000  # the server's initial sequence number
        self._acknowledged = self._initial + 1
        self._out = b""  # the server's bytes from _acknowledged on, sent or not
        self._due = list(script.answers)
        self._segments = 0
        self._has_ended = self._client_ended = self._is_reset = self._is_established = False
        self._reopens_at: float | None = None  # when a window of zero ends
        self._lost = set(script.lost)
        self._waiting: dict[int, bytes] = {}
        self.received = bytearray()
        self._named_missing = set(range(*script.named))

    @property
    def has_name(self) -> bool:
        return not self._named_missing

    # What the client sent.

    def take(self, flags: int, sequence: int, acknowledgment: int, payload: bytes, packet: bytes) -> None:
        offset = (sequence + bool(flags & SYN) - self.initial - 1 + (1 << 31)) % (1 << 32) - (1 << 31)
        # The filter let these bytes pass, so record them even if the script then loses them.
        self._named_missing.difference_update(range(max(offset, 0), offset + len(payload)))
        if flags & RST:
            # Until the connection is established, a reset only rejects what the script sent ahead of the SYN-ACK.
            self._is_reset = self._is_established
        elif flags & SYN and not flags & ACK:
            self._open(payload)
        elif flags & ACK:
            self._take_acknowledgment(acknowledgment)
            if payload:
                self._take_payload(offset, payload, packet)
            if flags & FIN and offset + len(payload) == len(self.received):
                self._client_ended = True
                self._acknowledge()
                self._end(FIN)
            elif flags & SYN:
                self._acknowledge()  # the client's SYN-ACK, in a simultaneous open

    def _take_acknowledgment(self, acknowledgment: int) -> None:
        fresh = (acknowledgment - self._acknowledged) % (1 << 32)
        if fresh <= len(self._out) + self._has_ended:
            self._acknowledged += min(fresh, len(self._out))
            self._out = self._out[fresh:]
        if not self._is_established:
            self._is_established = True
            if self._script.keepalive:
                self._peer.later(self._script.keepalive, self._acknowledge)
            self._answer()

    def _take_payload(self, offset: int, payload: bytes, packet: bytes) -> None:
        self._segments += 1
        if self._segments == 1 and self._script.mtu:
            self._peer.send_too_big(self.endpoints, self._script.mtu, packet)
            return
        if self._segments in self._lost:
            self._lost.remove(self._segments)
            return
        self._waiting[offset] = payload
        if offset > len(self.received):
            self._acknowledge((offset, offset + len(payload)) if self._script.sack else None)
            if self._script.reneges:
                self._waiting.clear()
            return
        for start in sorted(self._waiting):
            if start <= len(self.received):
                self.received += self._waiting.pop(start)[len(self.received) - start :]
        for _ in range(1 + self._script.repeated_acks):
            self._acknowledge()
        if self._script.stray_acks:
            for distance in (-70000, -1, 70000, 1 << 30):
                self._send(ACK, acknowledgment=self._position() + distance)
        self._answer()

    # What the server sends.

    def _position(self) -> int:
        return self.initial + 1 + len(self.received) + self._client_ended

    def _window(self) -> int:
        script, length = self._script, len(self.received)
        if script.pause and length >= script.pause_at and self._reopens_at is None:
            self._reopens_at = time.monotonic() + script.pause
            self._peer.later(script.pause, self._acknowledge)
        if self._reopens_at is not None and time.monotonic() < self._reopens_at:
            return 0
        if length < script.first_window:
            return min(script.first_window - length, 65535)
        return script.window if length < script.window_until else 65535

    def _send(self, flags: int, payload=b"", sequence=None, acknowledgment=None, options=b"") -> None:
        source, destination, port, client_port = self.endpoints
        if sequence is None:
            sequence = self._initial + (0 if flags & SYN else 1)
        if acknowledgment is None:
            acknowledgment = self._position()
        if flags & ACK:
            flags |= self._script.syn_flags if flags & SYN else self._script.flags
        numbers = sequence % (1 << 32), acknowledgment % (1 << 32) if flags & ACK else 0
        length = (20 + len(options)) // 4 << 4
        more = self._window(), 0, 1 if flags & URG else 0
        body = struct.pack("!HHIIBBHHH", port, client_port, *numbers, length, flags, *more) + options + payload
        self._peer.write(_packet(source, destination, socket.IPPROTO_TCP, body, 16))

    def _acknowledge(self, sack: tuple[int, int] | None = None) -> None:
        options = b""
        if sack:
            edges = ((self.initial + 1 + edge) % (1 << 32) for edge in sack)
            options = struct.pack("!BBBBII", 1, 1, 5, 10, *edges)  # RFC 2018, section 3
        self._send(ACK, sequence=self._acknowledged + len(self._out) + self._has_ended, options=options)

    def prime(self) -> None:
        """Sends the script's first segment before the client connects."""
        self._send(self._script.primed)

    def _open(self, payload: bytes) -> None:
        script = self._script
        options = struct.pack("!BBH", 2, 4, script.mss) + (b"\1\1\4\2" if script.sack else b"")
        if payload and script.takes_syn_payload:
            self.received = bytearray(payload)
        first = {
            "SYN": (SYN, None, None),
            "RST": (RST, 0, None),
            "wrong acknowledgment": (SYN | ACK, None, self._position() + 4711),
        }.get(script.opening)
        if first:
            flags, sequence, acknowledgment = first
            self._send(flags, b"", sequence, acknowledgment, options)
        if script.opening != "SYN":
            self._peer.later(0.02 if first else 0, self._accept, options)

    def _accept(self, options: bytes, turn: int = 0) -> None:
        """Sends the SYN-ACK repeatedly until the client has acknowledged it: the acknowledgment can be lost."""
        if self._is_established:
            return
        self._send(SYN | ACK, self._script.syn_payload, options=options)
        if turn < len(_RESENDS) and not self._script.sends_once:
            self._peer.later(_RESENDS[turn], self._accept, options, turn + 1)

    def _answer(self) -> None:
        """Sends each answer, and the FIN or RST of script.end, when the received text has reached its position."""
        while self._due and len(self.received) >= self._due[0][0]:
            self._peer.later(self._script.answer_delay, self._transmit, self._due.pop(0)[1])
        if self._script.end and len(self.received) >= self._script.end[0]:
            self._peer.later(0.001, self._end, self._script.end[1])

    def _transmit(self, data: bytes, turn: int = 0) -> None:
        self._out += data
        if self._is_reset or not self._out:
            return
        for start in range(0, len(self._out), 1000):
            self._send(ACK, self._out[start : start + 1000], sequence=self._acknowledged + start)
        if self._has_ended:
            self._send(FIN | ACK, sequence=self._acknowledged + len(self._out))
        if turn < len(_RESENDS) and not self._script.sends_once:
            self._peer.later(_RESENDS[turn], self._transmit, b"", turn + 1)

    def _end(self, how: int) -> None:
        if self._has_ended or self._is_reset:
            return
        sequence = self._acknowledged + len(self._out) + self._script.end_distance
        if self._script.end_distance:
            self._send(ACK, sequence=sequence)
        self._send(how | ACK, sequence=sequence)
        self._has_ended = how == FIN


class Peer:
    """The TUN device, and the thread that serves it. Until end(), only that thread uses a server's connections."""

    def __init__(self):
        try:
            self._device = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
            TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454CA, 1, 0x1000  # Documentation/networking/tuntap.rst
            fcntl.ioctl(self._device, TUNSETIFF, struct.pack("16sH22x", _DEVICE.encode(), IFF_TUN | IFF_NO_PI))
        except OSError as error:
            raise Unavailable(f"this machine has no TUN device: {error}") from None
        self.families = [4, 6] if socket.has_dualstack_ipv6() else [4]
        for family in self.families:
            more = ["nodad"] if family == 6 else []
            self._ip(f"-{family}", "address", "add", _LOCAL[family], "dev", _DEVICE, *more)
        # In an attack with many connections, hundreds of segments wait for the peer's thread. The device drops those
        # beyond txqueuelen.
        self._ip("link", "set", _DEVICE, "txqueuelen", "10000", "up")
        self._servers: dict[bytes, tuple[list[Script], list[Connection]]] = {}  # by address
        self._by_endpoints: dict[tuple, Connection] = {}
        self._timers: list[tuple] = []
        self._numbers = itertools.count()
        threading.Thread(target=self._run, daemon=True).start()

    @staticmethod
    def _ip(*arguments: str) -> None:
        try:
            subprocess.run(["ip", *arguments], check=True, capture_output=True, text=True)
        except FileNotFoundError:
            raise Unavailable("ip is not installed") from None

    def serve(self, address: str, script: Script) -> None:
        """If script.earlier exists, the first connection follows it, and all other connections follow the script."""
        server = ipaddress.ip_address(address).packed
        self._servers[server] = [script.earlier, script] if script.earlier else [script], []
        if script.primed:
            client = ipaddress.ip_interface(_LOCAL[script.family]).ip.packed
            Connection(self, script, (server, client, script.port, script.client_port), 1000).prime()

    def end(self, address: str) -> list[Connection]:
        """Stops serving the address: further packets to it are ignored. Returns the server's connections."""
        _, connections = self._servers.pop(ipaddress.ip_address(address).packed)
        for connection in connections:
            self._by_endpoints.pop(connection.endpoints, None)
        return connections

    def later(self, seconds: float, function, *arguments) -> None:
        heapq.heappush(self._timers, (time.monotonic() + seconds, next(self._numbers), function, arguments))

    def write(self, packet: bytes) -> None:
        os.write(self._device, packet)

    def send_too_big(self, endpoints: tuple, mtu: int, packet: bytes) -> None:
        """Tells the client that its packet is too big: by ICMP (RFC 792, RFC 1191) or ICMPv6 (RFC 4443)."""
        source, destination = endpoints[:2]
        if len(source) == 4:
            body = struct.pack("!BBHHH", 3, 4, 0, 0, mtu) + packet[:548]
            self.write(_packet(source, destination, socket.IPPROTO_ICMP, body, 2))
        else:
            body = struct.pack("!BBHI", 2, 0, 0, max(mtu, 1280)) + packet[:1200]
            self.write(_packet(source, destination, socket.IPPROTO_ICMPV6, body, 2))

    def _run(self) -> None:
        poll = select.poll()
        poll.register(self._device, select.POLLIN)
        while True:
            wait = self._timers[0][0] - time.monotonic() if self._timers else 0.05
            poll.poll(max(0, min(wait, 0.05)) * 1000)
            try:
                for _ in range(256):
                    self._take(os.read(self._device, 65536))
            except BlockingIOError:
                pass
            while self._timers and self._timers[0][0] <= time.monotonic():
                _, _, function, arguments = heapq.heappop(self._timers)
                function(*arguments)

    def _take(self, packet: bytes) -> None:
        if packet[0] >> 4 == 4:
            protocol, at, source, destination = packet[9], packet[0] % 16 * 4, packet[12:16], packet[16:20]
        else:
            protocol, at, source, destination = packet[6], 40, packet[8:24], packet[24:40]
            while protocol in (socket.IPPROTO_HOPOPTS, socket.IPPROTO_DSTOPTS):
                protocol, at = packet[at], at + (packet[at + 1] + 1) * 8
        server = self._servers.get(destination)
        if protocol != socket.IPPROTO_TCP or server is None:
            return
        scripts, connections = server
        client_port, port, sequence, acknowledgment, length, flags = struct.unpack_from("!HHIIBB", packet, at)
        endpoints = (destination, source, port, client_port)
        connection = self._by_endpoints.get(endpoints)
        if flags & (SYN | ACK | RST) == SYN and (connection is None or connection.initial != sequence):
            connection = Connection(self, scripts[min(len(connections), len(scripts) - 1)], endpoints, sequence)
            connections.append(connection)
            self._by_endpoints[endpoints] = connection
        if connection is not None:
            connection.take(flags, sequence, acknowledgment, packet[at + (length >> 4) * 4 :], packet)
