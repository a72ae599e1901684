"""Runs the extension from a copy of its bundle with the caller's settings, and controls it with orvanectl."""

import pathlib
import plistlib
import re
import shutil
import signal
import socket
import subprocess
import time

_PROXY_PORT = 8118
_TIMEOUT = 30  # seconds, for steps that take milliseconds on an idle machine


class Failure(Exception):
    """The system does not behave as expected."""


def _make_bundle(
    built: pathlib.Path,
    bundle: pathlib.Path,
    provider: str,
    browsers: list[str],
    flow_source: str | None,
    level: str,
    settings: dict[str, str],
) -> None:
    shutil.copytree(built, bundle)
    description = bundle / "Contents/Info.plist"
    information = plistlib.loads(description.read_bytes())
    information["NetworkExtension"] = {
        "NEProviderClasses": {"com.apple.networkextension.filter-data": provider},
        "OrvaneProxyPort": _PROXY_PORT,
        **settings,
    }
    if flow_source is not None:
        information["NetworkExtension"]["OrvaneFlowSource"] = flow_source
    all_categories = {"DEFAULT-OPTIONS": {"Level": {"Enable": level}}}
    information["OSLogPreferences"] = {information["CFBundleIdentifier"]: all_categories}
    description.write_bytes(plistlib.dumps(information))
    (bundle / "Contents/Resources/Browsers.plist").write_bytes(plistlib.dumps(browsers))


class Extension:
    """An extension that runs for a with block. At the end of the block, an exit code other than 0 raises Failure.

    `directory` must not exist yet. `settings` are more keys of the bundle's NetworkExtension dictionary. Without a
    `flow_source`, the extension chooses: netfilter if possible, else the proxy. After the start, the member
    `flow_source` names the chosen source. If this is the proxy, the member `netfilter_error` says why netfilter is
    unavailable.
    """

    def __init__(
        self,
        build: pathlib.Path,
        directory: pathlib.Path,
        provider: str,
        browsers: list[str],
        flow_source: str | None = None,
        log_level: str = "Debug",
        settings: dict[str, str] | None = None,
    ):
        directory.mkdir()
        self.directory = directory
        bundle = directory / "OrvaneSE.systemextension"
        _make_bundle(build / bundle.name, bundle, provider, browsers, flow_source, log_level, settings or {})
        information = plistlib.loads((bundle / "Contents/Info.plist").read_bytes())
        self.command = [bundle / "Contents/Linux/OrvaneSE"]
        self._orvanectl = build / "orvanectl"
        self._socket = directory / information["NSEndpointSecurityMachServiceName"]
        self._log = directory / "log"
        self._log.touch()
        self._notifications = directory / "notify"
        self._fixed_source = flow_source
        self.flow_source, self.netfilter_error = flow_source, None

    def __enter__(self):
        self.start()
        return self

    def start(self) -> None:
        """Starts the extension, and returns when the extension filters. Also restarts an extension that was killed."""
        environment = {"RUNTIME_DIRECTORY": str(self._socket.parent), "NOTIFY_SOCKET": str(self._notifications)}
        self._notifications.unlink(missing_ok=True)
        self._manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._manager.bind(str(self._notifications))
        with open(self._log, "ab") as log:
            start = self.log_size()
            self.process = subprocess.Popen(self.command, env=environment, stdout=log, stderr=log)
        status = self.next_status()
        if status != "Filtering":
            raise Failure(f"the extension reports: {status}\n{self.log_end()}")
        # The notification says that the filter has started. The control channel starts later, so wait for it, too.
        self.wait_for(r"OrvaneSE started\.\.\.", start)
        if self._fixed_source is None:
            found = self.wait_for(r"flow source: (\w+)(?:, because netfilter is unavailable: (.*))?", start)
            self.flow_source, self.netfilter_error = found[1], found[2]

    def next_status(self) -> str | None:
        """Waits for the extension's next message to the service manager. Returns the status line in this message."""
        self._manager.settimeout(_TIMEOUT)
        try:
            fields = dict(line.split("=", 1) for line in self._manager.recv(4096).decode().splitlines())
        except TimeoutError:
            raise Failure(f"the extension did not report to the service manager\n{self.log_end()}") from None
        return fields.get("STATUS")

    def __exit__(self, kind, *_):
        self.process.terminate()
        code = self.process.wait(_TIMEOUT)
        if code != 0 and kind is None:
            raise Failure(f"the extension ended with {code}\n{self.log_end()}")

    @property
    def proxy(self) -> str | None:
        """The URL of the proxy that clients must use; None if the flows come from the kernel."""
        return f"http://127.0.0.1:{_PROXY_PORT}" if self.flow_source == "proxy" else None

    def wait_for(self, pattern: str, since: int) -> re.Match:
        """Waits until the pattern occurs in the log after its first `since` bytes. Returns the match."""
        end = time.monotonic() + _TIMEOUT
        while not (found := re.search(pattern, self.log_text(since))):
            if time.monotonic() > end:
                raise Failure(f"the extension's log does not say: {pattern}\n{self.log_end()}")
            time.sleep(0.01)
        return found

    def control(self, *arguments: str, text: str | None = None) -> subprocess.CompletedProcess:
        """Runs orvanectl with the socket of this extension, and with `text` as its standard input."""
        command = self.control_command(*arguments)
        return subprocess.run(command, input=text, check=False, capture_output=True, text=True, timeout=_TIMEOUT)

    def control_command(self, *arguments: str) -> list:
        return [self._orvanectl, "--socket", self._socket, *arguments]

    def hold(self, *names: str) -> None:
        """Replaces the list with these names."""
        self.control("set", "-", text="\n".join(names) + "\n").check_returncode()

    def counters(self) -> dict[str, int]:
        """Makes the extension log its counters, and returns them. A counter's key is the words after its number.

        If the same words follow two numbers, returns the first number.
        """
        since = self.log_size()
        self.process.send_signal(signal.SIGUSR1)
        self.wait_for(r"longest hold \d+ microseconds\n", since)
        found = re.findall(r"(\d+) ([a-z][a-z ]*[a-z])", self.log_text(since).partition("flows:")[2])
        return {words: int(number) for number, words in reversed(found)}

    def resident_bytes(self) -> int:
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return 1024 * int(re.search(r"VmRSS:\s+(\d+) kB", status)[1])

    def log_size(self) -> int:
        return self._log.stat().st_size

    def log_text(self, since: int = 0) -> str:
        return self._log.read_bytes()[since:].decode(errors="replace")

    def identifiers_judged(self, since: int) -> set[str]:
        """The bundle identifiers that the extension looked up in the browser list.

        Reads them from the log after its first `since` bytes.
        """
        return set(re.findall(r"\[Database\] db_is_browser (.*) : [01]\n", self.log_text(since)))

    def log_end(self) -> str:
        lines = self.log_text().splitlines()[-20:]
        return "\n".join(["The end of the extension's log:", *(f"  {line}" for line in lines)])
