"""A web server with Encrypted Client Hello (RFC 9849), and what an observer in the network can read of its hellos."""

import base64
import contextlib
import dataclasses
import pathlib
import shutil
import socket
import struct
import subprocess
import threading

from isolation import Unavailable
from web_servers import make_certificate, page_of

_ENCRYPTED_HELLO = 0xFE0D  # RFC 9849, section 5: the TLS extension's number, which is also the version of the keys
_X25519 = 0x0020  # RFC 9180, section 7.1
_HKDF_SHA256_AES_128_GCM = struct.pack("!2H", 1, 1)  # RFC 9180, sections 7.2 and 7.3
_SERVER = ("127.0.0.1", 8443)


@dataclasses.dataclass(frozen=True)
class Hello:
    """The part of a TLS hello that an observer in the network can read."""

    name: str
    may_be_encrypted: bool  # browsers may send random bytes in place of an encrypted hello


def _read_hello(data: bytes) -> Hello:
    at = 5 + 4 + 34  # the headers of the record and of the message, the version and the random bytes
    for length in ("!B", "!H", "!B"):  # the session, the cipher suites, the compression methods
        at += struct.calcsize(length) + struct.unpack_from(length, data, at)[0]
    at += 2
    extensions = {}
    while at < len(data):
        kind, length = struct.unpack_from("!2H", data, at)
        extensions[kind] = data[at + 4 : at + 4 + length]
        at += 4 + length
    return Hello(extensions[0][5:].decode(), _ENCRYPTED_HELLO in extensions)


def _with_length(data: bytes, form: str = "!H") -> bytes:
    return struct.pack(form, len(data)) + data


def _make_key(public_name: str) -> tuple[bytes, bytes]:
    """A private key in the form that selfserv reads, and the list of keys for the DNS (RFC 9849, section 4)."""

    def openssl(*arguments: str, data: bytes = b"") -> bytes:
        return subprocess.run(["openssl", *arguments], input=data, check=True, capture_output=True).stdout

    pair = openssl("genpkey", "-algorithm", "X25519")
    private = openssl("pkey", "-outform", "DER", data=pair)[-32:]
    public = openssl("pkey", "-pubout", "-outform", "DER", data=pair)[-32:]
    # NSS reads an X25519 key in PKCS #8 only as the key of a named elliptic curve, 1.3.6.1.4.1.11591.15.1.
    start = bytes.fromhex("3067020100301406072a8648ce3d020106092b06010401da470f01044c304a0201010420")
    key = start + private + bytes.fromhex("a123032100") + public
    suite = struct.pack("!BH", 1, _X25519) + _with_length(public) + _with_length(_HKDF_SHA256_AES_128_GCM)
    configuration = suite + b"\0" + _with_length(public_name.encode(), "!B") + _with_length(b"")
    return key, _with_length(struct.pack("!H", _ENCRYPTED_HELLO) + _with_length(configuration))


class EncryptedHelloServer:
    """Serves one page under each of `names` at port 443 of `address`, until the process ends.

    The member `path` is the page's path; `keys` is what a browser needs to encrypt its hello; `hellos` has the readable
    part of each browser's hello. `signed` are options with which make_certificate() signs.
    """

    def __init__(
        self, directory: pathlib.Path, address: str, names: list[str], public_name: str, signed: list[str]
    ):
        if shutil.which("selfserv") is None:
            raise Unavailable("selfserv of the package libnss3-tools is not installed")
        directory.mkdir()
        certificate = make_certificate(directory, "server", [*names, public_name], *signed)
        page = directory / "page"
        page.write_text("\n".join(page_of("https", name) for name in names))
        self.path = str(page)  # selfserv serves every file of the machine under its path
        database, bundle = f"sql:{directory}", directory / "server.p12"
        for command in (
            ["openssl", "pkcs12", "-export", "-in", certificate, "-inkey", certificate.with_suffix(".key")]
            + ["-name", "server", "-passout", "pass:", "-out", bundle],
            ["certutil", "-N", "-d", database, "--empty-password"],
            ["pk12util", "-i", bundle, "-d", database, "-W", ""],
        ):
            subprocess.run(command, check=True, capture_output=True)
        private, self.keys = _make_key(public_name)
        self.hellos: list[Hello] = []
        encryption = base64.b64encode(_with_length(private) + self.keys)
        command = ["selfserv", "-d", database, "-n", "server", "-p", str(_SERVER[1]), "-V", "tls1.3:", "-X", encryption]
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        subprocess.Popen(command, **quiet)
        # selfserv listens at all addresses, and port 443 of the other addresses belongs to other servers. So selfserv
        # listens at another port, and _serve() relays the connections from port 443 of `address` to that port.
        listener = socket.create_server((address, 443), reuse_port=True)
        threading.Thread(target=self._serve, args=(listener,), daemon=True).start()

    def _serve(self, listener: socket.socket) -> None:
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=self._relay, args=(connection,), daemon=True).start()

    def _relay(self, client: socket.socket) -> None:
        hello = b""
        while len(hello) < 5 or len(hello) < 5 + struct.unpack_from("!H", hello, 3)[0]:
            data = client.recv(65536)
            if not data:
                return
            hello += data
        self.hellos.append(_read_hello(hello))
        # Connect to selfserv only after a whole hello. If the filter drops a connection, neither its hello nor its FIN
        # arrives here. Such connections must not use up the eight connections that selfserv serves at once.
        with client, socket.create_connection(_SERVER) as server:
            server.sendall(hello)
            threading.Thread(target=self._copy, args=(client, server), daemon=True).start()
            self._copy(server, client)

    @staticmethod
    def _copy(source: socket.socket, target: socket.socket) -> None:
        with contextlib.suppress(OSError):  # a reset of one side ends the other side, too
            while data := source.recv(65536):
                target.sendall(data)
        with contextlib.suppress(OSError):
            target.shutdown(socket.SHUT_WR)
