"""The filter's verdicts on real browsers that hide names from it, without and with our policies."""

import json
import re
import subprocess

import isolation
from browsers import Browser, Chromium, Firefox
from encrypted_hello import EncryptedHelloServer, Hello
from harness import ALLOW, BELOW, BESIDE, DROP, HELD, NEWS, World, check
from programs import Destination

# Two sites with Encrypted Client Hello, and the name that the network sees instead of the sites' names.
SECRET, OPEN, PUBLIC = "secret.example", "open.example", "cloudflare-ech.com"


def _browse_encrypted(world: World, kind: type[Browser], title: str, decoy: bool) -> None:
    """Checks that the installed policy stops encrypted hellos. With `decoy`, random bytes then take their place."""
    browser = world.browser(kind)
    server = EncryptedHelloServer(
        world.directory / "encrypted", "127.0.0.2", [SECRET, OPEN], PUBLIC, world.servers.signed
    )
    for host in (SECRET, OPEN):
        world.addresses[host], world.hello_keys[host] = ["127.0.0.2"], server.keys
    isolation.make_etc_writable(world.directory)

    def fetch(host: str) -> str:
        seen = browser.fetch(Destination("https", host), server.path, None)
        print(f"{browser.name} https://{host}: {seen.text}; hellos: {server.hellos}")
        return next(iter(seen.verdicts), seen.text)

    def doctor(extension) -> str:
        findings = json.loads(extension.control("--json", "doctor").stdout)
        return next(f["result"] for f in findings if (f["check"], f["subject"]) == ("encrypted-hello", title))

    with world.extension(browser.identifier) as extension:
        extension.hold(SECRET)
        check(doctor(extension), "warning", "doctor without the policy")
        # A browser that gets the server's key too late sends the name unencrypted, and is dropped. So try again.
        verdicts = [fetch(SECRET)]
        while verdicts[-1] == DROP and len(verdicts) < 10:
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
    _browse_encrypted(world, Chromium, "Chromium Web Browser", decoy=False)


def PolicyStopsEncryptedHellosOfFirefox(world: World):
    _browse_encrypted(world, Firefox, "Firefox ESR", decoy=True)


def _check_shared_connections(world: World, browser: Browser, *expected: str) -> None:
    """Checks whether the browser reaches HELD over its open connections to names that are not held.

    All names have the same address. `expected` has the verdicts on four requests for HELD:
      1. for a page, after the browser has opened a page of another site;
      2. for a part of that other page;
      3. for a part of that other page, after that page has fetched a part from a third site;
      4. for a page, after the browser has opened a page of a subdomain of HELD.
    """
    with world.filtering(browser.identifier), browser.tabs() as tabs:
        tab = tabs.open()
        tabs.navigate(tab, Destination("h2", NEWS).url())

        def fetch_page(host: str) -> str:
            return browser.fetch(Destination("h2", host), "/", None).verdicts[0]

        def fetch_part(host: str) -> str:
            options = "{mode: 'no-cors', credentials: 'include'}"
            return tabs.evaluate(tab, f"fetch('https://{host}/', {options}).then(() => '{ALLOW}', () => '{DROP}')")

        verdicts = [fetch_page(HELD), fetch_part(HELD)]
        check(fetch_part(BESIDE[1]), ALLOW, BESIDE[1])
        verdicts.append(fetch_part(HELD))
        check(fetch_page(BELOW[0]), ALLOW, BELOW[0])
        verdicts.append(fetch_page(HELD))
        check(verdicts, list(expected), f"{browser.name}: verdicts on {HELD}")


def ChromiumSharesConnectionsOfASiteAndOfThePartsOfAPage(world: World):
    world.serve_with_caddy(HELD, NEWS, *BELOW, *BESIDE)
    _check_shared_connections(world, world.browser(Chromium), DROP, DROP, ALLOW, ALLOW)


def PolicyStopsSharedConnectionsOfFirefox(world: World):
    world.serve_with_caddy(HELD, NEWS, *BELOW, *BESIDE)
    firefox = world.browser(Firefox)
    _check_shared_connections(world, firefox, DROP, ALLOW, ALLOW, ALLOW)
    isolation.make_etc_writable(world.directory)
    subprocess.run([world.build / "orvanectl", "browsers", "policy", "install"], check=True)
    _check_shared_connections(world, firefox, DROP, DROP, DROP, DROP)
