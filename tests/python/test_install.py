"""An installed tree stands on its own: test_install.py CMAKE BUILD."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

cmake, build = sys.argv[1:3]


def said(*words, **keys):
    return subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=True, text=True, **keys).stdout


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.prefix = tempfile.mkdtemp(prefix="morvane_install_")
        cls.addClassCleanup(shutil.rmtree, cls.prefix)
        said(cmake, "--install", build, "--prefix", cls.prefix)

    def at(self, *names):
        return os.path.join(self.prefix, *names)

    def test_each_program_runs_and_has_its_page_and_completion(self):
        programs = os.listdir(self.at("bin"))
        self.assertTrue({"morvane", "morvane_check", "morvane_report", "morvane_export", "qas"} <= set(programs))
        clean = {"PATH": self.at("bin") + ":/usr/bin:/bin", "HOME": self.prefix}
        version = said(self.at("bin", "morvane"), "--version").split()[1]
        for program in programs:
            with self.subTest(program):
                self.assertIn(version, said(self.at("bin", program), "--version", env=clean, cwd="/"))
                self.assertGreater(os.path.getsize(self.at("share", "man", "man1", program + ".1.gz")), 300)
                self.assertTrue(os.path.exists(self.at("share", "bash-completion", "completions", program)))

    def test_keys_are_completed(self):
        script = "source %s; COMP_LINE='morvane firsts' COMP_POINT=14; compopt() { :; }; _morvane morvane firsts; echo ${COMPREPLY[*]}"
        found = said("bash", "-c", script % self.at("share", "bash-completion", "completions", "morvane"),
                     env={"PATH": self.at("bin") + ":/usr/bin:/bin"}, cwd="/")
        self.assertEqual(found.split(), ["firststep="])

    def test_documents_and_module(self):
        self.assertTrue(os.path.exists(self.at("share", "doc", "morvane", "parameters.md")))
        self.assertTrue(os.path.exists(self.at("share", "doc", "morvane", "copyright")))
        found = said("/usr/bin/python3", "-c", "import morvane; print(morvane.__file__)", cwd="/",
                     env={"PYTHONPATH": self.at("lib", "python3", "dist-packages")})
        self.assertTrue(found.startswith(self.prefix))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
