#!/usr/bin/env python3
"""Feeds the checks small trees with known faults: every check finds its own, and only those."""

import contextlib
import io
import pathlib
import shutil
import sys
import tempfile
import unittest

import documents
import headers
import includes
import layout_tool
import lint
import python_checks
import text_checks
from report import Allowances, read_list
from tree import Tree

_GOOD_HEADER = "#pragma once\n\nint twice(int x);\n"


class OneTree(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)

    def tree(self, files):
        for path, text in files.items():
            place = self.root / path
            place.parent.mkdir(parents=True, exist_ok=True)
            if isinstance(text, bytes):
                place.write_bytes(text)
            else:
                place.write_text(text)
        return Tree(self.root)

    def found(self, check, files):
        """The findings of a check that takes a tree, as (path, line, start of what)."""
        return [(one.path, one.line, one.what) for one in sorted(check(self.tree(files)))]

    def graph(self, files, generated=None):
        tree = self.tree(files)
        return includes.IncludeGraph(tree, generated), tree


class Python(OneTree):
    def test_what_is_no_python_and_what_is_not_used_is_found(self):
        found = self.found(python_checks.python, {
            "tools/bad.py": "x = 1\ndef f(:\n",
            "tools/unused.py": "import os\nimport sys\nfrom a import *\n\nsys.exit(0)\n"})
        self.assertEqual([(path, line) for path, line, _ in found],
                         [("tools/bad.py", 2), ("tools/unused.py", 1), ("tools/unused.py", 3)])

    def test_what_is_handed_out_says_what_it_is(self):
        good = '"""Good."""\n\n\ndef f(x: int, *y: int) -> int:\n    """F."""\n    return x\n'
        bad = ('"""Bad."""\n\n\nclass A:\n    """A."""\n\n    def f(self, x):\n        """F."""\n\n'
               "    def g(self) -> None:\n        pass\n\n    def _h(self):\n        pass\n")
        files = {"python/good.py": good, "python/bad.py": bad, "tools/bad.py": bad}
        found = self.found(python_checks.python, files)
        self.assertEqual(found, [("python/bad.py", 7, "f: no type of x"),
                                 ("python/bad.py", 10, "g has no docstring"),
                                 ("python/bad.py", 13, "_h: no type of its result")])


class Text(OneTree):
    def test_a_clean_file_has_no_findings(self):
        tree = self.tree({"Lumen/Good.h": _GOOD_HEADER, "README.md": "# Good\n"})
        for check in text_checks.CHECKS.values():
            self.assertEqual(list(check(tree)), [])

    def test_layout_faults_are_found_on_their_lines(self):
        found = self.found(text_checks.layout, {
            "a.h": "int a;\n\tint b;\nint c; \nint d;\r\n// " + "word " * 20 + "end\nint e;"})
        self.assertEqual([(line, what) for _, line, what in found], [
            (2, "tab"), (3, "blanks at the end of the line"), (4, "carriage return"),
            (5, "106 columns"), (6, "no newline at the end")])

    def test_a_file_of_other_bytes_is_found(self):
        self.assertEqual(self.found(text_checks.layout, {"a.h": b"// \xff\n"}),
                         [("a.h", 1, "not UTF-8 text")])

    def test_a_hundred_columns_are_fine(self):
        self.assertEqual(self.found(text_checks.layout, {"a.h": "// " + "a " * 48 + "b\n"}), [])

    def test_long_files_warn_and_longer_ones_fail(self):
        tree = self.tree({"a.cpp": "\n" * 600, "b.cpp": "\n" * 601, "c.cpp": "\n" * 901})
        self.assertEqual([(one.path, one.warning) for one in text_checks.size(tree)],
                         [("b.cpp", True), ("c.cpp", False)])

    def test_a_header_without_a_guard_is_found(self):
        self.assertEqual(self.found(text_checks.pragma_once, {"a.h": "int a();\n"}),
                         [("a.h", 1, "no #pragma once")])

    def test_markers_and_switched_off_code_are_found(self):
        found = self.found(text_checks.leftovers, {
            "a.cpp": "// TO" + "DO later\n// std::cerr << x;\n#if 0\n// printf(\"%d\", x);\n"
                     "// The printf family is not used here.\n"})
        self.assertEqual([line for _, line, _ in found], [1, 2, 3, 4])

    def test_raw_memory_is_found_in_code_only(self):
        found = self.found(text_checks.raw_memory, {
            "a.cpp": "#include <new>\n"
                     "auto* a = new int;\n"
                     "delete a;\n"
                     "volatile int b;\n"
                     "// a new one; delete it; volatile\n"
                     "const char* c = \"new delete volatile\";\n"
                     "A(const A&) = delete;\n"
                     "void* operator new(std::size_t);\n"
                     "::new (place) int;\n"
                     "auto* d = new (std::nothrow) int;\n"
                     "asm volatile(\"pause\");\n"
                     "int e = 1'000; /* new\n new */ int f = 2'000;\n"
                     "static auto* const g = new std::map<int, int>;\n"
                     "const Lumen::Ptr<H> h(\n    new H(1));\n"
                     "const Lumen::Ptr<H> i; auto* j =\n    new H(1);\n"})
        self.assertEqual([(line, what) for _, line, what in found], [
            (2, "raw new"), (3, "raw delete"), (4, "volatile"), (10, "raw new"), (18, "raw new")])

    def test_paths_addresses_and_hosts_are_found(self):
        found = self.found(text_checks.forbidden, {
            "a.cpp": "open(\"/ho" + "me/somebody/x\");\nopen(\"/tmp" + "/fixed\");\n"
                     "// see ht" + "tp://somewhere\n// from packages.example" + ".org today\n",
            "b.cpp": "open(\"/dev/shm/x\");\nmkdtemp(\"/tmp/x-XXXXXX\");\n"
                     "// a/work/b and std::net\n"})
        self.assertEqual([(path, line) for path, line, _ in found],
                         [("a.cpp", 1), ("a.cpp", 2), ("a.cpp", 3), ("a.cpp", 4)])

    def test_findings_name_place_and_remedy(self):
        (finding,) = text_checks.pragma_once(self.tree({"a.h": "int a();\n"}))
        self.assertEqual(str(finding),
                         "a.h:1: no #pragma once: make it the first line of code [pragma-once]")


class Includes(OneTree):
    def direction(self, files, generated=None):
        graph, tree = self.graph(files, generated)
        return [(one.path, one.line) for one in includes.direction(graph, tree)]

    def test_the_way_down_is_free(self):
        self.assertEqual(self.direction({
            "Lumen/A.h": '#include "Brio/B.h"\n', "Brio/B.h": "",
            "platform/Asic/C.h": '#include "Lumen/A.h"\n',
            "OrderedTable/D.h": '#include "Asic/C.h"\n#include <Lumen/A.h>\n',
            "KelpEmServer/E.h": '#include "OrderedTable/D.h"\n',
            "agent/main.cpp": '#include "KelpEmServer/StampedLater.h"\n',
            "tests/x/Test.cpp": '#include "KelpEmServer/E.h"\n#include "Helper.h"\n',
            "tests/x/Helper.h": ""}), [])

    def test_the_way_up_is_found(self):
        self.assertEqual(self.direction({
            "Lumen/A.h": '\n#include "Asic/C.h"\n', "platform/Asic/C.h": "",
            "platform/Asic/D.h": '#include "OrderedTable/E.h"\n', "OrderedTable/E.h": "",
            "OrderedTable/F.h": '#include "KelpEmServer/StampedLater.h"\n',
            "KelpEmServer/G.h": '#include "tests/x/Helper.h"\n', "tests/x/Helper.h": "",
            "KelpEmServer/H.h": '// #include "agent/I.h"\n', "agent/I.h": "",
            "KelpEmServer/J.h": '#include "demo/K.h"\n', "demo/K.h": ""}),
            [("KelpEmServer/G.h", 1), ("KelpEmServer/J.h", 1), ("Lumen/A.h", 2),
             ("OrderedTable/F.h", 1), ("platform/Asic/D.h", 1)])

    def test_includes_by_dots_are_found(self):
        self.assertEqual(self.direction({"platform/Asic/A.h": '#include "../Vault/B.h"\n',
                                         "platform/Vault/B.h": ""}), [("platform/Asic/A.h", 1)])

    def test_cycles_are_found_however_long(self):
        graph, tree = self.graph({"platform/A.h": '#include "B.h"\n',
                                  "platform/B.h": '#include "C.h"\n',
                                  "platform/C.h": '#include "A.h"\n#include "D.h"\n',
                                  "platform/D.h": ""})
        self.assertEqual([one.what for one in includes.cycles(graph, tree)],
                         ["include cycle platform/A.h -> platform/B.h -> platform/C.h"
                          " -> platform/A.h"])

    def test_a_header_that_is_not_stamped_yet_ends_the_way(self):
        graph, tree = self.graph({"agent/A.cpp": '#include "KelpEmServer/StampedLater.h"\n'})
        self.assertEqual(list(includes.cycles(graph, tree)), [])

    def test_two_ways_to_one_file_are_no_cycle(self):
        graph, tree = self.graph({"platform/A.h": '#include "B.h"\n#include "C.h"\n',
                                  "platform/B.h": '#include "C.h"\n', "platform/C.h": ""})
        self.assertEqual(list(includes.cycles(graph, tree)), [])


class Headers(OneTree):
    def run_check(self, files, generated=None, cache=None):
        graph, tree = self.graph(files, generated)
        return [(one.path, one.line) for one in
                headers.compile_alone(graph, tree, generated, cache)]

    def test_a_header_that_leans_on_others_is_found(self):
        self.assertEqual(self.run_check({
            "Lumen/Good.h": _GOOD_HEADER,
            "Lumen/Leaning.h": "#pragma once\n\ninline std::size_t size() { return 1; }\n",
            "platform/Asic/Good.h": '#pragma once\n#include "Lumen/Good.h"\n',
            "Lumen/Unguarded.h": "inline int once() { return 1; }\n"}),
            [("Lumen/Leaning.h", 3), ("Lumen/Unguarded.h", 1)])

    def test_stamped_headers_are_compiled_too(self):
        stamped = self.root / "build" / "generated"
        files = {"build/generated/KelpEmServer/Stamped.h":
                 '#pragma once\n#include "Lumen/None.h"\n'}
        self.assertEqual(self.run_check(files, generated=stamped), [("KelpEmServer/Stamped.h", 2)])

    def test_a_change_below_a_remembered_header_is_seen(self):
        cache = self.root / "build" / "cache"
        files = {"Lumen/Low.h": "#pragma once\nusing Word = int;\n",
                 "Lumen/High.h": '#pragma once\n#include "Lumen/Low.h"\n'
                                 'inline Word w() { return 1; }\n'}
        self.assertEqual(self.run_check(files, cache=cache), [])
        files["Lumen/Low.h"] = "#pragma once\nusing Other = int;\n"
        self.assertEqual(self.run_check(files, cache=cache), [("Lumen/High.h", 3)])


class Documents(OneTree):
    def test_dead_links_are_found_and_live_ones_are_not(self):
        found = self.found(documents.links, {
            "docs/a.md": "# Top\n## A `second` one\n"
                         "[good](b.md) [anchor](b.md#there) [own](#a-second-one) `docs/b.md`\n"
                         "[up](../README.md) [dir](../docs) [mail](mailto:x) `docs/<n>.md` `a/b`\n"
                         "[dead](c.md)\n[anchor](b.md#gone)\n`docs/gone.md`\n[out](../../x.md)\n"
                         "```\n[sample](d.md)\n```\n",
            "docs/b.md": "# There\n", "README.md": "# Hello\n"})
        self.assertEqual([line for _, line, _ in found], [5, 6, 7, 8])


class Layout(OneTree):
    @unittest.skipUnless(shutil.which("clang-format-14") or shutil.which("clang-format"),
                         "no clang-format here")
    def test_what_clang_format_would_change_is_found_and_put_right(self):
        files = {".clang-format": "BasedOnStyle: Google\n", "a.cpp": "int  a ;\n",
                 "b.cpp": "int b;\n"}
        self.assertEqual([one.path for one in layout_tool.clang_format(self.tree(files))],
                         ["a.cpp"])
        layout_tool.fix_format(Tree(self.root))
        self.assertEqual(list(layout_tool.clang_format(Tree(self.root))), [])


class Lists(OneTree):
    def allowed(self, text):
        self.tree({"allowed.txt": text})
        return Allowances(self.root / "allowed.txt")

    def test_an_allowance_covers_its_check_and_file_only(self):
        tree = self.tree({"a.cpp": "auto* a = new int;\n", "b.cpp": "auto* b = new int;\n"})
        allowances = self.allowed("raw-memory | a.cpp | because\n")
        left = [one.path for one in text_checks.raw_memory(tree) if not allowances.allow(one)]
        self.assertEqual(left, ["b.cpp"])
        self.assertEqual(list(allowances.unused(["raw-memory"])), [])

    def test_an_allowance_that_nothing_needs_is_found(self):
        allowances = self.allowed("# comment\nraw-memory | a.cpp | because\n")
        self.assertEqual([one.line for one in allowances.unused(["raw-memory"])], [2])
        self.assertEqual(list(allowances.unused(["layout"])), [])

    def test_a_malformed_list_names_its_line(self):
        self.tree({"list.txt": "one | two\n"})
        with self.assertRaisesRegex(SystemExit, r"list\.txt:1: not `A \| B \| C`"):
            list(read_list(self.root / "list.txt", "A | B | C"))

    def test_a_broken_pattern_names_its_line(self):
        self.tree({"list.txt": "(a | b | c\n"})
        with self.assertRaisesRegex(SystemExit, r"list\.txt:1: .* no regular expression"):
            text_checks.read_forbidden(self.root / "list.txt")


class WholeRun(OneTree):
    def status(self, *arguments):
        before, sys.argv = sys.argv, ["lint.py", "--root", str(self.root), *arguments]
        self.tree({"allowed.txt": ""})
        sys.argv += ["--allowed", str(self.root / "allowed.txt")]
        try:
            with contextlib.redirect_stdout(io.StringIO()) as out, \
                    contextlib.redirect_stderr(io.StringIO()):
                return lint.main(), out.getvalue()
        finally:
            sys.argv = before

    def test_a_finding_fails_the_run_and_a_warning_does_not(self):
        self.tree({"a.cpp": "\n" * 700})
        status, text = self.status("size")
        self.assertEqual(status, 0)
        self.assertIn("a.cpp:700: warning: 700 lines", text)
        self.tree({"a.cpp": "\n" * 1000})
        self.assertEqual(self.status("size")[0], 1)


if __name__ == "__main__":
    unittest.main()
