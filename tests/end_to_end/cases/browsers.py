"""The filter's verdicts on real browsers that run with their default settings."""

import json
import re

import isolation
from encrypted_hello import EncryptedHelloServer, Hello
from harness import ALLOW, DROP, HELD, NEWS, World, check
from programs import Browser, Chromium, Destination, Firefox

# Two sites with Encrypted Client Hello, and the name that the network sees instead of the sites' names.
SECRET, OPEN, PUBLIC = "secret.example", "open.example", "cloudflare-ech.com"


def _browse(world: World, kind: type[Browser], name: str) -> None:
    browser = world.program(kind, name)
    with world.filtering(name):
        for host, expected in ((HELD, DROP), (NEWS, ALLOW)):
            for scheme in ("http", "https"):
                check(world.fetch(browser, scheme, host), expected, f"{name} {scheme}://{host}")


def ResetsConnectionsOfChromium(world: World):
    _browse(world, Chromium, "chromium")


def ResetsConnectionsOfFirefox(world: World):
    _browse(world, Firefox, "firefox-esr")


def _browse_encrypted(world: World, kind: type[Browser], name: str, title: str, decoy: bool) -> None:
    """Checks that the policy that orvanectl installs stops encrypted hellos of this browser.

    With `decoy`, the browser sends random bytes in place of an encrypted hello, even with the policy.
    """
    browser = world.program(kind, name)
    server = EncryptedHelloServer(world.directory / "encrypted", "127.0.0.2", [SECRET, OPEN], PUBLIC)
    for host in (SECRET, OPEN):
        world.addresses[host], world.hello_keys[host] = ["127.0.0.2"], server.keys
    isolation.make_etc_writable(world.directory)

    def fetch(host: str) -> str:
        seen = browser.fetch(Destination("https", host), server.path, None)
        print(f"{name} https://{host}: {seen.text}; hellos: {server.hellos}")
        return next(iter(seen.verdicts), seen.text)

    def doctor(extension) -> str:
        findings = json.loads(extension.control("--json", "doctor").stdout)
        return next(f["result"] for f in findings if (f["check"], f["subject"]) == ("encrypted-hello", title))

    with world.extension(name) as extension:
        extension.hold(SECRET)
        check(doctor(extension), "warning", "doctor without the policy")
        # A browser that gets the key too late sends the name unencrypted, and its connection is dropped. So try again.
        verdicts = [fetch(SECRET)]
        while verdicts[-1] == DROP and len(verdicts) < 3:
            verdicts.append(fetch(SECRET))
        check(verdicts[-1], ALLOW, f"{SECRET} without the policy")
        check(set(server.hellos), {Hello(PUBLIC, True)}, "the hellos without the policy")
        status = extension.next_status()
        check(re.sub(r"\d+$", "N", status), "Filtering; connections with hidden names: N", "the status line")

        extension.control("browsers", "policy", "install")
        server.hellos.clear()
        check(doctor(extension), "ok", "doctor with the policy")
        check((fetch(SECRET), fetch(OPEN)), (DROP, ALLOW), f"{SECRET}, {OPEN} with the policy")
        check(set(server.hellos), {Hello(OPEN, decoy)}, "the hellos with the policy")


def PolicyStopsEncryptedHellosOfChromium(world: World):
    _browse_encrypted(world, Chromium, "chromium", "Chromium Web Browser", decoy=False)


def PolicyStopsEncryptedHellosOfFirefox(world: World):
    _browse_encrypted(world, Firefox, "firefox-esr", "Firefox ESR", decoy=True)
