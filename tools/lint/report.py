"""What every check yields, and the lists that steer the checks."""

import dataclasses
import pathlib


@dataclasses.dataclass(frozen=True, order=True)
class Finding:
    """One thing to put right. A warning is shown and fails nothing."""

    path: str
    line: int
    what: str
    remedy: str
    check: str
    warning: bool = False

    def __str__(self):
        kind = "warning: " if self.warning else ""
        return f"{self.path}:{self.line}: {kind}{self.what}: {self.remedy} [{self.check}]"


def read_list(path, form):
    """(line number, columns) of a list with the columns of `form`, put apart by " | "."""
    wanted = form.count(" | ") + 1
    for number, line in enumerate(pathlib.Path(path).read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        columns = [column.strip() for column in line.split(" | ")]
        if len(columns) != wanted:
            raise SystemExit(f"{path}:{number}: not `{form}`: give it these {wanted} columns")
        yield number, columns


class Allowances:
    """Exceptions from checks: CHECK | PATH | WHY. One that nothing needs any more is a finding."""

    def __init__(self, path):
        self._path = path
        self._lines = {}
        self._used = set()
        for number, (check, file, _) in read_list(path, "CHECK | PATH | WHY"):
            self._lines[(check, file)] = number

    def allow(self, finding):
        key = (finding.check, finding.path)
        if key not in self._lines:
            return False
        self._used.add(key)
        return True

    def unused(self, checks_that_ran):
        for (check, file), number in self._lines.items():
            if check in checks_that_ran and (check, file) not in self._used:
                yield Finding("tools/lint/allowed.txt", number, f"{file} needs no {check}",
                              "take the line out", "allowances")
