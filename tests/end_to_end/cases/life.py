"""The filter's own life: its start, its end, and what may befall it in between."""

import contextlib
import ctypes
import multiprocessing
import signal
import threading
import time

import isolation
from harness import ALLOW, DROP, FAMILIES, HELD, NEWS, PYTHON, Failure, World, ask, check, iptables, wait_until

class _Load:
    """Connections to both names, one after the other, from a few threads; use it in a with statement."""

    def __init__(self):
        self._ended = threading.Event()
        self.results: list[tuple[float, float, str, str]] = []  # begin, end, name, verdict
        self._threads = [threading.Thread(target=self._run, args=(name,)) for name in (HELD, NEWS) * 3]

    def _run(self, name: str) -> None:
        while not self._ended.is_set():
            begin = time.monotonic()
            verdict = ask(name)
            self.results.append((begin, time.monotonic(), name, verdict))

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        for thread in self._threads:
            thread.join()

    def await_both(self, begin: float, what: str) -> None:
        """Until both hosts have answered to a connection that was begun since: a busy machine may take its time."""
        wait_until(lambda: {name for b, _, name, _ in self.results if b >= begin} == {HELD, NEWS}, what, 20)

    def check(self, held_verdicts: set[str], begin: float, end: float, what: str) -> None:
        """Of the connections that began and ended between the two times."""
        some = [result for result in self.results if begin <= result[0] and result[1] < end]
        print(f"{what}: {len(some)} connections, the longest of {max((e - b for b, e, *_ in some), default=0):.2f} s")
        check({verdict for *_, name, verdict in some if name == NEWS}, {ALLOW}, f"{what}, the host that is not held")
        check({verdict for *_, name, verdict in some if name == HELD}, held_verdicts, f"{what}, the held host")


def LetsTrafficGoOnOnceKilledAndFiltersAgain(world: World):
    with world.filtering(PYTHON) as extension, _Load() as load:
        filtered = time.monotonic()
        time.sleep(1)
        extension.process.kill()
        killed = time.monotonic()
        extension.process.wait()
        load.await_both(killed, "traffic goes on")
        time.sleep(2)
        restarted = time.monotonic()
        extension.start()
        extension.hold(HELD)
        again = time.monotonic()
        load.await_both(again, "traffic is filtered")
        load.__exit__()
        load.check({DROP}, filtered, killed, "before the kill")
        # A packet in the queue's hands is lost, and sent again by TCP a little later.
        load.check({ALLOW}, killed, restarted, "without the filter")
        load.check({DROP}, again, again + 60, "after the restart")


def LetsTrafficGoOnWhileItHangs(world: World):
    with world.filtering(PYTHON) as extension, _Load() as load:
        time.sleep(0.5)
        extension.process.send_signal(signal.SIGSTOP)
        stopped = time.monotonic()
        time.sleep(5)
        extension.process.send_signal(signal.SIGCONT)
        resumed = time.monotonic()
        wait_until(lambda: ask(HELD) == DROP, "it filters again", 3)
        load.__exit__()
        load.check({ALLOW}, stopped + 2, resumed, "2 s after it hangs")
        slow = [end - begin for begin, end, *_ in load.results if end - begin > 5]
        check(slow, [], "connections that took longer than 5 s")
        check(extension.counters()["releases"], 1, "times that the queue was given up")


def PutsBackRulesThatOthersWipe(world: World):
    reload = "*filter\nCOMMIT\n*mangle\nCOMMIT\n"
    wipes = [("iptables -t mangle -F", None), ("iptables -t filter -F", None), ("iptables-restore", reload)]
    wipes += [(f"iptables -t {table} -D OUTPUT -j ORVANE-OUTPUT", None) for table in ("mangle", "filter")]
    with world.filtering(PYTHON) as extension:
        for family in FAMILIES:
            for wipe, text in wipes:
                iptables(wipe, family, text)
                address = {"-4": "127.0.0.1", "-6": "::1"}[family]
                wait_until(lambda: ask(HELD, address) == DROP, f"filters again after {wipe} {family}", 5)
            # Until the repair, this one takes the answers off packets that come back from the queue.
            iptables("iptables -t mangle -I OUTPUT 1 -p tcp -j MARK --set-mark 1", family)
            check(ask(HELD, address), DROP, f"behind another program's mark {family}")


def _rules(family: str) -> str:
    """Without the comments, and tables and chains that are as if they were not."""
    lines = iptables("iptables-save", family).splitlines()
    return "\n".join(line for line in lines if line.startswith("-A") or "ORVANE" in line)


def LeavesNoRuleBehind(world: World):
    users = {}
    for family, address in zip(FAMILIES, ("127.0.0.7", "fd00::7")):
        iptables(f"iptables -A OUTPUT -d {address} -j REJECT", family)
        users[family] = _rules(family)
    for end in (signal.SIGTERM, signal.SIGINT):
        extension = world.extension(PYTHON)
        extension.start()
        for family in FAMILIES:
            check("ORVANE" in _rules(family), True, "rules of ours while it runs")
        extension.process.send_signal(end)
        check(extension.process.wait(20), 0, "the exit code")
        for family in FAMILIES:
            check(_rules(family), users[family], "rules afterwards")
    check(ask(HELD), ALLOW, "afterwards")


def LeavesTheUsersOwnRulesInForce(world: World):
    for address, more in (("127.0.0.6", ""), ("127.0.0.7", "--tcp-flags PSH PSH")):
        iptables(f"iptables -A OUTPUT -p tcp -d {address} {more} -j REJECT --reject-with tcp-reset")
    with world.filtering(PYTHON) as extension:
        check(ask(NEWS, "127.0.0.6"), "refused", "a host that the user rejects")
        check(ask(NEWS, "127.0.0.7"), DROP, "data that the user rejects, of a connection that the filter allowed")
        check(ask(NEWS, "127.0.0.8"), ALLOW, "any other")


def _filter_one_of_two(world: World, held: str, meet, verdicts) -> None:
    with world.extension(PYTHON) as extension:
        extension.hold(held)
        meet.wait(30)  # both filter
        verdicts.put((held, ask(HELD), ask(NEWS)))
        meet.wait(30)


def _in_another_network(world: World, *arguments) -> None:
    CLONE_NEWNET = 0x40000000
    check(ctypes.CDLL(None).unshare(CLONE_NEWNET), 0, "unshare")
    isolation.bring_loopback_up()
    world.serve()
    _filter_one_of_two(world, NEWS, *arguments)


def KeepsTwoNetworksApart(world: World):
    forking = multiprocessing.get_context("fork")
    meet, verdicts = forking.Barrier(2), forking.SimpleQueue()
    other = forking.Process(target=_in_another_network, args=(world, meet, verdicts))
    other.start()
    _filter_one_of_two(world, HELD, meet, verdicts)
    other.join(30)
    check(other.exitcode, 0, "the other network's exit code")
    check({verdicts.get(), verdicts.get()}, {(HELD, DROP, ALLOW), (NEWS, ALLOW, DROP)}, "verdicts")


def SaysWhyItDoesNotFilter(world: World):
    """Without the privilege: the fixed source is an error, and the free choice falls on the proxy."""
    without = ["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin"]
    fixed, free = world.extension(PYTHON), world.extension(PYTHON, source=None)
    for extension in (fixed, free):
        extension.command = [*without, *extension.command]
    with contextlib.suppress(Failure):
        fixed.start()
    check(fixed.process.wait(20), 1, "the exit code")
    fixed.wait_for("error .*filter not started: ", 0)
    with free:
        check((free.flow_source, free.refusal is not None), ("proxy", True), "the source and a reason")
