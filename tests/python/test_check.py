"""morvane_check on a survey as it should be, and with the errors that preparations have. $MORVANE_BIN: the programs."""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(root, "python"))

import numpy as np

import morvane

BIN = os.environ["MORVANE_BIN"]
SURVEY = ("model=layers zref=180,300,420,540,660,780 dip=0,2,3,3,4,4 tilt=2 startscale=0.97 nshot=8 oshot=600 dshot=60 nrec=97 dx=15 "
          "dz=12 zmax=900 of=5 df=0.8 nf=26 fpeak=14 tmax=1.2 margin=300 absorb=12 taper=20 niter=2 nh=13")


def program(folder, name, *words):
    done = subprocess.run([os.path.join(BIN, name), "datapath=%s/" % folder] + list(words), cwd=folder, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    return done.returncode, done.stdout, done.stderr


class Check(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="morvane_check_")
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        for name in ("right", "direct"):
            os.mkdir(os.path.join(cls.folder, name))
            status, out, err = program(os.path.join(cls.folder, name), "morvane_synth", *SURVEY.split(),
                                       *(["direct=none", "mute=0"] if name == "direct" else []))
            assert status == 0, err

    def changed(self, **changes):
        """A folder with the survey, its datasets changed by functions of (samples, d, o)."""
        folder = tempfile.mkdtemp(dir=self.folder)
        for name in os.listdir(os.path.join(self.folder, "right")):
            shutil.copy(os.path.join(self.folder, "right", name), folder)
        for tag, change in changes.items():
            path = os.path.join(folder, tag)
            given = morvane.read(path)
            d, o = list(given.d), list(given.o)
            samples = change(np.array(given.data), d, o)
            morvane.write(path, samples, d, o)
        return folder

    def verdicts(self, folder, *words):
        status, out, err = program(folder, "morvane_check", "par=morvane.par", *words)
        lines = [line.split(None, 1) for line in out.split("\n")[:-2]]
        return status, {text[:14].strip(): level for level, text in lines}, out + err

    def test_the_right_data_are_ok_and_nothing_is_written(self):
        folder = os.path.join(self.folder, "right")
        with open(os.path.join(folder, "kept.csv"), "w") as file:
            file.write("of an earlier run")
        before = sorted(os.listdir(folder))
        status, verdicts, said = self.verdicts(folder, "course=kept.csv", "best=best.H", "stop=fit", "checkpoint=c", "resume=auto")
        self.assertEqual((status, set(verdicts.values())), (0, {"ok"}), said)
        self.assertEqual(sorted(os.listdir(folder)), before)
        with open(os.path.join(folder, "kept.csv")) as file:
            self.assertEqual(file.read(), "of an earlier run")

    def test_errors_of_preparation(self):
        period = 1 / 10.0

        def later(samples, d, o):
            f = (o[2] + d[2] * np.arange(samples.shape[1])).reshape(1, -1, 1, 1)
            return samples * np.exp(2j * np.pi * f * period / 2)

        def folded(samples, d, o):
            d[2] *= 2
            return samples[:, ::2]

        def coarse(samples, d, o):
            d[2] *= 3
            return samples[:, ::3]

        def kilometres(samples, d, o):
            for k in (0, 2):
                d[k], o[k] = d[k] / 1000, o[k] / 1000
            return samples

        def fields(samples, d, o):
            d[0], o[0], d[3], o[3] = d[0] / 1000, o[0] / 1000, d[3] / 1000, o[3] / 1000
            return samples

        conjugate = lambda samples, d, o: samples.conj()
        km_words = ["zmax=0.9", "dxk=0.2", "oxk=-1", "dzk=0.1", "ozk=-0.1", "fun_xmin=", "fun_xmax=", "shots=0"]
        for name, changes, words, line in (
                ("no conjugate", {"rec": conjugate, "sou": conjugate}, [], "signs"),
                ("rec without conjugate", {"rec": conjugate}, [], "signs"),
                ("sou without conjugate", {"sou": conjugate}, [], "signs"),
                ("half a period late", {"rec": later}, [], "time zero"),
                ("folded", {"rec": folded, "sou": folded}, ["shots=0"], "end of record"),
                ("slowness per km", {"vel": lambda s, d, o: 1000 * s}, [], "units"),
                ("velocity for slowness", {"vel": lambda s, d, o: 1 / s}, [], "units"),
                ("axes in km", {"vel": kilometres, "rec": fields, "sou": fields}, km_words, "units"),
                ("dz too coarse", {"vel": coarse}, ["dzk=100", "zmax=864", "shots=0"], "dz")):
            with self.subTest(name):
                status, verdicts, said = self.verdicts(self.changed(**changes), *words)
                self.assertEqual((status, verdicts.get(line)), (2, "wrong"), said)
        status, verdicts, said = self.verdicts(os.path.join(self.folder, "direct"), "shots=0")
        self.assertEqual((status, verdicts.get("direct wave")), (2, "wrong"), said)

    def test_what_is_to_be_looked_at(self):
        def dead(samples, d, o):
            samples[3] = 0
            return samples

        def gap(samples, d, o):
            samples[:, 5] = 0
            return samples

        for name, changes, words, line in (("dead shot", {"rec": dead}, [], "shots"), ("gap", {"rec": gap}, [], "frequencies"),
                                           ("few offsets", {}, ["nh=3"], "offsets"), ("no knots", {}, ["nxk=", "nzk="], "knots"),
                                           ("no margin", {}, ["padtraces=0", "traces_in_taper=0"], "margins")):
            with self.subTest(name):
                status, verdicts, said = self.verdicts(self.changed(**changes), "shots=0", *words)
                self.assertEqual((status, verdicts.get(line)), (1, "look"), said)

    def test_a_run_warns_of_another_sign(self):
        conjugate = lambda samples, d, o: samples.conj()
        said, left = {}, {}
        for name, changes, words in (("right", {}, []), ("not looked at", {}, ["check_signs=n"]),
                                     ("both", {"rec": conjugate, "sou": conjugate}, []), ("rec", {"rec": conjugate}, []),
                                     ("sou", {"sou": conjugate}, []),
                                     ("told not to look", {"rec": conjugate}, ["check_signs=n"])):
            folder = self.changed(**changes)
            status, out, err = program(folder, "morvane", "par=morvane.par", "niter=1", "node=1", "fftplan=estimate", *words)
            self.assertEqual(status, 0, err)
            said[name] = [line for line in err.split("\n") if "evaluation 1" in line]
            left[name] = []
            for output in ("Velout.H@", "bkgimg.H@", "Dimage.H@", "grad.H@", "log"):
                with open(os.path.join(folder, output), "rb") as file:
                    left[name].append(file.read())
            left[name].append(out.count("NUM.THREADS"))
        self.assertEqual((said["right"], said["not looked at"], said["told not to look"]), ([], [], []))
        self.assertEqual(left["right"], left["not looked at"])
        for name, cure in (("both", "conjugates of rec and sou"), ("rec", "conjugate of rec"), ("sou", "conjugate of sou")):
            self.assertEqual(len(said[name]), 1)
            self.assertIn("warning: evaluation 1: ", said[name][0])
            self.assertIn(cure, said[name][0])

    def test_refusals(self):
        folder = os.path.join(self.folder, "right")
        for words, told in ((["shots=-1"], "shots=-1"), (["nh=1"], "nh=1"), (["vel=none"], "none")):
            status, out, err = program(folder, "morvane_check", "par=morvane.par", *words)
            self.assertEqual(status, 23)
            self.assertIn(told, err)


if __name__ == "__main__":
    unittest.main()
