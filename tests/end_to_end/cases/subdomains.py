"""Which hosts `orvanectl block` and `orvanectl allow` cover, from the list on disk to the program."""

import contextlib
import itertools

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


def BlocksSubdomainsFromBothSources(world: World):
    curl = world.curl()
    for source in ("netfilter", "proxy"):
        with contextlib.ExitStack() as stack:
            extension = stack.enter_context(world.extension("curl", source=source))
            keeper = stack.enter_context(Keeper(extension, extension.directory / "keeper"))
            for command, expected in STEPS:
                keeper.control(*command).check_returncode()
                for scheme, (host, verdict) in itertools.product(("http", "https"), expected.items()):
                    seen = world.fetch(curl, scheme, host, proxy=extension.proxy)
                    check(seen, verdict, f"with {source}, after {command}: {scheme}://{host}")
