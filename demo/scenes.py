"""The demo's scenes, in the order in which the demo runs them."""

import datetime
import pathlib
import shlex
import shutil
import subprocess
import time

import name_server
import programs
from browsers import Browser, Chromium, Firefox
from extension import Extension, Failure
from keeper import Keeper
from programs import ALLOW, DROP, DROP_AT_DATA, Destination, Program
from table import Table
from web_servers import WebServers

HELD, NEWS = "held.example", "news.example"
NAMES = [HELD, NEWS]

_HTTP_HELD, _HTTPS_HELD = Destination("http", HELD), Destination("https", HELD)
_HTTP_NEWS, _HTTPS_NEWS = Destination("http", NEWS), Destination("https", NEWS)
_WEB = [_HTTP_HELD, _HTTPS_HELD, _HTTP_NEWS, _HTTPS_NEWS]


class _Stage:
    """A running extension, and the table that shows what programs see when the extension filters them.

    looks_up_browsers: whether the provider looks up each program in the browser list. If it does, the log has each
    program's identifier, and fetch() checks it.
    """

    def __init__(
        self,
        extension: Extension,
        servers: WebServers,
        table: Table,
        looks_up_browsers: bool,
        keeper: Keeper | None = None,
    ):
        self.extension, self._servers, self._table = extension, servers, table
        self._controlled = keeper or extension
        self._looks_up_browsers = looks_up_browsers

    def fetch(self, program: Program, destination: Destination, expected: str) -> None:
        path, log_size = f"/{self._table.rows}", self.extension.log_size()  # each row has its own path
        try:
            seen = program.fetch(destination, path, self.extension.proxy)
        except subprocess.TimeoutExpired as expired:
            seen = programs.Seen([], f"no answer within {expired.timeout} s")
        judged = self.extension.identifiers_judged(since=log_size)
        # The URL names a port only if the provider's rules do not cover this port. Then the provider gets no flow from
        # the proxy. From the kernel it still gets one flow: the DNS question for the host.
        has_flow = destination.port is None or self.extension.proxy is None
        expected_judged = program.identifier if self._looks_up_browsers and has_flow else None
        fault = None
        if expected not in seen.verdicts:
            fault = f"the verdict \"{expected}\" does not explain this\n{self.extension.log_end()}"
        elif self._servers.have_served(path) != (expected == ALLOW):
            fault = f"the request {'did not reach' if expected == ALLOW else 'reached'} the web server"
        elif judged != {expected_judged} - {None}:
            fault = f"the extension identified the program as: {', '.join(sorted(judged)) or 'nothing'}"
        self._table.row(program.name, program.identifier, str(destination), expected, seen.text, fault)

    def control(self, *arguments: str, text: str | None = None, prints: str | None = "", code: int = 0) -> None:
        """Runs orvanectl. Checks its exit code and, unless `prints` is None, its output."""
        done = self._controlled.control(*arguments, text=text)
        printed = done.stdout.strip()
        fault = None
        if (printed if prints is not None else None, done.returncode) != (prints, code):
            fault = f"expected the output \"{prints}\" and the exit code {code}, not {done.returncode}\n"
            fault += done.stderr + self.extension.log_end()
        result = printed.replace("\n", ", ") or ("done" if done.returncode == 0 else f"exit code {done.returncode}")
        self._table.command(f"orvanectl {shlex.join(arguments)}", result, fault)


def _general_provider(stage: _Stage, curl: Program, wget: Program, browsers: list[Browser], table: Table) -> None:
    stage.control("ping", prints="pong")
    stage.control("set", "-", text=f"# a comment\n{HELD.capitalize()}.\n")
    stage.control("add", "203.0.113.1", code=2)
    stage.control("changes", prints="1")
    for program in (curl, wget):
        for destination in _WEB:
            held = program is curl and destination.host == HELD
            stage.fetch(program, destination, DROP if held else ALLOW)
    # For a tunnel to an address, the proxy knows the name only when the tunnel's data arrives. A flow from the kernel
    # has the name from the start.
    stage.fetch(curl, Destination("https", HELD, by_address=True), DROP_AT_DATA if stage.extension.proxy else DROP)
    stage.fetch(curl, Destination("https", NEWS, by_address=True), ALLOW)
    # The provider's rules do not cover port 8080.
    stage.fetch(curl, Destination("http", HELD, port=8080), ALLOW)
    for browser in browsers:
        if not browser.runs():
            table.note(f"{browser.name} is not installed or does not run here: its rows are missing")
            continue
        for destination in _WEB:
            stage.fetch(browser, destination, DROP if destination.host == HELD else ALLOW)
    stage.control("remove", HELD, prints=f"{HELD}: removed")
    stage.control("changes", prints="2")
    stage.fetch(curl, _HTTPS_HELD, ALLOW)
    stage.control("add", HELD, "other.example", prints=f"{HELD}: added\nother.example: added")
    stage.control("changes", prints="4")
    stage.fetch(curl, _HTTPS_HELD, DROP)


def _kept_list(stage: _Stage, curl: Program, table: Table) -> None:
    site = f"{HELD} and its subdomains"
    stage.control("block", f"www.{HELD}", prints=f"{site}: blocked")
    stage.fetch(curl, _HTTPS_HELD, DROP)
    stage.fetch(curl, _HTTPS_NEWS, ALLOW)
    stage.extension.process.kill()
    stage.extension.process.wait()
    time.sleep(0.5)  # the packet queue stays in use until the watchdog of the killed extension has ended, too
    stage.extension.start()
    time.sleep(1)
    table.note("the extension was killed, and started again one second ago")
    stage.fetch(curl, _HTTPS_HELD, DROP)
    stage.control("suspend", HELD, "--for", "3s", prints=None)
    stage.fetch(curl, _HTTPS_HELD, ALLOW)
    time.sleep(3.5)
    table.note("the suspension has ended")
    stage.fetch(curl, _HTTPS_HELD, DROP)
    stage.control("unblock", HELD, prints=f"{site}: removed from the list")
    stage.fetch(curl, _HTTPS_HELD, ALLOW)


def _in(seconds: float) -> datetime.datetime:
    return datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=seconds)


def _suspend(stage: _Stage, until: datetime.datetime) -> None:
    properties = '{"DontBlockUntil": "%s"}' % until.isoformat(timespec="milliseconds")
    stage.control("properties", HELD, properties, prints=f"{HELD}: properties set")


def _safari_provider(stage: _Stage, safari: Program, curl: Program, table: Table) -> None:
    stage.control("set", "-", text=HELD + "\n")
    for destination in _WEB:
        stage.fetch(safari, destination, DROP_AT_DATA if destination.host == HELD else ALLOW)
    stage.fetch(curl, _HTTPS_HELD, ALLOW)
    _suspend(stage, _in(3600))
    for destination in (_HTTP_HELD, _HTTPS_HELD):
        stage.fetch(safari, destination, ALLOW)
    soon = _in(2)
    _suspend(stage, soon)
    time.sleep(max(0.0, (soon - _in(0)).total_seconds()) + 0.1)
    table.note("2 seconds later")
    for destination in (_HTTP_HELD, _HTTPS_HELD):
        stage.fetch(safari, destination, DROP_AT_DATA)
    stage.control("changes", prints="3")


def _note_flow_source(extension: Extension, table: Table) -> None:
    if extension.proxy is None:
        table.note("the flows come from the kernel: the programs need no settings")
    else:
        table.note(f"the programs use the extension's proxy; the kernel refuses its flows: {extension.netfilter_error}")


def _play(build: pathlib.Path, directory: pathlib.Path, table: Table) -> None:
    name_server.serve({name: ["127.0.0.1"] for name in NAMES}, {})
    servers = WebServers(directory, NAMES)
    path = pathlib.Path(programs.find("curl"))
    curl = programs.Curl("curl", path, "curl", directory, servers.authority)
    wget = programs.Wget("wget", programs.find("wget"), "wget", directory, servers.authority)
    authority = servers.authority
    chromium, firefox = (
        kind(kind.__name__.lower(), shutil.which(kind.PROGRAM) or kind.PROGRAM, kind.PROGRAM, directory, authority)
        for kind in (Chromium, Firefox)
    )

    table.scene("FilterDataProvider, with the browsers curl, chromium and firefox-esr")
    browsers = ["curl", "chromium", "firefox-esr"]
    with Extension(build, directory / "general", "FilterDataProvider", browsers) as extension:
        _note_flow_source(extension, table)
        _general_provider(_Stage(extension, servers, table, True), curl, wget, [chromium, firefox], table)

    table.scene("The list on disk, and its keeper")
    with Extension(build, directory / "kept", "FilterDataProvider", browsers) as extension:
        with Keeper(extension, directory / "keeper") as keeper:
            _kept_list(_Stage(extension, servers, table, True, keeper), curl, table)

    # A program without a desktop entry is identified by its file name, so a copy of curl can stand in for Safari.
    folder = directory / "safari"
    folder.mkdir()
    copy = shutil.copy(path, folder / "com.apple.Safari")
    safari = programs.Curl("a copy of curl", copy, "com.apple.Safari", directory, servers.authority)
    table.scene("PLSafariFilterDataProvider, with the browser com.apple.Safari: a copy of curl")
    with Extension(build, directory / "one-browser", "PLSafariFilterDataProvider", ["curl"]) as extension:
        _safari_provider(_Stage(extension, servers, table, False), safari, curl, table)


def play(build: pathlib.Path, directory: pathlib.Path, table: Table) -> int:
    """Returns the exit code: 0 if every line is as expected."""
    start = time.monotonic()
    try:
        _play(build, directory, table)
    except (Failure, FileNotFoundError) as failure:
        print(f"\ndemo: {failure}", flush=True)
        return 1
    outcome = "all as expected" if table.unexpected == 0 else f"{table.unexpected} NOT AS EXPECTED"
    print(f"\n{table.rows} lines in {time.monotonic() - start:.1f} s, {outcome}", flush=True)
    return 0 if table.unexpected == 0 else 1
