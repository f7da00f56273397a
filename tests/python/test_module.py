"""The Python module and the report. $MORVANE_BIN: folder of the programs."""
import contextlib
import fcntl
import html.parser
import io
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
import unittest.mock
import xml.etree.ElementTree

sys.dont_write_bytecode = True
root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(root, "python"))

import numpy as np

import morvane
import morvane.export
from morvane.report import __main__ as report
from morvane.report import facts as report_facts

BIN = os.environ["MORVANE_BIN"]


class InFolder(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="morvane_python_")
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(self.folder)

    def text(self, name, text):
        with open(name, "w", encoding="latin1") as file:
            file.write(text)

    def refused(self, words, call, *arguments, **keys):
        with self.assertRaises(morvane.Error) as told:
            call(*arguments, **keys)
        for word in words:
            self.assertIn(word, str(told.exception))


class Datasets(InFolder):
    def test_round_trip_of_every_kind(self):
        ramp = np.arange(24.0).reshape(2, 3, 4)
        for data in (ramp, ramp * (1 + 2j), ramp.T, ramp[:, ::2, ::-1], ramp.astype("i2"), np.arange(5.0),
                     np.arange(3 * (1 << 20) + 7.0).reshape(1, -1)):
            with self.subTest(shape=data.shape, kind=data.dtype):
                d, o = list(range(1, data.ndim + 1)), [-0.5] * data.ndim
                morvane.write("t.H", data, d, o)
                back = morvane.read("t.H")
                self.assertIsInstance(back.data, np.memmap)
                np.testing.assert_array_equal(back.data, data)
                self.assertEqual((back.d, back.o, back.n), (d, o, list(data.shape[::-1])))
        self.assertEqual(list(morvane.read("t.H").axis(2)), [-0.5])

    def test_axes_and_values_are_what_the_programs_read(self):
        morvane.write("vel.H", np.full((3, 4), 5e-4), (10, 5), (-1800, 0), axes=(1, 3), values={"who": 'a "b"'})
        said = subprocess.run([os.path.join(BIN, "qas"), "info", os.path.abspath("vel.H")], cwd="/", stdout=subprocess.PIPE, text=True).stdout
        self.assertRegex(said, r"n1=4 d1=10 o1=-1800")
        self.assertRegex(said, r"n3=3 d3=5 o3=0")
        self.assertRegex(said, r"min=0.0005\d* max=0.0005\d* ")
        self.assertEqual(morvane.read("vel.H").header["who"], 'a "b"')
        self.assertEqual(morvane.read("vel.H").panel().shape, (3, 4))

    def test_other_layouts_of_a_file(self):
        a = np.arange(6, dtype="<f4")
        head = "n1=2 n2=3\n"
        cases = {"native": (head + 'data_format="native_float" in="d"', a.tobytes(), b""),
                 "two files": (head + 'in="d;e"', a.astype(">f4").tobytes()[:9], a.astype(">f4").tobytes()[9:]),
                 "later lines count": ('n1=7 in="none"\n' + head + 'n1=2\nsets next: in="d"', a.astype(">f4").tobytes(), b"")}
        for name, (header, first, second) in cases.items():
            with self.subTest(name):
                self.text("t.H", header + "\n")
                for file, samples in (("d", first), ("e", second)):
                    with open(file, "wb") as out:
                        out.write(samples)
                np.testing.assert_array_equal(morvane.read("t.H").data, a.reshape(3, 2))
        with open("s.H", "wb") as out:
            out.write(b'n1=2 n2=3 in="stdin"\n\f\f\x04' + a.astype(">f4").tobytes())
        np.testing.assert_array_equal(morvane.read("s.H").data, a.reshape(3, 2))

    def test_whole_panels_of_a_file_that_grows(self):
        morvane.write("v.H", np.arange(12.0).reshape(2, 3, 2), axes=(1, 3, 4))
        with open("v.H@", "ab") as out:
            out.write(b"1234" * 5)
        self.assertEqual(morvane.read("v.H", panels=4).shape, (2, 3, 1, 2))
        with open("v.H@", "ab") as out:
            out.write(b"1234")
        self.assertEqual(morvane.read("v.H", panels=4).shape, (3, 3, 1, 2))
        os.truncate("v.H@", 3)
        self.assertEqual(morvane.read("v.H", panels=4).shape, (0, 3, 1, 2))

    def test_what_is_refused(self):
        with open("d", "wb") as out:
            out.write(bytes(24))
        for header, words in (("", ["no axes"]), ("n1=6", ["in="]), ('n1=0 in="d"', ["n1=0"]), ('n1=x in="d"', ["n1=x"]),
                              ('n1=7 in="d"', ["28", "24"]), ('n1=6 in="/no/such"', ["/no/such"]), ('n1=6 d1=nan in="d"', ["d1=nan"]),
                              ('n1=6 esize=5 in="d"', ["esize=5"]), ('n1=6 data_format="kplot" in="d"', ["kplot"]),
                              ('n1=99999999999 n2=99999999999 in="d"', ["24"]), ('n1=6 in="stdin"', ["follow"])):
            with self.subTest(header):
                self.text("t.H", header + "\n")
                self.refused(["t.H"] + words, morvane.read, "t.H")
        self.refused(["none.H"], morvane.read, "none.H")
        morvane.write("good.H", np.ones(3))
        with open("good.H") as file:
            before = file.read()
        for keys, words in (({"axes": (2, 1)}, ["axes"]), ({"axes": (1, 10)}, ["axes"]), ({"d": (1,)}, ["d="]),
                            ({"values": {"a": "b\n"}}, ["control"]), ({"samples": "/no/such/place"}, ["/no/such"])):
            with self.subTest(keys):
                self.refused(words, morvane.write, "good.H", np.ones((2, 3)), **keys)
        self.refused(["U5"], morvane.write, "good.H", np.array(["words"]))
        with open("good.H") as file:
            self.assertEqual(file.read(), before)
        self.assertEqual(sorted(os.listdir(".")), ["d", "good.H", "good.H@", "t.H"])


class Logs(InFolder):
    line = " iter = %4d titer= %4d task = %s J(x) = %15s min_x = 1799 max_x = 2500\n"

    def test_course(self):
        self.text("log", self.line % (1, 1, "FG_ST", "3.0E-02") + "noise\n" + self.line % (1, 2, "FG_LN", "*" * 15)
                  + self.line % (1, 3, "FG_LN", "2.0E-02") + self.line % (1, 4, "NEW_X", "2.0E-02")
                  + (self.line % (2, 4, "FG_ST", "1.0E-02"))[:-1] + " data =   9.0E-03 reg =   1.0E-03\n"
                  + (self.line % (2, 5, "FG_LN", "1.0E-02"))[:-3])
        course = morvane.course("log")
        self.assertEqual(list(course["accepted"]), [True, False, True, True])
        self.assertEqual(course["fun"][2], 0.02)
        self.assertTrue(np.isnan(course["fun"][1]))

    def test_parameters(self):
        self.text("more.par", "niter=7 nh=3")
        self.text("a.par", "# nh=99\nvel='my start.H' niter=5\npar=more.par\nnh=33\n")
        self.assertEqual(morvane.parameters("a.par"), {"vel": "my start.H", "niter": "7", "nh": "33"})


class Exports(InFolder):
    """A cube whose samples tell their place: 1000 panel + 100 depth + 10 offset + column."""

    def setUp(self):
        super().setUp()
        p, z, h, x = np.ogrid[1:3, 0:4, 0:3, 0:5]
        self.cube = (1000.0 * p + 100 * z + 10 * h + x).astype("f4")
        morvane.write("image.H", self.cube, d=(12.5, 25, 8, 1), o=(-50, -25, 4, 0), axes=(1, 2, 3, 4))

    def export(self, *words):
        err, out = io.StringIO(), io.StringIO()
        with contextlib.redirect_stderr(err), contextlib.redirect_stdout(out):
            return morvane.export.main(list(words)), err.getvalue()

    def test_segy(self):
        try:
            import segyio
        except ModuleNotFoundError:
            self.skipTest("no python3-segyio")
        with unittest.mock.patch.object(morvane.export, "BLOCK", 24):  # two columns at a time
            self.assertEqual(self.export("image.H", "i.sgy", "panel=0", "line=1000,2000,1300,2400"), (0, ""))
        with segyio.open("i.sgy", ignore_geometry=True) as file:
            np.testing.assert_array_equal(file.trace.raw[:].reshape(5, 3, 4), self.cube[0].transpose(2, 1, 0))
            word = lambda at: list(file.attributes(at)[:])
            self.assertEqual(word(37), [-25, 0, 25] * 5)
            self.assertEqual(word(21)[::3], [1, 2, 3, 4, 5])
            self.assertEqual(word(181)[::3], [97000, 97750, 98500, 99250, 100000])
            self.assertEqual(word(185)[::3], [196000, 197000, 198000, 199000, 200000])
            self.assertEqual((set(word(71)), set(word(117)), file.bin[3217], file.bin[3225], file.bin[3255]), ({-100}, {8000}, 8000, 5, 1))
            self.assertIn("first depth 4, step 8 m", file.text[0].decode("ascii"))
        morvane.write("km.H", self.cube[0], d=(0.0125, 1, 0.008), o=(-0.05, 0, 0))
        self.assertEqual(self.export("km.H", "k.sgy", "unit=km")[0], 0)
        with segyio.open("k.sgy", ignore_geometry=True) as file:
            self.assertEqual((list(file.attributes(181)[:4]), file.bin[3217]), ([-5000] * 3 + [-3750], 8000))

    def test_npy(self):
        waves = self.cube * (1 + 2j)
        morvane.write("waves.H", waves)
        with unittest.mock.patch.object(morvane.export, "BLOCK", 7):
            for header, words, wanted in (("image.H", ["panel=all"], self.cube), ("image.H", [], self.cube[1]),
                                          ("image.H", ["panel=-2", "invert=y"], 1 / self.cube[0]), ("waves.H", ["panel=all"], waves)):
                self.assertEqual(self.export(header, "a.npy", "overwrite=y", *words), (0, ""))
                np.testing.assert_array_equal(np.load("a.npy"), wanted.astype("c8" if wanted.dtype.kind == "c" else "f4"))

    def test_vti(self):
        self.assertEqual(self.export("image.H", "a.vti", "panel=0"), (0, ""))
        with open("a.vti", "rb") as file:
            raw = file.read()
        head, _, rest = raw.partition(b"\n_")
        tree = xml.etree.ElementTree.fromstring(head + b"</AppendedData></VTKFile>")
        image = tree.find("ImageData")
        self.assertEqual((image.get("WholeExtent"), image.get("Origin"), image.get("Spacing")), ("0 4 0 2 0 3", "-50 -25 -4", "12.5 25 8"))
        size = int.from_bytes(rest[:8], "big")
        self.assertEqual(size, self.cube[0].nbytes)
        np.testing.assert_array_equal(np.frombuffer(rest[8:8 + size], ">f4").reshape(4, 3, 5), self.cube[0])

    def test_profile(self):
        self.assertEqual(self.export("image.H", "p.csv", "panel=all", "x=-26", "offset=25"), (0, ""))
        with open("p.csv") as file:
            lines = file.read().split("\n")
        self.assertEqual(lines[:3], ["depth,panel0,panel1", "4,1022,2022", "12,1122,2122"])

    def test_what_is_refused(self):
        self.text("there.npy", "kept")
        morvane.write("zero.H", np.zeros((2, 2)))
        morvane.write("deep.H", np.ones((2, 1, 2)), d=(1, 1, 70))
        morvane.write("waves.H", np.ones((2, 1, 2)) * 1j)
        for words, told in ((["image.H"], "give a header"), (["image.H", "a.png"], ".sgy"), (["none.H", "a.npy"], "none.H"),
                            (["image.H", "there.npy"], "overwrite=y"), (["image.H", "a.npy", "panel=2"], "panel=2"),
                            (["image.H", "a.npy", "panel=x"], "panel=x"), (["image.H", "a.sgy", "panel=all"], "panel=all"),
                            (["zero.H", "a.npy", "invert=y"], "invert=y"), (["image.H", "a.csv"], "x="),
                            (["image.H", "a.csv", "x=100"], "x=100"), (["image.H", "a.csv", "x=y"], "x=y"),
                            (["deep.H", "a.sgy"], "70"), (["waves.H", "a.sgy"], "real"), (["waves.H", "a.vti"], "real"),
                            (["image.H", "a.sgy", "unit=mile"], "unit=mile"), (["image.H", "a.sgy", "line=1,2"], "line=1,2"),
                            (["image.H", "a.sgy", "line=9e9,0,9e9,1"], "9e+11"), (["image.H", "/no/such/a.npy"], "/no/such"),
                            (["image.H", "a.npy", "pannel=1"], "did you mean panel")):
            with self.subTest(words):
                before = sorted(os.listdir("."))
                status, said = self.export(*words)
                self.assertEqual(status, 23)
                self.assertIn(told, said)
                self.assertEqual(sorted(os.listdir(".")), before)


class Page(html.parser.HTMLParser):
    """Pictures, and every address that a browser might ask for."""

    def __init__(self, text):
        super().__init__()
        self.pictures, self.addresses, self.ids, self.labels = [], [], [], []
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        a = dict(attributes)
        if tag == "img":
            self.pictures.append(a)
        if tag == "label":
            self.labels.append(a["for"])
        self.addresses += [a[k] for k in ("src", "href", "srcset", "action", "data") if k in a]
        self.ids += [a["id"]] if "id" in a else []


class Runs(InFolder):
    """One small run for all tests."""

    @classmethod
    def setUpClass(cls):
        cls.kept = tempfile.mkdtemp(prefix="morvane_python_")
        cls.addClassCleanup(shutil.rmtree, cls.kept)
        words = ("nshot=3 oshot=300 dshot=150 nrec=31 dx=30 dz=30 zmax=900 of=4 df=1 nf=8 fpeak=8 tmax=0.95 margin=200 absorb=8 "
                 "taper=8 niter=2 nh=7 zref=300,500,630")
        done = subprocess.run([os.path.join(BIN, "morvane_synth")] + words.split() + ["datapath=%s/" % cls.kept], cwd=cls.kept,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert done.returncode == 0, done.stdout
        with open(os.path.join(cls.kept, "morvane.par")) as file:
            words = file.read().split("\n")
        kept = [line for line in words if not line.startswith(("stop=", "regularise=", "extrapolator=", "inversion="))]
        with open(os.path.join(cls.kept, "morvane.par"), "w") as file:  # a run that ends by its count, and whose result is its last
            file.write("\n".join(kept) + "extrapolator=pspi nrefvel=1 vsal=25000\ninversion=y dso=y expdso=1 niter=2 mmax=5\n")
        cls.run_made = morvane.run("morvane.par", cls.kept, datapath=cls.kept + "/", node=2)

    def setUp(self):
        super().setUp()
        shutil.copytree(self.kept, "run")

    def report(self, *words):
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            status = report.main(list(words))
        return status, out.getvalue() + err.getvalue()

    def test_run_returns_what_the_run_left(self):
        self.assertEqual(self.run_made.status, 0)
        course = self.run_made.course()
        self.assertEqual(len(course), self.run_made.read("Velout").shape[0])
        self.assertEqual(self.run_made.recorded()["niter"], "2")
        self.refused(["status 23", "perturbed image"], morvane.run, None, "run", vel="none.H", inversion=True, history="h", messages="m")
        ax = morvane.show(self.run_made.read("bkgimg"))
        self.assertEqual(ax.images[0].get_array().shape, self.run_made.read("bkgimg").panel().shape[::2])

    def test_the_facts_are_those_of_the_files(self):
        facts = report_facts.gather(morvane.Run("run"), "run/true")
        image = self.run_made.read("bkgimg").panel(0).astype(float)
        region = self.run_made.read("bkgimg")
        x, z = region.axis(1), region.axis(3)
        limits = facts.region
        image = image[(z >= limits["zmin"]) & (z <= limits["zmax"])][:, :, (x >= limits["xmin"]) & (x <= limits["xmax"])]
        self.assertAlmostEqual(facts.share[0], (image[:, 3] ** 2).sum() / (image ** 2).sum(), 10)
        scored = subprocess.run([os.path.join(BIN, "morvane_score"), "Velout=Velout.H", "bkgimg=bkgimg.H"], cwd="run",
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True).stdout
        rows = re.findall(r"^ +\d+ +(\d+) +\S+ +([\d.]+) +([\d.]+)$", scored, re.M)
        self.assertEqual(len(rows), len(facts.shown))
        for evaluation, error, share in rows:
            self.assertAlmostEqual(100 * facts.errors[int(evaluation) - 1], float(error), 2)
            self.assertAlmostEqual(100 * facts.share[int(evaluation) - 1], float(share), 2)
        self.assertEqual(facts.state, "ended")
        facts.run.keys["best"], facts.table = "best.H", {"evaluation": [1.0, 2.0, 3.0], "fit": [0.5, 0.8, 0.7]}
        self.assertEqual((facts.accepted, facts.shown), ([0, 1, 2], [0, 1]))  # the run kept the model of the greatest fit
        given = {name for name, _, kind, _ in facts.parameters if kind == "given"}
        self.assertTrue({"vel", "nh", "gradient", "node"} <= given)
        self.assertFalse({"maxvchg", "l1norm", "imgcon"} & given)

    def test_the_page_needs_nothing_else(self):
        self.text("run/messages", "morvane: warning: <b>this & that</b>\n")
        self.text("run/course.csv", "# by evaluation\nevaluation,accepted,fit\n1,1,0.71\n2,0,\n99,1,0.9\n3,1,0.75\n")
        status, said = self.report("run", "true=run/true", "out=p.html", "course=course.csv")
        self.assertEqual(status, 0, said)
        with open("p.html", encoding="utf-8") as file:
            text = file.read()
        page = Page(text)
        self.assertTrue(any(p["alt"] == "Fit by evaluation, from 0.71 to 0.75" for p in page.pictures))
        self.assertTrue(all(a.startswith("data:") for a in page.addresses), page.addresses)
        self.assertNotIn("<script", text)
        self.assertNotIn("@import", text)
        self.assertIsNone(re.search(r"url\((?!data:)", text))
        self.assertTrue(all(len(p["alt"]) > 10 for p in page.pictures))
        self.assertEqual(len(page.ids), len(set(page.ids)))
        self.assertTrue(set(page.labels) <= set(page.ids))
        self.assertLess(len(text), 5000000)
        self.assertIn("<li>&lt;b&gt;this &amp; that&lt;/b&gt;</li>", text)
        self.assertEqual(set(os.listdir(".")), {"run", "p.html"})
        browser = shutil.which("chromium-headless-shell") or shutil.which("chromium")
        if browser is None:
            self.skipTest("no Chromium")
        look = "<script>onload = () => document.title = [innerWidth, document.documentElement.scrollWidth <= innerWidth, " \
               "[...document.images].filter(i => i.naturalWidth == 0).length, performance.getEntriesByType('resource')" \
               ".filter(r => !r.name.startsWith('data:')).length].join(' ')</script>"
        self.text("look.html", text.replace("</body>", look + "</body>"))
        for width in (1280, 400):
            seen = subprocess.run([browser, "--headless", "--no-sandbox", "--disable-gpu", "--window-size=%d,2000" % width,
                                   "--dump-dom", "file://%s/look.html" % self.folder], stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True, timeout=60).stdout
            self.assertEqual(re.findall("<title>(.*)</title>", seen), ["%d true 0 0" % width])

    def test_a_run_that_goes_on(self):
        with open("run/log") as file:
            log = file.read().split("\n")
        self.text("run/log", "\n".join(log[:3]) + "\n")
        os.truncate("run/Velout.H@", os.path.getsize("run/Velout.H@") - 4)
        facts = report_facts.gather(morvane.Run("run", Velout="run/Velout.H", bkgimg="run/bkgimg.H"))
        self.assertEqual((facts.evaluations, facts.state), (2, "ended"))  # by its closing line
        os.remove("run/messages")
        self.assertEqual(report_facts.gather(morvane.Run("run")).state, "stopped")
        with open("run/log", "r+b") as held:
            fcntl.fcntl(held, 37, struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))  # F_OFD_SETLK, as the programs
            facts = report_facts.gather(morvane.Run("run"))
            self.assertEqual(facts.state, "running")
            again = report_facts.gather(morvane.Run("run"), before=facts)
            self.assertEqual(again.share, facts.share)
        self.text("run/log", "")
        status, said = self.report("run", "--follow", "wait=0")
        self.assertEqual(status, 23)
        self.assertIn("no run began", said)

    def test_following_a_run_to_its_end(self):
        drawn = []

        def draw(run, given, out, before=None, refresh=0):
            drawn.append(report_facts.gather(run, before=before))
            return drawn[-1]

        with unittest.mock.patch.object(report, "_report", draw):
            os.remove("run/log")
            started = subprocess.Popen([os.path.join(BIN, "morvane"), "par=morvane.par", "datapath=%s/run/" % self.folder, "niter=3"],
                                       cwd="run", stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            self.assertEqual(self.report("run", "--follow"), (0, ""))
            self.assertEqual(started.wait(), 0)
        self.assertNotEqual(drawn[-1].state, "running")
        self.assertEqual(drawn[-1].evaluations, len(morvane.course("run/log")))

    def test_verdicts(self):
        def verdict(**changes):
            facts = report_facts.gather(morvane.Run("run"))
            for name, value in changes.items():
                setattr(facts, name, value)
            report_facts._verdict(facts)
            return facts.level, " ".join(facts.verdict)
        course = morvane.Run("run").course()
        stuck, broken = course.copy(), course.copy()
        stuck["accepted"][1:] = False
        broken["fun"][-1] = np.nan
        n = len(course)
        for changes, level, words in (({}, "ok", "zero offset"), ({"share": [0.2] * n}, "wrong", "did not gain focus"),
                                      ({"course": stuck}, "wrong", "No step"), ({"course": broken}, "wrong", "finite"),
                                      ({"on_bounds": 0.3}, "look", "30 %"), ({"state": "stopped"}, "look", "stopped"),
                                      ({"errors": list(np.linspace(1, 2, n))}, "wrong", "true one")):
            with self.subTest(words):
                found = verdict(**changes)
                self.assertEqual(found[0], level)
                self.assertIn(words, found[1])

    def test_messages_of_the_command(self):
        for words, told in ((["none"], "none"), ([], "give the folder"), (["run", "run"], "too many"), (["run", "ture=3"], "did you mean true?"),
                            (["run", "unit=mile"], "unit=mile"), (["run", "true=run/none"], "run/none"), (["run", "wait=x"], "wait"),
                            (["run", "out=/no/such/x.html"], "/no/such"), (["run", "true=run/traces"], "true=run/traces")):
            with self.subTest(words):
                if words[-1:] == ["true=run/traces"]:
                    morvane.write("run/traces", np.ones((3, 4)), (7, 7), axes=(1, 3))
                status, said = self.report(*words)
                self.assertEqual(status, 23)
                self.assertIn(told, said)
        self.assertEqual(self.report("--help")[0], 0)
        with open("/dev/full", "w") as full:
            told = subprocess.run([os.path.join(BIN, "morvane_report"), "--help"], stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(told.returncode, 23)
        self.assertTrue(told.stderr.endswith(b"the standard output cannot be written: No space left on device\n"))

    def test_version_is_that_of_the_programs(self):
        said = subprocess.run([os.path.join(BIN, "morvane"), "--version"], stdout=subprocess.PIPE, text=True).stdout
        self.assertIn(said.split()[1], self.report("--version")[1])


if __name__ == "__main__":
    unittest.main()
