"""The client programs: each fetches a page through the proxy, and tells what it saw."""

import dataclasses
import pathlib
import re
import shutil
import subprocess
import tempfile

from extension import PROXY_PORT
from web_servers import page_of

PROXY = f"http://127.0.0.1:{PROXY_PORT}"
_PATIENCE = 60  # seconds

ALLOW = "allow"
DROP = "drop"
DROP_AT_DATA = "drop at its data"


@dataclasses.dataclass(frozen=True)
class Destination:
    scheme: str
    host: str
    port: int | None = None
    through_address: bool = False  # the tunnel is asked for by address; the name is in the TLS hello alone

    def url(self, path: str = "/") -> str:
        port = "" if self.port is None else f":{self.port}"
        return f"{self.scheme}://{self.host}{port}{path}"

    def __str__(self) -> str:
        return f"{self.url()} by address" if self.through_address else self.url()


@dataclasses.dataclass(frozen=True)
class Seen:
    verdict: str | None  # that it follows from, where one does
    text: str


class Program:
    def __init__(self, name: str, path: str | pathlib.Path, identifier: str, directory: pathlib.Path):
        self.name, self.identifier = name, identifier
        self._path, self._directory = str(path), directory

    def _run(self, *arguments: str) -> subprocess.CompletedProcess:
        # Nothing of the caller's environment or home changes what the program does.
        environment = {"PATH": "/usr/bin:/bin", "HOME": str(self._directory), "LANG": "C.UTF-8"}
        return subprocess.run(
            [self._path, *arguments],
            env=environment,
            cwd=self._directory,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="replace",
            timeout=_PATIENCE,
        )

    def fetch(self, destination: Destination, path: str) -> Seen:
        raise NotImplementedError


class Curl(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str) -> Seen:
        options = ["--disable", "--silent", "--max-time", str(_PATIENCE // 2), "--cacert", self._authority]
        options += ["--proxy", PROXY, "--write-out", "\n%{http_code} %{http_connect} %{exitcode} %{errormsg}"]
        if destination.through_address:
            options += ["--connect-to", f"{destination.host}:443:127.0.0.1:443"]
        done = self._run(*options, destination.url(path))
        body, _, outcome = done.stdout.rpartition("\n")
        status, connect_status, code, message = outcome.split(" ", 3)
        if status == "200" and body.strip() == page_of(destination.scheme, destination.host):
            return Seen(ALLOW, "200, the page")
        if status == "403" and "blocks" in body:
            return Seen(DROP, "403, the filter's line")
        if connect_status == "403":
            return Seen(DROP, "403 to CONNECT")
        if status == "000" and "reset" in message.lower():
            return Seen(DROP_AT_DATA, "connection reset")
        return Seen(None, f"status {status}, exit code {code}: {message}")


class Wget(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str) -> Seen:
        options = ["--no-config", "--tries=1", f"--timeout={_PATIENCE // 2}", f"--ca-certificate={self._authority}"]
        options += ["--execute=use_proxy=yes", f"--execute=http_proxy={PROXY}", f"--execute=https_proxy={PROXY}"]
        done = self._run(*options, "--no-hsts", "--no-verbose", "--output-document=-", destination.url(path))
        if done.returncode == 0 and done.stdout.strip() == page_of(destination.scheme, destination.host):
            return Seen(ALLOW, "200, the page")
        return Seen(DROP if "403" in done.stderr else None, done.stderr.strip().replace("\n", " "))


class Chromium(Program):
    _OPTIONS = [
        "--headless", "--dump-dom", "--no-first-run", "--disable-gpu", "--disable-quic", "--disable-sync",
        "--disable-background-networking", "--disable-component-update", "--disable-dev-shm-usage",
        # It would try https first, and the row is about http.
        "--disable-features=HttpsUpgrades,HttpsFirstBalancedModeAutoEnable",
        # We are root, if only in a namespace of ours, where the sandbox does not start.
        "--no-sandbox",
        # It keeps a list of authorities of its own, which ours is not on.
        "--ignore-certificate-errors",
        f"--proxy-server={PROXY}",
    ]  # fmt: skip

    def runs(self) -> bool:
        try:
            return self._run("--version").returncode == 0
        except OSError:
            return False

    def fetch(self, destination: Destination, path: str) -> Seen:
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            done = self._run(*self._OPTIONS, f"--user-data-dir={profile}", destination.url(path))
        if page_of(destination.scheme, destination.host) in done.stdout:
            return Seen(ALLOW, "the page")
        if "The filter of this computer blocks" in done.stdout:
            return Seen(DROP, "the filter's line")
        # Older ones print their error page, newer ones nothing.
        error = re.search(r"(ERR_[A-Z_]+)", done.stdout) or re.search(r"Page load failed: net::(\w+)", done.stderr)
        if error is None:
            return Seen(None, f"exit code {done.returncode}, {len(done.stdout)} characters")
        verdicts = {"ERR_TUNNEL_CONNECTION_FAILED": DROP, "ERR_CONNECTION_RESET": DROP_AT_DATA}
        return Seen(verdicts.get(error[1]), f"error page, {error[1]}")


def find(name: str) -> str:
    path = shutil.which(name)
    if path is None:
        raise FileNotFoundError(f"{name} is not installed: packages.txt lists what the demo needs")
    return path
