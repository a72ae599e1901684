"""Client programs for the TCP peer (tcp_peer.py). Their sockets play the client's part of a script."""

import fcntl
import multiprocessing
import os
import pathlib
import select
import socket
import struct
import sys
import termios
import time
from multiprocessing.managers import BaseManager

from tcp_peer import Script

_TIMEOUT = 120  # seconds; a long text in small segments takes a minute if some of them are lost
_GATE_TIMEOUT = 300  # seconds, if there is a gate (see _exchange()): the client may wait there for a whole attack
_SKIP_8_BYTES = struct.pack("!BBBBI", 0, 0, 1, 4, 0)  # an extension header of one PadN option, RFC 8200, section 4.2
_RESET_AT_CLOSE = struct.pack("ii", 1, 0)  # for SO_LINGER: close() sends a reset, so no TIME-WAIT state keeps the port


def _socket(script: Script) -> socket.socket:
    connection = socket.socket(socket.AF_INET if script.family == 4 else socket.AF_INET6)
    connection.settimeout(_TIMEOUT)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_OOBINLINE, 1)
    for header in script.extension_headers:
        connection.setsockopt(socket.IPPROTO_IPV6, header, _SKIP_8_BYTES)
    if script.client_port:
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _RESET_AT_CLOSE)
        connection.bind(("", script.client_port))
    return connection


def _may_pass(gate: str) -> bool:
    """Whether the gate's file exists. Makes the file GATE.reached, which shows that a client is at the gate."""
    pathlib.Path(gate + ".reached").touch()
    return os.path.exists(gate)


def _exchange(connection: socket.socket, text: bytes, pauses: dict, answer: float, gate: str | None) -> tuple:
    """Sends the text and reads until the exchange ends. The `pauses` cut the text into pieces; each piece is one write.

    The exchange ends when the server has acknowledged all text and sent `answer` bytes, when the connection was reset,
    or after a timeout. If there is a gate, the second and all later writes wait until the gate's file exists.
    Returns the received bytes, and how the exchange ended.
    """
    received, sent, has_ended = b"", 0, False
    resume, end = time.monotonic() + pauses.get(0, 0), time.monotonic() + (_GATE_TIMEOUT if gate else _TIMEOUT)
    connection.setblocking(False)
    while time.monotonic() < end:
        is_due = sent < len(text) and time.monotonic() >= resume and (not gate or not sent or _may_pass(gate))
        readable, writable, _ = select.select([] if has_ended else [connection], [connection] * is_due, [], 0.01)
        try:
            if writable:
                sent += connection.send(text[sent : min((at for at in pauses if at > sent), default=len(text))])
                resume = time.monotonic() + pauses.get(sent, 0)
            if readable:
                piece = connection.recv(65536)
                received += piece
                has_ended = not piece
            if has_ended and connection.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR):
                return received, "reset"
        except (ConnectionResetError, BrokenPipeError):
            return received, "reset"
        unacknowledged = struct.unpack("i", fcntl.ioctl(connection, termios.TIOCOUTQ, bytes(4)))[0]  # tcp(7)
        if sent == len(text) and len(received) >= answer and not unacknowledged:
            return received, "answered"
    return received, "end of stream" if has_ended else "silence"


def _connect(script: Script, address: str, gate: str | None) -> tuple:
    text, pauses = script.text, script.pauses
    with _socket(script) as connection:
        if script.has_syn_payload:
            connection.settimeout(None)
            text = text[connection.sendto(text[:1200], socket.MSG_FASTOPEN, (address, script.port)) :]
            pauses = {}
        else:
            connection.connect((address, script.port))
        return _exchange(connection, text, pauses, float("inf") if script.is_held else len(script.answer()), gate)


class _Client:
    def play(self, script: Script, address: str, gate: str | None) -> tuple[bytes, str]:
        """Plays script.earlier, if it exists, and then the script. Returns what _exchange() returns for the script.

        If script.earlier exists, the client waits at the gate between the two connections.
        """
        try:
            if script.earlier:
                _connect(script.earlier, address, None)
                while gate and not _may_pass(gate):
                    time.sleep(0.002)
            return _connect(script, address, gate)
        except (ConnectionResetError, ConnectionRefusedError):
            return b"", "reset"
        except OSError as error:
            return b"", repr(error)


class _Program(BaseManager):
    """A child process that runs the clients. It has one thread for each thread of its parent that calls play()."""


_Program.register("client", _Client)


class Program:
    """A program that plays scripts with this Python code. Its executable is the interpreter, or a copy of it."""

    def __init__(self, executable: str, directory: pathlib.Path):
        os.environ["PYTHONHOME"] = sys.prefix  # a copy of the interpreter finds the standard library there
        multiprocessing.set_executable(executable)
        address = str(directory / f"{pathlib.Path(executable).name}.socket")
        self._process = _Program(address, ctx=multiprocessing.get_context("spawn"))
        self._process.start()
        self.play = self._process.client().play  # pylint: disable=no-member; register() makes this member
