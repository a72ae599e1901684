"""Browsers that reach their sites over HTTP/3, and the time until they show a page or an error."""

import dataclasses
import time

from programs import ALLOW, DROP, Chromium, Destination, Firefox, Seen, Tabs
from web_servers import page_of

_REFUSALS = ("net::ERR_QUIC_PROTOCOL_ERROR", "net::ERR_CONNECTION_RESET", "net::ERR_CONNECTION_REFUSED")


@dataclasses.dataclass(frozen=True)
class OverHTTP3(Destination):
    """A page that only the HTTP/3 server has: the page's text names the scheme h3."""

    def url(self, path: str = "/") -> str:
        return f"https://{self.host}{path}"


def over_http3(host: str) -> OverHTTP3:
    return OverHTTP3("h3", host)


class FirefoxWithHTTP3(Firefox):
    """Uses HTTP/3 for sites that have offered it over TCP. Knows of `hosts` that they offer it, as after a visit."""

    def __init__(self, name, path, identifier, directory, hosts: list[str]):
        super().__init__(name, path, identifier, directory)
        mapping = ",".join(f"{host};h3=:443" for host in hosts)
        self._SETTINGS += f'user_pref("network.http.http3.alt-svc-mapping-for-testing", "{mapping}");\n'
        # By default, Firefox uses no HTTP/3 here: the server is on the loopback device, and the test's authority was
        # added to the built-in ones.
        self._SETTINGS += 'user_pref("network.http.http3.force-quic-on-loopback", true);\n'
        self._SETTINGS += 'user_pref("network.http.http3.disable_when_third_party_roots_found", false);\n'


class ChromiumWithHTTP3(Chromium):
    """Uses HTTP/3 for the hosts after they have offered it over TCP. If `uses_it_alone`, does not try TCP."""

    def __init__(self, name, path, identifier, directory, hosts: list[str], key_hash: str, uses_it_alone: bool):
        super().__init__(name, path, identifier, directory)
        # For HTTP/3, --ignore-certificate-errors has no effect. The hash of the certificate's key makes Chromium accept
        # the certificate, and the option about origins the test's authority, whatever the port is.
        replaced = ("--disable-quic", "--ignore-certificate-errors")
        self._OPTIONS = [option for option in self._OPTIONS if option not in replaced]
        port = 443 if uses_it_alone else 1
        self._OPTIONS += [
            f"--ignore-certificate-errors-spki-list={key_hash}",
            f"--origin-to-force-quic-on={','.join(f'{host}:{port}' for host in hosts)}",
        ]

    def fetch(self, destination: Destination, path: str, proxy: str | None) -> Seen:
        with self.tabs() as tabs:
            return self.visit(tabs, destination, path)

    def visit(self, tabs: Tabs, destination: Destination, path: str) -> Seen:
        """Visits the page in a new tab."""
        start = time.monotonic()
        error, text = tabs.visit(destination.url(path))
        self.seconds = time.monotonic() - start
        if error is not None:
            return Seen([DROP] if error in _REFUSALS else [], f"error page, {error}")
        return Seen([ALLOW], "the page") if page_of("h3", destination.host) in text else Seen([], text)
