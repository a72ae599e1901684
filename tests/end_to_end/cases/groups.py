"""Groups of the list: schedules, locks and delays."""

import datetime
import glob
import hashlib
import json
import os
import pathlib
import signal
import time

from extension import Extension
from harness import ALLOW, DROP, HELD, NEWS, PYTHON, World, becomes, check, connect, wait_until
from isolation import Unavailable
from keeper import Keeper


def _wait_until_sent(keeper: Keeper) -> None:
    def is_sent() -> bool:
        status, code = keeper.status()
        file = hashlib.sha256(keeper.list.read_bytes()).hexdigest()
        return code == 0 and status["keeper"]["list"]["sha256"] == file

    wait_until(is_sent, "the list is in force")


def _moment(text: str) -> datetime.datetime:
    return datetime.datetime.fromisoformat(f"{text}+00:00")


def _now() -> datetime.datetime:
    return datetime.datetime.now(datetime.timezone.utc)


def ScheduleBeginsAndEndsWhenTheClockSaysSo(world: World):
    """The clock enters and leaves summer time, in two time zones. Only the keeper's process has this clock."""
    libraries = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
    if not libraries:
        raise Unavailable("libfaketime is not installed")
    with world.extension(PYTHON) as extension:
        for zone, change, span, before, after in (
            # The clock goes from 01:59:59 to 03:00:00, and the span begins then. The moments are in UTC.
            ("Europe/Berlin", "2026-03-29 01:00:00", "Sun 02:30-04:00", ALLOW, DROP),
            # The clock goes from 02:59:59 to 02:00:00.
            ("Europe/Berlin", "2026-10-25 01:00:00", "Sun 02:30-03:00", DROP, ALLOW),
            ("America/New_York", "2026-03-08 07:00:00", "Sun 01:00-02:30", DROP, ALLOW),
            ("America/New_York", "2026-11-01 06:00:00", "Sun 01:00-01:30", ALLOW, DROP),
            ("America/New_York", "2026-06-15 13:00:00", "Mon..Fri 09:00-17:00", ALLOW, DROP),
            ("Europe/Berlin", "2026-06-14 00:00:00", "Sat 22:00-02:00", DROP, ALLOW),
        ):
            case = f"{zone}, {change} UTC, {span}"
            ahead = _moment(change) - datetime.timedelta(seconds=6) - _now()
            clock = {"FAKETIME": f"{ahead.total_seconds():+.0f}s", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
            environment = {"LD_PRELOAD": libraries[0], "TZ": zone, **clock}
            directory = world.directory / change.replace(" ", "T")
            with Keeper(extension, directory, environment) as keeper:
                keeper.list.write_text(f"[group hours]\nschedule = {span}\n{HELD}\n")
                _wait_until_sent(keeper)
                verdict = connect(HELD)
                if _now() + ahead < _moment(change) - datetime.timedelta(seconds=1):
                    check(verdict, before, f"before the change: {case}")
                becomes(after, f"after the change: {case}")


def ScheduleBeginsAtARealTime(world: World):
    with world.extension(PYTHON) as extension, Keeper(extension, world.directory, {"TZ": "UTC"}) as keeper:
        begin = (_now() + datetime.timedelta(seconds=65)).replace(second=0, microsecond=0)
        end = begin + datetime.timedelta(minutes=1)
        keeper.control("group", "add", "hours").check_returncode()
        keeper.control("group", "schedule", "hours", f"{begin:%H:%M}-{end:%H:%M}").check_returncode()
        keeper.list.write_text(keeper.list.read_text() + f"{HELD}\n")
        _wait_until_sent(keeper)
        verdict = connect(HELD)
        if _now() < begin:
            check(verdict, ALLOW, "before the span")
        becomes(DROP, "the span begins")
        check(_now() >= begin, True, "the span begins in its minute")
        keeper.list.write_text(keeper.list.read_text().replace(HELD, f"{HELD} until={end:%Y-%m-%dT%H:%M:00Z}"))
        becomes(ALLOW, "a suspension inside the span")
        wait_until(lambda: _now() > end + datetime.timedelta(seconds=2), "the end of the span", 100)
        check(connect(HELD), ALLOW, "after the suspension and the span")


def _json(keeper: Keeper, *command: str, text: str | None = None):
    return json.loads(keeper.control("--json", *command, text=text).stdout)


def _held_back(keeper: Keeper, *command: str, text: str | None = None) -> list[tuple[str, int]]:
    """What holds the change of a command back, each with the hours that are left."""
    result = _json(keeper, *command, text=text)
    check(bool(result["inForce"] and result["heldBack"]), False, f"a change that is held back is in force: {command}")
    left = [datetime.datetime.fromisoformat(each["until"][:-1] + "+00:00") - _now() for each in result["heldBack"]]
    return [(each["by"], round(hours / datetime.timedelta(hours=1))) for each, hours in zip(result["heldBack"], left)]


def _check_what_is_still_blocked(keeper: Keeper) -> None:
    def still_blocked() -> list[tuple[str, bool]]:
        return [(site["host"], site["inFile"]) for site in _json(keeper, "list") if site.get("stillBlocked")]

    wait_until(lambda: still_blocked() == [(HELD, False), (NEWS, False)], "list shows the sites that are still blocked")
    group = [group for group in _json(keeper, "group", "show", "work") if group["lockedUntil"]]
    check([(each["inFile"], each["sites"]) for each in group], [(False, 2)], "the locked group in group show")
    shown = keeper.control("list").stdout + keeper.control("group", "list").stdout
    for words in (f"# Still blocked: {HELD} in the group work, until", "work: 2 sites, in force, locked until"):
        check(words in shown, True, f"list and group list say: {words}: {shown}")


def _check_that_the_keeper_undoes(command: tuple[str, ...], keeper: Keeper, extension: Extension) -> None:
    def has_effect() -> bool:
        keeper.process.send_signal(signal.SIGSTOP)  # or the keeper would undo the edit before the check
        try:
            extension.control(*command, text="other.example\n").check_returncode()
            return connect(HELD) == ALLOW
        finally:
            keeper.process.send_signal(signal.SIGCONT)

    # What the keeper sent before it stopped may reach the extension after the edit. Then try again.
    wait_until(has_effect, f"{command} has an effect")
    becomes(DROP, f"the keeper has undone {command}")


def _check_that_rewriting_the_list_keeps_the_keeper_free(keeper: Keeper) -> None:
    def used() -> float:
        times = pathlib.Path(f"/proc/{keeper.process.pid}/stat").read_text().rsplit(")")[-1].split()[11:13]
        return sum(map(int, times)) / os.sysconf("SC_CLK_TCK")

    text, start, end = keeper.list.read_text(), used(), time.monotonic() + 8
    while time.monotonic() < end:
        beside = keeper.list.with_name("list~")
        beside.write_text(text)
        beside.rename(keeper.list)
        time.sleep(0.5)
    print(f"of 8 s, the keeper has read for {used() - start:.2f} s")
    check(used() - start < 1.5, True, "the keeper has time for edits in the extension")


def LockHoldsAgainstEveryoneButRoot(world: World):
    with world.extension(PYTHON) as extension:
        keeper = Keeper(extension, world.directory)
        with keeper:
            keeper.list.write_text(f"free.example\n[group work]\n{HELD}\n{NEWS}\n")
            becomes(DROP, "the list is in force")
            keeper.control("lock", "--group", "work", "--for", "1h").check_returncode()
            imported = _held_back(keeper, "import", "-", text=f"x.{HELD} allowed\n")
            check(imported, [("lock", 1)], "what holds an imported exception back")
            text = keeper.list.read_text()
            commands = ["group disable work", "group remove work", "group schedule work always"]
            commands += [f"{verb} --group work {HELD}" for verb in ("unblock", "suspend --for 1h", "allow")]
            for refused in commands:
                check(keeper.control(*refused.split()).returncode, 1, f"the exit code of {refused}")
            check(keeper.list.read_text(), text, "the list after refused commands")

            def replaced():
                beside = keeper.list.with_name("list~")
                beside.write_text("other.example\n")
                beside.rename(keeper.list)

            def gone():
                keeper.list.unlink()
                keeper.list.mkdir()  # now the list cannot be read

            for change in (lambda: keeper.list.write_text(""), replaced, gone):
                change()
                time.sleep(2)  # the keeper waits a second for an editor to write into an empty file
                check([connect(HELD), connect(NEWS)], [DROP, DROP], "the names of the locked group after a change")
                if change is not gone:
                    _check_what_is_still_blocked(keeper)
            keeper.end(signal.SIGKILL)
        libraries = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
        for offset in ("+2d", "-2d") if libraries else ():
            keeper.environment["FAKETIME"] = offset
            keeper.environment.update({"LD_PRELOAD": libraries[0], "FAKETIME_DONT_FAKE_MONOTONIC": "1"})
            with keeper:
                wait_until(lambda: "work: locked" in keeper.control("lock").stdout, "the keeper has the lock")
                wait_until(lambda: keeper.status()[0]["keeper"]["extension"]["sentNames"] == 2, "the keeper sends it")
                check(connect(HELD), DROP, f"the locked group with a clock set by {offset}")
        keeper.environment.pop("LD_PRELOAD", None)
        with keeper:  # the keeper was killed, and the list cannot be read
            keeper.list.rmdir()
            keeper.list.write_text(f"{NEWS}\nmore.example\n")
            _wait_until_sent(keeper)
            for command in (("call", "removeHostname", f".{HELD}"), ("call", "addHostname", f"!.{HELD}"), ("set", "-")):
                _check_that_the_keeper_undoes(command, keeper, extension)

            def tried() -> str:
                return json.loads(keeper.control("--json", "try", HELD).stdout)["verdict"]

            wait_until(lambda: tried() == "blocked", "try says that a name that the file no longer has is blocked")
            groups = json.loads(keeper.control("--json", "lock").stdout)
            check([group["group"] for group in groups], ["work"], "locked groups")
        keeper.list.write_text("".join(f"n{number}.example\n" for number in range(1_200_000)))
        with keeper:  # it has only begun to read the list
            groups = keeper.status()[0]["keeper"]["list"]["groups"]
            check([group["name"] for group in groups if group["lockedUntil"]], ["work"], "locks in the first state")
            _wait_until_sent(keeper)
            _check_that_rewriting_the_list_keeps_the_keeper_free(keeper)
        guard = next(world.directory.glob("*.guard"))
        guard.write_text("damaged")
        with keeper:
            keeper.list.write_text(f"[group work]\ndelay = 1h\n{HELD}\n")  # the keeper saves the guard
            wait_until(guard.exists, "a new guard's file")
            kept = [path.read_text() for path in world.directory.glob("*.guard.unreadable-*")]
            check(kept, ["damaged"], "the copy of a guard's file that cannot be read")
            _wait_until_sent(keeper)
            _check_that_the_keeper_undoes(("call", "removeHostname", f".{HELD}"), keeper, extension)  # for a delay
            check(_held_back(keeper, "unblock", "--group", "work", HELD), [("delay", 1)], "what holds back an unblock")
            for _ in range(2):  # the second time, the file has no delay any more
                off = ("group", "delay", "work", "off")
                wait_until(lambda: _held_back(keeper, *off) == [("delay", 1)], "the old delay holds the new one back")
            span = f"{(_now() + datetime.timedelta(days=2)):%a} 10:00-11:00"
            keeper.list.write_text(f"[group night]\nschedule = {span}\n")
            late = _held_back(keeper, "block", NEWS, "--group", "night")
            check(late[0][0], "schedule", "what holds back a block")
