"""The examples at small size, commands as they stand. $MORVANE_BIN: the programs."""
import os
import re
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(root, "python"))

import morvane

try:
    import segyio
except ModuleNotFoundError:
    segyio = None
BIN = os.environ["MORVANE_BIN"]


@unittest.skipUnless(segyio and os.path.exists(os.path.join(BIN, "morvane_prepare")), "no segyio")
class Examples(unittest.TestCase):
    def run_example(self, name, folder):
        environment = dict(os.environ, PATH=BIN + ":/usr/bin:/bin", PYTHONPATH=os.path.join(root, "python"),
                           PYTHONDONTWRITEBYTECODE="1", MPLBACKEND="Agg")
        done = subprocess.run(name, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        self.assertEqual(done.returncode, 0, done.stdout[-3000:])
        return done.stdout

    def test_lines(self):
        for name, told in (("marine", r"0 wrong"), ("land", r"areal: y"), ("stepped", r"low/report.html")):
            with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                said = self.run_example([os.path.join(root, "examples", name), "line", "small"], folder)
                self.assertRegex(said, told)
                fun = morvane.Run(os.path.join(folder, "line", "run"), log=os.path.join(folder, "line", "run", "log")).course()["fun"]
                self.assertLess(fun[-1], fun[0])
                self.assertTrue(os.path.exists(os.path.join(folder, "line", "run", "report.html")))
                if name == "marine":
                    os.chdir(os.path.join(folder))
                    self.run_example(["/usr/bin/python3", os.path.join(root, "examples", "notebook.py"), "line"], folder)
                    self.assertEqual(morvane.read("line/smooth.H").panel().shape,
                                     morvane.Run("line/run", Velout="line/run/velocity.H").read("Velout").panel().shape)
                    os.chdir("/")


if __name__ == "__main__":
    unittest.main()
