"""Client programs that fetch a page, through a proxy if there is one, and report what they saw."""

import dataclasses
import pathlib
import shutil
import subprocess

from web_servers import page_of

TIMEOUT = 60  # seconds

ALLOW = "allow"
DROP = "drop"
DROP_AT_DATA = "drop at its data"


_SCHEMES = {"h2": "https", "h3": "https"}  # HTTP/2 and HTTP/3 have no schemes of their own


@dataclasses.dataclass(frozen=True)
class Destination:
    scheme: str  # http or https; h2 or h3: https, and the page must come over HTTP/2 or HTTP/3
    host: str
    port: int | None = None
    by_address: bool = False  # the client connects to an address; only the TLS hello has the name

    def url(self, path: str = "/") -> str:
        port = "" if self.port is None else f":{self.port}"
        return f"{_SCHEMES.get(self.scheme, self.scheme)}://{self.host}{port}{path}"

    def __str__(self) -> str:
        return f"{self.url()} by address" if self.by_address else self.url()


@dataclasses.dataclass(frozen=True)
class Seen:
    verdicts: list[str]  # each of these verdicts would explain what the program saw
    text: str


def after_reset(proxy: str | None) -> list[str]:
    # If the proxy drops a request, it answers with 403. It resets a connection only if it drops the data in a tunnel
    # that is already open.
    return [DROP, DROP_AT_DATA] if proxy is None else [DROP_AT_DATA]


class Program:
    def __init__(self, name: str, path: str | pathlib.Path, identifier: str, directory: pathlib.Path):
        self.name, self.identifier = name, identifier
        self._path, self._directory = str(path), directory

    def _environment(self) -> dict[str, str]:
        """A fixed environment: the caller's variables and home must not change the program's behaviour."""
        return {"PATH": "/usr/bin:/bin", "HOME": str(self._directory), "LANG": "C.UTF-8"}

    def _run(self, *arguments: str) -> subprocess.CompletedProcess:
        return subprocess.run(
            [self._path, *arguments],
            env=self._environment(),
            cwd=self._directory,
            check=False,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="replace",
            timeout=TIMEOUT,
        )

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        raise NotImplementedError


class Curl(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str, proxy: str | None, *more: str) -> Seen:
        options = ["--disable", "--silent", "--max-time", str(TIMEOUT // 2), "--cacert", self._authority, *more]
        options += ["--write-out", "\n%{http_code} %{http_connect} %{exitcode} %{errormsg}"]
        if proxy is not None:
            options += ["--proxy", proxy]
        if destination.by_address:
            options += ["--connect-to", f"{destination.host}:443:127.0.0.1:443"]
        done = self._run(*options, destination.url(path))
        body, _, outcome = done.stdout.rpartition("\n")
        status, connect_status, code, message = outcome.split(" ", 3)
        if status == "200" and body.strip() == page_of(destination.scheme, destination.host):
            return Seen([ALLOW], "200, the page")
        if status == "403" and "blocks" in body:
            return Seen([DROP], "403, the filter's line")
        if connect_status == "403":
            return Seen([DROP], "403 to CONNECT")
        if status == "000" and "reset" in message.lower():
            return Seen(after_reset(proxy), "connection reset")
        return Seen([], f"status {status}, exit code {code}: {message}")


class Wget(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        options = ["--no-config", "--tries=1", f"--timeout={TIMEOUT // 2}", f"--ca-certificate={self._authority}"]
        if proxy is not None:
            options += ["--execute=use_proxy=yes", f"--execute=http_proxy={proxy}", f"--execute=https_proxy={proxy}"]
        done = self._run(*options, "--no-hsts", "--no-verbose", "--output-document=-", destination.url(path))
        if done.returncode == 0 and done.stdout.strip() == page_of(destination.scheme, destination.host):
            return Seen([ALLOW], "200, the page")
        text = done.stderr.strip().replace("\n", " ")
        return Seen([DROP] if "403" in text else after_reset(proxy) if "reset" in text else [], text)


def find(name: str) -> str:
    path = shutil.which(name)
    if path is None:
        raise FileNotFoundError(f"{name} is not installed: install the packages in packages.txt")
    return path
