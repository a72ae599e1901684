"""Connections that are open when their name is blocked."""

import contextlib
import itertools
import pathlib
import subprocess
import time

import programs
from browsers import Browser, Chromium, ChromiumWithHTTP3, Firefox, FirefoxWithHTTP3, Tabs
from caddy import OFFER
from harness import DROP, FAMILIES, HELD, NEWS, World, check, wait_until
from programs import Destination
from web_servers import ENDLESS


class _Download:
    """A download that never ends by itself. `command` ends with the option that names the output file."""

    def __init__(self, world: World, scheme: str, host: str, command: list):
        self.name = f"{pathlib.Path(command[0]).name} {command[1]} {scheme}://{host}"
        self._output = world.directory / f"download-{id(self)}"
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.process = subprocess.Popen([*command, self._output, f"{scheme}://{host}{ENDLESS}"], **quiet)

    def __enter__(self):
        wait_until(lambda: self._size() > 0, f"{self.name} has begun")
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def _size(self) -> int:
        return self._output.stat().st_size if self._output.exists() else 0

    def runs(self) -> bool:
        return self.process.poll() is None

    def check_goes_on(self) -> None:
        before = self._size()
        wait_until(lambda: self._size() > before, f"{self.name} goes on")


def _curl(world: World, path: str, family: str) -> list:
    return [path, family, "--disable", "--silent", "--no-buffer", "--cacert", world.servers.authority, "--output"]


def _wget(world: World, family: str) -> list:
    return [programs.find("wget"), family, "--no-config", f"--ca-certificate={world.servers.authority}", "-O"]


def EndsOpenDownloadsOfABlockedName(world: World):
    for source, families in (("netfilter", FAMILIES), ("proxy", ["-4"])):
        with world.extension("curl", source=source) as extension, contextlib.ExitStack() as stack:
            held, others = [], []
            for family, scheme in itertools.product(families, ("http", "https")):
                curl, wget = _curl(world, programs.find("curl"), family), _wget(world, family)
                if source == "proxy":
                    curl[1:1] = ["--proxy", extension.proxy]
                    wget[1:1] = [f"--execute={scheme}_proxy={extension.proxy}"]
                for command, host, downloads in ((curl, HELD, held), (curl, NEWS, others), (wget, HELD, others)):
                    downloads.append(stack.enter_context(_Download(world, scheme, host, command)))
                if (source, scheme) == ("proxy", "https"):  # the proxy knows the name only from the hello in the tunnel
                    by_address = [curl[0], "--connect-to", "::127.0.0.1:443", *curl[1:]]
                    held.append(stack.enter_context(_Download(world, scheme, HELD, by_address)))
            extension.control("add", HELD).check_returncode()
            wait_until(lambda held=held: not any(download.runs() for download in held), "all end after the edit")
            time.sleep(1)
            for download in others:
                download.check_goes_on()
            if source == "netfilter":
                for download in held:
                    check(download.process.poll(), 56, f"{download.name}: curl's exit code for a reset")
                check(extension.counters()["ended"], len(held), "ended flows")


def _open_tab(tabs: Tabs, url: str, protocol: str) -> str:
    """Opens a tab with a stream over this protocol."""
    tab = tabs.open()
    wait_until(lambda: (tabs.navigate(tab, url), tabs.protocol(tab)) == (None, protocol), f"{url} over {protocol}", 60)
    tabs.start_stream(tab)
    wait_until(lambda: tabs.received(tab) > 0, f"the stream of {url} has begun")
    return tab


def _end_streams_in_tabs(world: World, over_http2: Browser, over_http3: Browser) -> None:
    server = world.serve_with_caddy(HELD, NEWS)
    paths = {"h2": "/", "h3": OFFER}
    for protocol, browser in (("h2", over_http2), ("h3", over_http3)):
        with world.extension(browser.identifier) as extension, browser.tabs() as tabs:
            held, other = (_open_tab(tabs, f"https://{host}{paths[protocol]}", protocol) for host in (HELD, NEWS))
            curl = _curl(world, programs.find("curl"), "-4")
            with _Download(world, "https", HELD, curl) as download:
                start = time.monotonic()
                extension.control("add", HELD).check_returncode()
                wait_until(lambda: tabs.error(held) is not None, f"{protocol}: the stream of {HELD} ends")
                print(f"{time.monotonic() - start:.2f} s after orvanectl began")
                check(browser.fetch(Destination(protocol, HELD), "/again", None).verdicts[:1], [DROP], "the next page")
                check(server.has_served(HELD, "/again"), False, "the server has served the next page")
                download.check_goes_on()
                before = tabs.received(other)
                wait_until(lambda: tabs.received(other) > before, "the other tab's stream goes on")


def EndsStreamsInTabsOfChromium(world: World):
    _end_streams_in_tabs(world, world.browser(Chromium), world.browser(ChromiumWithHTTP3, [HELD, NEWS], True))


def EndsStreamsInTabsOfFirefox(world: World):
    _end_streams_in_tabs(world, world.browser(Firefox), world.browser(FirefoxWithHTTP3, []))
