"""Subscriptions: what is in force, and what the person is told, after each kind of answer of a real web server."""

import gzip
import json
import os
import pathlib
import shutil
import subprocess
import time

from extension import Failure
from fetcher import LARGEST, Fetcher, ListServer, sign
from harness import ALLOW, DROP, PYTHON, World, becomes, check, connect, wait_until
from keeper import Keeper
from web_servers import make_certificate

HOST, ADDRESS, IMPOSTOR, LINK_LOCAL = "lists.example", "127.0.0.7", "127.0.0.8", "169.254.1.1"
URL = f"https://{HOST}/big"
NAMES = 200_000
BIG = "".join(f"||n{i}.example^\n" for i in range(NAMES)).encode()
EVIL = [b"good.example", b"\x1b]0;title\x07.example", b"a\x00b.example", b"x" * 300 + b".example", b"-rf.example"]
EVIL += ["p\u0430ypal.example".encode(), b"../../etc/passwd", b"$(reboot).example"]  # the first has a Cyrillic letter


class _Lists:
    def __init__(self, world: World, fetcher: Fetcher, server: ListServer | None = None):
        self.world, self.fetcher, self.server = world, fetcher, server

    def expect(self, what: str, command: list, told: str, name: str, lines: list[str] | None) -> None:
        """Checks what a command tells the person, and what is in force after it."""
        text = self.fetcher.control(*command)
        in_force = self.fetcher.in_force(name)
        print(f"{what}: {'no list' if in_force is None else f'{len(in_force)} names'} in force\n    told: {text}")
        if told not in text:
            raise Failure(f"{what}: not told: {told}")
        if in_force != lines:
            raise Failure(f"{what}: in force: {(in_force or [])[:10]}")


def _server(world: World, address: str, *more: str) -> ListServer:
    folder = world.directory / address
    folder.mkdir()
    return ListServer(address, make_certificate(folder, "server", [HOST], *more))


def SubscriptionsKeepTheLastGoodCopy(world: World):
    world.addresses[HOST] = [ADDRESS]
    server, _ = _server(world, ADDRESS, *world.servers.signed), _server(world, IMPOSTOR)
    big = [f"n{i}.example" for i in range(NAMES)]
    with Fetcher(world.build, world.directory / "subscriptions", world.servers.authority) as fetcher:
        lists = _Lists(world, fetcher, server)
        validators = {"ETag": '"1"', "Last_Modified": "Sun, 06 Nov 1994 08:49:37 GMT"}
        server.answers["/big"] = lambda handler: handler.answer(BIG, **validators)
        lists.expect("200 with 200,000 names", ["subscribe", URL, "--name", "big"], f"big: {NAMES} names", "big", big)
        bomb = gzip.compress(bytes((LARGEST + 1) << 20))
        for what, told, answer in (
            ("304", "unchanged", lambda handler: handler.answer(b"", 304)),
            ("500", "the server has an error (500)", lambda handler: handler.answer(b"oops.example", 500)),
            ("a body that is cut off", "was cut off", lambda handler: handler.answer(BIG[:9000], length=len(BIG))),
            ("compressed data that are cut off", "damaged compressed data",
             lambda handler: handler.answer(gzip.compress(BIG)[:-2000], Content_Encoding="gzip")),
            ("a redirect to http", "redirects from https to http",
             lambda handler: handler.answer(b"", 302, Location=f"http://{HOST}:8080/big")),
            ("a redirect to a file", "redirects to an address that is not https",
             lambda handler: handler.answer(b"", 302, Location="file:///etc/hosts")),
            ("redirects without an end", "redirects more than 5 times",
             lambda handler: handler.answer(b"", 302, Location=URL)),
            ("one byte a second", "sends too slowly", lambda handler: handler.trickle()),
            ("a gzip bomb", f"more than {LARGEST} MiB", lambda handler: handler.answer(bomb, Content_Encoding="gzip")),
            ("a web page", "sent a web page", lambda handler: handler.answer(b"<html>\na.example\n</html>")),
            ("a text without names", "sent no list", lambda handler: handler.answer(b"maintenance\n")),
        ):
            server.answers["/big"] = answer
            lists.expect(what, ["refresh", "big"], told, "big", big)
        sent = [headers for path, headers in server.requests if path == "/big"][1]
        check(sent["If-None-Match"] + sent["If-Modified-Since"], "".join(validators.values()), "the conditions sent")
        world.addresses[HOST] = [IMPOSTOR]
        lists.expect("another certificate", ["refresh"], "certificate is not valid", "big", big)
        lists.expect("the status", ["status"], "not up to date: the server's certificate", "big", big)
        subprocess.run(["ip", "address", "add", LINK_LOCAL, "dev", "lo"], check=True)
        _server(world, LINK_LOCAL)
        for address in LINK_LOCAL, f"::ffff:{LINK_LOCAL}":
            world.addresses[HOST] = [address]
            lists.expect("a link-local address", ["refresh"], "no server answers", "big", big)
        world.addresses[HOST] = [ADDRESS]
        server.answers["/big"] = lambda handler: handler.answer(b"", 302, Location=f"https://{HOST}/moved")
        server.answers["/moved"] = lambda handler: handler.answer(gzip.compress(BIG), Content_Encoding="gzip")
        lists.expect("a redirect, and gzip", ["refresh", URL], f"{NAMES} names, unchanged", "big", big)
        server.answers["/big"] = lambda handler: handler.answer(b"one.example\n")
        lists.expect("a list that has shrunk", ["refresh", "big"], f"from {NAMES} names to 1:", "big", big)
        fetcher.subscriptions.write_text(fetcher.subscriptions.read_text().replace("/big", "/big group=ads"))
        lists.expect("in another group", ["refresh", "big"], f"from {NAMES} names to 1:", "big", big)
        fetcher.subscriptions.write_text(fetcher.subscriptions.read_text().replace(" group=ads", ""))
        exceptions = b"@@" + BIG.replace(b"\n", b"\n@@") + b"||one.example^\none.example\n"
        server.answers["/big"] = lambda handler: handler.answer(exceptions)
        lists.expect("exceptions in place of names", ["refresh", "big"], f"from {NAMES} names to 0:", "big", big)
        server.answers["/big"] = lambda handler: handler.answer(b"one.example\n")
        lists.expect("the list that has shrunk again", ["refresh", "big"], f"from {NAMES} names to 1:", "big", big)
        lists.expect("after a yes", ["refresh", "big", "--accept"], "big: 1 name;", "big", ["one.example"])
        server.answers["/evil"] = lambda handler: handler.answer(b"\r\n".join(EVIL))
        lookalike = "xn--pypal-4ve.example"
        fetcher.control("group", "add", "ads")
        lists.expect("evil names", ["subscribe", f"https://{HOST}/evil", "--group", "ads"], "1 skipped, 4 rejected",
                     "lists-example", ["[group ads]", "good.example", "-rf.example", lookalike])
        _check_signatures(lists)
        _check_requests(lists)
        _check_faults_of_the_file(lists)
        _check_kill(lists)
        # The extension judges only browsers, so the fetcher gets its lists even from a blocked host.
        extension = world.extension(PYTHON)
        keeper = Keeper(extension, world.directory / "keeper")
        keeper.fetched = fetcher.fetched
        with extension, keeper:
            keeper.list.write_text(f"{HOST}\n")
            becomes(DROP, "the server is blocked for browsers", HOST, ADDRESS)
            server.answers["/big"] = lambda handler: handler.answer(b"two.example\n")
            lists.expect("a blocked server", ["refresh", "big"], "big: 1 name;", "big", ["two.example"])
            becomes(DROP, "the fetched name is blocked", "two.example", ADDRESS)
            check(connect("one.example", ADDRESS), ALLOW, "a name that the list no longer has")
        lists.expect("unsubscribe", ["unsubscribe", "lists-example"], "unsubscribed", "big", ["two.example"])
        lists.expect("the lists", ["subscriptions"], "big", "big", ["two.example"])
    check(fetcher.in_force("lists-example"), None, "the list of a removed subscription")
    # Without its state, the fetcher would accept a list that was signed before the copy in force.
    fetcher.state.write_text("{}")
    try:
        with fetcher:
            raise Failure("the fetcher runs without its state")
    except Failure as failure:
        if "not a fetcher's state" not in str(failure):
            raise
    check(fetcher.in_force("big"), ["two.example"], "the copy that stays in force")


def _check_requests(lists: _Lists) -> None:
    """Members of the group write the file of the requests, and may remove what others wait for."""
    requests, one = lists.fetcher.requests, ["one.example"]
    requests.write_text(f"big {2 ** 64 - 1}\n" + "".join(f"a{i} 7\n" for i in range(150)))
    for what in "after the greatest number, and requests for others", "again":
        count = len(lists.server.requests)
        lists.expect(what, ["refresh", "big"], "unchanged", "big", one)
        check(len(lists.server.requests) > count, True, "the list was asked for")
    check(len(requests.read_text().splitlines()) < 10, True, "the requests for others are gone")
    lists.server.answers["/slow"] = lambda handler: handler.trickle()
    process = lists.fetcher.start_control("subscribe", f"https://{HOST}/slow", "--name", "slow")
    wait_until(lambda: "/slow" in [path for path, _ in lists.server.requests], "the request for the list")
    lists.fetcher.control("unsubscribe", "slow")
    with process:
        check("removed before it was fetched" in process.communicate(timeout=60)[0], True, "the wait ends")


def _check_faults_of_the_file(lists: _Lists) -> None:
    """A line that has become bad, and then a file that the fetcher cannot read."""
    fetcher = lists.fetcher
    good = fetcher.subscriptions.read_text()

    def status() -> dict:
        return json.loads(fetcher.control("status", "--json"))

    def errors() -> dict:
        return {each["name"]: each["error"] for each in status()["subscriptions"] if each["error"]}

    fetcher.subscriptions.write_text(good.replace("/big", "/big every=30m") + f"new {URL} every=1m\n")
    wait_until(lambda: set(errors()) == {"big", "new"}, "status has the bad lines")
    for command in ("doctor", "status"):
        lists.expect("bad lines", [command], "at least 1h", "big", ["one.example"])
    fetcher.subscriptions.write_text(good)
    wait_until(lambda: errors() == {}, "the corrected lines are fetched")
    fetcher.subscriptions.unlink()
    fetcher.subscriptions.mkdir()
    wait_until(lambda: status()["subscriptionsError"], "status has the error of the file")
    for command in ("doctor", "status"):
        lists.expect("a folder in its place", [command], "not a regular file", "big", ["one.example"])
    fetcher.subscriptions.rmdir()
    fetcher.subscriptions.write_text(good)
    wait_until(lambda: status()["subscriptionsError"] is None, "the file is read again")


def FetcherFollowsItsFilesWithoutInotify(world: World):
    world.addresses[HOST] = [ADDRESS]
    server = _server(world, ADDRESS, *world.servers.signed)
    server.answers["/big"] = lambda handler: handler.answer(b"one.example\n")
    fetcher = Fetcher(world.build, world.directory / "subscriptions", world.servers.authority)
    limit = 'echo 0 > /proc/sys/user/max_inotify_watches && exec "$@"'
    fetcher.prefix = ["unshare", "--user", "--map-root-user", "sh", "-c", limit, "sh"]
    with fetcher:
        lists = _Lists(world, fetcher, server)
        lists.expect("no watch", ["subscribe", URL, "--name", "big"], "1 name", "big", ["one.example"])


def FetcherUsesTheProxyOfItsUnit(world: World):
    world.addresses[HOST] = [ADDRESS]
    _server(world, ADDRESS, *world.servers.signed).answers["/big"] = lambda handler: handler.answer(b"one.example\n")
    proxy = world.extension(PYTHON, source="proxy")
    fetcher = Fetcher(world.build, world.directory / "subscriptions", world.servers.authority)
    fetcher.prefix = ["env", f"https_proxy={proxy.proxy}"]
    with fetcher:
        lists = _Lists(world, fetcher)
        lists.expect("no proxy", ["subscribe", URL, "--name", "big"], "no server answers", "big", None)
        with proxy:
            # Like a machine whose network comes up late.
            wait_until(lambda: fetcher.in_force("big") == ["one.example"], "the fetcher tries again by itself")


def _check_kill(lists: _Lists) -> None:
    """A list that ends the fetcher while it is read must not end it again at once."""
    fetcher, server = lists.fetcher, lists.server
    server.answers["/big"] = lambda handler: handler.answer(BIG)
    count = len(server.requests)
    with fetcher.start_control("refresh", "big"):
        wait_until(lambda: "the service ended while" in fetcher.state.read_text(), "the fetcher reads the list")
        fetcher.kill()
    fetcher.start()
    time.sleep(1)
    check(len(server.requests), count + 1, "requests for the list")
    server.answers["/big"] = lambda handler: handler.answer(b"one.example\n")
    lists.expect("after a kill", ["refresh", "big"], "big: 1 name", "big", ["one.example"])


def _check_signatures(lists: _Lists) -> None:
    if shutil.which("minisign") is None:
        print("signatures: not checked, because minisign is not installed")
        return
    folder = pathlib.Path(lists.world.directory) / "keys"
    folder.mkdir()
    for key in ("own", "other"):
        command = ["minisign", "-G", "-W", "-p", folder / f"{key}.pub", "-s", folder / f"{key}.sec"]
        subprocess.run(command, check=True, capture_output=True, env=os.environ)
    path = f"{HOST}/signed"
    files = {}
    for name in ("first", "second"):
        files[name] = folder / name
        files[name].write_text(f"{name}.example\n")

    def serve(name: str, signature: bytes | None) -> None:
        body = files[name].read_bytes()
        lists.server.answers["/signed?v=1"] = lambda handler: handler.answer(body)
        lists.server.answers.pop("/signed.minisig?v=1", None)
        if signature is not None:
            lists.server.answers["/signed.minisig?v=1"] = lambda handler: handler.answer(signature)

    def signature(name: str, time: int, key: str = "own", *options: str) -> bytes:
        return sign(files[name], folder / f"{key}.sec", "-t", f"timestamp:{time}", *options)

    serve("first", None)
    add = ["subscribe", f"https://{path}?v=1", "--name", "signed", "--key", folder / "own.pub"]
    lists.expect("no signature", add, "it is not signed", "signed", None)
    first = ["first.example"]
    for what, name, text, told, lines in (
        ("a signature", "first", signature("first", 2000), "signed: 1 name", first),
        ("another key", "second", signature("second", 3000, "other"), "signed with another key", first),
        ("the signature of another list", "second", signature("first", 3000), "its signature is wrong", first),
        ("a changed trusted comment", "second", signature("second", 1000).replace(b":1000", b":3000"),
         "trusted comment is wrong", first),
        ("an older signature", "second", signature("second", 1000), "was signed before", first),
        ("a signature without a time", "second", signature("second", 3000, "own", "-t", "later"),
         "without a time", first),
        ("no signature any more", "second", None, "it is not signed", first),
        ("a signature in the older form", "second", signature("second", 3000, "own", "-l"), "signed: 1 name",
         ["second.example"]),
        ("the old list, signed again", "first", signature("first", 4000), "signed: 1 name", first),
    ):
        serve(name, text)
        lists.expect(what, ["refresh", "signed"], told, "signed", lines)
