"""Connections that go no further than their first bytes: what browsers send, and a server that is content with it."""

import collections
import functools
import multiprocessing
import resource
import select
import socket
import ssl
import time

SERVED = b"served"
_PATIENCE = 10  # seconds after which a server forgets a silent client; nobody tells it of those that the filter reset


@functools.cache
def hello(name: str) -> bytes:
    """Of a TLS connection to that server."""
    outgoing = ssl.MemoryBIO()
    try:
        ssl.create_default_context().wrap_bio(ssl.MemoryBIO(), outgoing, server_hostname=name).do_handshake()
    except ssl.SSLWantReadError:
        pass  # it waits for the server
    return outgoing.read()


def request(name: str, path: str = "/") -> bytes:
    """Of an HTTP connection to that server."""
    return f"GET {path} HTTP/1.1\r\nHost: {name}\r\n\r\n".encode()


def allow_many_descriptors() -> None:
    """To this process and its children."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 65536), most))


class FirstBytesServer:
    """Answers the first bytes of each connection with SERVED, from a process of its own, until this one ends."""

    def __init__(self, address: str, ports: list[int], watched: str, patience: float = _PATIENCE):
        forking = multiprocessing.get_context("fork")
        self._watched, self._patience = watched.encode(), patience
        self._seen = forking.Value("i", 0)
        # Where others listen at all addresses, this one has its address for itself.
        listeners = [socket.create_server((address, port), backlog=4096, reuse_port=True) for port in ports]
        forking.Process(target=self._serve, args=(listeners,), daemon=True).start()
        for listener in listeners:
            listener.close()

    @property
    def seen(self) -> int:
        """How many connections had the watched name in their first bytes."""
        return self._seen.value

    def _serve(self, listeners: list[socket.socket]) -> None:
        waiting: dict[int, tuple[socket.socket, float]] = collections.OrderedDict()  # the oldest first
        poll = select.epoll()
        by_descriptor = {listener.fileno(): listener for listener in listeners}
        for listener in listeners:
            poll.register(listener, select.EPOLLIN)
        while True:
            for descriptor, _ in poll.poll(self._patience):
                if descriptor in by_descriptor:
                    connection, _ = by_descriptor[descriptor].accept()
                    waiting[connection.fileno()] = (connection, time.monotonic())
                    poll.register(connection, select.EPOLLIN)
                else:
                    self._answer(waiting.pop(descriptor)[0])
            while waiting and next(iter(waiting.values()))[1] < time.monotonic() - self._patience:
                waiting.popitem(last=False)[1][0].close()

    def _answer(self, connection: socket.socket) -> None:
        with connection:
            try:
                self._seen.value += self._watched in connection.recv(4096)
                connection.sendall(SERVED)
            except OSError:
                pass  # it shows at the client
