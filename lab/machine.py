"""Makes a Debian system for one run and boots it in a container without a network."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable

from extension import Failure
from isolation import Unavailable

CODENAME = next(
    line.partition("=")[2].strip()
    for line in pathlib.Path("/etc/os-release").read_text().splitlines()
    if line.startswith("VERSION_CODENAME=")
)


def _sources() -> list[str]:
    """The files that list this machine's package sources."""
    folder = pathlib.Path("/etc/apt")
    files = [folder / "sources.list", *sorted(folder.glob("sources.list.d/*.list"))]
    files += sorted(folder.glob("sources.list.d/*.sources"))
    return [str(file) for file in files if file.exists() and file.read_text().strip()]


def restart_in_mount_namespace(script: str, arguments: list[str]) -> None:
    """Replaces this process by a run of the script in a new mount namespace.

    The script's mounts vanish when the script ends, even if it is killed.
    """
    os.execvp("unshare", ["unshare", "--mount", "--propagation=private", sys.executable, script, *arguments])


def require(*programs: str) -> None:
    if os.geteuid() != 0:
        raise Unavailable("booting a system needs root")
    missing = [program for program in programs if shutil.which(program) is None]
    if missing:
        raise Unavailable(f"not installed: {' '.join(missing)}")


class Machine:
    """A Debian system in a container, which runs for a with block. Its hosts file resolves `hosts` to 127.0.0.1.

    outside_program() runs a program that is installed on the test's machine but not in the container. For this, the
    container has a folder /outside with three folders of the test's machine: /usr, /etc and `work`.
    """

    def __init__(self, folder: pathlib.Path, packages: list[str], hosts: list[str]):
        self._packages, self._hosts = packages, hosts
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="life.", dir=folder))
        self.root, self.work = self._folder / "root", self._folder / "work"
        self._container: subprocess.Popen | None = None

    def __enter__(self):
        try:
            self._make_root()
            self.boot()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for number in (signal.SIGINT, signal.SIGTERM):
            # A second signal must not interrupt the clean-up. Child processes would inherit SIG_IGN, so use a function.
            signal.signal(number, lambda *_: None)
        self.shut_down()
        if os.path.ismount(self._folder):
            subprocess.run(["umount", "--lazy", self._folder], check=True)
        os.rmdir(self._folder)

    def _make_root(self) -> None:
        # The system (about 300 MB) is in memory: writing it to a disk would take a third of the test's time.
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1g,mode=0755", "tmpfs", self._folder], check=True)
        self.work.mkdir()
        command = ["mmdebstrap", "--quiet", "--variant=apt", f"--include={','.join(self._packages)}", CODENAME]
        command += [str(self.root), *_sources()]
        made = subprocess.run(command, check=False, capture_output=True, text=True)
        if made.returncode != 0:
            if "Unable to locate package" in made.stderr or "unmet dependencies" in made.stderr:
                raise Failure(f"a dependency of the package is not available\n{made.stderr}")
            raise Unavailable(f"cannot make a system: {(made.stderr.strip().splitlines() or ['?'])[-1]}")
        (self.root / "etc/hosts").write_text(f"127.0.0.1 localhost {' '.join(self._hosts)}\n")
        outside = self.root / "outside"
        for name in ("dev", "proc", "tmp"):
            (outside / name).mkdir(parents=True)
        (outside / "tmp").chmod(0o1777)
        for name in ("bin", "lib", "lib64", "sbin"):
            (outside / name).symlink_to(f"usr/{name}")

    def boot(self, attend: Callable[[], object] = lambda: None) -> None:
        """Starts the system. Calls `attend` as soon as the container has its network namespace."""
        command = ["systemd-nspawn", "--quiet", "--boot", f"--directory={self.root}", "--register=no", "--keep-unit"]
        # Each machine needs a name of its own. systemd-nspawn would name it by the last part of its directory.
        command += ["--private-network", "--console=pipe", f"--machine={self._folder.name.replace('_', '0')}"]
        command += ["--capability=CAP_BPF,CAP_PERFMON", "--system-call-filter=bpf"]
        command += [f"--bind-ro={path}:/outside{path}" for path in ("/usr", "/etc")]
        command += [f"--bind={self.work}:/outside{self.work}"]
        with open(self._folder / "console", "ab") as console:
            # With --pdeathsig, the container ends together with the test, even if the test is killed. The container
            # gets its own session, so Ctrl-C does not reach it.
            self._container = subprocess.Popen(
                ["setpriv", "--pdeathsig=KILL", *command],
                stdin=subprocess.DEVNULL,
                stdout=console,
                stderr=console,
                start_new_session=True,
            )
        end, is_attended = time.monotonic() + 60, False
        while self._state() not in ("running", "degraded"):
            if not is_attended and self._has_network():
                attend()
                is_attended = True
            if self._container.poll() is not None or time.monotonic() > end:
                text = (self._folder / "console").read_text(errors="replace").strip()
                raise Unavailable(f"cannot boot a system: {(text.splitlines() or ['?'])[-1]}")
            time.sleep(0.1)
        for path in ("/proc", "/dev", "/etc/hosts"):
            self.run("mount", "--rbind", path, f"/outside{path}")

    def _leader(self) -> int | None:
        """The process id that the container's first process has on the test's machine. None if no container runs."""
        task = pathlib.Path(f"/proc/{self._container.pid}/task/{self._container.pid}/children")
        with contextlib.suppress(FileNotFoundError):  # systemd-nspawn has ended
            if children := task.read_text().split():
                return int(children[0])
        return None

    def _has_network(self) -> bool:
        with contextlib.suppress(OSError):
            if leader := self._leader():
                return not os.path.samefile(f"/proc/{leader}/ns/net", "/proc/self/ns/net")
        return False

    def _state(self) -> str:
        with contextlib.suppress(Exception):
            if self._leader() is not None:
                return self.run("systemctl", "is-system-running", check=False).stdout.strip()
        return ""

    def shut_down(self) -> None:
        """Shuts the system down; kills it if that takes over 20 s."""
        if self._container is None:
            return
        if self._leader() is not None:
            self.run("systemctl", "poweroff", check=False)
        try:
            self._container.wait(20)
        except subprocess.TimeoutExpired:
            os.kill(self._leader() or self._container.pid, signal.SIGKILL)
            self._container.wait(20)
        self._container = None

    def restart(self) -> None:
        self.shut_down()
        self.boot()

    def inside(self, *namespaces: str) -> list[str]:
        """The beginning of a command that runs in the container's `namespaces`, or in all if none is given."""
        return ["nsenter", f"--target={self._leader()}", *(namespaces or ["--all"]), "--"]

    def run(self, *command: str, user: str | None = None, check: bool = True) -> subprocess.CompletedProcess:
        as_user = ["runuser", "-u", user, "--"] if user else []
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}
        done = subprocess.run(
            [*self.inside(), *as_user, *command],
            env={**environment, "DEBIAN_FRONTEND": "noninteractive"},
            check=False,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            errors="replace",
            timeout=120,
        )
        if check and done.returncode != 0:
            raise Failure(f"{' '.join(command)}: {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def outside_program(self, name: str, user: int = 0) -> pathlib.Path | None:
        """The path of a script that runs a program in the container, although only the test's machine has it installed.

        None if the test's machine lacks the program.
        """
        path = shutil.which(name, path="/usr/bin")
        if path is None:
            return None
        script = self.work / name
        chroot = f"/usr/sbin/chroot --userspec={user}:{user} /outside {path}"
        script.write_text(f'#!/bin/sh\nexec {" ".join(self.inside())} {chroot} "$@"\n')
        script.chmod(0o755)
        return script
