"""The agent: its objects, and its tables."""

import contextlib
import weakref
from collections.abc import Hashable, Iterator, Sequence
from typing import Any, NamedTuple, Self

from kelp_inspect.client import Client, InspectError
from kelp_inspect.objects import Ref, hashable
from kelp_inspect.watching import Watch

_LIBRARY = "KelpEmServer::"
_INTERFACE = "KelpInterface"
_PAGE, _MOST_PAGE = 1000, 10000


class Table(NamedTuple):
    """One table of one chip unit.

    `entries` are those in the reader's view. `version` is the last of its change log and `cleaned`
    that up to which the hardware side has taken the log in; the units of a table share both.
    `pending` says whether the hardware side has work left, `ref` is the software table.
    """

    name: str
    unit: int
    entries: int
    version: int
    cleaned: int
    pending: bool
    ref: Ref


class Agent:
    """A running agent, over one connection. For one thread; a context manager.

    What the agent refuses raises InspectError. Records come as dicts, lists as lists, objects as
    Refs, and all of them may be given as arguments.
    """

    def __init__(self, path: str, timeout: float | None = 60.0) -> None:
        """Connects to the socket of `kelp-agent --inspect PATH`.

        `timeout` is for each answer, in seconds; None: none. Raises OSError if nobody listens.
        """
        self.client = Client(path, timeout)
        self.watches: set[Watch] = set()
        self._refs: dict[str, int] = {}  # live Refs to objects that are held for this connection
        self._dropped: set[str] = set()  # of which the last Ref has gone

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the connection; the agent lets go of what it holds for it."""
        self.client.close()

    # The tables.

    def tables(self) -> list[Table]:
        """All tables of all units, in the order of their names."""
        roots = [root.path for root in self.objects()
                 if root.path.startswith(_LIBRARY) and root.path.endswith(_INTERFACE)]
        asked: list[tuple[str, dict[str, Any]]] = []
        for root in roots:
            asked += (("iterate", {"path": f"{root}/swTableSet/swTable", "limit": _MOST_PAGE}),
                      ("read", {"path": f"{root}/entryLog/tableVersion"}),
                      ("read", {"path": f"{root}/entryLog/lastCleanedVersion"}))
        answers = iter(self._all(asked))
        found, asked = [], []
        for root, units, version, cleaned in zip(roots, answers, answers, answers):
            for unit, ref in units["members"]:
                found.append((root, unit, ref, version, cleaned))
                asked += (("call", {"path": f"{root}/entryLog/entrys", "args": [unit]}),
                          ("read", {"path": f"{ref.path}/hasPendingHwWrites"}))
        answers = iter(self._all(asked))
        tables = [Table(root.removeprefix(_LIBRARY).removesuffix(_INTERFACE), unit, entries,
                        version, cleaned, pending, ref)
                  for (root, unit, ref, version, cleaned), entries, pending
                  in zip(found, answers, answers)]
        return sorted(tables, key=lambda table: table[:2])

    def _all(self, requests: Sequence[tuple[str, dict[str, Any]]]) -> list[Any]:
        """What a batch gives, if nothing of it is refused."""
        answers = self.batch(requests)
        for answer in answers:
            if isinstance(answer, InspectError):
                raise answer
        return answers

    def table(self, table: str, unit: int = 0) -> Ref:
        """The software table. Raises InspectError if there is none of this name or on this unit."""
        return self.read(f"{_LIBRARY}{table}{_INTERFACE}/swTableSet[{unit:d}]")

    def entries(self, table: str, unit: int = 0) -> Iterator[dict[str, Any]]:
        """The entries of a table as its readers see them, in no order.

        Each is {"key": KEY, "payload": {...}, "resources": {...}}; the payload has what a resource
        has resolved to. They come in pages, of the table as it is by then: nothing is copied, and
        an entry that is written meanwhile may be left out. For all of one moment, see snapshot().
        """
        found = self.table(table, unit)
        return (_entry(value) for _, value in found.entries.items())

    def snapshot(self, table: str, unit: int = 0) -> dict[Hashable, dict[str, Any]]:
        """The entries of a table at one moment, by key: see `hashable` for what a key is then."""
        copy = self.call(f"{self.table(table, unit).path}/getTableEntries_py")
        return {hashable(key): _entry(value) for key, value in copy.tableEntries.items()}

    # The methods of the protocol; docs/inspection.md tells what each gives.

    def objects(self) -> list[Ref]:
        """The roots."""
        return [Ref(self, one["path"]) for one in self.request("objects")]

    def classes(self) -> list[str]:
        """The names of all classes, sorted."""
        return self.request("classes")

    def attributes(self, class_name: str) -> list[dict[str, Any]]:
        """What objects of a class have, as it declares them."""
        return self.request("attributes", **{"class": class_name})

    def ls(self, path: str | Ref) -> dict[str, Any]:
        """What is at a place: the method `list` of the protocol."""
        return self.request("list", path=_path(path))

    def read(self, path: str | Ref) -> Any:
        """The value at a place."""
        return self.request("read", path=_path(path))

    def write(self, path: str | Ref, *values: Any) -> None:
        """Writes an attribute; several values if it is written with several arguments."""
        if len(values) == 1:
            self.request("write", path=_path(path), value=values[0])
        else:
            self.request("write", path=_path(path), args=list(values))

    def call(self, path: str | Ref, *args: Any) -> Any:
        """Calls an operation, and gives its result."""
        return self.request("call", path=_path(path), args=[*args])

    def count(self, path: str | Ref) -> int:
        """The number of members of a collection."""
        return self.request("count", path=_path(path))

    def has(self, path: str | Ref, key: Any) -> bool:
        """Whether a collection has a member of this key."""
        return self.request("has", path=_path(path), key=key)

    def lookup(self, path: str | Ref, key: Any) -> Any:
        """The member of this key, or None."""
        return self.request("lookup", path=_path(path), key=key)

    def delete(self, path: str | Ref, key: Any) -> Any:
        """Takes a member out of a collection, and gives it back; None if there was none.

        Of a set it gives whether there was one.
        """
        return self.request("delete", path=_path(path), key=key)

    def iterate(self, path: str | Ref, start: Any = None,
                page: int = _PAGE) -> Iterator[tuple[Any, Any]]:
        """Keys and members of a collection, beginning at the key `start`, in pages of `page`.

        Of a set the members are None. Changes of the collection end nothing: members that come and
        go meanwhile are given or not, all others once. Asks for the first page when the first
        member is asked for.
        """
        begin = {} if start is None else {"from": start}
        params: dict[str, Any] = {"path": _path(path), **begin}
        cursor = None
        try:
            while True:
                found = self.request("iterate", limit=page, **params)
                cursor = found["cursor"]
                for member in found["members"]:
                    yield member[0], member[1] if len(member) > 1 else None
                if cursor is None:
                    return
                params = {"cursor": cursor}
        finally:
            # Somebody has stopped in the middle.
            if cursor is not None and not self.client.closed:
                with contextlib.suppress(InspectError):  # the agent may have ended it
                    self.client.request("close", cursor=cursor)

    def watch(self, path: str | Ref, timeout: float | None = None) -> Watch:
        """The changes of an attribute or a collection from now on, one Change after the other.

        The iteration ends when none comes for `timeout` seconds; None: never. While any watch is
        open the agent goes on holding objects whose Refs have gone.
        """
        return Watch(self, _path(path), timeout)

    def release(self, name: str) -> None:
        """Lets go of an object that is held for this connection, such as "$1"."""
        self.client.request("release", ref=name)
        self._refs.pop(name, None)
        self._dropped.discard(name)

    def stats(self) -> dict[str, Any]:
        """Counters of the agent."""
        return self.request("stats")

    def request(self, method: str, **params: Any) -> Any:
        """Any method, with Refs in params and result."""
        self._release_dropped()
        given = {name: _plain(value) for name, value in params.items()}
        return self.value(self.client.request(method, **given))

    def batch(self, requests: Sequence[tuple[str, dict[str, Any]]]) -> list[Any]:
        """The results of many (method, params), in their order, for far fewer ways to the agent.

        One that is refused has an InspectError as its result.
        """
        self._release_dropped()
        return self.value(self.client.batch([(method, _plain(params))
                                             for method, params in requests]))

    # Values.

    def value(self, plain: Any) -> Any:
        """A value of the protocol, with a Ref for each object."""
        if isinstance(plain, dict):
            if len(plain) == 1 and isinstance(plain.get("ref"), str):
                return self._ref(plain["ref"])
            return {name: self.value(field) for name, field in plain.items()}
        if isinstance(plain, list):
            return [self.value(element) for element in plain]
        return plain

    def _ref(self, path: str) -> Ref:
        ref = Ref(self, path)
        if path.startswith("$") and path[1:].isdecimal():
            self._refs[path] = self._refs.get(path, 0) + 1
            self._dropped.discard(path)
            weakref.finalize(ref, self._drop, path).atexit = False
        return ref

    def _drop(self, path: str) -> None:
        left = self._refs.get(path, 0) - 1
        if left > 0:
            self._refs[path] = left
        elif left == 0:
            del self._refs[path]
            self._dropped.add(path)

    def _release_dropped(self) -> None:
        # What a notification names may be under way: it is not let go of meanwhile.
        while self._dropped and not self.watches and not self.client.closed:
            name = self._dropped.pop()
            with contextlib.suppress(InspectError):  # it may have been released by name
                self.client.request("release", ref=name)


def _path(place: str | Ref) -> str:
    return place.path if isinstance(place, Ref) else place


def _plain(value: Any) -> Any:
    """A value as the protocol has it."""
    if isinstance(value, Ref):
        return {"ref": value.path}
    if isinstance(value, dict):
        return {name: _plain(field) for name, field in value.items()}
    if isinstance(value, tuple) and hasattr(value, "_asdict"):
        return _plain(value._asdict())
    if isinstance(value, (list, tuple)):
        return [_plain(element) for element in value]
    return value


def _entry(record: dict[str, Any]) -> dict[str, Any]:
    """{"key", "payload", "resources"} of an entry as its attributes are."""
    payload = dict(record["logEntry"])
    return {"key": payload.pop("key"), "payload": payload, "resources": record.get("rsrcKeys", {})}
