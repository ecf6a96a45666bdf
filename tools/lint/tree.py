"""The files of the tree that are looked at, and their text."""

import functools
import os
import pathlib
import subprocess

_SKIPPED_FOLDERS = {".git", ".cache", "build"}


class Tree:
    """The sources below `root`: what git tracks or would track; without git, every file."""

    def __init__(self, root):
        self.root = pathlib.Path(root).resolve()

    @functools.cached_property
    def paths(self):
        """All files, as sorted paths relative to the root."""
        found = self._from_git()
        if found is None:
            found = self._from_disk()
        return sorted(path for path in found if (self.root / path).is_file())

    def with_suffix(self, *suffixes):
        return [path for path in self.paths if path.endswith(suffixes)]

    @functools.cached_property
    def cpp_paths(self):
        return self.with_suffix(".h", ".cpp")

    @functools.lru_cache(maxsize=None)
    def text(self, path):
        """The file's text, or None if it is not UTF-8 text."""
        try:
            text = (self.root / path).read_bytes().decode("utf-8")
        except UnicodeDecodeError:
            return None
        return None if "\0" in text else text

    def lines(self, path):
        """The file's lines without their ends; carriage returns stay visible."""
        text = self.text(path)
        return [] if text is None else text.split("\n")

    def _from_git(self):
        if not (self.root / ".git").exists():
            return None
        command = ["git", "-C", str(self.root), "ls-files", "-z", "--cached", "--others",
                   "--exclude-standard"]
        try:
            out = subprocess.run(command, check=True, capture_output=True).stdout
        except (OSError, subprocess.CalledProcessError):
            return None
        return {path for path in out.decode().split("\0") if path}

    def _from_disk(self):
        found = set()
        for folder, subfolders, names in os.walk(self.root):
            subfolders[:] = [name for name in subfolders if name not in _SKIPPED_FOLDERS]
            found.update(os.path.relpath(os.path.join(folder, name), self.root) for name in names)
        return found
