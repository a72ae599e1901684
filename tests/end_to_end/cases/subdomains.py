"""Which hosts `orvanectl block` and `orvanectl allow` cover, from the list on disk to the browser."""

import itertools
import shutil

import programs
from harness import ALLOW, BELOW, BESIDE, DROP, HELD, World, check
from isolation import Unavailable
from keeper import Keeper

WWW, DEEP = BELOW
# Commands, one after the other, and the verdicts on hosts after each command.
STEPS = [
    (("block", HELD), {HELD: DROP, WWW: DROP, DEEP: DROP} | dict.fromkeys(BESIDE, ALLOW)),
    (("allow", WWW), {HELD: DROP, WWW: ALLOW, DEEP: DROP}),
    (("disallow", WWW), {WWW: DROP}),
    (("block", "--exact", HELD), {HELD: DROP, WWW: ALLOW, DEEP: ALLOW}),
]


def _follow(world: World, program: programs.Program, provider: str, source: str, schemes: list[str]) -> int:
    """Carries out the steps. Returns how many flows the extension dropped before their data."""
    with world.extension(program.identifier, provider=provider, source=source) as extension:
        with Keeper(extension, world.directory / f"keeper-{provider}-{source}") as keeper:
            for command, expected in STEPS:
                done = keeper.control(*command)
                check((done.returncode, done.stderr), (0, ""), f"orvanectl {' '.join(command)}")
                for scheme, (host, verdict) in itertools.product(schemes, expected.items()):
                    seen = world.fetch(program, scheme, host, proxy=extension.proxy)
                    # The proxy resets a tunnel if the provider drops the flow because of its data.
                    seen = DROP if seen == programs.DROP_AT_DATA else seen
                    check(seen, verdict, f"{provider}, {source}, after {command}: {scheme}://{host}")
            return extension.counters()["dropped"]


def _safari(world: World) -> programs.Program:
    folder = world.directory / "safari"
    folder.mkdir()
    path = shutil.copy(shutil.which("curl"), folder / "com.apple.Safari")
    return programs.Curl("a copy of curl", path, "com.apple.Safari", world.directory, world.servers.authority)


def BlocksSubdomainsWithBothProvidersFromBothSources(world: World):
    for program, provider in ((world.curl(), "FilterDataProvider"), (_safari(world), "PLSafariFilterDataProvider")):
        for source in ("netfilter", "proxy"):
            dropped = _follow(world, program, provider, source, ["http", "https"])
            pages = 2 * sum(list(expected.values()).count(DROP) for _, expected in STEPS)
            check(dropped, pages if provider == "FilterDataProvider" else 0, "flows dropped before their data")


def BlocksSubdomainsInChromium(world: World):
    browser = world.program(programs.Chromium, "chromium")
    if not browser.runs():
        raise Unavailable("chromium does not run here")
    _follow(world, browser, "FilterDataProvider", "netfilter", ["https"])
