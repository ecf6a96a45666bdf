"""Checks of single files as text."""

import pathlib
import re

from cpp_text import code_only
from report import Finding, read_list

_COLUMNS = 100
_LINES_WANTED = 600
_LINES_AT_MOST = 900

_HERE = pathlib.Path(__file__).parent

# The markers are put together here so that this file does not hold them.
_MARKER = re.compile(r"\b(" + "|".join(["TO" + "DO", "FIX" + "ME", "X" + "XX"]) + r")\b")
_DEBUGGING = re.compile(
    r"^\s*(//\s*(std::(cout|cerr|clog)\s*<<|f?printf\s*\(|puts\s*\(|fmt::print\s*\(|#\s*include\b)"
    r"|#\s*if\s+0\b)")
# Placement constructs and allocates nothing, so it is no match.
_RAW = re.compile(r"(?<!operator )\bnew\b(?!\s*\((?!std::nothrow))"
                  r"|(?<!operator )(?<!= )\bdelete\b"
                  r"|(?<!asm )(?<!asm__ )\bvolatile\b")
_RAW_REMEDIES = {
    "new": "use Lumen::makeNode or a container",
    "delete": "let an owner release it",
    "volatile": "use std::atomic",
}
# A `new` that is owned from the same expression on: by a Ptr, or by nobody for the process's life.
_OWNED = re.compile(r"(\bPtr<[^;]*>\s*\w*\(\s*|\bstatic\b[^;]*=\s*)$")

_TEXT_SUFFIXES = (".h", ".cpp", ".in", ".py", ".md", ".txt", ".cmake", ".json", ".sh", ".map")


def is_text_source(path):
    return path.endswith(_TEXT_SUFFIXES) or path in ("dev", ".ci/run")


def layout(tree):
    """Columns, tabs, blanks at the end, line ends."""
    for path in filter(is_text_source, tree.paths):
        text = tree.text(path)
        if text is None:
            yield Finding(path, 1, "not UTF-8 text", "save it as UTF-8", "layout")
            continue
        if text and not text.endswith("\n"):
            yield Finding(path, text.count("\n") + 1, "no newline at the end", "add one", "layout")
        for number, line in enumerate(text.split("\n"), 1):
            if line.endswith("\r"):
                yield Finding(path, number, "carriage return", "save with Unix line ends", "layout")
                line = line[:-1]
            if "\t" in line:
                yield Finding(path, number, "tab", "indent with blanks", "layout")
            if line != line.rstrip():
                yield Finding(path, number, "blanks at the end of the line", "remove them",
                              "layout")
            if len(line) > _COLUMNS and not _may_be_long(path, line):
                yield Finding(path, number, f"{len(line)} columns", f"break it at {_COLUMNS}",
                              "layout")


def _may_be_long(path, line):
    """Lines that can't be broken: a link in prose, a table row, one word, data."""
    if path.endswith((".md", ".json", ".txt")) and not path.endswith("CMakeLists.txt"):
        return True
    return " " not in line.strip()


def size(tree):
    """A file of this size wants to be two."""
    for path in tree.with_suffix(".h", ".cpp", ".py", ".in", ".cmake"):
        count = len(tree.lines(path)) - 1
        if count > _LINES_AT_MOST:
            yield Finding(path, count, f"{count} lines", f"split it: {_LINES_AT_MOST} is the most",
                          "size")
        elif count > _LINES_WANTED:
            yield Finding(path, count, f"{count} lines", f"split it: {_LINES_WANTED} is wanted",
                          "size", warning=True)


def pragma_once(tree):
    for path in tree.with_suffix(".h", ".h.in"):
        if not re.search(r"^#pragma once$", tree.text(path) or "", re.MULTILINE):
            yield Finding(path, 1, "no #pragma once", "make it the first line of code",
                          "pragma-once")


def leftovers(tree):
    """What was to be gone before it was handed over."""
    for path in filter(is_text_source, tree.paths):
        for number, line in enumerate(tree.lines(path), 1):
            marker = _MARKER.search(line)
            if marker:
                yield Finding(path, number, f"left-over marker {marker.group(1)}",
                              "do it, or take it out", "leftovers")
            if path.endswith((".h", ".cpp", ".in")) and _DEBUGGING.search(line):
                yield Finding(path, number, "code that is switched off", "delete it", "leftovers")


def raw_memory(tree):
    """new, delete and volatile stay inside the few files that are about them (see allowed.txt)."""
    for path in tree.cpp_paths:
        code = re.sub(r"#[ \t]*include[^\n]*", "", code_only(tree.text(path) or ""))
        for found in _RAW.finditer(code):
            word = found.group(0)
            statement = re.split(r"[;{}]", code[:found.start()])[-1]
            if word == "new" and _OWNED.search(statement):
                continue
            line = code.count("\n", 0, found.start()) + 1
            what = word if word == "volatile" else f"raw {word}"
            yield Finding(path, line, what, _RAW_REMEDIES[word], "raw-memory")


def forbidden(tree, list_path=_HERE / "forbidden.txt"):
    """Texts that would tie the tree to one machine or to the network."""
    rules = read_forbidden(list_path)
    for path in filter(is_text_source, tree.paths):
        if path == "tools/lint/forbidden.txt":
            continue
        for number, line in enumerate(tree.lines(path), 1):
            for pattern, what, remedy in rules:
                found = pattern.search(line)
                if found:
                    yield Finding(path, number, f"{what} `{found.group(0)}`", remedy, "forbidden")


def read_forbidden(list_path):
    """The rules of the list: a regular expression, what it stands for and the remedy."""
    rules = []
    for number, (pattern, what, remedy) in read_list(list_path, "PATTERN | WHAT | REMEDY"):
        try:
            rules.append((re.compile(pattern), what, remedy))
        except re.error as error:
            raise SystemExit(f"{list_path}:{number}: {pattern} is no regular expression: "
                             f"{error}: put it right") from error
    return rules


CHECKS = {
    "layout": layout,
    "size": size,
    "pragma-once": pragma_once,
    "leftovers": leftovers,
    "raw-memory": raw_memory,
    "forbidden": forbidden,
}
