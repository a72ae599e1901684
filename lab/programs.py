"""Client programs that fetch a page, through a proxy if there is one, and report what they saw."""

import contextlib
import dataclasses
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time

from web_servers import page_of

_TIMEOUT = 60  # seconds

ALLOW = "allow"
DROP = "drop"
DROP_AT_DATA = "drop at its data"


@dataclasses.dataclass(frozen=True)
class Destination:
    scheme: str
    host: str
    port: int | None = None
    by_address: bool = False  # the client connects to an address; only the TLS hello has the name

    def url(self, path: str = "/") -> str:
        port = "" if self.port is None else f":{self.port}"
        return f"{self.scheme}://{self.host}{port}{path}"

    def __str__(self) -> str:
        return f"{self.url()} by address" if self.by_address else self.url()


@dataclasses.dataclass(frozen=True)
class Seen:
    verdicts: list[str]  # each of these verdicts would explain what the program saw
    text: str


def _after_reset(proxy: str | None) -> list[str]:
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
            timeout=_TIMEOUT,
        )

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        raise NotImplementedError


class Curl(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str, proxy: str | None, *more: str) -> Seen:
        options = ["--disable", "--silent", "--max-time", str(_TIMEOUT // 2), "--cacert", self._authority, *more]
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
            return Seen(_after_reset(proxy), "connection reset")
        return Seen([], f"status {status}, exit code {code}: {message}")


class Wget(Program):
    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = str(authority)

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        options = ["--no-config", "--tries=1", f"--timeout={_TIMEOUT // 2}", f"--ca-certificate={self._authority}"]
        if proxy is not None:
            options += ["--execute=use_proxy=yes", f"--execute=http_proxy={proxy}", f"--execute=https_proxy={proxy}"]
        done = self._run(*options, "--no-hsts", "--no-verbose", "--output-document=-", destination.url(path))
        if done.returncode == 0 and done.stdout.strip() == page_of(destination.scheme, destination.host):
            return Seen([ALLOW], "200, the page")
        text = done.stderr.strip().replace("\n", " ")
        return Seen([DROP] if "403" in text else _after_reset(proxy) if "reset" in text else [], text)


class Browser(Program):
    seconds = 0.0  # from the last request for a page until the browser showed the page or an error, if measured

    def runs(self) -> bool:
        try:
            return self._run("--version").returncode == 0
        except OSError:
            return False


class Chromium(Browser):
    _OPTIONS = [
        "--headless", "--no-first-run", "--disable-gpu", "--disable-quic", "--disable-sync",
        "--disable-background-networking", "--disable-component-update", "--disable-dev-shm-usage",
        # Otherwise Chromium opens http URLs with https first.
        "--disable-features=HttpsUpgrades,HttpsFirstBalancedModeAutoEnable",
        # The sandbox does not start for root, and the process is root in the namespace.
        "--no-sandbox",
        # Chromium's own list of authorities lacks the test's authority.
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
        # Some versions of Chromium print the error page; later versions print only a message to standard error.
        error = re.search(r"(ERR_[A-Z_]+)", done.stdout) or re.search(r"Page load failed: net::(\w+)", done.stderr)
        if error is None:
            return Seen([], f"exit code {done.returncode}, {len(done.stdout)} characters")
        verdicts = {"ERR_TUNNEL_CONNECTION_FAILED": [DROP], "ERR_CONNECTION_RESET": _after_reset(proxy)}
        return Seen(verdicts.get(error[1], []), f"error page, {error[1]}")

    @contextlib.contextmanager
    def tabs(self):
        """A running Chromium, whose tabs the caller controls."""
        commands, their_commands = os.pipe()[::-1]
        their_answers, answers = os.pipe()[::-1]
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            command = [self._path, *self._OPTIONS, f"--user-data-dir={profile}", "--remote-debugging-pipe"]
            # Chromium reads commands from descriptor 3 and writes answers to descriptor 4.
            script = f'exec "$@" 3<&{their_commands} 4>&{their_answers}'
            chromium = subprocess.Popen(
                ["bash", "-c", script, "bash", *command, "about:blank"],
                env=self._environment(),
                cwd=self._directory,
                pass_fds=[their_commands, their_answers],
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
            os.close(their_commands)
            os.close(their_answers)
            try:
                with open(commands, "wb") as to, open(answers, "rb") as back:
                    yield Tabs(to, back)
            finally:
                chromium.kill()
                chromium.wait()


class Tabs:
    """Tabs of a Chromium, controlled over the DevTools protocol, whose messages are JSON that ends in a zero byte."""

    # Counts the answers, and keeps the first error.
    _REQUESTS = """
        window.received = 0;
        window.error = null;
        (async () => {
            for (;;) {
                await (await fetch("/", {cache: "no-store"})).text();
                window.received += 1;
                await new Promise(resolve => setTimeout(resolve, 50));
            }
        })().catch(error => { window.error = error.message; });
    """

    def __init__(self, commands, answers):
        self._commands, self._answers, self._count = commands, answers, 0

    def _call(self, method: str, session: str | None = None, **parameters):
        self._count += 1
        message = {"id": self._count, "method": method, "params": parameters}
        if session is not None:
            message["sessionId"] = session
        self._commands.write(json.dumps(message).encode() + b"\0")
        self._commands.flush()
        while True:
            answer = bytearray()
            while (byte := self._answers.read(1)) != b"\0":
                if not byte:
                    raise EOFError("Chromium has ended")
                answer += byte
            answer = json.loads(answer)
            if answer.get("id") == self._count:
                return answer["result"]

    def _evaluate(self, tab: str, expression: str):
        return self._call("Runtime.evaluate", tab, expression=expression)["result"].get("value")

    def visit(self, url: str) -> tuple[str | None, str]:
        """Opens the URL in a new tab. Returns the error, if there is one, and the text of the page."""
        tab = self._open_tab("about:blank")
        error = self._call("Page.navigate", tab, url=url).get("errorText")
        end = time.monotonic() + _TIMEOUT
        while error is None and not (text := self._evaluate(tab, "document.body?.innerText")):
            if time.monotonic() > end:
                raise TimeoutError(f"no page of {url}")
            time.sleep(0.05)
        return error, "" if error is not None else text

    def _open_tab(self, url: str) -> str:
        target = self._call("Target.createTarget", url=url)["targetId"]
        return self._call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    def start_requests(self, origin: str) -> str:
        """Opens the origin's page in a new tab, where a script fetches the page again and again. Returns the tab."""
        return self._start(origin, self._REQUESTS)

    def _start(self, origin: str, script: str) -> str:
        tab = self._open_tab(f"{origin}/")
        end = time.monotonic() + _TIMEOUT
        while self._evaluate(tab, "document.readyState + location.origin") != f"complete{origin}":
            if time.monotonic() > end:
                raise TimeoutError(f"no page of {origin}")
            time.sleep(0.05)
        self._evaluate(tab, script)
        return tab

    def received(self, tab: str) -> int:
        return self._evaluate(tab, "window.received")

    def error(self, tab: str) -> str | None:
        return self._evaluate(tab, "window.error")


class Firefox(Browser):
    """Controlled over the Marionette protocol, whose messages have the form LENGTH:[0, id, command, parameters]."""

    _PORT = 2828
    # Otherwise Firefox opens http URLs with https first.
    _SETTINGS = 'user_pref("dom.security.https_first", false);\n'

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        with self.session(proxy) as visit:
            return visit(destination, path)

    @contextlib.contextmanager
    def session(self, proxy: str | None = None):
        """A running Firefox, as a function that visits a page."""
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            pathlib.Path(profile, "user.js").write_text(self._SETTINGS)
            command = [self._path, "--headless", "--no-remote", "--marionette", "--profile", profile]
            quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
            firefox = subprocess.Popen(command, env=self._environment(), cwd=self._directory, **quiet)
            try:
                with self._connect(firefox) as connection, connection.makefile("rwb") as stream:
                    send = self._sender(stream, proxy)
                    yield lambda destination, path: self._visit(send, destination, path, proxy)
            finally:
                firefox.kill()
                firefox.wait()

    def _connect(self, firefox: subprocess.Popen) -> socket.socket:
        end = time.monotonic() + _TIMEOUT
        while firefox.poll() is None and time.monotonic() < end:
            try:
                return socket.create_connection(("127.0.0.1", self._PORT), _TIMEOUT)
            except ConnectionRefusedError:
                time.sleep(0.05)
        raise subprocess.TimeoutExpired(firefox.args, _TIMEOUT)

    @staticmethod
    def _sender(stream, proxy: str | None):
        """Begins a session. Returns a function that sends a command and returns the error and the result."""

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

        receive()  # the greeting
        capabilities = {"acceptInsecureCerts": True}  # Firefox's list of authorities lacks the test's authority
        if proxy is not None:
            address = proxy.partition("//")[2]
            capabilities["proxy"] = {"proxyType": "manual", "httpProxy": address, "sslProxy": address}
        send("WebDriver:NewSession", **capabilities)
        return send

    def _visit(self, send, destination: Destination, path: str, proxy: str | None) -> Seen:
        start = time.monotonic()
        error, _ = send("WebDriver:Navigate", url=destination.url(path))
        self.seconds = time.monotonic() - start
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
        raise FileNotFoundError(f"{name} is not installed: install the packages in packages.txt")
    return path
