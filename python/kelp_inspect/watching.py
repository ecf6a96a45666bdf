"""Changes of an attribute or a collection, as the agent tells them."""

import contextlib
import time
from collections.abc import Iterator
from typing import TYPE_CHECKING, Any, NamedTuple, Self

from kelp_inspect.client import Code, InspectError

if TYPE_CHECKING:
    from kelp_inspect.agent import Agent


class Change(NamedTuple):
    """One change. `key` is of a collection, and None otherwise; `value` is the new one, and None
    if the member has gone. `error` says why the agent could not tell the value, or that changes
    were lost (read again what matters then), or is None."""

    path: str
    key: Any
    value: Any
    error: str | None = None


class Watch:
    """The changes of one place, from the moment on at which this is made. Ends with close()."""

    def __init__(self, agent: "Agent", path: str, timeout: float | None) -> None:
        self._agent = agent
        self._timeout = timeout
        self._number: int | None = agent.client.request("subscribe", path=path)
        agent.watches.add(self)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __iter__(self) -> Iterator[Change]:
        return self

    def __next__(self) -> Change:
        """The next change. Ends when none comes for the time given to Agent.watch.

        Raises InspectError with Code.GONE once the object is gone.
        """
        change = self.next(self._timeout)
        if change is None:
            raise StopIteration
        return change

    def next(self, timeout: float | None = None) -> Change | None:
        """The next change; None if none comes in `timeout` seconds, or after close().

        Raises InspectError with Code.GONE once the object is gone.
        """
        if self._number is None:
            return None
        waiting = self._agent.client.changes(self._number)
        deadline = None if timeout is None else time.monotonic() + timeout
        while not waiting:
            left = None if deadline is None else deadline - time.monotonic()
            if not self._agent.client.wait(None if left is None else max(left, 0.0)):
                return None
        told = waiting.popleft()
        if told["method"] == "ended":
            self.close()
            raise InspectError(Code.GONE, f"{told['path']}: {told['error']}", told["path"])
        return Change(told["path"], self._agent.value(told.get("key")),
                      self._agent.value(told.get("value")), told.get("error"))

    def close(self) -> None:
        """Ends the subscription. Nothing if it has ended."""
        number, self._number = self._number, None
        if number is None:
            return
        self._agent.watches.discard(self)
        if not self._agent.client.closed:
            with contextlib.suppress(InspectError):  # the agent may have ended it
                self._agent.client.request("unsubscribe", subscription=number)
            self._agent.client.forget(number)
