"""What the keeper sends, and when: after restarts of the extension or the keeper, and after changes of the list."""

import datetime
import hashlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import time

import keeper
from harness import ALLOW, BELOW, DROP, HELD, NEWS, PYTHON, World, becomes, check, connect, wait_until


class _Keeper(keeper.Keeper):
    def status(self, in_force: bool) -> dict:
        status, code = super().status()
        check(code, 0 if in_force else 3, f"the exit code of status with {status}")
        return status

    def edits_of_others(self) -> int:
        return self.status(in_force=True)["keeper"]["extension"]["changesOfOthers"]

    def verdict(self, name: str) -> tuple[str, int]:
        """The verdict that `orvanectl try` predicts, and its exit code."""
        result = self.control("--json", "try", name)
        return json.loads(result.stdout)["verdict"], result.returncode


def KeeperResendsTheListAfterARestart(world: World):
    extension = world.extension(PYTHON)
    with _Keeper(extension, world.directory) as keeper:
        keeper.list.write_text(f"{HELD}\n{BELOW[0]} allowed\n")
        for end in (signal.SIGTERM, signal.SIGKILL):
            time.sleep(1)  # meanwhile, the keeper's pauses between its attempts to connect grow
            wait_until(lambda: keeper.verdict(HELD) == ("not blocked", 3), "try reports that nothing is blocked")
            extension.start()
            becomes(DROP, "the list is in force after a start")
            wait_until(lambda: keeper.verdict(HELD) == ("blocked", 0), "try reports that")
            check(keeper.edits_of_others(), 0, "edits by others")
            extension.process.send_signal(end)
            extension.process.wait()
        with extension:
            becomes(DROP, "the list is in force after another start")
            check([connect(name) for name in BELOW], [ALLOW, DROP], "an exception, and another subdomain")
            check(keeper.control("keep").returncode, 1, "the exit code of a second keeper")
            extension.control("add", NEWS).check_returncode()
            check(keeper.edits_of_others(), 1, "edits by others")
            check(keeper.verdict(HELD), ("unknown", 4), "try, which cannot see what the others have edited")
            check(connect(NEWS), DROP, "a name that another client added")
            # When its list changes, the keeper sends the whole list. A difference would leave the others' edits.
            keeper.list.write_text(f"{HELD}\nmore.example\n")
            wait_until(lambda: connect("more.example") == DROP, "the added name is in force")
            check(keeper.edits_of_others(), 0, "edits by others")
            check(keeper.verdict("more.example"), ("blocked", 0), "try, when the whole list was sent")
            check(connect(NEWS), ALLOW, "the name that another client added")


def KeeperFollowsEveryWayOfWritingTheFile(world: World):
    with world.extension(PYTHON) as extension, _Keeper(extension, world.directory) as keeper:
        folder, listed, beside = keeper.list.parent, f"# mine\n{HELD}\n", keeper.list.with_name("list~")

        def replace_folder():
            shutil.move(folder, folder.with_name("old"))
            folder.mkdir()
            keeper.list.write_text(listed)

        def rename_away():  # some editors do this before they write, so for a moment there is no list
            begin, verdicts = time.monotonic(), []
            for change in (lambda: keeper.list.rename(beside), lambda: keeper.list.write_text("")):
                change()
                time.sleep(0.3)
                verdicts.append(connect(HELD))
            # An empty list takes effect after a second. On a slow machine, the steps above may take longer.
            if time.monotonic() - begin < 1:
                check(verdicts, [DROP, DROP], "while the file is away, and while it is empty")
            keeper.list.write_text(listed + f"{NEWS}\n")

        def is_connected() -> bool:
            return json.loads(keeper.control("--json", "status").stdout)["keeper"]["extension"]["connected"]

        wait_until(is_connected, "the keeper is connected")
        keeper.status(in_force=True)  # although there is no file yet
        for write in (
            lambda: keeper.list.write_text(listed),
            lambda: (beside.write_text(listed), beside.rename(keeper.list)),
            replace_folder,
        ):
            write()
            becomes(DROP, "the list is in force after the write")
            keeper.list.unlink()
            becomes(ALLOW, "nothing is held after the file is removed")
        keeper.list.write_text(f"{listed}no host\n")
        becomes(DROP, "the list is in force despite a bad line")
        check(keeper.status(in_force=True)["keeper"]["list"]["badLines"], 1, "bad lines")
        rename_away()
        becomes(DROP, "the editor's version is in force", NEWS)


def KeeperFollowsTheFileWithoutInotify(world: World):
    with world.extension(PYTHON) as extension:
        for limit in ("max_inotify_instances", "max_inotify_watches"):
            keeper = _Keeper(extension, world.directory / limit)
            set_limit = f'echo "$0" > /proc/sys/user/{limit}'
            keeper.prefix = ["unshare", "--user", "--map-root-user", "sh", "-c", f'{set_limit} && exec "$@"', "0"]

            def log_says(words: str, log: pathlib.Path = keeper.log) -> bool:
                return words in log.read_text()

            with keeper:
                wait_until(lambda: log_says("cannot watch all lists"), f"the log says so, with {limit}")
                keeper.list.write_text(f"{HELD}\n")
                becomes(DROP, f"the keeper has seen the change, with {limit}")
                shown = keeper.status(in_force=True)["keeper"]["list"]
                check(shown["watchError"] is None, False, "the error of status")
                # A user without privileges may not change the groups, as nsenter would.
                enter = ["nsenter", "--preserve-credentials", "--user", "--target", str(keeper.process.pid)]
                subprocess.run([*enter, "sh", "-c", set_limit, "100"], check=True)
                wait_until(lambda: log_says("watches all lists again"), f"the log says so, with a higher {limit}")
                keeper.list.write_text("")
                becomes(ALLOW, f"the keeper has seen the change, with a higher {limit}")


def KeeperEndsASuspensionOnItsDate(world: World):
    with world.extension(PYTHON) as extension:
        keeper = _Keeper(extension, world.directory)

        def suspend(seconds: int) -> datetime.datetime:
            date = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
            date += datetime.timedelta(seconds=seconds)
            keeper.list.write_text(f"{HELD} until={date:%Y-%m-%dT%H:%M:%SZ}\n")
            return date

        with keeper:
            keeper.list.write_text(f"{HELD}\n")
            becomes(DROP, "the list is in force")
            suspend(3600)
            becomes(ALLOW, "the host is suspended")
            wait_until(lambda: keeper.verdict(HELD) == ("not blocked", 3), "try reports that")
            keeper.end(signal.SIGKILL)
        with keeper:
            wait_until(lambda: keeper.control("status").returncode == 0, "the new keeper's list is in force")
            suspended = keeper.status(in_force=True)["keeper"]["list"]["suspended"]
            check([entry["name"] for entry in suspended], [f".{HELD}"], "suspended names")
            check(connect(HELD), ALLOW, "the suspended host, after the keeper was killed")
            date = suspend(3)
            becomes(DROP, "the suspension ends")
            late = time.time() - date.timestamp()
            print(f"{late:.2f} s after the date")
            check(late >= 0, True, "the suspension has ended after its date")


def KeeperExitsAtOnceWhileTheExtensionHangs(world: World):
    with world.filtering(PYTHON) as extension, _Keeper(extension, world.directory) as keeper:
        keeper.list.write_text(f"{HELD}\n")
        wait_until(lambda: keeper.verdict(HELD)[0] == "blocked", "the list is in force")
        extension.process.send_signal(signal.SIGSTOP)
        try:
            keeper.list.write_text(f"{HELD}\n{NEWS}\n")
            time.sleep(0.5)  # now the keeper waits for an answer
            keeper.status(in_force=False)
            keeper.end(signal.SIGTERM)
        finally:
            extension.process.send_signal(signal.SIGCONT)


def ReadOnlyListsAreInForceBesideTheMachinesList(world: World):
    with world.extension(PYTHON) as extension, _Keeper(extension, world.directory) as keeper:

        def lists() -> dict[str, dict]:
            shown = keeper.status(in_force=True)["keeper"]["readOnlyLists"]
            return {pathlib.Path(each["path"]).name: each for each in shown}

        # The folders appear after the keeper's start.
        keeper.drop_ins.mkdir()
        drop_in, fetched = keeper.drop_ins / "school.list", keeper.fetched / "ads.list"
        drop_in.with_name(".new").write_text(f"{HELD}\n")
        os.utime(drop_in.with_name(".new"), (2**32, 2**32))  # in the future, as after the clock was set back
        drop_in.with_name(".new").rename(drop_in)
        becomes(DROP, "the drop-in is in force")
        keeper.fetched.mkdir()
        fetched.with_name(".new").write_text(f"{NEWS}\nfetched.example\nfree.fetched.example allowed\n")
        fetched.with_name(".new").rename(fetched)
        becomes(DROP, "the subscription is in force", NEWS)

        # What members do to their own list has no effect on the drop-in.
        mine = f"{HELD} until=2999-01-01T00:00:00Z\n[group mine]\n{HELD} allowed\n{NEWS} allowed\n"
        keeper.list.write_text(mine)
        becomes(ALLOW, "the exception for the subscription's name", NEWS)
        check(connect(HELD), DROP, "the drop-in's name after a suspension and an exception")
        check(keeper.verdict(HELD), ("blocked", 0), "the verdict of try")
        for command, code, words in (
            (["suspend", HELD, "--for", "2h"], 0, "school.list"),
            (["unblock", f"b.{HELD}"], 2, "school.list"),
            (["unblock", "b.fetched.example"], 2, "orvanectl allow b.fetched.example"),
            (["allow", HELD], 0, "still blocks it"),
            (["list", "--from", "ads"], 0, NEWS),
            (["list", "--from", "none"], 2, "no such list"),
        ):
            result = keeper.control(*command)
            check((result.returncode, words in result.stdout + result.stderr), (code, True), f"{command}: {result}")
        status = keeper.status(in_force=True)
        shown = {each["kind"]: each for each in status["lists"]}
        digest = hashlib.sha256(drop_in.read_bytes()).hexdigest()
        check((shown["drop-in"]["sha256"], shown["subscription"]["names"]), (digest, 2), "lists of status")
        held = status["keeper"]["list"]["names"], status["keeper"]["extension"]["sentNames"]
        check((*held, shown["machine"]["names"]), (3, 3, 0), "the names that block, without exceptions")
        check(shown["drop-in"]["age"], 0, "the age of a file from the future")
        keeper.list.write_text(mine)

        # A bad list, and one that cannot be read, change nothing else.
        (keeper.drop_ins / "bad.list").write_text("no host\n\x1b[1m\n")
        (keeper.drop_ins / "away.list").symlink_to("nowhere")
        wait_until(lambda: len(lists()) == 4, "the keeper has seen the bad lists")
        check(lists()["bad.list"]["badLines"], 2, "bad lines")
        check(lists()["away.list"]["error"] is not None, True, "the error of a list that cannot be read")
        check([connect(HELD), connect(NEWS)], [DROP, ALLOW], "the other lists")
        drop_in.unlink()
        becomes(ALLOW, "the drop-in is removed")
        drop_in.write_text(f"suspendable=yes\n{HELD}\n")
        wait_until(lambda: lists().get("school.list", {}).get("suspendable"), "the keeper has read the drop-in")
        check(connect(HELD), ALLOW, "the suspension of a suspendable drop-in's name")
        keeper.list.write_text("")
        becomes(DROP, "the suspension is removed")

        # The last good copy stays in force while the file cannot be read.
        drop_in.unlink()
        drop_in.mkdir()
        wait_until(lambda: lists().get("school.list", {}).get("error"), "the keeper cannot read the drop-in")
        check(connect(HELD), DROP, "the last good copy")
        drop_in.rmdir()
        becomes(ALLOW, "the drop-in is removed again")


def AdministratorsListHoldsAgainstMembers(world: World):
    """What members do to their own list, to fetched lists and to the extension does not unblock a drop-in's name."""

    def many_names(letter: str, count: int) -> str:
        """Names that are so long that half a million of them are too many for one message."""
        rest = ".".join(letter * 57 for _ in range(4))
        return "".join(f"n{number}.{rest}.example\n" for number in range(count))

    with world.extension(PYTHON) as extension:
        keeper = _Keeper(extension, world.directory)
        for folder in (keeper.drop_ins, keeper.fetched):
            folder.mkdir()
        (keeper.drop_ins / "school.list").write_text(f"[group work]\n{HELD}\n")
        (keeper.fetched / "ads.list").write_text(many_names("a", 250_000))
        keeper.list.write_text(many_names("b", 500_000))

        def in_force() -> list[bool]:
            return [each["inForce"] for each in json.loads(keeper.control("--json", "status").stdout)["lists"]]

        with keeper:
            becomes(DROP, "the machine's list has too many names")
            wait_until(lambda: in_force() == [False, True, False], "status says that only the drop-in is in force")
            keeper.list.write_text(f"{NEWS}\n{many_names('b', 250_000)}")
            becomes(DROP, "the machine's list has room beside the drop-in", NEWS)
            wait_until(lambda: in_force() == [True, True, False], "status says that the fetched list has no room")
            keeper.list.write_text(f"{NEWS}\n[group work]\nenabled=no\nother.example\n")
            wait_until(lambda: in_force() == [True, True, True], "all lists are in force")
            check(connect(HELD), DROP, "a group of the same name is disabled")
            check(keeper.verdict(HELD), ("blocked", 0), "the verdict of try")
            (keeper.fetched / "ads.list").unlink()
            wait_until(lambda: len(in_force()) == 2, "the fetched list is removed")
            for command in (("call", "removeHostname", f".{HELD}"), ("call", "addHostname", f"!.{HELD}"), ("set", "-")):
                extension.control(*command, text="other.example\n").check_returncode()
                wait_until(lambda: keeper.edits_of_others() == 0, f"the keeper has undone {command}")
                becomes(DROP, f"after {command}")
