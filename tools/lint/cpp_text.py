"""C++ text with its comments and literals blanked, so that a check sees code only."""

import re

_TOKEN = re.compile(
    r"""
    (?P<line>//(?:[^\n\\]|\\.|\\\n)*)
  | (?P<block>/\*.*?\*/)
  | (?P<raw>R"(?P<tag>[^()\\\s]{0,16})\(.*?\)(?P=tag)")
  | (?P<string>"(?:[^"\\\n]|\\.)*")
  | (?P<char>(?<![0-9a-fA-F])'(?:[^'\\\n]|\\.)+')
    """,
    re.VERBOSE | re.DOTALL)


def _blanked(match):
    """As many lines as before, and nothing on them."""
    return re.sub(r"[^\n]", " ", match.group(0))


def code_only(text):
    return _TOKEN.sub(_blanked, text)


def without_comments(text):
    """Comments blanked, literals left."""
    return _TOKEN.sub(lambda m: _blanked(m) if m.group("line") or m.group("block") else m.group(0),
                      text)
