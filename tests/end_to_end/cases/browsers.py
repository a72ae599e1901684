"""The filter's verdicts on real browsers that run with their default settings."""

from harness import ALLOW, DROP, HELD, NEWS, World, check
from isolation import Unavailable
from programs import Browser, Chromium, Firefox


def _browse(world: World, kind: type[Browser], name: str) -> None:
    browser = world.program(kind, name)
    if not browser.runs():
        raise Unavailable(f"{name} does not run here")
    with world.filtering(name):
        for host, expected in ((HELD, DROP), (NEWS, ALLOW)):
            for scheme in ("http", "https"):
                check(world.fetch(browser, scheme, host), expected, f"{name} {scheme}://{host}")


def ResetsConnectionsOfChromium(world: World):
    _browse(world, Chromium, "chromium")


def ResetsConnectionsOfFirefox(world: World):
    _browse(world, Firefox, "firefox-esr")
