"""What the keeper sends, and when: after restarts of the extension or the keeper, and after changes of the list."""

import datetime
import json
import shutil
import signal
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
            # When its list changes, the keeper sends only the changed names, so edits by other clients stay.
            extension.control("add", NEWS).check_returncode()
            keeper.list.write_text(f"{HELD}\nmore.example\n")
            wait_until(lambda: keeper.verdict("more.example") == ("blocked", 0), "the added name is in force")
            check(keeper.edits_of_others(), 1, "edits by others")
            check(connect(NEWS), DROP, "a name that another client added")


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
            if time.monotonic() - begin < 1:  # the keeper waits so long, but this test may be slower
                check(verdicts, [DROP, DROP], "while the file is away, and while it is empty")
            keeper.list.write_text(listed + f"{NEWS}\n")

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
