"""Links and paths in the documents lead somewhere."""

import re

from report import Finding

_LINK = re.compile(r"!?\[[^\]\n]*\]\(\s*<?([^)\s>]+)>?(?:\s+\"[^\"]*\")?\s*\)")
_REFERENCE = re.compile(r"^\s*\[[^\]\n]+\]:\s*(\S+)")
_CODE_SPAN = re.compile(r"`([^`\n]+)`")
_SCHEME = re.compile(r"^[a-z][a-z0-9+.-]*:")
_PLAIN_PATH = re.compile(r"^[A-Za-z0-9_.-]+(/[A-Za-z0-9_.-]+)*/?$")


def links(tree):
    """Relative links of *.md and their anchors, and repo paths that stand in code spans."""
    known = set(tree.paths)
    folders = {path.rsplit("/", depth)[0] for path in known
               for depth in range(1, path.count("/") + 1)}
    top_folders = {path.split("/")[0] for path in known if "/" in path}
    for path in tree.with_suffix(".md"):
        own_folder = path.rpartition("/")[0]
        for number, line in _prose_lines(tree.lines(path)):
            for target in [*_LINK.findall(_CODE_SPAN.sub("", line)), *_REFERENCE.findall(line)]:
                problem = _link_problem(tree, known | folders, path, own_folder, target)
                if problem:
                    yield Finding(path, number, f"dead link {target}", problem, "links")
            for span in _CODE_SPAN.findall(line):
                if (_PLAIN_PATH.match(span) and "/" in span.rstrip("/")
                        and span.split("/")[0] in top_folders
                        and span.rstrip("/") not in known | folders):
                    yield Finding(path, number, f"`{span}` is not in the tree",
                                  "name what is there", "links")


def _link_problem(tree, existing, path, own_folder, target):
    """What is wrong with a link, as its remedy; None if it leads somewhere."""
    if _SCHEME.match(target):
        return None
    file_part, _, anchor = target.partition("#")
    if not file_part:
        there = path
    elif file_part.startswith("/"):
        return "write it relative to the document"
    else:
        there = _normal(f"{own_folder}/{file_part}" if own_folder else file_part)
        if there.rstrip("/") not in existing and there != ".":
            return "name a file of the tree"
    if anchor and there.endswith(".md") and anchor not in _anchors(tree.lines(there)):
        return f"{there} has no heading for #{anchor}"
    return None


def _normal(path):
    parts = []
    for part in path.split("/"):
        if part == "..":
            if not parts:
                return "/outside"
            parts.pop()
        elif part not in ("", "."):
            parts.append(part)
    return "/".join(parts) or "."


def _prose_lines(lines):
    """(number, line) of the lines outside of fenced blocks."""
    fenced = False
    for number, line in enumerate(lines, 1):
        if line.lstrip().startswith(("```", "~~~")):
            fenced = not fenced
        elif not fenced:
            yield number, line


def _anchors(lines):
    found = {}
    for _, line in _prose_lines(lines):
        if re.match(r"#{1,6} ", line):
            words = re.sub(r"[^\w\- ]", "", line.lstrip("#").strip().lower()).replace(" ", "-")
            found[words] = found.get(words, -1) + 1
    return {name if again == 0 else f"{name}-{again}"
            for name, times in found.items() for again in range(times + 1)}
