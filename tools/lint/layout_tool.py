"""The layout of C++ sources, left to clang-format."""

import re
import shutil
import subprocess

from report import Finding

# Another major version lays some code out differently.
_VERSION = "14"


def _tool():
    for name in (f"clang-format-{_VERSION}", "clang-format"):
        if shutil.which(name):
            shown = subprocess.run([name, "--version"], capture_output=True, text=True,
                                   check=True).stdout
            if f"version {_VERSION}." in shown:
                return name
    raise SystemExit(f"no clang-format {_VERSION}: install clang-format-{_VERSION}")


def _in_portions(paths, most=64):
    for start in range(0, len(paths), most):
        yield paths[start:start + most]


def clang_format(tree):
    tool = _tool()
    for portion in _in_portions(tree.cpp_paths):
        done = subprocess.run([tool, "--dry-run", "-Werror", *portion], cwd=tree.root,
                              capture_output=True, text=True, check=False)
        if done.returncode == 0:
            continue
        places = re.findall(r"^(\S[^:\n]*):(\d+):\d+: error: ", done.stderr, re.MULTILINE)
        if not places:
            raise SystemExit(f"{tool} failed: {done.stderr.strip()}")
        lines = {}
        for path, line in places:
            lines.setdefault(path, set()).add(int(line))
        for path, found in lines.items():
            yield Finding(path, min(found), f"laid out otherwise on {len(found)} of its lines",
                          "run ./dev format", "format")


def fix_format(tree):
    tool = _tool()
    for portion in _in_portions(tree.cpp_paths):
        subprocess.run([tool, "-i", *portion], cwd=tree.root, check=True)
