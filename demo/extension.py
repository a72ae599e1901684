"""The extension in a bundle with settings of the demo's own, and orvanectl to drive it."""

import os
import pathlib
import plistlib
import re
import shutil
import socket
import subprocess
import time

PROXY_PORT = 8118
_PATIENCE = 15  # seconds, for what takes milliseconds on an idle machine


class Failure(Exception):
    """The show cannot go on."""


def _make_bundle(built: pathlib.Path, bundle: pathlib.Path, provider: str, browsers: list[str]) -> None:
    shutil.copytree(built, bundle)
    description = bundle / "Contents/Info.plist"
    information = plistlib.loads(description.read_bytes())
    information["NetworkExtension"] = {
        "NEProviderClasses": {"com.apple.networkextension.filter-data": provider},
        "OrvaneFlowSource": "proxy",
        "OrvaneProxyPort": PROXY_PORT,
    }
    everything = {"DEFAULT-OPTIONS": {"Level": {"Enable": "Debug"}}}
    information["OSLogPreferences"] = {information["CFBundleIdentifier"]: everything}
    description.write_bytes(plistlib.dumps(information))
    (bundle / "Contents/Resources/Browsers.plist").write_bytes(plistlib.dumps(browsers))


class Extension:
    """A running extension; use it in a with statement. It ends at the end of the block, with 0 or a Failure."""

    def __init__(self, build: pathlib.Path, directory: pathlib.Path, provider: str, browsers: list[str]):
        directory.mkdir()
        bundle = directory / "OrvaneSE.systemextension"
        _make_bundle(build / bundle.name, bundle, provider, browsers)
        information = plistlib.loads((bundle / "Contents/Info.plist").read_bytes())
        self._program = bundle / "Contents/Linux/OrvaneSE"
        self._orvanectl = build / "orvanectl"
        self._socket = directory / information["NSEndpointSecurityMachServiceName"]
        self._log = directory / "log"
        self._notifications = directory / "notify"

    def __enter__(self):
        environment = {"RUNTIME_DIRECTORY": str(self._socket.parent), "NOTIFY_SOCKET": str(self._notifications)}
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notifications, open(self._log, "wb") as log:
            notifications.bind(str(self._notifications))
            notifications.settimeout(_PATIENCE)
            self._process = subprocess.Popen([self._program], env=environment, stdout=log, stderr=log)
            self._wait_until_ready(notifications)
        # The filter and the control channel start side by side.
        end = time.monotonic() + _PATIENCE
        while "OrvaneSE started..." not in self._log.read_text(errors="replace"):
            if time.monotonic() > end:
                raise Failure(f"the extension does not say that it has started\n{self.log_end()}")
            time.sleep(0.01)
        return self

    def _wait_until_ready(self, notifications: socket.socket) -> None:
        try:
            fields = dict(line.split("=", 1) for line in notifications.recv(4096).decode().splitlines())
        except TimeoutError:
            raise Failure(f"the extension did not report its start\n{self.log_end()}") from None
        if fields.get("STATUS") != "Filtering":
            raise Failure(f"the extension reports: {fields.get('STATUS')}\n{self.log_end()}")

    def __exit__(self, kind, *_):
        self._process.terminate()
        code = self._process.wait(_PATIENCE)
        if code != 0 and kind is None:
            raise Failure(f"the extension ended with {code}\n{self.log_end()}")

    def control(self, *arguments: str, text: str | None = None) -> subprocess.CompletedProcess:
        """Runs orvanectl."""
        command = [self._orvanectl, "--socket", self._socket, *arguments]
        return subprocess.run(command, input=text, capture_output=True, text=True, timeout=_PATIENCE)

    def log_size(self) -> int:
        return self._log.stat().st_size

    def identifiers_judged(self, since: int) -> set[str]:
        """The bundle identifiers that have been looked up in the list of browsers since the log had that size."""
        lines = self._log.read_bytes()[since:].decode(errors="replace")
        return set(re.findall(r"\[Database\] db_is_browser (.*) : [01]\n", lines))

    def log_end(self) -> str:
        lines = self._log.read_text(errors="replace").splitlines()[-20:]
        return "\n".join(["The end of its log:", *(f"  {line}" for line in lines)])
