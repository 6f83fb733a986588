"""tvx.Error: a failure of the library, with the records of its error stack."""

from typing import NamedTuple, Optional, Tuple


class Entry(NamedTuple):
    """One line of a record's trace: the routine and what it said (None when it said nothing)."""

    routine: str
    text: Optional[str]


class Cause(NamedTuple):
    """A possible cause the library suggests: its code and its advice."""

    code: int
    text: str


class Record(NamedTuple):
    """One record of the error stack.

    ``trace`` starts with the routine that met the fault and goes out through each caller that
    qualified it; ``category`` and ``code`` are the library's numbers for the fault.
    """

    category: int
    code: int
    trace: Tuple[Entry, ...]
    causes: Tuple[Cause, ...]

    @property
    def routine(self) -> str:
        """The routine that met the fault."""
        return self.trace[0].routine if self.trace else ""

    @property
    def text(self) -> Optional[str]:
        """What that routine said about it."""
        return self.trace[0].text if self.trace else None


class Error(Exception):
    """The library refused, or the package could not do what was asked.

    ``str(error)`` tells the whole story: what the package was doing, each routine from the
    fault out to the call that met it, and the library's advice. ``records`` holds the error
    stack's records, the latest first; the stack itself has been cleared, so the next call starts
    afresh.
    """

    def __init__(self, message: str, records=(), doing: str = "", story: str = ""):
        super().__init__(message)
        self.records: Tuple[Record, ...] = tuple(records)
        self.doing = doing
        self.story = story or message

    @classmethod
    def _raised(cls, doing, story, records):
        recs = tuple(
            Record(category, code, tuple(Entry(*e) for e in trace), tuple(Cause(*c) for c in causes))
            for category, code, trace, causes in records
        )
        story = story.rstrip("\n") or "the library gave no reason."
        message = f"failed while {doing}:\n{story}" if doing else story
        return cls(message, recs, doing, story)

    @property
    def category(self) -> Optional[int]:
        """The category of the latest record, or None for a failure of the package's own."""
        return self.records[0].category if self.records else None

    @property
    def routine(self) -> Optional[str]:
        return self.records[0].routine if self.records else None

    @property
    def text(self) -> Optional[str]:
        return self.records[0].text if self.records else None

    @property
    def causes(self) -> Tuple[Cause, ...]:
        """Every possible cause on the stack, in the order the story tells them."""
        return tuple(c for r in self.records for c in r.causes)
