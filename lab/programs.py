"""The client programs: each fetches a page, through a proxy if it is told to, and tells what it saw."""

import dataclasses
import json
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time

from web_servers import page_of

_PATIENCE = 60  # seconds

ALLOW = "allow"
DROP = "drop"
DROP_AT_DATA = "drop at its data"


@dataclasses.dataclass(frozen=True)
class Destination:
    scheme: str
    host: str
    port: int | None = None
    through_address: bool = False  # reached by address: the name is in the TLS hello alone

    def url(self, path: str = "/") -> str:
        port = "" if self.port is None else f":{self.port}"
        return f"{self.scheme}://{self.host}{port}{path}"

    def __str__(self) -> str:
        return f"{self.url()} by address" if self.through_address else self.url()


@dataclasses.dataclass(frozen=True)
class Seen:
    verdicts: list[str]  # any of which it may follow from
    text: str


def _after_reset(proxy: str | None) -> list[str]:
    # The proxy says no to a whole request where it can.
    return [DROP, DROP_AT_DATA] if proxy is None else [DROP_AT_DATA]


class Program:
    def __init__(self, name: str, path: str | pathlib.Path, identifier: str, directory: pathlib.Path):
        self.name, self.identifier = name, identifier
        self._path, self._directory = str(path), directory

    def _environment(self) -> dict[str, str]:
        """Nothing of the caller's environment or home changes what the program does."""
        return {"PATH": "/usr/bin:/bin", "HOME": str(self._directory), "LANG": "C.UTF-8"}

    def _run(self, *arguments: str) -> subprocess.CompletedProcess:
        return subprocess.run(
            [self._path, *arguments],
            env=self._environment(),
            cwd=self._directory,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="replace",
            timeout=_PATIENCE,
        )

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        raise NotImplementedError


class Curl(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str, proxy: str | None, *more: str) -> Seen:
        options = ["--disable", "--silent", "--max-time", str(_PATIENCE // 2), "--cacert", self._authority, *more]
        options += ["--write-out", "\n%{http_code} %{http_connect} %{exitcode} %{errormsg}"]
        if proxy is not None:
            options += ["--proxy", proxy]
        if destination.through_address:
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
            return Seen(_after_reset(proxy), "connection reset")
        return Seen([], f"status {status}, exit code {code}: {message}")


class Wget(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        options = ["--no-config", "--tries=1", f"--timeout={_PATIENCE // 2}", f"--ca-certificate={self._authority}"]
        if proxy is not None:
            options += ["--execute=use_proxy=yes", f"--execute=http_proxy={proxy}", f"--execute=https_proxy={proxy}"]
        done = self._run(*options, "--no-hsts", "--no-verbose", "--output-document=-", destination.url(path))
        if done.returncode == 0 and done.stdout.strip() == page_of(destination.scheme, destination.host):
            return Seen([ALLOW], "200, the page")
        text = done.stderr.strip().replace("\n", " ")
        return Seen([DROP] if "403" in text else _after_reset(proxy) if "reset" in text else [], text)


class Browser(Program):
    def runs(self) -> bool:
        try:
            return self._run("--version").returncode == 0
        except OSError:
            return False


class Chromium(Browser):
    _OPTIONS = [
        "--headless", "--no-first-run", "--disable-gpu", "--disable-quic", "--disable-sync",
        "--disable-background-networking", "--disable-component-update", "--disable-dev-shm-usage",
        # It would try https first, and the row is about http.
        "--disable-features=HttpsUpgrades,HttpsFirstBalancedModeAutoEnable",
        # We are root, if only in a namespace of ours, where the sandbox does not start.
        "--no-sandbox",
        # It keeps a list of authorities of its own, which ours is not on.
        "--ignore-certificate-errors",
    ]  # fmt: skip

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        options = [*self._OPTIONS, "--dump-dom"]
        if proxy is not None:
            options.append(f"--proxy-server={proxy}")
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            done = self._run(*options, f"--user-data-dir={profile}", destination.url(path))
        if page_of(destination.scheme, destination.host) in done.stdout:
            return Seen([ALLOW], "the page")
        if "The filter of this computer blocks" in done.stdout:
            return Seen([DROP], "the filter's line")
        # Older ones print their error page, newer ones nothing.
        error = re.search(r"(ERR_[A-Z_]+)", done.stdout) or re.search(r"Page load failed: net::(\w+)", done.stderr)
        if error is None:
            return Seen([], f"exit code {done.returncode}, {len(done.stdout)} characters")
        verdicts = {"ERR_TUNNEL_CONNECTION_FAILED": [DROP], "ERR_CONNECTION_RESET": _after_reset(proxy)}
        return Seen(verdicts.get(error[1], []), f"error page, {error[1]}")


class Firefox(Browser):
    """Driven through its Marionette protocol: "LENGTH:[0, id, command, parameters]", answered in the same way."""

    _PORT = 2828
    # It would try https first, and the row is about http.
    _SETTINGS = 'user_pref("dom.security.https_first", false);\n'

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            pathlib.Path(profile, "user.js").write_text(self._SETTINGS)
            command = [self._path, "--headless", "--no-remote", "--marionette", "--profile", profile]
            quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
            firefox = subprocess.Popen(command, env=self._environment(), cwd=self._directory, **quiet)
            try:
                return self._drive(firefox, destination, path, proxy)
            finally:
                firefox.kill()
                firefox.wait()

    def _connect(self, firefox: subprocess.Popen) -> socket.socket:
        end = time.monotonic() + _PATIENCE
        while firefox.poll() is None and time.monotonic() < end:
            try:
                return socket.create_connection(("127.0.0.1", self._PORT), _PATIENCE)
            except ConnectionRefusedError:
                time.sleep(0.05)
        raise subprocess.TimeoutExpired(firefox.args, _PATIENCE)

    def _drive(self, firefox: subprocess.Popen, destination: Destination, path: str, proxy: str | None) -> Seen:
        with self._connect(firefox) as connection, connection.makefile("rwb") as stream:
            def receive():
                length = b""
                while (character := stream.read(1)) != b":":
                    length += character
                return json.loads(stream.read(int(length)))

            def send(command: str, **parameters):
                message = json.dumps([0, 1, command, parameters]).encode()
                stream.write(b"%d:%s" % (len(message), message))
                stream.flush()
                _, _, error, result = receive()
                return error, result

            receive()  # who it is
            capabilities = {"acceptInsecureCerts": True}  # it keeps a list of authorities of its own
            if proxy is not None:
                address = proxy.partition("//")[2]
                capabilities["proxy"] = {"proxyType": "manual", "httpProxy": address, "sslProxy": address}
            send("WebDriver:NewSession", **capabilities)
            error, _ = send("WebDriver:Navigate", url=destination.url(path))
            source = send("WebDriver:GetPageSource")[1]["value"]
        if page_of(destination.scheme, destination.host) in source:
            return Seen([ALLOW], "the page")
        if "The filter of this computer blocks" in source:
            return Seen([DROP], "the filter's line")
        name = re.search(r"about:neterror\?e=(\w+)", str(error))
        if name is None:
            return Seen([], str(error))
        if "connection%20to%20the%20server%20was%20reset" in str(error):
            return Seen(_after_reset(proxy), f"error page, {name[1]}: connection reset")
        return Seen([DROP] if name[1] == "proxyConnectFailure" else [], f"error page, {name[1]}")


def find(name: str) -> str:
    path = shutil.which(name)
    if path is None:
        raise FileNotFoundError(f"{name} is not installed: packages.txt lists what the demo needs")
    return path
