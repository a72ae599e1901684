"""Which hosts `orvanectl block` and `orvanectl allow` cover, from the list on disk to the browser."""

import itertools
import shutil

import programs
from browsers import Chromium, Firefox
from extension import Extension
from harness import ALLOW, BELOW, BESIDE, DROP, HELD, World, check
from keeper import Keeper

WWW, DEEP = BELOW
# Commands, one after the other, and the verdicts on hosts after each command.
STEPS = [
    (("block", HELD), {HELD: DROP, WWW: DROP, DEEP: DROP} | dict.fromkeys(BESIDE, ALLOW)),
    (("allow", WWW), {HELD: DROP, WWW: ALLOW, DEEP: DROP}),
    (("disallow", WWW), {WWW: DROP}),
    (("block", "--exact", HELD), {HELD: DROP, WWW: ALLOW, DEEP: ALLOW}),
]


def _follow_steps(world: World, program: programs.Program, extension: Extension) -> int:
    """Runs each command, and checks the verdicts after it. Returns how many of these verdicts are DROP."""
    pages = 0
    with Keeper(extension, extension.directory / "keeper") as keeper:
        for command, expected in STEPS:
            keeper.control(*command).check_returncode()
            for scheme, (host, verdict) in itertools.product(("http", "https"), expected.items()):
                seen = world.fetch(program, scheme, host, proxy=extension.proxy)
                # The proxy resets a tunnel if the provider drops the flow because of its data.
                seen = DROP if seen == programs.DROP_AT_DATA else seen
                check(seen, verdict, f"after {command}: {scheme}://{host}")
                pages += verdict == DROP
    return pages


def _safari(world: World) -> programs.Program:
    folder = world.directory / "safari"
    folder.mkdir()
    path = shutil.copy(shutil.which("curl"), folder / "com.apple.Safari")
    return programs.Curl("a copy of curl", path, "com.apple.Safari", world.directory, world.servers.authority)


def BlocksSubdomainsWithBothProvidersFromBothSources(world: World):
    kinds = ((world.curl(), "FilterDataProvider"), (_safari(world), "PLSafariFilterDataProvider"))
    for (program, provider), source in itertools.product(kinds, ("netfilter", "proxy")):
        print(provider, source)
        with world.extension(program.identifier, provider=provider, source=source) as extension:
            pages = _follow_steps(world, program, extension)
            expected = pages if provider == "FilterDataProvider" else 0
            check(extension.counters()["dropped"], expected, "flows dropped before their data")


def _block_in(browser, world: World) -> None:
    with world.extension(browser.identifier) as extension, browser.tabs():
        _follow_steps(world, browser, extension)


def BlocksSubdomainsInChromium(world: World):
    _block_in(world.browser(Chromium), world)


def BlocksSubdomainsInFirefox(world: World):
    _block_in(world.browser(Firefox), world)
