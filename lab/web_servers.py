"""Web servers on every address of the machine, and the certificate authority that signs their certificate."""

import http.server
import pathlib
import socket
import socketserver
import ssl
import subprocess
import threading
import time

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


def make_certificate(directory: pathlib.Path, section: str, names: list[str], *more: str) -> pathlib.Path:
    """Writes SECTION.pem and its key SECTION.key. Returns the path of SECTION.pem."""
    request = directory / f"{section}.cnf"
    alternative_names = ",".join(f"DNS:{name}" for name in names)
    request.write_text(_REQUEST.format(common_name=names[0], alternative_names=alternative_names))
    certificate = directory / f"{section}.pem"
    command = ["openssl", "req", "-x509", "-config", request, "-extensions", section, "-days", "2", "-nodes"]
    command += ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
    command += ["-keyout", directory / f"{section}.key", "-out", certificate, *more]
    subprocess.run(command, check=True, capture_output=True)
    return certificate


ENDLESS = "/endless"  # begins the paths of pages that never end; such a page sends 40 kB a second


def page_of(scheme: str, host: str) -> str:
    return f"This is {host} over {scheme}."


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # a connection can carry several requests

    def do_GET(self):
        host = self.headers.get("Host", "").partition(":")[0]
        self.server.visits.add(self.path)
        if self.path.startswith(ENDLESS):
            return self._send_endless_body()
        body = (page_of(self.server.scheme, host) + "\n").encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def _send_endless_body(self):
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Connection", "close")
        self.end_headers()
        while True:
            self.wfile.write(bytes(2000))
            time.sleep(0.05)

    def log_message(self, *_):
        pass  # no log: the callers report what they requested


class _Server(http.server.ThreadingHTTPServer):
    request_queue_size = 4096
    allow_reuse_port = True  # lets another server listen on the same port at one of the addresses
    address_family = socket.AF_INET6 if socket.has_dualstack_ipv6() else socket.AF_INET

    def __init__(self, scheme: str, port: int, visits: set[str]):
        super().__init__(("", port), _Handler)
        self.scheme, self.visits = scheme, visits

    def server_bind(self):
        if self.address_family == socket.AF_INET6:
            self.socket.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 0)  # accept IPv4 too
        socketserver.TCPServer.server_bind(self)  # HTTPServer's method would look up the host name

    def handle_error(self, *_):
        pass  # report no error: the filter resets connections on purpose


class WebServers:
    """Serves a page for every name until the process ends, and records the paths that were requested."""

    PLAIN_PORTS = [80, 8080]
    TLS_PORT = 443

    def __init__(self, directory: pathlib.Path, names: list[str]):
        authority = make_certificate(directory, "authority", ["OrvaneSE demo"])
        self.signed = ["-CA", str(authority), "-CAkey", str(directory / "authority.key")]
        self.certificate = make_certificate(directory, "server", names, *self.signed)
        self.authority = authority
        self._visits: set[str] = set()
        servers = [_Server("http", port, self._visits) for port in self.PLAIN_PORTS]
        secure = _Server("https", self.TLS_PORT, self._visits)
        # Each connection's thread does the handshake, so a client that sends no hello does not block the others.
        secure.socket = self._tls().wrap_socket(secure.socket, server_side=True, do_handshake_on_connect=False)
        for server in [*servers, secure]:
            threading.Thread(target=server.serve_forever, daemon=True).start()

    def _tls(self) -> ssl.SSLContext:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.certificate, self.certificate.with_suffix(".key"))
        return context

    def have_served(self, path: str) -> bool:
        return path in self._visits
