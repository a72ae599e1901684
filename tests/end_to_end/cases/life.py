"""How the extension starts and ends, and how it copes with kills, hangs and programs that change the firewall."""

import contextlib
import ctypes
import multiprocessing
import os
import shutil
import signal
import subprocess
import threading
import time

import isolation
from attackers import flood
from harness import ALLOW, DROP, FAMILIES, HELD, NEWS, PYTHON, Failure, World
from harness import becomes, check, connect, iptables, wait_until


class _Load:
    """Connects to HELD and NEWS again and again, from six threads, during a with block.

    Each thread waits a little before a connection. Otherwise, while nothing filters, connections would begin faster
    than the server's thread closes them, and this process would have too many open files.
    """

    def __init__(self):
        self._ended = threading.Event()
        self.results: list[tuple[float, float, str, str]] = []  # begin, end, name, verdict
        self._threads = [threading.Thread(target=self._run, args=(name,)) for name in (HELD, NEWS) * 3]

    def _run(self, name: str) -> None:
        while not self._ended.wait(0.005):
            begin = time.monotonic()
            verdict = connect(name)
            self.results.append((begin, time.monotonic(), name, verdict))

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        for thread in self._threads:
            thread.join()

    def wait_for_both(self, begin: float, what: str) -> None:
        """Waits until a connection to HELD and a connection to NEWS have begun after `begin`, and have ended."""
        wait_until(lambda: {name for b, _, name, _ in self.results if b >= begin} == {HELD, NEWS}, what)

    def check(self, held_verdicts: set[str], begin: float, end: float, what: str) -> None:
        """Checks the connections that began and ended between the two times."""
        some = [result for result in self.results if begin <= result[0] and result[1] < end]
        print(f"{what}: {len(some)} connections, the longest took {max((e - b for b, e, *_ in some), default=0):.2f} s")
        check({verdict for *_, name, verdict in some if name == NEWS}, {ALLOW}, f"{what}, the other host")
        check({verdict for *_, name, verdict in some if name == HELD}, held_verdicts, f"{what}, the held host")


def AllowsTrafficBetweenAKillAndTheRestart(world: World):
    with world.filtering(PYTHON) as extension, _Load() as load:
        filtered = time.monotonic()
        load.wait_for_both(filtered, "connections before the kill")
        before_kill = time.monotonic()
        extension.process.kill()
        extension.process.wait()
        killed = time.monotonic()
        load.wait_for_both(killed, "traffic passes after the kill")
        time.sleep(2)
        restarted = time.monotonic()
        extension.start()
        extension.hold(HELD)
        again = time.monotonic()
        load.wait_for_both(again, "traffic passes after the restart")
        load.__exit__()
        load.check({DROP}, filtered, before_kill, "before the kill")
        load.check({ALLOW}, killed, restarted, "without the filter")
        load.check({DROP}, again, again + 60, "after the restart")


def AllowsTrafficWhileItHangs(world: World):
    with world.filtering(PYTHON) as extension:
        # Without connections the watchdog sleeps. The first packet must wake it.
        for load, seconds, when in ((_Load(), 0.5, "under load"), (contextlib.nullcontext(), 3, "while it was idle")):
            releases = extension.counters()["releases"]
            with load:
                time.sleep(seconds)
                extension.process.send_signal(signal.SIGSTOP)
                becomes(ALLOW, f"traffic passes an extension that hung {when}")
                extension.process.send_signal(signal.SIGCONT)
                becomes(DROP, "the extension filters again")
            check(extension.counters()["releases"] > releases, True, f"it has counted the release {when}")


def RestoresRulesThatOthersFlush(world: World):
    with world.filtering(PYTHON):
        for family, address in zip(FAMILIES, ("127.0.0.1", "::1")):
            iptables("iptables -t mangle -F", family)
            becomes(DROP, f"filters again after a flush {family}", HELD, address)
            # Overwrites the mark, which has a packet's verdict, until the extension moves its own rule to the front.
            iptables("iptables -t mangle -I OUTPUT 1 -p tcp -j MARK --set-mark 1", family)
            check(connect(HELD, address), DROP, f"the verdict despite another program's mark {family}")


def _rules(family: str) -> str:
    """All rules, and all other lines that contain the name of one of OrvaneSE's chains."""
    lines = iptables("iptables-save", family).splitlines()
    return "\n".join(line for line in lines if line.startswith("-A") or "ORVANE" in line)


def KeepsFilteringInAFlood(world: World):
    """Another user floods the queue. If a full queue let packets pass, browsers would reach held hosts."""
    with world.filtering(PYTHON) as extension, flood():
        with _Load() as load:
            time.sleep(5)
        longest = max(end - begin for begin, end, *_ in load.results)
        print(f"the longest of {len(load.results)} connections took {longest:.2f} s; {extension.counters()}")
        check({result[2:] for result in load.results}, {(HELD, DROP), (NEWS, ALLOW)}, "the verdicts")


@contextlib.contextmanager
def _hanging_iptables(world: World):
    """Flushes rules, and replaces the iptables programs, which the extension runs to repair them, by one that hangs."""
    hanging = world.directory / "hanging"
    hanging.write_text("#!/bin/sh\nexec sleep 1000\n")
    hanging.chmod(0o755)
    programs = {os.path.realpath(shutil.which(name)) for name in ("iptables-save", "iptables-restore")}
    iptables("iptables -t mangle -F")
    for program in programs:
        subprocess.run(["mount", "--bind", hanging, program], check=True)
    time.sleep(1)
    yield
    for program in programs:
        subprocess.run(["umount", program], check=True)


def EndsUnderLoad(world: World):
    loads = {"a flood of packets": flood, "firewall programs that hang": lambda: _hanging_iptables(world)}
    for what, load in loads.items():
        extension = world.extension(PYTHON)
        extension.start()
        with load():
            extension.process.terminate()
            # The end takes less than 2 s on an idle machine. The program that hangs would take 1000 s.
            check(extension.process.wait(100), 0, f"the exit code, with {what}")


def RemovesItsRulesAtTheEnd(world: World):
    users = {}
    for family, address in zip(FAMILIES, ("127.0.0.7", "fd00::7")):
        iptables(f"iptables -A OUTPUT -d {address} -j REJECT", family)
        users[family] = _rules(family)
    for end in (signal.SIGTERM, signal.SIGINT):
        extension = world.extension(PYTHON)
        extension.start()
        for family in FAMILIES:
            check("ORVANE" in _rules(family), True, "OrvaneSE's rules exist while it runs")
        extension.process.send_signal(end)
        check(extension.process.wait(20), 0, "the exit code")
        for family in FAMILIES:
            check(_rules(family), users[family], "the rules after the end")
    check(connect(HELD), ALLOW, "the held host after the end")


def KeepsTheUsersOwnRulesInForce(world: World):
    for address, more in (("127.0.0.6", ""), ("127.0.0.7", "--tcp-flags PSH PSH")):
        iptables(f"iptables -A OUTPUT -p tcp -d {address} {more} -j REJECT --reject-with tcp-reset")
    with world.filtering(PYTHON):
        check(connect(NEWS, "127.0.0.6"), "refused", "an address that the user rejects")
        check(connect(NEWS, "127.0.0.7"), DROP, "an allowed connection whose data the user rejects")
        check(connect(NEWS, "127.0.0.8"), ALLOW, "another address")


def _filter_one_of_two(world: World, held: str, barrier, verdicts) -> None:
    with world.extension(PYTHON) as extension:
        extension.hold(held)
        barrier.wait(100)  # until both extensions filter
        verdicts.put((held, connect(HELD), connect(NEWS)))
        barrier.wait(100)  # until both have connected


def _in_another_network(world: World, *arguments) -> None:
    CLONE_NEWNET = 0x40000000
    check(ctypes.CDLL(None).unshare(CLONE_NEWNET), 0, "unshare")
    isolation.bring_loopback_up()
    world.serve()
    _filter_one_of_two(world, NEWS, *arguments)


def FiltersNetworkNamespacesIndependently(world: World):
    forking = multiprocessing.get_context("fork")
    barrier, verdicts = forking.Barrier(2), forking.SimpleQueue()
    other = forking.Process(target=_in_another_network, args=(world, barrier, verdicts))
    other.start()
    _filter_one_of_two(world, HELD, barrier, verdicts)
    other.join(100)
    check(other.exitcode, 0, "the other network's exit code")
    check({verdicts.get(), verdicts.get()}, {(HELD, DROP, ALLOW), (NEWS, ALLOW, DROP)}, "verdicts")


def ReportsWhyItCannotFilter(world: World):
    """Without CAP_NET_ADMIN, an extension must exit if its bundle demands netfilter, and must run the proxy if not."""
    without = ["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin"]
    fixed, free = world.extension(PYTHON), world.extension(PYTHON, source=None)
    for extension in (fixed, free):
        extension.command = [*without, *extension.command]
    with contextlib.suppress(Failure):
        fixed.start()
    check(fixed.process.wait(20), 1, "the exit code")
    fixed.wait_for("error .*filter not started: ", 0)
    with free:
        check((free.flow_source, free.netfilter_error is not None), ("proxy", True), "the flow source, and a reason")
