"""A web server that speaks HTTP/3 alone: Debian's caddy, on UDP port 443 of every address."""

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
        protocols h3
    }}
}}
{sites} {{
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
    """Serves a page for these names until the process ends, and records the requests."""

    def __init__(self, directory: pathlib.Path, names: list[str], certificate: pathlib.Path):
        caddy = shutil.which("caddy")
        if caddy is None:
            raise Unavailable("caddy, the HTTP/3 server, is not installed")
        self._log = directory / "requests"
        configuration = directory / "Caddyfile"
        sites = ", ".join(f"https://{name}" for name in names)
        page = page_of("h3", "{host}")
        key = certificate.with_suffix(".key")
        text = _CONFIGURATION.format(sites=sites, certificate=certificate, key=key, page=page, log=self._log)
        configuration.write_text(text)
        environment = {"PATH": "/usr/bin:/bin", "HOME": str(directory)}
        command = [caddy, "run", "--adapter", "caddyfile", "--config", configuration]
        with open(directory / "caddy", "wb") as output:
            self._process = subprocess.Popen(command, env=environment, stdout=output, stderr=output)

    def hosts(self) -> list[str]:
        """The hosts of the requests so far, in order."""
        lines = self._log.read_text().splitlines() if self._log.exists() else []
        return [json.loads(line)["request"]["host"] for line in lines]
