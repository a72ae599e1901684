"""What an unprivileged user can do to slow the filter down, to fill its memory or its queue, or to get past it."""

import contextlib
import ctypes
import fcntl
import itertools
import mmap
import multiprocessing
import os
import platform
import select
import signal
import socket
import struct
import threading
import time

from harness import wait_until
from isolation import Unavailable

ATTACKER = 65534  # a user without privileges; only the attacks run as this user
_SEARCHED, _DESCRIPTORS = 40, 19_000
_FLOODERS = 8
_CONNECTIONS, _HEAD = 300, b"GET / HTTP/1.1\r\n" + b"a:\r\n" * 3500
_PAUSE = 0.05  # seconds between two bytes of a connection
_FORKING = multiprocessing.get_context("fork")


def _search_far(number: int) -> None:
    """Sends DNS questions from a socket whose opener has ended, so that the search for the socket's owner takes long.

    The search goes through the descriptors of all processes of the socket's user. Each process here has 19,000 of them.
    """
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    if os.fork() != 0:
        os._exit(0)
    for _ in range(_DESCRIPTORS):
        os.dup(sender.fileno())
    for turn in range(1_000_000):
        with contextlib.suppress(OSError):
            sender.sendto(b"question", (f"127.2.{number}.{turn % 250 + 1}", 53))
        time.sleep(0.5)


def _flood(number: int, port: int) -> None:
    """Sends datagrams, each to another address, so that each is a new flow.

    Closes each socket after 256 datagrams, for two reasons: the extension then searches for the owners of closed
    sockets, too; and a single socket's send buffer, which holds the packets that are in the queue, would soon be full.
    """
    for turn in itertools.count():
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            for last in range(256):
                with contextlib.suppress(OSError):
                    sender.sendto(b"question", (f"127.{10 + number}.{turn % 256}.{last}", port))


def _send_slow_heads(server: socket.socket) -> None:
    """Begins a long request head without a Host field on each connection, and goes on with one byte at a time."""
    clients, ends = [], []
    for _ in range(_CONNECTIONS):
        clients.append(socket.socket())
        clients[-1].connect(server.getsockname())
        clients[-1].setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        ends.append(server.accept()[0])
        clients[-1].sendall(_HEAD)
        ends[-1].setblocking(False)
    while True:
        for client, end in zip(clients, ends):
            client.send(b"a")
            with contextlib.suppress(BlockingIOError):
                end.recv(1 << 16)
        time.sleep(_PAUSE)


def _open_half(_, address: str, count: int, lines: int, single: int, opened) -> None:
    connections = [socket.socket() for _ in range(count)]
    for connection in connections:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.connect((address, 80))
        with contextlib.suppress(ConnectionResetError):  # beyond a limit, the extension resets a user's flows
            connection.sendall(b"GET / HTTP/1.1\r\n" + b"a:\r\n" * lines)
            for _ in range(single):
                connection.sendall(b"b")
    opened.release()
    signal.pause()


def are_possible() -> bool:
    """Whether the user namespace has the user ATTACKER. One that a user without privileges made has only one user."""
    with open("/proc/self/uid_map", encoding="ascii") as file:
        ranges = [[int(word) for word in line.split()] for line in file]
    return any(first <= ATTACKER < first + count for first, _, count in ranges)


def _run(attack, *arguments) -> None:
    os.setgid(ATTACKER)
    os.setuid(ATTACKER)
    attack(*arguments)


def _start(processes: int, attack, *arguments) -> None:
    for number in range(processes):
        _FORKING.Process(target=_run, args=(attack, number, *arguments)).start()


@contextlib.contextmanager
def _attackers(start, wait):
    """Runs an attack during a with block. The block begins when wait() returns."""
    if not are_possible():
        raise Unavailable("the attack needs a second user: run as root")
    group = os.fork()
    if group == 0:
        os.setpgid(0, 0)
        start()
        signal.pause()
    try:
        wait()
        yield
    finally:
        os.killpg(group, signal.SIGKILL)
        os.waitpid(group, 0)


def slow_attack():
    """Sends packets that take the extension long to examine.

    Needs root, because the attack runs as another user (ATTACKER). Call allow_many_descriptors() first.
    """
    server = socket.create_server(("127.3.0.1", 80), backlog=_CONNECTIONS, reuse_port=True)

    def start() -> None:
        _start(_SEARCHED, _search_far)
        _run(_send_slow_heads, server)

    return _attackers(start, lambda: time.sleep(10))


def flood(port: int = 53):
    """Sends more datagrams to `port` than the queue can hold. Needs root, as slow_attack() does."""
    return _attackers(lambda: _start(_FLOODERS, _flood, port), lambda: time.sleep(3))


def half_open_flows(address: str, count: int, lines: int, single: int):
    """Opens HTTP connections that stay open. The with block begins when all connections are open.

    On each connection, sends the beginning of a request head with `lines` lines, and then `single` bytes, one at a
    time. Needs root and allow_many_descriptors(), as slow_attack() does.
    """
    opened = _FORKING.Semaphore(0)

    def start() -> None:
        _start(_FLOODERS, _open_half, address, count // _FLOODERS, lines, single, opened)

    def wait() -> None:
        wait_until(lambda: opened.get_value() == _FLOODERS, f"{count} half-open flows", 300)

    return _attackers(start, wait)


@contextlib.contextmanager
def locked(connection: socket.socket):
    """Keeps the kernel's lock of the socket during a with block.

    The kernel takes the lock, and then copies a socket filter from a page that is missing. Because of userfaultfd(2),
    the kernel waits for a program to fill the page, and keeps the lock meanwhile. No program does. At the end of the
    block, or of the process, the descriptor of userfaultfd(2) is closed, and the kernel itself fills the page.
    """
    SYS_USERFAULTFD = {"x86_64": 323, "aarch64": 282}
    UFFDIO_API, UFFDIO_REGISTER, UFFD_API, MODE_MISSING = 0xC018AA3F, 0xC020AA00, 0xAA, 1
    SO_ATTACH_FILTER = 26
    libc = ctypes.CDLL(None, use_errno=True)
    faults = libc.syscall(SYS_USERFAULTFD.get(platform.machine(), -1), os.O_CLOEXEC)
    if faults < 0:
        raise Unavailable(f"no userfaultfd: {os.strerror(ctypes.get_errno())}")
    try:
        page = mmap.mmap(-1, mmap.PAGESIZE)
        address = ctypes.addressof(ctypes.c_char.from_buffer(page))
        fcntl.ioctl(faults, UFFDIO_API, struct.pack("=3Q", UFFD_API, 0, 0))
        fcntl.ioctl(faults, UFFDIO_REGISTER, struct.pack("=4Q", address, len(page), MODE_MISSING, 0))
        program = struct.pack("H0QQ", 1, address)  # struct sock_fprog
        arguments = (connection.fileno(), socket.SOL_SOCKET, SO_ATTACH_FILTER, program, len(program))
        caller = threading.Thread(target=libc.setsockopt, args=arguments)
        caller.start()
        wait_until(lambda: select.select([faults], [], [], 0)[0], "the socket is locked")
        yield
    finally:
        os.close(faults)
    caller.join()


def _send_from(source: tuple[str, int], target: tuple[str, int], datagrams: list[bytes]) -> None:
    address, port = source
    IP_PKTINFO = 8
    information = struct.pack("=I4s4x", 0, socket.inet_aton(address))  # struct in_pktinfo, in ip(7)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.bind(("127.0.0.2", port))
        for datagram in datagrams:
            sender.sendmsg([datagram], [(socket.IPPROTO_IP, IP_PKTINFO, information)], 0, target)
    signal.pause()


def sender_from(*arguments):
    """Sends datagrams with the address and port of a socket that belongs to another user. Needs root."""
    return _attackers(lambda: _run(_send_from, *arguments), lambda: None)
