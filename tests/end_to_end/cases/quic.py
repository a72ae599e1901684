"""The filter's verdicts on kinds of QUIC connections that browsers rarely make."""

import contextlib
import dataclasses
import re

from harness import ALLOW, DROP, HELD, NEWS, World, check, iptables
from programs import Destination
from quic_programs import QuicClient, QuicServer, find

_PLAIN, _RETRYING = "127.0.0.9", "127.0.0.10"  # the addresses of the servers


@dataclasses.dataclass(frozen=True)
class _Kind:
    name: str
    evidence: str  # a pattern in the client's log
    evidence_if_dropped: bool | None = True  # whether the log has it if the connection is dropped; None: not checked
    options: tuple[str, ...] = ()
    server: str = _PLAIN
    loses_first: bool = False  # whether the client's first datagram is lost
    expected: str = ALLOW  # the verdict on NEWS


_KINDS = [
    _Kind("a hello in two datagrams", r"tx 1 Initial CRYPTO.* offset=1\d{3} "),
    # A dropped connection's log may lack the Retry: the client may first notice that its second datagram was dropped.
    _Kind("a Retry with a token", "pkt rx .*type=Retry", None, server=_RETRYING),
    _Kind("0-RTT", "frm tx .* 0RTT STREAM", True, ("--session-file=HOST.session", "--tp-file=HOST.parameters")),
    _Kind(
        "a connection that moves to another port",
        r"Path validation .* succeeded(.|\n)* frm rx .* 1RTT STREAM",
        False,
        ("--change-local-addr=100ms", "--delay-stream=3s"),
    ),
    _Kind("a first datagram that is lost and sent again", "tx 2 Initial CRYPTO.* offset=0 ", loses_first=True),
    # A draft of version 2. The extension cannot read it, so it drops the connection. A browser would then use TCP.
    _Kind("an unknown version", "version=0x709a50c4 type=Initial", True, ("--version=v2draft",), expected=DROP),
]


@contextlib.contextmanager
def _losing_first_datagram(is_wanted: bool):
    """Loses the first datagram that arrives at port 443: a rule matches packets until it has matched 1300 bytes."""
    if is_wanted:
        iptables("iptables -A INPUT -p udp --dport 443 -m quota --quota 1300 -j DROP")
    yield
    if is_wanted:
        iptables("iptables -D INPUT -p udp --dport 443 -m quota --quota 1300 -j DROP")


def JudgesEachKindOfQUICConnection(world: World):
    path = find("ngtcp2-client", "gtlsclient")
    certificate = world.servers.certificate
    servers = {
        _PLAIN: QuicServer(world.directory, _PLAIN, certificate),
        _RETRYING: QuicServer(world.directory, _RETRYING, certificate, "--validate-addr"),
    }
    client = QuicClient("gtlsclient", path, "gtlsclient", world.directory)

    def check_fetch(host: str, kind: _Kind, expected: str) -> None:
        world.addresses[host] = [kind.server]
        options = [option.replace("HOST", str(world.directory / host)) for option in kind.options]
        if expected == DROP:
            options.append("--handshake-timeout=5s")
        with _losing_first_datagram(kind.loses_first):
            seen = client.fetch(Destination("h3", host), "/", None, *options)
        print(f"{host}, {kind.name}: {seen.text}")
        check(seen.verdicts, [expected], f"{host}, {kind.name}")

    with world.extension("gtlsclient") as extension:
        for kind in _KINDS:
            # While neither host is listed, the client fetches from both, and stores the sessions that 0-RTT needs.
            if kind.expected == ALLOW:
                extension.hold("other.example")
                check_fetch(HELD, kind, ALLOW)
                check_fetch(NEWS, kind, ALLOW)
            extension.hold(HELD)
            for host, expected in ((NEWS, kind.expected), (HELD, DROP)):
                before = len(servers[kind.server].hosts())
                check_fetch(host, kind, expected)
                evidence = kind.evidence_if_dropped if expected == DROP else True
                if evidence is not None:
                    seen = bool(re.search(kind.evidence, client.output))
                    check(seen, evidence, f"evidence in the client's log: {host}, {kind.name}")
                requests = servers[kind.server].hosts()[before:]
                check(requests, [host] if expected == ALLOW else [], f"requests to the server, {kind.name}")
