#!/usr/bin/env python3
"""Checks the style of the tree. A finding is FILE:LINE: WHAT: REMEDY [CHECK]; one fails the run."""

import argparse
import pathlib
import sys
import time

import documents
import headers
import includes
import layout_tool
import python_checks
import text_checks
from report import Allowances
from tree import Tree


_HERE = pathlib.Path(__file__).resolve().parent


def checks(tree, options):
    """Name and function of every check, the quick ones first."""
    graph = includes.IncludeGraph(tree, options.generated)
    table = {}
    for name, check in text_checks.CHECKS.items():
        table[name] = lambda check=check: check(tree)
    table["python"] = lambda: python_checks.python(tree)
    table["links"] = lambda: documents.links(tree)
    table["direction"] = lambda: includes.direction(graph, tree)
    table["cycles"] = lambda: includes.cycles(graph, tree)
    table["format"] = lambda: layout_tool.clang_format(tree)
    table["headers"] = lambda: headers.compile_alone(graph, tree, options.generated, options.cache)
    return table


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--root", type=pathlib.Path, default=_HERE.parents[1],
                        help="the tree to check")
    parser.add_argument("--generated", help="folder of the headers that the build stamps")
    parser.add_argument("--cache", help="folder that remembers which headers compiled")
    parser.add_argument("--allowed", default=_HERE / "allowed.txt", help="list of exceptions")
    parser.add_argument("--fix-format", action="store_true",
                        help="run clang-format -i, check nothing")
    parser.add_argument("check", nargs="*", help="only these checks (default: all)")
    options = parser.parse_args()

    tree = Tree(options.root)
    if options.fix_format:
        layout_tool.fix_format(tree)
        return 0
    table = checks(tree, options)
    unknown = set(options.check) - set(table)
    if unknown:
        parser.error(f"no check {', '.join(sorted(unknown))}: there are {', '.join(table)}")

    allowances = Allowances(options.allowed)
    chosen = options.check or list(table)
    table["allowances"] = lambda: allowances.unused(chosen)
    failures = 0
    for name in [*chosen, "allowances"]:
        start = time.monotonic()
        findings = sorted(found for found in set(table[name]()) if not allowances.allow(found))
        for finding in findings:
            print(finding, flush=True)
        failures += sum(not finding.warning for finding in findings)
        print(f"{name:12} {len(findings):4} findings {time.monotonic() - start:6.1f} s",
              file=sys.stderr, flush=True)
    print(f"lint: {len(tree.paths)} files, {failures} to put right", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
