"""Web servers on the loopback address, and the certificate authority that vouches for them."""

import http.server
import pathlib
import ssl
import subprocess
import threading

_REQUEST = """\
[req]
distinguished_name = name
prompt = no
[name]
CN = {common_name}
[authority]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign
[server]
basicConstraints = critical, CA:FALSE
subjectAltName = {alternative_names}
"""


def _make_certificate(directory: pathlib.Path, section: str, names: list[str], *more: str) -> pathlib.Path:
    """Makes SECTION.pem and its key, SECTION.key."""
    request = directory / f"{section}.cnf"
    alternative_names = ",".join(f"DNS:{name}" for name in names)
    request.write_text(_REQUEST.format(common_name=names[0], alternative_names=alternative_names))
    certificate = directory / f"{section}.pem"
    command = ["openssl", "req", "-x509", "-config", request, "-extensions", section, "-days", "2", "-nodes"]
    command += ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
    command += ["-keyout", directory / f"{section}.key", "-out", certificate, *more]
    subprocess.run(command, check=True, capture_output=True)
    return certificate


def page_of(scheme: str, host: str) -> str:
    return f"This is {host} over {scheme}."


class _Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        host = self.headers.get("Host", "").partition(":")[0]
        self.server.visits.add(self.path)
        body = (page_of(self.server.scheme, host) + "\n").encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass  # the table tells


class _Server(http.server.ThreadingHTTPServer):
    def __init__(self, scheme: str, port: int, visits: set[str]):
        super().__init__(("127.0.0.1", port), _Handler)
        self.scheme, self.visits = scheme, visits

    def handle_error(self, *_):
        pass  # a connection that the filter resets is part of the show


class WebServers:
    """Serves a page for every name, and knows which paths were asked for."""

    PLAIN_PORTS = [80, 8080]
    TLS_PORT = 443

    def __init__(self, directory: pathlib.Path, names: list[str]):
        authority = _make_certificate(directory, "authority", ["OrvaneSE demo"])
        signed = ["-CA", str(authority), "-CAkey", str(directory / "authority.key")]
        certificate = _make_certificate(directory, "server", names, *signed)
        self.authority = authority
        self._visits: set[str] = set()
        servers = [_Server("http", port, self._visits) for port in self.PLAIN_PORTS]
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, directory / "server.key")
        secure = _Server("https", self.TLS_PORT, self._visits)
        # The handshake is left to the connection's thread: a client that sends no hello holds up nobody else.
        secure.socket = context.wrap_socket(secure.socket, server_side=True, do_handshake_on_connect=False)
        for server in [*servers, secure]:
            threading.Thread(target=server.serve_forever, daemon=True).start()

    def were_asked_for(self, path: str) -> bool:
        return path in self._visits
