"""Runs a script in network, mount and process namespaces that exist for that run only.

The extension filters the ports 53, 80 and 443, so the script needs its own servers on these ports, and host names that
lead to these servers. Inside the namespaces the script may listen on every port, replace the name server and change
firewall rules without touching the machine. When the first process in the namespaces ends, the kernel ends all other
processes there.
"""

import fcntl
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import tempfile

INSIDE = "--inside"  # the first argument of a script that runs in the namespaces
SKIPPED = 77  # the exit code that ctest reads as "skipped"
HERE = pathlib.Path(__file__).resolve().parent
PYTHON = sys.executable or "python3"

_NAMESPACES = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
_USER = ["--user", "--map-root-user"]


class Unavailable(Exception):
    """This machine lacks something that the run needs."""


def _find_unshare() -> list[str]:
    """The unshare(1) command that works on this machine.

    Root's command makes a user namespace only if unshare fails without one. For other users, it always makes one.
    """
    errors = []
    for more in [[], _USER] if os.geteuid() == 0 else [_USER]:
        command = ["unshare", *more, *_NAMESPACES]
        # In some containers, root can create a network namespace but cannot configure it. So the trial does both.
        code = f"import sys; sys.path.insert(0, {str(HERE)!r}); import isolation; isolation.bring_loopback_up()"
        trial = subprocess.run([*command, PYTHON, "-B", "-c", code], check=False, capture_output=True, text=True)
        if trial.returncode == 0:
            return command
        errors.append(f"  {' '.join(command)}\n    {(trial.stderr.strip().splitlines() or ['?'])[-1]}")
    raise Unavailable(
        "this system does not allow the namespaces that the run needs:\n"
        + "\n".join(errors)
        + "\nRun it as root, or allow user namespaces: the sysctl(8) settings user.max_user_namespaces,"
        "\nkernel.unprivileged_userns_clone and kernel.apparmor_restrict_unprivileged_userns, or the privileges of"
        "\nthe container."
    )


def _end(unshare: subprocess.Popen) -> None:
    """Kills the first process in the namespaces. The kernel then kills the others, and after that unshare exits."""
    children = pathlib.Path(f"/proc/{unshare.pid}/task/{unshare.pid}/children").read_text().split()
    for child in children:
        os.kill(int(child), signal.SIGKILL)
    if not children:
        unshare.kill()


def run_isolated(script: str, *arguments: str) -> int:
    """Runs the script again, in the namespaces, with these arguments: INSIDE, an empty directory, and `arguments`.

    Returns the script's exit code. If a signal interrupts the run, ends the script, cleans up, and then lets the signal
    end this process. Raises Unavailable if the machine does not allow the namespaces.
    """
    unshare, interrupted = None, 0

    def interrupt(number, _frame):
        nonlocal interrupted
        interrupted = number
        if unshare is not None and unshare.returncode is None:
            _end(unshare)

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupt)
    command = _find_unshare()
    directory = tempfile.mkdtemp(prefix="orvane.")
    try:
        # The child gets its own session, so Ctrl-C reaches only this process, which then ends the child.
        unshare = subprocess.Popen(
            [*command, PYTHON, script, INSIDE, directory, *arguments],
            stdin=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        if interrupted:
            _end(unshare)
        _, errors = unshare.communicate()
    finally:
        os.rmdir(directory)  # it is empty: the script's files were on a mount inside the namespaces
    if interrupted:
        signal.signal(interrupted, signal.SIG_DFL)
        os.kill(os.getpid(), interrupted)
    # After an interrupt this line is not reached, so unshare's message that its child was killed is not printed.
    sys.stderr.write(errors)
    return unshare.returncode


def _mount(*arguments: str) -> None:
    subprocess.run(["mount", *arguments], check=True)


def _replace(directory: pathlib.Path, path: str, text: str) -> None:
    """Replaces the content of a system file inside the namespace. Does nothing if the file does not exist."""
    if os.path.exists(path):
        replacement = directory / pathlib.Path(path).name
        replacement.write_text(text)
        _mount("--bind", str(replacement), path)


def bring_loopback_up() -> None:
    SIOCSIFFLAGS, IFF_UP = 0x8914, 1  # netdevice(7)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", IFF_UP))


def _use_local_name_server(directory: pathlib.Path) -> None:
    _replace(directory, "/etc/hosts", "127.0.0.1 localhost\n")
    _replace(directory, "/etc/resolv.conf", "nameserver 127.0.0.1\n")
    _replace(directory, "/etc/nsswitch.conf", "hosts: files dns\n")


def make_etc_writable(directory: pathlib.Path) -> None:
    """Runs inside the namespaces, after prepare(): lets the script change /etc. The changes are in `directory`."""
    changes, work = directory / "etc", directory / "etc-work"
    changes.mkdir()
    work.mkdir()
    options = f"lowerdir=/etc,upperdir={changes},workdir={work}"
    try:
        _mount("-t", "overlay", "-o", options, "overlay", "/etc")
    except subprocess.CalledProcessError:
        raise Unavailable("this kernel refuses an overlay file system") from None
    _use_local_name_server(directory)


def prepare(directory: pathlib.Path) -> None:
    """Runs inside the namespaces: mounts a tmpfs on `directory`, and sends name look-ups to the local name server."""
    _mount("-t", "tmpfs", "-o", "mode=0700", "tmpfs", str(directory))
    bring_loopback_up()
    _use_local_name_server(directory)
    # Hide the journal: without one, the extension logs to standard error, which the scripts read.
    if os.path.isdir("/run/systemd/journal"):
        _mount("-t", "tmpfs", "tmpfs", "/run/systemd/journal")
