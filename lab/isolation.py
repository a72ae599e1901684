"""A network, a process table and a view of the files of the demo's own.

The rules of the filter are about ports 80 and 443, and names must lead to local servers: in namespaces of our own we
may listen on any port, ask any name server and make any firewall rule. When the first process in them ends, the kernel
ends all the others.
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

INSIDE = "--inside"
HERE = pathlib.Path(__file__).resolve().parent
PYTHON = sys.executable or "python3"

_NAMESPACES = ["--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
_USER = ["--user", "--map-root-user"]


class Refused(Exception):
    """This system does not let us have the namespaces."""


def _find_unshare() -> list[str]:
    """The unshare(1) command that works here. A user namespace is what makes do without root."""
    complaints = []
    for more in [[], _USER] if os.geteuid() == 0 else [_USER]:
        command = ["unshare", *more, *_NAMESPACES]
        # Namespaces may be had and still not be ours to configure: a container's root may lack the privilege.
        code = f"import sys; sys.path.insert(0, {str(HERE)!r}); import isolation; isolation.bring_loopback_up()"
        trial = subprocess.run([*command, PYTHON, "-B", "-c", code], capture_output=True, text=True)
        if trial.returncode == 0:
            return command
        complaints.append(f"  {' '.join(command)}\n    {(trial.stderr.strip().splitlines() or ['?'])[-1]}")
    raise Refused(
        "this system refuses the namespaces that we run in:\n"
        + "\n".join(complaints)
        + "\nRun it as root, or allow user namespaces: the settings user.max_user_namespaces,"
        "\nkernel.unprivileged_userns_clone and kernel.apparmor_restrict_unprivileged_userns of sysctl(8), or the"
        "\nprivileges of the container that this is."
    )


def _end(unshare: subprocess.Popen) -> None:
    """Ends the first process in the namespaces, and all others with it. unshare reports once they are gone."""
    children = pathlib.Path(f"/proc/{unshare.pid}/task/{unshare.pid}/children").read_text().split()
    for child in children:
        os.kill(int(child), signal.SIGKILL)
    if not children:
        unshare.kill()


def run_isolated(script: str, *arguments: str) -> int:
    """Runs the script again, inside, with INSIDE, an empty directory of its own, and the arguments.

    Returns its exit code; an interrupt ends this process as it would have. Raises Refused.
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
        # A session of its own: an interrupt from the terminal reaches this process alone, which ends the rest.
        unshare = subprocess.Popen(
            [*command, PYTHON, script, INSIDE, directory, *arguments],
            stdin=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        if interrupted:
            _end(unshare)
        _, complaints = unshare.communicate()
    finally:
        os.rmdir(directory)  # its content was the namespace's
    if interrupted:
        signal.signal(interrupted, signal.SIG_DFL)
        os.kill(os.getpid(), interrupted)
    # Not after an interrupt: then these are unshare's, about its end.
    sys.stderr.write(complaints)
    return unshare.returncode


def _mount(*arguments: str) -> None:
    subprocess.run(["mount", *arguments], check=True)


def _replace(directory: pathlib.Path, path: str, text: str) -> None:
    """Puts another content in a file's place, as seen from inside."""
    if os.path.exists(path):
        ours = directory / pathlib.Path(path).name
        ours.write_text(text)
        _mount("--bind", str(ours), path)


def bring_loopback_up() -> None:
    SIOCSIFFLAGS, IFF_UP = 0x8914, 1  # netdevice(7)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sh14x", b"lo", IFF_UP))


def furnish(directory: pathlib.Path) -> None:
    """Prepares the inside: names are asked of a name server here, and `directory` is empty and vanishes at the end."""
    _mount("-t", "tmpfs", "-o", "mode=0700", "tmpfs", str(directory))
    bring_loopback_up()
    _replace(directory, "/etc/hosts", "127.0.0.1 localhost\n")
    _replace(directory, "/etc/resolv.conf", "nameserver 127.0.0.1\n")
    _replace(directory, "/etc/nsswitch.conf", "hosts: files dns\n")
    # Without a journal, the extension's log comes to us.
    if os.path.isdir("/run/systemd/journal"):
        _mount("-t", "tmpfs", "tmpfs", "/run/systemd/journal")
