"""The real programs, as processes over a store of the test's own."""

import json
import os
import pathlib
import socket
import subprocess
import tempfile
import time
import unittest

_BIN = pathlib.Path(os.environ["KELP_BIN"])
# A safety net; the machine may be busy.
_PATIENCE = 60.0
_SHARED_MEMORY = "/dev/shm"


def wait_for(holds, what):
    """Waits until `holds()`."""
    deadline = time.monotonic() + _PATIENCE
    while not holds():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited in vain: {what}")
        time.sleep(0.005)


def _listens(path):
    with socket.socket(socket.AF_UNIX) as peer:
        return peer.connect_ex(path) == 0


class Switch:
    """An agent of two units with its sockets, and a hardware side. Nothing is left of it."""

    def __init__(self, case: unittest.TestCase, chip=True):
        parent = _SHARED_MEMORY if os.path.isdir(_SHARED_MEMORY) else None
        folder = tempfile.TemporaryDirectory(dir=parent, prefix="kelp-test-")
        case.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.inspect = str(self.folder / "inspect")
        self._intents = str(self.folder / "intents")
        self._case = case
        if chip:
            self.start("kelp-chip")
        self.agent = self.start("kelp-agent", "--units", "2", "--inspect", self.inspect, "--socket",
                                self._intents)
        for path in (self.inspect, self._intents):
            wait_for(lambda path=path: _listens(path) or self.agent.poll() is not None,
                     f"{path} to be listened on")
        case.assertIsNone(self.agent.poll(), self.said())

    def start(self, program, *arguments):
        with open(self.folder / f"{program}.err", "wb") as log:
            process = subprocess.Popen(
                [_BIN / program, "--name", "test", "--root", self.folder, *arguments],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self._case.addCleanup(self._end, process)
        return process

    def said(self):
        return (self.folder / "kelp-agent.err").read_text(errors="replace")

    def ask(self, *intents):
        """Sends intents, and gives the outcomes of all of them."""
        with socket.socket(socket.AF_UNIX) as peer:
            peer.settimeout(_PATIENCE)
            peer.connect(self._intents)
            peer.sendall(b"".join(json.dumps(intent).encode() + b"\n" for intent in intents))
            with peer.makefile() as lines:
                return [json.loads(next(lines)) for _ in intents]

    @staticmethod
    def _end(process):
        process.kill()
        process.wait()


def write(number, unit=0):
    """An intent that writes entry `number` of Isem1Tag."""
    return {"op": "write", "table": "Isem1Tag", "unit": unit,
            "key": {"port": number % 50, "vlan": 1 + number // 50},
            "resources": {"attachmentCircuit": number + 1}}
