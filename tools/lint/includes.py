"""Which file includes which, and whether that is the way down."""

import functools
import pathlib
import posixpath
import re

from cpp_text import without_comments
from report import Finding

_INCLUDE = re.compile(r"^[ \t]*#[ \t]*include[ \t]*([\"<])([^\">\n]+)[\">]", re.MULTILINE)

# Folder, floor. A file includes its own floor and those below it.
_FLOORS = (
    ("Lumen/", 0),
    ("Brio/", 0),
    ("platform/", 1),
    ("OrderedTable/", 2),
    ("KelpEmServer/", 3),
    ("common/", 4),
    ("agent/", 4),
    ("chip/", 4),
    ("demo/", 4),
    ("kelp/", 4),
)
# What may look at everything, and what nobody else may look at.
_TOP_FOLDERS = ("tests/", "bench/", "examples/", "fuzz/")
_TOP = 5
_ROOTS = ("", "platform/")


def floor_of(path):
    """The floor of a file, or None where no rule holds."""
    for folder, floor in _FLOORS:
        if path.startswith(folder):
            return floor
    return _TOP if path.startswith(_TOP_FOLDERS) else None


class IncludeGraph:
    """The includes between the tree's files and the headers stamped into `generated`."""

    def __init__(self, tree, generated=None):
        self._tree = tree
        self._stamped = {}
        folder = pathlib.Path(generated) if generated else None
        if folder and folder.is_dir():
            self._stamped = {str(path.relative_to(folder)): path.resolve()
                             for path in sorted(folder.rglob("*.h"))}
        self._known = set(tree.paths) | set(self._stamped)

    @property
    def headers(self):
        """All headers, by the name that the tree or the stamping gives them."""
        return sorted(name for name in self._known if name.endswith(".h"))

    def place(self, name):
        """Where the file lies: as an absolute path."""
        return self._stamped.get(name) or self._tree.root / name

    def text(self, name):
        """The file's text; nothing for a header that is not stamped yet."""
        if name not in self._known:
            return ""
        if name in self._stamped:
            return self._stamped[name].read_text()
        return self._tree.text(name) or ""

    @functools.lru_cache(maxsize=None)
    def includes(self, name):
        """(line, included file, as it is written) of every include that leads to a known file."""
        found = []
        text = without_comments(self.text(name))
        for match in _INCLUDE.finditer(text):
            line = text.count("\n", 0, match.start()) + 1
            target = self._resolve(name, match.group(2), quoted=match.group(1) == '"')
            if target is not None:
                found.append((line, target, match.group(2)))
        return found

    def _resolve(self, name, written, quoted):
        own_folder = name.rpartition("/")[0]
        candidates = [root + written for root in _ROOTS]
        if quoted and own_folder:
            candidates.insert(0, posixpath.normpath(f"{own_folder}/{written}"))
        for candidate in candidates:
            if candidate in self._known:
                return candidate
        # A stamped header is on its floor before it is stamped.
        return written if written.startswith("KelpEmServer/") else None

    def reached_from(self, name):
        """All known files that `name` includes, directly or not."""
        seen, waiting = set(), [name]
        while waiting:
            for _, target, _ in self.includes(waiting.pop()):
                if target not in seen and target in self._known:
                    seen.add(target)
                    waiting.append(target)
        return seen


def direction(graph, tree):
    """Includes point downward only."""
    for path in tree.cpp_paths:
        own = floor_of(path)
        if own is None:
            continue
        for line, target, written in graph.includes(path):
            theirs = floor_of(target)
            if ".." in written.split("/"):
                yield Finding(path, line, f'include of "{written}"',
                              "name it from an include root", "direction")
            if theirs is None or theirs < own:
                continue
            if theirs > own:
                yield Finding(path, line, f'"{written}" of floor {theirs} included on floor {own}',
                              "includes point downward: move what is shared down", "direction")
            elif own == _TOP and target.split("/")[0] != path.split("/")[0]:
                yield Finding(path, line, f'"{written}" belongs to another top folder',
                              "move what is shared down", "direction")


def cycles(graph, tree):
    """No two files include each other, however long the way round."""
    state, findings = {}, []

    def visit(name, trail):
        state[name] = "open"
        for line, target, _ in graph.includes(name):
            if state.get(target) == "open":
                around = [*trail[trail.index(target):], target]
                findings.append(Finding(name, line, "include cycle " + " -> ".join(around),
                                        "take what both need into a header of its own", "cycles"))
            elif target not in state:
                visit(target, [*trail, target])
        state[name] = "done"

    for path in tree.cpp_paths:
        if path not in state:
            visit(path, [path])
    yield from findings
