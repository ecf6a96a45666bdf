"""Every header compiles alone. One is compiled again only when something it includes changed."""

import concurrent.futures
import hashlib
import os
import pathlib
import re
import shutil
import subprocess

from report import Finding

_FLAGS = ["-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror"]


def compile_alone(graph, tree, generated=None, cache=None):
    """Compiles the headers that changed since the last run with the same cache folder."""
    compiler = os.environ.get("CXX") or "g++"
    if shutil.which(compiler) is None:
        raise SystemExit(f"no compiler {compiler}: install g++ or set CXX")
    version = subprocess.run([compiler, "--version"], capture_output=True, text=True,
                             check=True).stdout.split("\n")[0]
    roots = [tree.root, tree.root / "platform", tree.root / "tests" / "support"]
    if generated:
        roots.append(pathlib.Path(generated).resolve())
    command = [compiler, *_FLAGS, *(f"-I{root}" for root in roots), "-x", "c++", "-"]

    stamps = pathlib.Path(cache) if cache else None
    if stamps:
        stamps.mkdir(parents=True, exist_ok=True)
    stale = {}
    for name in graph.headers:
        stamp = _stamp(graph, name, [version, *_FLAGS])
        if not (stamps and (stamps / stamp).exists()):
            stale[name] = stamp

    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
        runs = {name: pool.submit(_compile, command, tree.root, graph.place(name))
                for name in stale}
        for name, run in runs.items():
            errors = run.result()
            if errors is not None:
                yield _finding(name, graph.place(name), errors)
            elif stamps:
                (stamps / stale[name]).touch()


def _stamp(graph, name, way):
    """A name for the header with all that it includes and the way it is compiled."""
    digest = hashlib.sha256("\n".join(way).encode())
    for part in [name, *sorted(graph.reached_from(name))]:
        digest.update(f"\n{part}\n".encode())
        digest.update(graph.text(part).encode())
    return digest.hexdigest()


def _compile(command, folder, header):
    """The compiler's errors, or None."""
    # Included twice, so that a header without a guard fails too.
    source = f'#include "{header}"\n' * 2
    done = subprocess.run(command, cwd=folder, input=source, capture_output=True, text=True,
                          check=False)
    return None if done.returncode == 0 else done.stderr


def _finding(name, place, errors):
    first = re.search(r"^([^\s:][^:\n]*):(\d+):\d+: (?:fatal )?error: (.*)$", errors, re.MULTILINE)
    if first is None:
        return Finding(name, 1, f"does not compile alone: {errors.strip()}", "put it right",
                       "headers")
    if first.group(1) == str(place):
        return Finding(name, int(first.group(2)), f"does not compile alone: {first.group(3)}",
                       "include what it uses", "headers")
    return Finding(name, 1, f"does not compile alone: {first.group(3)} "
                   f"(in {first.group(1)}:{first.group(2)})", "include what it uses", "headers")
