"""Runs browsers without a window, and controls their tabs."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time

from programs import ALLOW, DROP, TIMEOUT, Destination, Program, Seen, after_reset
from web_servers import ENDLESS, page_of

# Requests data that never end. Counts the bytes that arrive, and keeps the error that ends the request.
_STREAM = f"""void (async () => {{
    window.received = 0;
    window.error = null;
    try {{
        const reader = (await fetch("{ENDLESS}")).body.getReader();
        for (;;) window.received += (await reader.read()).value.length;
    }} catch (error) {{
        window.error = error.message;
    }}
}})()"""


class Tabs:
    """The tabs of a running browser. The methods name a tab by an identifier that the browser chose."""

    def open(self) -> str:
        """Opens an empty tab."""
        raise NotImplementedError

    def navigate(self, tab: str, url: str) -> str | None:
        """Opens the URL in the tab, and waits until the tab shows the page or an error. Returns the error, or None."""
        raise NotImplementedError

    def evaluate(self, tab: str, expression: str):
        """The value of a JavaScript expression in the tab's page. If the value is a promise, waits for its result."""
        raise NotImplementedError

    def text(self, tab: str) -> str:
        return self.evaluate(tab, "document.documentElement.textContent")

    def protocol(self, tab: str) -> str:
        """The protocol over which the tab's page came: http/1.1, h2 or h3."""
        return self.evaluate(tab, "performance.getEntriesByType('navigation')[0].nextHopProtocol")

    def start_stream(self, tab: str) -> None:
        """Makes the tab's page read an endless stream of data from the page's host."""
        self.evaluate(tab, _STREAM)

    def received(self, tab: str) -> int:
        """The number of bytes that the page has read from the stream."""
        return self.evaluate(tab, "window.received")

    def error(self, tab: str) -> str | None:
        """The error that ended the stream. None while the stream goes on."""
        return self.evaluate(tab, "window.error")


class Browser(Program):
    PROGRAM = ""  # the usual name of the executable
    seconds = 0.0  # from the last request for a page until the browser showed the page or an error

    def __init__(self, name, path, identifier, directory, authority: pathlib.Path):
        super().__init__(name, path, identifier, directory)
        self._authority = authority
        self._running: Tabs | None = None
        self._trusted = directory / ".pki/nssdb"  # the authorities that Chromium trusts, in the form that NSS reads

    def runs(self) -> bool:
        try:
            return self._run("--version").returncode == 0
        except OSError:
            return False

    @contextlib.contextmanager
    def tabs(self, proxy: str | None = None):
        """The tabs of a browser that runs with an empty profile during the with block."""
        if not self._trusted.exists():
            self._trusted.mkdir(parents=True)
            for options in (["-N", "--empty-password"], ["-A", "-n", "authority", "-t", "C,,", "-i", self._authority]):
                subprocess.run(["certutil", *options, "-d", f"sql:{self._trusted}"], check=True)
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            with self._start(pathlib.Path(profile), proxy) as self._running:
                yield self._running
                self._running = None

    def _start(self, profile: pathlib.Path, proxy: str | None) -> contextlib.AbstractContextManager[Tabs]:
        raise NotImplementedError

    @contextlib.contextmanager
    def _process(self, command: list, **more):
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        process = subprocess.Popen(command, env=self._environment(), cwd=self._directory, **quiet, **more)
        try:
            yield process
        finally:
            process.kill()
            process.wait()

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        """Fetches a page in a new tab. During a with block of tabs(), uses the browser that runs already."""
        if self._running is None:
            with self.tabs(proxy):
                return self.fetch(destination, path, proxy)
        tabs, tab = self._running, self._running.open()
        start = time.monotonic()
        error = tabs.navigate(tab, destination.url(path))
        self.seconds = time.monotonic() - start
        if error is not None:
            return Seen(self._verdicts(error, proxy), f"error page, {error}")
        text = tabs.text(tab)
        if page_of(destination.scheme, destination.host) in text:
            return Seen([ALLOW], "the page")
        return Seen([DROP], "the filter's line") if "The filter of this computer blocks" in text else Seen([], text)

    @staticmethod
    def _verdicts(error: str, proxy: str | None) -> list[str]:
        """The verdicts that explain the error."""
        raise NotImplementedError


class _ChromiumTabs(Tabs):
    """Uses the DevTools protocol, whose messages are JSON that ends in a zero byte."""

    def __init__(self, commands, answers):
        self._commands, self._answers, self._count = commands, answers, 0

    def _call(self, method: str, session: str | None = None, **parameters) -> dict:
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

    def open(self) -> str:
        target = self._call("Target.createTarget", url="about:blank")["targetId"]
        return self._call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    def navigate(self, tab: str, url: str) -> str | None:
        error = self._call("Page.navigate", tab, url=url).get("errorText")
        end = time.monotonic() + TIMEOUT
        while error is None and self.evaluate(tab, "document.readyState") != "complete":
            if time.monotonic() > end:
                raise TimeoutError(f"{url} does not load")
            time.sleep(0.01)
        return error and error.removeprefix("net::")

    def evaluate(self, tab: str, expression: str):
        return self._call("Runtime.evaluate", tab, expression=expression, awaitPromise=True)["result"].get("value")


class Chromium(Browser):
    PROGRAM = "chromium"
    _OPTIONS = [
        "--headless", "--no-first-run", "--disable-gpu", "--disable-sync", "--disable-background-networking",
        "--disable-component-update", "--disable-dev-shm-usage",
        # Otherwise Chromium opens http URLs with https first.
        "--disable-features=HttpsUpgrades,HttpsFirstBalancedModeAutoEnable",
        # The sandbox does not start for root, and the process is root in the namespace.
        "--no-sandbox",
    ]  # fmt: skip
    _TRANSPORT = ["--disable-quic"]

    @contextlib.contextmanager
    def _start(self, profile: pathlib.Path, proxy: str | None):
        their_commands, commands = os.pipe()
        answers, their_answers = os.pipe()
        # Chromium reads commands from descriptor 3 and writes answers to descriptor 4.
        script = f'exec "$@" 3<&{their_commands} 4>&{their_answers}'
        command = ["bash", "-c", script, "bash", self._path, *self._OPTIONS, *self._TRANSPORT]
        command += [f"--user-data-dir={profile}", "--remote-debugging-pipe"]
        command += [] if proxy is None else [f"--proxy-server={proxy}"]
        try:
            with self._process(command, pass_fds=[their_commands, their_answers]):
                os.close(their_commands)
                os.close(their_answers)
                with open(commands, "wb") as to, open(answers, "rb") as back:
                    yield _ChromiumTabs(to, back)
        finally:
            # The killed browser leaves the folder of its socket in /tmp. The profile has a link to the socket.
            with contextlib.suppress(OSError):
                shutil.rmtree((profile / "SingletonSocket").readlink().parent)

    @staticmethod
    def _verdicts(error: str, proxy: str | None) -> list[str]:
        verdicts = {"ERR_TUNNEL_CONNECTION_FAILED": [DROP], "ERR_CONNECTION_RESET": after_reset(proxy)}
        return verdicts.get(error, [])


class ChromiumWithHTTP3(Chromium):
    """Uses HTTP/3 for `hosts` without trying TCP. With `waits`, uses HTTP/3 only for hosts that offered it over TCP."""

    def __init__(self, name, path, identifier, directory, authority: pathlib.Path, hosts: list[str], waits=False):
        super().__init__(name, path, identifier, directory, authority)
        # The option --origin-to-force-quic-on has two effects. For the named port of a host, Chromium uses HTTP/3 at
        # once. For HTTP/3 connections to any port of the host, Chromium accepts certificates of the test's authority.
        # With port 1, only the second effect matters, because the pages are at port 443.
        port = 1 if waits else 443
        self._TRANSPORT = [f"--origin-to-force-quic-on={','.join(f'{host}:{port}' for host in hosts)}"]

    @staticmethod
    def _verdicts(error: str, proxy: str | None) -> list[str]:
        # With HTTP/3 alone, the error depends on which of Chromium's calls fails first.
        refusals = ("QUIC_PROTOCOL_ERROR", "QUIC_HANDSHAKE_FAILED", "CONNECTION_RESET", "CONNECTION_REFUSED")
        return [DROP] if error.removeprefix("ERR_") in refusals else []


class _FirefoxTabs(Tabs):
    """Uses the Marionette protocol, whose messages have the form LENGTH:[0, id, command, parameters]."""

    def __init__(self, stream, capabilities: dict):
        self._stream = stream
        self._receive()  # the greeting
        self._call("NewSession", **capabilities)

    def _receive(self):
        length = b""
        while (character := self._stream.read(1)) != b":":
            length += character
        return json.loads(self._stream.read(int(length)))

    def _call(self, command: str, **parameters):
        message = json.dumps([0, 1, f"WebDriver:{command}", parameters]).encode()
        self._stream.write(b"%d:%s" % (len(message), message))
        self._stream.flush()
        _, _, error, result = self._receive()
        if error is not None:
            raise RuntimeError(error["message"])
        return result

    def open(self) -> str:
        return self._call("NewWindow", type="tab")["handle"]

    def navigate(self, tab: str, url: str) -> str | None:
        self._call("SwitchToWindow", handle=tab)
        error = self._open(url)
        # On a busy machine, Firefox rarely fails to look up a name that it had looked up before, and then remembers the
        # failure for some time. The filter lets all lookups pass, so such an error says nothing about the filter.
        for _ in range(20):
            if error != "dnsNotFound":
                break
            time.sleep(0.5)
            error = self._open(url)
        return error

    def _open(self, url: str) -> str | None:
        try:
            self._call("Navigate", url=url)
        except RuntimeError as error:
            name = re.search(r"about:neterror\?e=(\w+)", str(error))
            is_reset = "connection%20to%20the%20server%20was%20reset" in str(error)
            return str(error) if name is None else name[1] + (_RESET if is_reset else "")
        return None

    def evaluate(self, tab: str, expression: str):
        self._call("SwitchToWindow", handle=tab)
        return self._call("ExecuteScript", script=f"return {expression}", args=[], newSandbox=False)["value"]


_RESET = ": connection reset"


class Firefox(Browser):
    PROGRAM = "firefox-esr"
    _PORT = 2828
    # Otherwise Firefox opens http URLs with https first.
    _SETTINGS = 'user_pref("dom.security.https_first", false);\n'

    @contextlib.contextmanager
    def _start(self, profile: pathlib.Path, proxy: str | None):
        shutil.copytree(self._trusted, profile, dirs_exist_ok=True)
        (profile / "user.js").write_text(self._SETTINGS)
        capabilities = {}
        if proxy is not None:
            address = proxy.partition("//")[2]
            capabilities["proxy"] = {"proxyType": "manual", "httpProxy": address, "sslProxy": address}
        with self._process([self._path, "--headless", "--no-remote", "--marionette", "--profile", profile]) as firefox:
            with self._connect(firefox) as connection, connection.makefile("rwb") as stream:
                yield _FirefoxTabs(stream, capabilities)

    def _connect(self, firefox: subprocess.Popen) -> socket.socket:
        end = time.monotonic() + TIMEOUT
        while firefox.poll() is None and time.monotonic() < end:
            try:
                return socket.create_connection(("127.0.0.1", self._PORT), TIMEOUT)
            except ConnectionRefusedError:
                time.sleep(0.05)
        raise subprocess.TimeoutExpired(firefox.args, TIMEOUT)

    @staticmethod
    def _verdicts(error: str, proxy: str | None) -> list[str]:
        if error.endswith(_RESET):
            return after_reset(proxy)
        return [DROP] if error == "proxyConnectFailure" else []


class FirefoxWithHTTP3(Firefox):
    """Uses HTTP/3 for sites that have offered it over TCP. Treats `hosts` as if they had offered it already."""

    def __init__(self, name, path, identifier, directory, authority: pathlib.Path, hosts: list[str]):
        super().__init__(name, path, identifier, directory, authority)
        mapping = ",".join(f"{host};h3=:443" for host in hosts)
        self._SETTINGS += f'user_pref("network.http.http3.alt-svc-mapping-for-testing", "{mapping}");\n'
        # By default, Firefox uses no HTTP/3 for a site whose certificate authority was added to the built-in ones.
        self._SETTINGS += 'user_pref("network.http.http3.disable_when_third_party_roots_found", false);\n'
