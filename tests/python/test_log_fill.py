"""The example that plots how full the logs are, beside a small demo run."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

try:
    import matplotlib
except ImportError:
    matplotlib = None

_ROOT = pathlib.Path(__file__).resolve().parents[2]
_EXAMPLE = _ROOT / "examples" / "log_fill.py"
_TABLES = ("EsemFodo", "EsemFodoVd", "Isem1Tag", "Isem2Tag", "IsemInnerEth", "IsemMpls",
           "IsemUntagged", "LemVpwsAc")


class LogFill(unittest.TestCase):
    def run_example(self, *arguments):
        return subprocess.run([sys.executable, "-B", _EXAMPLE, *arguments], text=True, timeout=250,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)

    def test_it_looks_at_a_demo_run_until_the_end(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        demo = subprocess.Popen(
            [pathlib.Path(os.environ["KELP_BIN"]) / "kelp-demo", "--intents", "20000", "--units",
             "2", "--quiet", "--inspect", folder / "inspect"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.addCleanup(demo.stdout.close)
        self.addCleanup(demo.wait)
        self.addCleanup(demo.terminate)
        picture = folder / "log_fill.png"
        result = self.run_example(folder / "inspect", picture)
        told, _ = demo.communicate(timeout=250)
        self.assertEqual(demo.returncode, 0, told)
        self.assertEqual(result.returncode, 0, result.stdout)
        rows = [line.split() for line in result.stdout.splitlines()]
        most = {row[0]: (int(row[1]), int(row[2])) for row in rows if row[0] in _TABLES}
        self.assertEqual(sorted(most), sorted(_TABLES), result.stdout)
        self.assertGreater(sum(sum(one) for one in most.values()), 0, result.stdout)
        if matplotlib is None:
            self.assertIn("no picture: there is no matplotlib", result.stdout)
            self.assertFalse(picture.exists())
            self.skipTest("the picture was not looked at: there is no matplotlib")
        self.assertIn(f"plotted to {picture}", result.stdout)
        self.assertEqual(picture.read_bytes()[:8], b"\x89PNG\r\n\x1a\n")

    def test_a_wrong_command_line_is_told(self):
        result = self.run_example("one", "two", "three")
        self.assertEqual((result.returncode, result.stdout),
                         (1, "usage: log_fill.py [SOCKET [PNG]]\n"))


if __name__ == "__main__":
    unittest.main()
