"""A name server on 127.0.0.1, over UDP and TCP (RFC 1035). It knows only the names that it is given."""

import ipaddress
import socketserver
import struct
import threading

_A, _AAAA, _HTTPS = 1, 28, 65
_NO_SUCH_NAME = 3


def question(name: str, identifier: int = 1, kind: int = _A) -> bytes:
    """A query for one name, as it is sent over UDP. Over TCP, its length must precede it."""
    labels = b"".join(bytes([len(label)]) + label.encode() for label in name.split("."))
    return struct.pack("!6H", identifier, 0x0100, 1, 0, 0, 0) + labels + struct.pack("!BHH", 0, kind, 1)


def _hello_record(keys: bytes) -> bytes:
    """The data of a record of type HTTPS with keys for Encrypted Client Hello (RFC 9460, section 2.2; RFC 9848)."""
    return struct.pack("!HBHH", 1, 0, 5, len(keys)) + keys


def _answer(query: bytes, addresses: dict[str, list[str]], hello_keys: dict[str, bytes]) -> bytes:
    """The answer to a query that has one question. Ignores what follows the question, for example EDNS options."""
    labels, at = [], 12
    while length := query[at]:
        labels.append(query[at + 1 : at + 1 + length].decode())
        at += 1 + length
    (kind,) = struct.unpack_from("!H", query, at + 1)
    name, end = ".".join(labels).lower(), at + 5
    if kind == _HTTPS:
        found = [_hello_record(hello_keys[name])] if name in hello_keys else []
    else:
        packed = [ipaddress.ip_address(address).packed for address in addresses.get(name, [])]
        found = [address for address in packed if kind == {4: _A, 16: _AAAA}[len(address)]]
    # 0xC00C: each record's name is a pointer to the question's name, at byte 12.
    records = [struct.pack("!HHHIH", 0xC00C, kind, 1, 0, len(data)) + data for data in found]
    flags = 0x8580 | (0 if name in addresses else _NO_SUCH_NAME)
    return query[:2] + struct.pack("!5H", flags, 1, len(records), 0, 0) + query[12:end] + b"".join(records)


class _OverUDP(socketserver.BaseRequestHandler):
    def handle(self):
        query, sock = self.request
        sock.sendto(_answer(query, *self.server.names), self.client_address)


class _OverTCP(socketserver.StreamRequestHandler):
    def handle(self):
        while prefix := self.rfile.read(2):
            answer = _answer(self.rfile.read(*struct.unpack("!H", prefix)), *self.server.names)
            self.wfile.write(struct.pack("!H", len(answer)) + answer)


class _UDP(socketserver.ThreadingUDPServer):
    allow_reuse_address = True


class _TCP(socketserver.ThreadingTCPServer):
    allow_reuse_address = daemon_threads = True


def serve(addresses: dict[str, list[str]], hello_keys: dict[str, bytes]) -> None:
    """Starts a name server that runs until the process ends.

    `addresses` maps each name to its addresses. `hello_keys` maps a name to its keys for Encrypted Client Hello, if it
    has any. The caller may change both dictionaries later.
    """
    for server in (_UDP(("127.0.0.1", 53), _OverUDP), _TCP(("127.0.0.1", 53), _OverTCP)):
        server.names = (addresses, hello_keys)
        threading.Thread(target=server.serve_forever, daemon=True).start()
