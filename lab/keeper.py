"""Runs `orvanectl keep`, the program that sends the list to the extension."""

import json
import os
import pathlib
import signal
import subprocess
import time

from extension import Extension, Failure


class Keeper:
    """A keeper that runs for a with block and sends the file `list` to one extension."""

    def __init__(self, extension: Extension, directory: pathlib.Path, environment: dict[str, str] | None = None):
        """`environment`: variables of the keeper's process, in addition to those of this process."""
        self._extension, self.environment = extension, {**os.environ, **(environment or {})}
        self.list = directory / "lists" / "list"
        self.list.parent.mkdir(parents=True)
        self.drop_ins, self.fetched = directory / "drop-ins", directory / "fetched"
        self._state, self.log = directory / "state", directory / "keeper-log"
        self.prefix: list[str] = []  # runs the keeper's command

    def _arguments(self, *arguments: str) -> list[str]:
        folders = ["--drop-ins", str(self.drop_ins), "--fetched", str(self.fetched)]
        return ["--list", str(self.list), "--state", str(self._state), *folders, *arguments]

    def control(self, *arguments: str, text: str | None = None) -> subprocess.CompletedProcess:
        """Runs orvanectl with the extension's socket, this keeper's files, and `text` as its standard input."""
        return self._extension.control(*self._arguments(*arguments), text=text)

    def __enter__(self):
        self._state.unlink(missing_ok=True)  # a keeper that was killed leaves it
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                [*self.prefix, *self._extension.control_command(*self._arguments("keep"))],
                env=self.environment,
                stdout=log,
                stderr=log,
            )
        # `orvanectl block` waits for the keeper only if the keeper's state file exists. So wait for this file.
        end = time.monotonic() + 20
        while not self._state.exists():
            if self.process.poll() is not None or time.monotonic() > end:
                raise Failure(f"the keeper did not start\n{self.log.read_text()}")
            time.sleep(0.01)
        return self

    def __exit__(self, *_):
        self.end(signal.SIGTERM)

    def end(self, number: signal.Signals) -> None:
        if self.process.poll() is not None:
            return
        self.process.send_signal(number)
        code = self.process.wait(15)
        if code != (-number if number == signal.SIGKILL else 0):
            raise Failure(f"the keeper ended with {code}\n{self.log.read_text()}")

    def status(self) -> tuple[dict, int]:
        """The answer of `orvanectl status`, and its exit code."""
        result = self.control("--json", "status")
        return json.loads(result.stdout), result.returncode
