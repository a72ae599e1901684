"""Other filters with which the network benchmark compares the extension: OpenSnitch, and dnsmasq as a DNS sinkhole."""

import contextlib
import json
import os
import pathlib
import shutil
import socket
import subprocess
import time

_TIMEOUT = 60  # seconds
_NFTABLES_OF_OPENSNITCH = "opensnitch"
# A question for the address of news.example: RFC 1035, section 4.1.
_QUESTION = b"\0\1\1\0\0\1\0\0\0\0\0\0\4news\7example\0\0\1\0\1"


_PATH = os.environ["PATH"] + ":/usr/sbin"


def opensnitch() -> str | None:
    return shutil.which("opensnitchd", path=_PATH)


def dnsmasq() -> str | None:
    return shutil.which("dnsmasq", path=_PATH)


def version_of(program: str, option: str) -> str:
    done = subprocess.run([program, option], check=False, capture_output=True, text=True)
    words = (done.stdout + done.stderr).split()
    return next((word for word in words if word[0].isdigit()), "")


def _wait_until(condition, what: str, log: pathlib.Path) -> None:
    end = time.monotonic() + _TIMEOUT
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"{what}: {log.read_text()[-2000:]}")
        time.sleep(0.05)


@contextlib.contextmanager
def _running(command: list, log: pathlib.Path):
    with open(log, "ab") as output:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
    try:
        yield process
    finally:
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def _queue_rules() -> bool:
    rules = subprocess.run(["iptables-save"], check=True, capture_output=True, text=True).stdout
    if shutil.which("nft"):
        rules += subprocess.run(["nft", "list", "ruleset"], check=False, capture_output=True, text=True).stdout
    return "NFQUEUE" in rules or "queue " in rules


@contextlib.contextmanager
def running_opensnitch(directory: pathlib.Path):
    """OpenSnitch as it is packaged, without its window, and with one rule: a held host is denied."""
    rules = directory / "opensnitch-rules"
    rules.mkdir(exist_ok=True)
    operator = {"type": "simple", "operand": "dest.host", "sensitive": False, "data": "held.example", "list": []}
    moment = "2024-01-01T00:00:00Z"
    rule = {"name": "held", "enabled": True, "action": "deny", "duration": "always", "operator": operator}
    rule |= {"created": moment, "updated": moment, "precedence": False}
    (rules / "held.json").write_text(json.dumps(rule))
    log = directory / "opensnitch-log"
    log.touch()
    command = [opensnitch(), "-rules-path", rules, "-ui-socket", f"unix://{directory}/no-window", "-log-file", log]
    with _running(command, log) as process:
        _wait_until(_queue_rules, "OpenSnitch has no kernel rules", log)
        yield [process.pid]
    for table in ("mangle", "filter"):
        subprocess.run(["iptables", "-t", table, "-F"], check=True)
    if shutil.which("nft"):
        subprocess.run(["nft", "delete", "table", "inet", _NFTABLES_OF_OPENSNITCH], check=False, capture_output=True)


def _answers() -> bool:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(0.2)
        try:
            client.connect(("127.0.0.1", 53))
            client.send(_QUESTION)
            return len(client.recv(512)) > len(_QUESTION)
        except OSError:
            return False


@contextlib.contextmanager
def running_name_server(directory: pathlib.Path, sinkhole: list[str]):
    """dnsmasq, which knows the address of news.example, and answers that the names of `sinkhole` do not exist."""
    settings = directory / "dnsmasq.conf"
    settings.write_text(
        "no-resolv\nno-hosts\nkeep-in-foreground\nbind-interfaces\nlisten-address=127.0.0.1\nuser=root\npid-file=\n"
        "host-record=news.example,127.0.0.1\n" + "".join(f"address=/{name}/\n" for name in sinkhole)
    )
    log = directory / "dnsmasq-log"
    with _running([dnsmasq(), f"--conf-file={settings}"], log) as process:
        _wait_until(_answers, "dnsmasq does not answer", log)
        yield [process.pid]
