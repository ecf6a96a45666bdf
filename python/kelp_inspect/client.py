"""JSON-RPC 2.0 over the Unix socket of an agent, one message a line."""

import collections
import enum
import json
import socket
import time
from collections.abc import Sequence
from typing import Any, Self


class Code(enum.IntEnum):
    """Why a request was refused."""

    NO_JSON = -32700
    NO_REQUEST = -32600
    NO_METHOD = -32601
    WRONG_PARAMS = -32602
    NOT_VALID = 1
    NOT_FOUND = 2
    GONE = 3
    FAILED = 4
    NOT_ALLOWED = 5
    LIMIT_REACHED = 6


class InspectError(Exception):
    """The agent has refused a request.

    `code` is a Code, or a plain number if this module does not know it; `path` is the place that
    it is about, or None. The text begins with the place and says what to do.
    """

    def __init__(self, code: int, message: str, path: str | None = None) -> None:
        super().__init__(message)
        self.code: Code | int = Code(code) if code in list(Code) else code
        self.path = path


class Client:
    """One connection, for one thread. Values are what JSON makes of them."""

    _CHUNK = 1 << 16
    _MOST_BATCH = 64

    def __init__(self, path: str, timeout: float | None = 60.0) -> None:
        """Connects to the socket at `path`; `timeout` is for each answer, in seconds, None: none.

        Raises OSError if nobody listens there.
        """
        self.path = path
        self.timeout = timeout
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_CLOEXEC)
        try:
            self._socket.settimeout(timeout)
            self._socket.connect(path)
        except OSError:
            self._socket.close()
            raise
        self._lines: collections.deque[bytes] = collections.deque()
        self._rest = bytearray()
        self._last_id = 0
        self._changes: dict[int, collections.deque[dict[str, Any]]] = {}

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends the connection; the agent lets go of all that it holds for it."""
        self._socket.close()

    @property
    def closed(self) -> bool:
        """Whether this side has ended the connection, or had to."""
        return self._socket.fileno() < 0

    def request(self, method: str, **params: Any) -> Any:
        """Asks, and waits for the result.

        Raises InspectError if the agent refuses; ConnectionError if it has gone; TimeoutError if no
        answer comes, and then the connection is closed, for the answer may still be under way.
        """
        answer = _result(self._ask(self._message(method, params)))
        if isinstance(answer, InspectError):
            raise answer
        return answer

    def batch(self, requests: Sequence[tuple[str, dict[str, Any]]]) -> list[Any]:
        """The same for many (method, params), which the agent answers together.

        Gives the results in their order, an InspectError in the place of each that is refused.
        """
        results: list[Any] = []
        for at in range(0, len(requests), self._MOST_BATCH):
            some = requests[at:at + self._MOST_BATCH]
            answers = self._ask([self._message(method, params) for method, params in some])
            # A batch that is refused as a whole has one answer.
            if isinstance(answers, dict):
                raise _result(answers)
            results += map(_result, answers)
        return results

    def changes(self, subscription: int) -> collections.deque[dict[str, Any]]:
        """The params of the notifications of a subscription that have come and were not taken."""
        return self._changes.setdefault(subscription, collections.deque())

    def forget(self, subscription: int) -> None:
        """Drops what has come for a subscription that has ended."""
        self._changes.pop(subscription, None)

    def wait(self, timeout: float | None) -> bool:
        """Waits for a notification, of any subscription; False if none comes in `timeout` seconds.

        Raises ConnectionError if the agent has gone.
        """
        deadline = None if timeout is None else time.monotonic() + timeout
        try:
            self._keep(self._next_message(deadline))
        except TimeoutError:
            return False
        except OSError:
            self.close()
            raise
        return True

    def _message(self, method: str, params: dict[str, Any]) -> dict[str, Any]:
        self._last_id += 1
        message: dict[str, Any] = {"jsonrpc": "2.0", "id": self._last_id, "method": method}
        if params:
            message["params"] = params
        return message

    def _ask(self, message: Any) -> Any:
        """Sends a request or a batch, and gives what comes back for it."""
        deadline = None if self.timeout is None else time.monotonic() + self.timeout
        try:
            self._send(message)
            while True:
                answer = self._next_message(deadline)
                # Responses come in order: the next that is no notification is this one's.
                if isinstance(answer, list) or "id" in answer:
                    return answer
                self._keep(answer)
        except (OSError, ValueError, KeyboardInterrupt):
            self.close()
            raise

    def _keep(self, message: dict[str, Any]) -> None:
        if message.get("method") in ("changed", "lost", "ended"):
            told = message["params"] | {"method": message["method"]}
            self.changes(told["subscription"]).append(told)

    def _send(self, message: Any) -> None:
        self._socket.settimeout(self.timeout)
        line = json.dumps(message, ensure_ascii=False, separators=(",", ":"), allow_nan=False)
        self._socket.sendall(line.encode() + b"\n")

    def _next_message(self, deadline: float | None) -> Any:
        while not self._lines:
            left = None if deadline is None else max(deadline - time.monotonic(), 1e-6)
            self._socket.settimeout(left)
            chunk = self._socket.recv(self._CHUNK)
            if not chunk:
                raise ConnectionError(f"{self.path}: the agent has ended the connection")
            begun = len(self._rest)
            self._rest += chunk
            # What has come before holds no end of a line.
            end = self._rest.rfind(b"\n", begun)
            if end >= 0:
                self._lines.extend(bytes(self._rest[:end]).split(b"\n"))
                del self._rest[:end + 1]
        return json.loads(self._lines.popleft())


def _result(answer: dict[str, Any]) -> Any:
    """The result in an answer, or the InspectError."""
    if "error" not in answer:
        return answer["result"]
    error = answer["error"]
    return InspectError(error["code"], error["message"], error.get("data", {}).get("path"))
