#!/usr/bin/env python3
"""The clients of one program. Plays an order for each line of its input, several at once."""

import concurrent.futures
import fcntl
import json
import os
import pathlib
import select
import socket
import struct
import sys
import termios
import time
import traceback

sys.dont_write_bytecode = True

import scripts

_TIMEOUT = 120  # seconds; a long text with losses in small segments takes a minute
_GATE_TIMEOUT = 300  # while a flood runs
_SKIP_8_BYTES = struct.pack("!BBBBI", 0, 0, 1, 4, 0)  # an extension header of one PadN option, RFC 8200, section 4.2
_RESET_AT_CLOSE = struct.pack("ii", 1, 0)  # SO_LINGER, so that no TIME-WAIT state keeps the port


def _socket(script: scripts.Script) -> socket.socket:
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
    """Whether the gate, a file, is there. Leaves a note that a client waits."""
    pathlib.Path(gate + ".reached").touch()
    return os.path.exists(gate)


def _exchange(connection: socket.socket, text: bytes, pauses: dict, answer: float, gate: str | None) -> tuple:
    """Writes the text, and reads as long as an answer may come. With a gate, the second write waits for it.

    Returns what came, and how it ended.
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


def _connect(script: scripts.Script, address: str, gate: str | None) -> tuple:
    text, pauses = script.text, script.pauses
    with _socket(script) as connection:
        if script.has_syn_payload:
            connection.settimeout(None)
            text = text[connection.sendto(text[:1200], socket.MSG_FASTOPEN, (address, script.port)) :]
            pauses = {}
        else:
            connection.connect((address, script.port))
        answer = float("inf") if script.is_held() else len(script.answer())
        return _exchange(connection, text, pauses, answer, gate)


def play(address: str, script: dict, gate: str | None = None) -> dict:
    made = scripts.make(**script)
    try:
        if made.earlier_host:
            _connect(scripts.earlier(made), address, None)
            while gate and not _may_pass(gate):
                time.sleep(0.002)
        received, end = _connect(made, address, gate)
    except (ConnectionResetError, ConnectionRefusedError):
        received, end = b"", "reset"
    except OSError as error:
        received, end = b"", repr(error)
    return {"received": received.hex(), "end": end}


def _follow(number: int, order: dict) -> None:
    try:
        result = play(**order)
    except Exception:  # ends the run
        result = {"failure": traceback.format_exc()}
    os.write(1, json.dumps([number, result]).encode() + b"\n")  # one write, so that lines do not mix


def main() -> None:
    with concurrent.futures.ThreadPoolExecutor(32) as pool:
        for line in sys.stdin:
            pool.submit(_follow, *json.loads(line))


if __name__ == "__main__":
    main()
