"""A server and a client for kinds of QUIC connections that a test cannot make a browser use.

The programs are gtlsserver and gtlsclient of Debian's ngtcp2.
"""

import pathlib
import shutil
import subprocess

from isolation import Unavailable
from programs import ALLOW, DROP, Destination, Program, Seen

# With a key share of the group FFDHE8192, the hello needs two datagrams.
_LONG_HELLO = "--groups=-GROUP-ALL:+GROUP-FFDHE8192:+GROUP-X25519"


def find(package: str, program: str) -> str:
    path = shutil.which(program)
    if path is None:
        raise Unavailable(f"{program} of the package {package} is not installed")
    return path


class QuicServer:
    """Serves a page over HTTP/3 at port 443 of `address`, for every name, until the process ends."""

    def __init__(self, directory: pathlib.Path, address: str, certificate: pathlib.Path, *options: str):
        self._log = directory / f"quic-server-{address}"
        pages = directory / "quic-pages"
        pages.mkdir(exist_ok=True)
        (pages / "index.html").write_text("a page")  # an empty file does not exist for the server
        command = [find("ngtcp2-server", "gtlsserver"), "--no-quic-dump", "--no-http-dump", "-d", pages, *options]
        command += [address, "443", certificate.with_suffix(".key"), certificate]
        with open(self._log, "wb") as output:
            subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)

    def hosts(self) -> list[str]:
        """The hosts of the requests so far, in order."""
        lines = self._log.read_text(errors="replace").splitlines()
        return [line.split("[:authority: ")[1].rstrip("]") for line in lines if "[:authority: " in line]


class QuicClient(Program):
    """Fetches a page. The member `output` is a log of the client's packets."""

    output = ""

    def fetch(self, destination: Destination, path: str, proxy: str | None, *more: str) -> Seen:
        options = [*more, _LONG_HELLO, "--exit-on-all-streams-close", "--no-quic-dump"]
        done = self._run(*options, destination.host, "443", destination.url(path))
        self.output = done.stdout + done.stderr
        if "[:status: 200]" in self.output:
            return Seen([ALLOW], "200")
        return Seen([DROP], f"no answer, exit code {done.returncode}")
