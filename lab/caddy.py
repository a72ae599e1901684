"""Debian's caddy, a web server that speaks HTTP/2 and HTTP/3."""

import json
import os
import pathlib
import shutil
import subprocess
import time

from isolation import Unavailable
from web_servers import ENDLESS, page_of

OFFER = "/offer"  # the path of the page that offers HTTP/3 (Alt-Svc, RFC 7838)
# Private addresses. For a server with a public address, Firefox tries TCP beside HTTP/3. For a server with a private
# address, Firefox tries TCP only if the kernel rejects the datagrams of HTTP/3.
_ADDRESS, _CALLER = "10.0.2.2", "10.0.2.1"
# Runs in a new network namespace: connects it with the caller's namespace, then starts the server. $1 is the caller's
# process id. Without "addrgenmode none", the caller's interface would get another address some seconds later, and
# browsers close their connections when the machine gets an address.
_NAMESPACE = f"""\
set -e
caller="nsenter --net --target $1"
ip link add eth0 type veth peer name caddy netns $1
ip address add {_ADDRESS}/24 dev eth0
ip link set eth0 up
$caller ip address add {_CALLER}/24 dev caddy
$caller ip link set caddy addrgenmode none up
shift
exec "$@"
"""
_CONFIGURATION = """\
{{
    admin off
    auto_https off
    servers {{
        protocols h1 h2 h3
    }}
}}
{sites} {{
    tls {certificate} {key}
    @silent not path {offer}
    header @silent -Alt-Svc
    header Content-Type "text/plain; charset=utf-8"
    map {{http.request.proto}} {{protocol}} {{
        HTTP/2.0 h2
        HTTP/3.0 h3
    }}
    handle {endless}* {{
        reverse_proxy {caller}:8080
    }}
    handle {{
        respond "{page}\n"
    }}
    log {{
        output file {log}
        format json
    }}
}}
"""
_FILES = """\
{{
    admin off
    auto_https off
}}
{sites} {{
    tls {certificate} {key}
    root * {folder}
    encode gzip
    file_server
    log {{
        output file {log}
        format json
    }}
}}
"""


def _start(directory: pathlib.Path, configuration: str, *before: str) -> subprocess.Popen:
    """Starts caddy with this configuration, as the end of the command `before`. Returns when it serves."""
    caddy = shutil.which("caddy")
    if caddy is None:
        raise Unavailable("the web server caddy is not installed")
    file, output = directory / "Caddyfile", directory / "caddy"
    file.write_text(configuration)
    environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": str(directory)}
    with open(output, "wb") as log:
        command = [*before, caddy, "run", "--adapter", "caddyfile", "--config", file]
        server = subprocess.Popen(command, env=environment, stdout=log, stderr=log)
    while b"serving initial configuration" not in output.read_bytes():
        if server.poll() is not None:
            raise Unavailable(f"caddy does not run here: {output.read_text()}")
        time.sleep(0.01)
    return server


def _sites(names: list[str]) -> str:
    return ", ".join(f"https://{name}" for name in names)


class FileServer:
    """Serves the files of `folder` for each of `names`, in the caller's network namespace, until the process ends."""

    def __init__(self, directory: pathlib.Path, names: list[str], certificate: pathlib.Path, folder: pathlib.Path):
        self._log = directory / "requests"
        key = certificate.with_suffix(".key")
        text = _FILES.format(sites=_sites(names), certificate=certificate, key=key, folder=folder, log=self._log)
        self.process = _start(directory, text)

    def requests(self) -> list[dict]:
        """The lines of the server's log, from the first request on."""
        return [json.loads(line) for line in self._log.read_text().splitlines()] if self._log.exists() else []


class Caddy:
    """Serves a page for each of `names`, over TCP and UDP port 443 of ADDRESS, until the process ends.

    Runs in a network namespace of its own, because the kernel rules would also reject the packets of a server in the
    extension's namespace. The pages that never end come from WebServers.
    """

    ADDRESS = _ADDRESS

    def __init__(self, directory: pathlib.Path, names: list[str], certificate: pathlib.Path):
        self._log = directory / "requests"
        text = _CONFIGURATION.format(
            sites=_sites(names),
            certificate=certificate,
            key=certificate.with_suffix(".key"),
            offer=OFFER,
            endless=ENDLESS,
            caller=_CALLER,
            page=page_of("{protocol}", "{host}"),
            log=self._log,
        )
        _start(directory, text, "unshare", "--net", "sh", "-c", _NAMESPACE, "sh", str(os.getpid()))

    def has_served(self, host: str, path: str) -> bool:
        lines = self._log.read_text().splitlines() if self._log.exists() else []
        requests = [json.loads(line)["request"] for line in lines]
        return (host, path) in [(request["host"], request["uri"]) for request in requests]
