"""A web server that speaks HTTP/3: Debian's caddy, on port 443."""

import json
import pathlib
import shutil
import subprocess

from isolation import Unavailable
from web_servers import page_of

_CONFIGURATION = """\
{{
    admin off
    auto_https off
    servers {{
        protocols {protocols}
    }}
}}
{sites} {{
    {bind}
    tls {certificate} {key}
    header Content-Type "text/plain; charset=utf-8"
    respond "{page}\n"
    log {{
        output file {log}
        format json
    }}
}}
"""


class HTTP3Server:
    """Serves a page for these names until the process ends, and records the requests.

    Speaks HTTP/3 alone, at every address. With an `address`, serves only there, over TCP too, and offers HTTP/3 in its
    answers over TCP (Alt-Svc, RFC 7838).
    """

    def __init__(
        self, directory: pathlib.Path, names: list[str], certificate: pathlib.Path, address: str | None = None
    ):
        caddy = shutil.which("caddy")
        if caddy is None:
            raise Unavailable("caddy, the HTTP/3 server, is not installed")
        self._log = directory / "requests"
        configuration = directory / "Caddyfile"
        sites = ", ".join(f"https://{name}" for name in names)
        page = page_of("h3", "{host}")
        key = certificate.with_suffix(".key")
        text = _CONFIGURATION.format(
            protocols="h3" if address is None else "h1 h2 h3",
            bind="" if address is None else f"bind {address}",
            sites=sites,
            certificate=certificate,
            key=key,
            page=page,
            log=self._log,
        )
        configuration.write_text(text)
        environment = {"PATH": "/usr/bin:/bin", "HOME": str(directory)}
        command = [caddy, "run", "--adapter", "caddyfile", "--config", configuration]
        with open(directory / "caddy", "wb") as output:
            self._process = subprocess.Popen(command, env=environment, stdout=output, stderr=output)

    def hosts(self, version: str = "HTTP/3.0") -> list[str]:
        """The hosts of the requests so far that came with this version of HTTP, in order."""
        lines = self._log.read_text().splitlines() if self._log.exists() else []
        requests = [json.loads(line)["request"] for line in lines]
        return [request["host"] for request in requests if request["proto"] == version]
