"""The browsers that people use, with no setting of theirs touched."""

from harness import ALLOW, DROP, HELD, NEWS, Skip, World, check
from programs import Browser, Chromium, Firefox


def _browse(world: World, kind: type[Browser], name: str) -> None:
    browser = world.program(kind, name)
    if not browser.runs():
        raise Skip(f"{name} does not run here")
    with world.filtering(name):
        for host, expected in ((HELD, DROP), (NEWS, ALLOW)):
            for scheme in ("http", "https"):
                check(world.fetch(browser, scheme, host), expected, name)


def ShowsChromiumAResetForHeldHosts(world: World):
    _browse(world, Chromium, "chromium")


def ShowsFirefoxAResetForHeldHosts(world: World):
    _browse(world, Firefox, "firefox-esr")
