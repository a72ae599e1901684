"""Which connections the filter drops, and which it allows."""

import collections
import pathlib
import shutil
import socket
import struct
import subprocess
import time

import name_server
import isolation
import programs
from first_bytes import FirstBytesServer, allow_many_descriptors, hello, request
from harness import ALLOW, DROP, FAMILIES, HELD, NEWS, PYTHON, World, check, iptables, outcome
from isolation import Unavailable


def DropsOnlyHeldHosts(world: World):
    curl = world.curl()
    with world.filtering("curl"):
        for family in FAMILIES:
            for scheme in ("http", "https"):
                check(world.fetch(curl, scheme, HELD, family), DROP, f"{scheme} {family}")
                check(world.fetch(curl, scheme, NEWS, family), ALLOW, f"{scheme} {family}")


class _BrowsersCurl(programs.Curl):
    """Runs curl as a child process of a copy of Python, which stands in for a browser."""

    def _run(self, *arguments):
        code = "import subprocess, sys; sys.exit(subprocess.call(sys.argv[1:]))"
        return super()._run("-I", "-c", code, shutil.which("curl"), *arguments)


def AttributesChildProcessesToTheirBrowser(world: World):
    folder = world.directory / "browser"
    folder.mkdir()
    browser = shutil.copy("/proc/self/exe", folder / "testbrowser")
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/usr/local/share"], check=True)
    entries = pathlib.Path("/usr/local/share/applications")
    entries.mkdir()
    (entries / "testbrowser.desktop").write_text(f"[Desktop Entry]\nType=Application\nName=T\nExec={browser} %u\n")
    child = _BrowsersCurl("curl of a browser", browser, "testbrowser", world.directory, world.servers.authority)
    with world.filtering("testbrowser"):
        for program, expected in ((child, DROP), (world.curl(), ALLOW)):
            for scheme in ("http", "https"):
                check(world.fetch(program, scheme, HELD), expected, program.name)


# Makes two connections, prints their outcomes, and executes the first of the given programs, which does the same.
_CONNECT_AND_EXECUTE = """
import os, socket, sys
code, request, *programs = sys.argv[1:]
for _ in range(2):
    with socket.create_connection(("127.0.0.1", 80), 20) as connection:
        connection.sendall(request.encode())
        try:
            print("allow" if connection.recv(1) else "closed", flush=True)
        except ConnectionResetError:
            print("drop", flush=True)
if programs:
    os.execv(programs[0], [programs[0], "-I", "-c", code, code, request, *programs[1:]])
"""


def JudgesAProcessByTheProgramThatItRunsNow(world: World):
    tool, browser = (shutil.copy("/proc/self/exe", world.directory / name) for name in ("tool", "testbrowser"))
    programs_of_process = [tool, browser] * 4
    with world.filtering("testbrowser"):
        command = [tool, "-I", "-c", _CONNECT_AND_EXECUTE, _CONNECT_AND_EXECUTE, request(HELD).decode()]
        done = subprocess.run([*command, *programs_of_process[1:]], check=True, capture_output=True, text=True)
    check(done.stdout.split(), [ALLOW, ALLOW, DROP, DROP] * 4, "a process that executes a browser and another program")


def _start_with_pid(pid: int | None, command: list) -> subprocess.Popen:
    """Starts a process with this pid, which no process has. If the pid is None, the process may have any pid."""
    for _ in range(1000):
        if pid is not None:
            pathlib.Path("/proc/sys/kernel/ns_last_pid").write_text(str(pid - 1))
        process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        if pid in (None, process.pid):
            return process
        process.kill()
        process.wait()
    raise isolation.Unavailable("other programs took the pid each time")


def JudgesAProcessThatGotThePidOfAnEndedOne(world: World):
    tool, browser = (shutil.copy("/proc/self/exe", world.directory / name) for name in ("tool", "testbrowser"))
    pid = None
    with world.filtering("testbrowser"):
        for program, expected in [(browser, DROP), (tool, ALLOW)] * 4:
            command = [program, "-I", "-c", _CONNECT_AND_EXECUTE, _CONNECT_AND_EXECUTE, request(HELD).decode()]
            process = _start_with_pid(pid, command)
            pid = process.pid
            check(process.communicate()[0].split(), [expected] * 2, f"{program.name} with the pid {pid}")


def JudgesTwoThousandConnectionsAtOnce(world: World):
    allow_many_descriptors()
    address = "127.0.0.9"
    server = FirstBytesServer(address, [80, 443], HELD, idle_limit=60)
    texts = [(request(HELD), 80), (request(NEWS), 80), (hello(HELD), 443), (hello(NEWS), 443)] * 500
    with world.filtering(PYTHON) as extension:
        if "recorded by the kernel" not in extension.log_text():
            raise Unavailable("without the kernel's record, the time to search for a connection's owner is limited")
        connections = [socket.create_connection((address, port), 60) for _, port in texts]
        start = time.monotonic()
        for connection, (text, _) in zip(connections, texts):
            connection.sendall(text)
        verdicts = [outcome(connection) for connection in connections]
        print(f"2,000 verdicts in {time.monotonic() - start:.2f} s; {extension.counters()}")
        wrong = collections.Counter(pair for pair in zip(verdicts, [DROP, ALLOW] * 1000) if pair[0] != pair[1])
        check((dict(wrong), server.seen), ({}, 0), "wrong verdicts, and held connections at the server")
        check(extension.counters()["after a verdict"], 0, "packets after a verdict")


def WaitsForALostFirstPacket(world: World):
    address, text = "127.0.0.9", request(HELD, "/" + "x" * 1000)
    FirstBytesServer(address, [80], HELD)
    for browser, expected in ((PYTHON, DROP), ("another", ALLOW)):
        with world.filtering(browser) as extension, socket.create_connection((address, 80), 60) as connection:
            if "recorded by the kernel" not in extension.log_text():
                raise Unavailable("without the kernel's record, the number of a connection's first byte is not known")
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            # A queue that no program reads loses the packet, as the extension's queue does when it is full.
            iptables("iptables -t raw -A OUTPUT -p tcp --dport 80 -m length --length 900:9000 -j NFQUEUE")
            connection.sendall(text[:1000])
            connection.sendall(text[1000:])
            time.sleep(0.1)  # the second packet passes
            iptables("iptables -t raw -F OUTPUT")
            check(outcome(connection), expected, f"{browser} is the browser")


def AllowsDNSQuestionsAndLogsThem(world: World):
    with world.filtering(PYTHON) as extension:
        query = name_server.question(HELD)
        for kind, over in ((socket.SOCK_DGRAM, "UDP"), (socket.SOCK_STREAM, "TCP")):
            since = extension.log_size()
            with socket.socket(socket.AF_INET, kind) as connection:
                connection.settimeout(20)
                connection.connect(("127.0.0.1", 53))
                connection.sendall(query if over == "UDP" else struct.pack("!H", len(query)) + query)
                check(socket.inet_aton("127.0.0.1") in connection.recv(512), True, f"an answer over {over}")
            extension.wait_for(r"handleOutboundDataFromFlow: DNS flow", since)
