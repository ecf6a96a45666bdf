"""What a value of the agent is here: numbers, texts, dicts, lists, and Refs to its objects."""

import collections
import functools
import keyword
from collections.abc import Hashable, Iterator
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from kelp_inspect.agent import Agent


class Ref:
    """An object of the agent. Its attributes read those of the object, by name:

    a plain attribute or an operation without arguments that changes nothing gives its value, a
    collection a Collection, any other operation an Operation to be called. Two Refs of one path are
    equal. What no path leads to, `$1`, is held by the agent until the last Ref to it has gone, or
    release().
    """

    __slots__ = ("_agent", "_path", "_shape", "__weakref__")

    def __init__(self, agent: "Agent", path: str) -> None:
        self._agent = agent
        self._path = path
        self._shape: dict[str, dict[str, Any]] | None = None

    @property
    def agent(self) -> "Agent":
        """The agent that has the object."""
        return self._agent

    @property
    def path(self) -> str:
        """Where the object is, for the methods of Agent."""
        return self._path

    @property
    def class_name(self) -> str:
        """The class of the object."""
        return self._agent.ls(self._path)["class"]

    def attributes(self) -> list[dict[str, Any]]:
        """What the object has: see the method `list` of the protocol."""
        return list(self._known().values())

    def read(self, name: str) -> Any:
        """The value of an attribute, whatever its name is."""
        return self._agent.read(f"{self._path}/{name}")

    def write(self, name: str, value: Any) -> None:
        """Writes an attribute."""
        self._agent.write(f"{self._path}/{name}", value)

    def release(self) -> None:
        """Lets go of an object that is held for this connection; no Ref to it works any more."""
        self._agent.release(self._path)

    def __getattr__(self, name: str) -> Any:
        if name.startswith("__"):
            raise AttributeError(name)
        known = self._known().get(name)
        if known is None:
            raise AttributeError(f"{self._path} has no {name}: it has {', '.join(self._known())}")
        if known["kind"] == "collection":
            return Collection(self, name)
        if known["kind"] == "operation" and ("arguments" in known or "mutating" in known["flags"]):
            return Operation(self, name)
        return self.read(name)

    def __getitem__(self, key: Any) -> Any:
        """The member of this key of the one collection that the object has."""
        names = [name for name, one in self._known().items() if one["kind"] == "collection"]
        if len(names) != 1:
            raise TypeError(f"{self._path} has {len(names)} collections: name one, as an attribute")
        return getattr(self, names[0])[key]

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *self._known()]

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Ref) and other._agent is self._agent and other._path == self._path

    def __hash__(self) -> int:
        return hash((id(self._agent), self._path))

    def __repr__(self) -> str:
        return f"Ref({self._path!r})"

    def _known(self) -> dict[str, dict[str, Any]]:
        if self._shape is None:
            listed = self._agent.ls(self._path)
            self._shape = {one["name"]: one for one in listed["attributes"]}
        return self._shape


class Operation:
    """An operation of an object, to be called with its arguments."""

    __slots__ = ("_agent", "_owner", "_path")

    def __init__(self, owner: Ref, name: str) -> None:
        self._agent = owner.agent
        self._owner = owner  # stays held
        self._path = f"{owner.path}/{name}"

    def __call__(self, *args: Any) -> Any:
        return self._agent.call(self._path, *args)

    def __repr__(self) -> str:
        return f"Operation({self._path!r})"


class Collection:
    """A collection of an object, as a mapping from keys to members.

    Nothing is kept here: each use asks the agent. Keys are numbers, texts or dicts.
    """

    __slots__ = ("_agent", "_owner", "_path")

    def __init__(self, owner: Ref, name: str) -> None:
        self._agent = owner.agent
        self._owner = owner  # stays held
        self._path = f"{owner.path}/{name}"

    @property
    def path(self) -> str:
        """Where the collection is."""
        return self._path

    def __len__(self) -> int:
        return self._agent.count(self._path)

    def __bool__(self) -> bool:
        return len(self) != 0

    def __contains__(self, key: Any) -> bool:
        return self._agent.has(self._path, key)

    def __getitem__(self, key: Any) -> Any:
        """The member; raises KeyError if there is none."""
        if key not in self:
            raise KeyError(key)
        return self._agent.lookup(self._path, key)

    def get(self, key: Any, default: Any = None) -> Any:
        """The member, or `default`."""
        member = self._agent.lookup(self._path, key)
        return default if member is None else member

    def __iter__(self) -> Iterator[Any]:
        """The keys."""
        return (key for key, _ in self.items())

    def items(self) -> Iterator[tuple[Any, Any]]:
        """Keys and members; of a set each member is None. What comes and goes is given or not."""
        yield from self._agent.iterate(self._path)

    def values(self) -> Iterator[Any]:
        """The members."""
        return (value for _, value in self.items())

    def __repr__(self) -> str:
        return f"Collection({self._path!r})"


@functools.cache
def _record_type(names: tuple[str, ...]) -> type:
    plain = all(name.isidentifier() and not keyword.iskeyword(name) for name in names)
    return collections.namedtuple("Key", names, rename=not plain)


def hashable(value: Any) -> Hashable:
    """A value as the key of a dict: of a record a named tuple, of a list a tuple.

    `hashable({"port": 3, "vlan": 100})` has the attributes `port` and `vlan`, and equals (3, 100).
    """
    if isinstance(value, dict):
        return _record_type(tuple(value))(*map(hashable, value.values()))
    if isinstance(value, list):
        return tuple(map(hashable, value))
    return value
