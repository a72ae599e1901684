"""The demo's table, printed line by line as the steps finish."""

_WIDTHS = (17, 17, 39, 17)
_HEADINGS = ("program", "bundle identifier", "destination", "verdict expected", "what the client saw")


class Table:
    def __init__(self):
        self.rows = self.unexpected = 0

    def scene(self, title: str) -> None:
        print(f"\n{title}\n")
        self._line(*_HEADINGS)
        self._line(*("-" * width for width in _WIDTHS), "-" * len(_HEADINGS[-1]))

    def row(self, program: str, identifier: str, destination: str, expected: str, seen: str, fault: str | None) -> None:
        self.rows += 1
        self._line(program, identifier, destination, expected, seen)
        self._report(fault)

    def command(self, text: str, result: str, fault: str | None = None) -> None:
        self.rows += 1
        self._print(f"  $ {text}  -> {result}")
        self._report(fault)

    def note(self, text: str) -> None:
        self._print(f"  ({text})")

    def _line(self, *cells: str) -> None:
        fixed = (f"{cell:<{width}}" for cell, width in zip(cells, _WIDTHS))
        self._print("  ".join([*fixed, cells[-1]]))

    def _report(self, fault: str | None) -> None:
        if fault is not None:
            self.unexpected += 1
            self._print(f"  ^ NOT AS EXPECTED: {fault}")

    @staticmethod
    def _print(text: str) -> None:
        print(text, flush=True)
