"""The first bytes that a browser sends on a connection, and a server that answers as soon as they arrive."""

import collections
import functools
import multiprocessing
import resource
import select
import socket
import ssl
import time

SERVED = b"served"
# Seconds until the server closes a silent connection. When the filter drops a connection, it resets only the client's
# side, so the server never learns that the connection has ended.
_IDLE_LIMIT = 10


@functools.cache
def hello(name: str) -> bytes:
    """The client hello of a TLS connection to the server `name`."""
    outgoing = ssl.MemoryBIO()
    try:
        ssl.create_default_context().wrap_bio(ssl.MemoryBIO(), outgoing, server_hostname=name).do_handshake()
    except ssl.SSLWantReadError:
        pass  # expected: the hello is written, and the server's answer is missing
    return outgoing.read()


def request(name: str, path: str = "/") -> bytes:
    """The request of an HTTP connection to the server `name`."""
    return f"GET {path} HTTP/1.1\r\nHost: {name}\r\n\r\n".encode()


def allow_many_descriptors() -> None:
    """Raises the limit of open files for this process and its children."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 65536), most))


class FirstBytesServer:
    """Answers the first bytes of each connection with SERVED.

    Runs in a child process, which ends together with the process that made the object.
    """

    def __init__(self, address: str, ports: list[int], watched: str, idle_limit: float = _IDLE_LIMIT):
        forking = multiprocessing.get_context("fork")
        self._watched, self._idle_limit = watched.encode(), idle_limit
        self._seen = forking.Value("i", 0)
        # Another server may listen on the same ports at all addresses. For connections to `address`, the kernel
        # prefers the listener that is bound to `address` alone.
        listeners = [socket.create_server((address, port), backlog=4096, reuse_port=True) for port in ports]
        forking.Process(target=self._serve, args=(listeners,), daemon=True).start()
        for listener in listeners:
            listener.close()

    @property
    def seen(self) -> int:
        """The number of connections whose first bytes contained the watched name."""
        return self._seen.value

    def _serve(self, listeners: list[socket.socket]) -> None:
        waiting: dict[int, tuple[socket.socket, float]] = collections.OrderedDict()  # oldest first
        poll = select.epoll()
        by_descriptor = {listener.fileno(): listener for listener in listeners}
        for listener in listeners:
            poll.register(listener, select.EPOLLIN)
        while True:
            for descriptor, _ in poll.poll(self._idle_limit):
                if descriptor in by_descriptor:
                    connection, _ = by_descriptor[descriptor].accept()
                    waiting[connection.fileno()] = (connection, time.monotonic())
                    poll.register(connection, select.EPOLLIN)
                else:
                    self._answer(waiting.pop(descriptor)[0])
            while waiting and next(iter(waiting.values()))[1] < time.monotonic() - self._idle_limit:
                waiting.popitem(last=False)[1][0].close()

    def _answer(self, connection: socket.socket) -> None:
        with connection:
            try:
                self._seen.value += self._watched in connection.recv(4096)
                connection.sendall(SERVED)
            except OSError:
                pass  # the client reports the failure
