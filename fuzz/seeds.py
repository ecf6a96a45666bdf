#!/usr/bin/env python3
"""Writes what the fuzzers begin with: seeds.py FOLDER makes FOLDER/NAME for each of them.

The same files each time. Images are no files here: the fuzzer writes a store of its own, and an
input says what is changed in it (see ImageFuzz.cpp).
"""

import json
import pathlib
import struct
import sys

_ROOT = pathlib.Path(__file__).resolve().parents[1]

# What ImageFuzz.cpp reads as the first byte of an input: the command; twenty times over, as JSON
# and as text; from 200 on, of the store without entries.
_COMMANDS = 10
_FRESH = 200
# The numbers of the files of its store: the change log of the first table and one of its units.
_LOG, _CONFIG = 0, 4


def _header_word(file, word, value):
    return struct.pack("<BBBQ", 0, file, word, value)


def _head(file, bucket, value):
    return struct.pack("<BBBQ", 1, file, bucket, value)


def _head_to_slot(file, bucket, slot):
    return struct.pack("<BBBB", 2, file, bucket, slot)


def _next_to_slot(file, slot, successor):
    return struct.pack("<BBBB", 3, file, slot, successor)


def _slot_bytes(file, slot, offset, text, sealed):
    return struct.pack("<BBBBB", 5 if sealed else 4, file, slot, offset, len(text) - 1) + text


def _constants(file, offset, text, sealed):
    return struct.pack("<BBBBB", 6, file, 4 if sealed else 0, offset, len(text) - 1) + text


def _images():
    """Changes of a store, each under every command."""
    changes = {
        "none": b"",
        "published": _header_word(_LOG, 0, 30),
        "last-version": _header_word(_LOG, 0, 2**64 - 1),
        "counts": b"".join(_header_word(_CONFIG, word, 2**40) for word in range(10)),
        "nothing-reserved": _header_word(_CONFIG, 6, 0),
        "heads-not-in-use": _header_word(_CONFIG, 9, 0),
        "head-astray": _head(_CONFIG, 1, 2**63 + 5),
        "head-to-other-bucket": b"".join(_head_to_slot(_CONFIG, at, 3) for at in range(16)),
        "chains-go-round": b"".join(_next_to_slot(_CONFIG, at, at % 3) for at in range(12)),
        "all-damaged": b"".join(_slot_bytes(_CONFIG, at, 20, b"x", False) + _next_to_slot(
            _CONFIG, at, (at + 1) % 12) for at in range(12)),
        "damaged-record": _slot_bytes(_LOG, 9, 17, b"\xff", False),
        "sealed-record": _slot_bytes(_LOG, 9, 16, b"\xff" * 8, True),
        "sealed-entry": _slot_bytes(_CONFIG, 2, 16, b"\xff" * 8, True),
        "one-header": _constants(_CONFIG, 40, b"xyz", False),
        "other-capacity": _constants(_CONFIG, 32, b"\0\1\0\0", True),
        "no-end-of-name": _constants(_CONFIG, 176, b"n" * 64, True),
        "cut": struct.pack("<BBH", 9, _CONFIG, 5000),
        "gone": struct.pack("<BB", 7, _CONFIG),
        "noise": struct.pack("<BBH", 8, _CONFIG, 300) + bytes(at * 7 % 256 for at in range(300)),
        "register": struct.pack("<BBH", 8, _LOG + 1, 20) + b"pid 99999999999999999",
    }
    for name, change in changes.items():
        for command in range(_COMMANDS):
            yield f"{name}-{command}", bytes([command]) + change
        yield f"{name}-fresh", bytes([_FRESH]) + change


def _lines(name):
    for number, line in enumerate((_ROOT / "examples" / name).read_text().splitlines()):
        if line and not line.startswith("#"):
            yield f"{name}-{number}", line.encode()


def _intents():
    for name in ("tables.jsonl", "resources.jsonl"):
        yield from _lines(name)


def _paths():
    """The first byte chooses: a path, or one value."""
    paths = ("a", "A::B/c[3]/d", "a/b[port=3,vlan=100]/c", 'a["text"]', "a[key={a=1,b=2}]",
             "a[0x1f][true]/b[null]/c[word]", "a[[1,2]]", r'a["q\"b\\"]')
    values = ("5", "0xff", "true", "null", '"text"', "bare", "{a=1,b={c=2,d=three}}", "a=1,b=2")
    for number, path in enumerate(paths):
        yield f"path-{number}", b"\0" + path.encode()
    for number, value in enumerate(values):
        yield f"value-{number}", b"\1" + value.encode()


def _requests():
    def line(method, params=None, **more):
        request = {"jsonrpc": "2.0", "id": 1, "method": method, **more}
        if params is not None:
            request["params"] = params
        return request

    lines = {
        "objects": line("objects"),
        "read": line("read", {"path": "A::B/c[3]"}, id="a"),
        "call": line("call", {"path": "a/b", "args": [1, True, {"ref": "$1"}, {"k": [2.5]}]}),
        "iterate": line("iterate", {"path": "a", "from": {"port": 3}, "limit": 10}),
        "no-id": {"jsonrpc": "2.0", "method": "close", "params": {"cursor": 18446744073709551615}},
        "batch": [line("read", {"path": "a"}), 5, line("count", [1], id=None)],
        "old": {"method": "read", "id": -3}, "empty": [], "text": "text",
        "deep": [[[[[[[[[[1]]]]]]]]]],
    }
    for name, request in lines.items():
        yield name, json.dumps(request).encode()
    yield "no-json", b'{"jsonrpc":"2.0","id":1,'


_SEEDS = {"image": _images, "intent": _intents, "path": _paths, "request": _requests}


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    for fuzzer, seeds in _SEEDS.items():
        folder = pathlib.Path(sys.argv[1]) / fuzzer
        folder.mkdir(parents=True, exist_ok=True)
        for name, content in seeds():
            (folder / name).write_bytes(content)


if __name__ == "__main__":
    main()
