"""Browsers that reach their sites over HTTP/3, and the time until they show a page or an error."""

import contextlib
import dataclasses
import json
import os
import subprocess
import tempfile
import time

from programs import ALLOW, DROP, Chromium, Destination, Firefox, Seen
from web_servers import page_of

_REFUSALS = ("net::ERR_QUIC_PROTOCOL_ERROR", "net::ERR_CONNECTION_RESET", "net::ERR_CONNECTION_REFUSED")


@dataclasses.dataclass(frozen=True)
class OverHTTP3(Destination):
    """A page that only the HTTP/3 server has: the page's text names the scheme h3."""

    def url(self, path: str = "/") -> str:
        return f"https://{self.host}{path}"


def over_http3(host: str) -> OverHTTP3:
    return OverHTTP3("h3", host)


class FirefoxOverHTTP3(Firefox):
    """Knows that the sites offer HTTP/3, as if it had visited them before."""

    def __init__(self, name, path, identifier, directory, hosts: list[str]):
        super().__init__(name, path, identifier, directory)
        mapping = ",".join(f"{host};h3=:443" for host in hosts)
        self._SETTINGS += f'user_pref("network.http.http3.alt-svc-mapping-for-testing", "{mapping}");\n'
        # By default, Firefox uses no HTTP/3 here: the server is on the loopback device, and the test's authority was
        # added to the built-in ones.
        self._SETTINGS += 'user_pref("network.http.http3.force-quic-on-loopback", true);\n'
        self._SETTINGS += 'user_pref("network.http.http3.disable_when_third_party_roots_found", false);\n'


class ChromiumOverHTTP3(Chromium):
    """Uses HTTP/3 without trying TCP. Controlled over the DevTools protocol: JSON texts that end with a NUL."""

    def __init__(self, name, path, identifier, directory, hosts: list[str], key_hash: str):
        super().__init__(name, path, identifier, directory)
        self._OPTIONS = [option for option in self._OPTIONS if option != "--disable-quic"]
        self._OPTIONS += [f"--origin-to-force-quic-on={','.join(f'{host}:443' for host in hosts)}"]
        # QUIC ignores --ignore-certificate-errors, but not this option.
        self._OPTIONS += [f"--ignore-certificate-errors-spki-list={key_hash}", "--remote-debugging-pipe"]

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        with tempfile.TemporaryDirectory(dir=self._directory, ignore_cleanup_errors=True) as profile:
            commands, answers = os.pipe(), os.pipe()
            # Chromium reads commands from descriptor 3 and writes answers to descriptor 4.
            shell = f'exec "$0" "$@" 3<&{commands[0]} 4>&{answers[1]}'
            chromium = subprocess.Popen(
                ["/bin/bash", "-c", shell, self._path, *self._OPTIONS, f"--user-data-dir={profile}"],
                env=self._environment(),
                cwd=self._directory,
                pass_fds=(commands[0], answers[1]),
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
            os.close(commands[0])
            os.close(answers[1])
            with open(commands[1], "wb") as output, open(answers[0], "rb") as answers_file:
                try:
                    return self._drive(output, answers_file, destination, path)
                finally:
                    chromium.kill()
                    chromium.wait()

    def _drive(self, output, answers, destination: Destination, path: str) -> Seen:
        def send(method: str, session: str | None = None, **parameters) -> dict:
            message = {"id": 1, "method": method, "params": parameters}
            if session is not None:
                message["sessionId"] = session
            output.write(json.dumps(message).encode() + b"\0")
            output.flush()
            while True:
                text = b""
                while (character := answers.read(1)) != b"\0":
                    if not character:
                        raise EOFError("Chromium ended")
                    text += character
                if (answer := json.loads(text)).get("id") == 1:
                    return answer.get("result", {})

        target = send("Target.createTarget", url="about:blank")["targetId"]
        session = send("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        start = time.monotonic()
        error = send("Page.navigate", session, url=destination.url(path)).get("errorText")
        self.seconds = time.monotonic() - start
        if error is not None:
            return Seen([DROP] if error in _REFUSALS else [], f"error page, {error}")
        text = ""
        with contextlib.suppress(KeyError):
            for _ in range(100):
                text = send("Runtime.evaluate", session, expression="document.body.innerText")["result"]["value"]
                if text:
                    break
                time.sleep(0.05)
        return Seen([ALLOW], "the page") if page_of("h3", destination.host) in text else Seen([], text)
