"""Runs of morvane: starting them, and finding what they left."""
import os
import re
import shutil
import subprocess

import numpy as np

from .dataset import Error, read, words

_LOG = re.compile(r"^ iter = +(\d+|\*+) titer= +(\d+|\*+) task = (.{5}) J\(x\) = +(\S+) min_x = *(\S+) max_x = *(\S+)"
                  r"(?: data = +\S+ reg = +\S+)?$")
_FILES = {"Velout": ("Velout", "velocity"), "bkgimg": ("bkgimg", "image"), "Dimage": ("Dimage", "residual"),
          "grad": ("grad", "gradient"), "illum": ("illum",), "vel": ("vel",), "rec": ("rec",), "sou": ("sou",)}


def program(name):
    """Path of a program: in $MORVANE_BIN, beside the module's own build or installation, in PATH.
    Errors (Error): it is nowhere."""
    here = os.path.dirname(os.path.abspath(__file__))
    folders = [os.environ.get("MORVANE_BIN", "")]
    folders += [os.path.normpath(os.path.join(here, up, "bin")) for up in ("../../../..", "../..", "../../build/release")]
    for folder in folders:
        path = os.path.join(folder, name)
        if folder and os.access(path, os.X_OK) and os.path.isfile(path):
            return path
    path = shutil.which(name)
    if path is None:
        raise Error("%s is neither in PATH nor in $MORVANE_BIN" % name)
    return path


def parameters(par, _open=()):
    """The name=value words of a parameter file, files that it names with par= included. Of several the last counts."""
    try:
        with open(par, encoding="latin1") as file:
            lines = file.read().split("\n")
    except OSError as error:
        raise Error("%s cannot be read: %s" % (par, error.strerror)) from None
    values = {}
    for line in lines:
        if line.startswith("#"):
            continue
        for name, value in words(line).items():
            if name != "par":
                values[name] = value
            elif len(_open) < 10 and os.path.isfile(value):
                values.update(parameters(value, _open + (par,)))
    return values


def course(log):
    """The iteration log as a structured array, a record per evaluation: evaluation, iteration, fun, accepted (whether
    a step ended with it), vmin and vmax (velocity, whole). fun that the log could not show is nan.
    Errors (Error): no such file."""
    records = []
    try:
        with open(log, encoding="latin1") as file:
            lines = file.read().split("\n")[:-1]  # the last line may be growing
    except OSError as error:
        raise Error("%s cannot be read: %s" % (log, error.strerror)) from None
    for line in lines:
        found = _LOG.match(line)
        if not found:
            continue
        numbers = [float("nan") if "*" in text else float(text.replace("D", "E")) for text in found.group(1, 2, 4, 5, 6)]
        if found.group(3) == "NEW_X":
            if records:
                records[-1][3] = True
        else:
            starts = not records or found.group(3) == "FG_ST"  # of the run, or of a stage
            records.append([len(records) + 1, int(numbers[0]), numbers[2], starts, numbers[3], numbers[4]])
    kinds = [("evaluation", int), ("iteration", int), ("fun", float), ("accepted", bool), ("vmin", float), ("vmax", float)]
    return np.array([tuple(record) for record in records], kinds)


class Run:
    """What a run of morvane left, or leaves while it goes on.

    Run("run/morvane.par") or Run("run"), a folder with one parameter file, or with the files of a run without one.
    keys         parameters given in the file, overridden by keyword
    path(key)    file of a dataset, or of `log`, `list`, `history`, `messages`; None if there is none
    Names are looked for in the current folder, then in that of the parameter file.
    """

    def __init__(self, where, **keys):
        self.par = self.folder = None
        where = os.fspath(where)
        if os.path.isdir(where):
            self.folder = where
            pars = sorted(f for f in os.listdir(where) if f.endswith(".par"))
            if "morvane.par" in pars:
                pars = ["morvane.par"]
            if len(pars) > 1:
                raise Error("%s holds several parameter files (%s): name one of them" % (where, ", ".join(pars)))
            self.par = os.path.join(where, pars[0]) if pars else None
        else:
            self.par, self.folder = where, os.path.dirname(where) or "."
        self.keys = parameters(self.par) if self.par else {}
        self.keys.update({key: str(value) for key, value in keys.items()})

    def path(self, key):
        names = [self.keys[key]] if key in self.keys else []
        if key in _FILES:
            names += [name + tail for name in _FILES[key] for tail in (".H", "")]
        names += {"log": ["log"], "list": ["list", "listing", "listagem"], "history": ["history.H"], "course": ["course"],
                  "messages": ["messages", "messages.txt"]}.get(key, [])
        for name in names:
            for folder in ("",) if os.path.isabs(name) else self._folders(key in self.keys and name == self.keys[key]):
                path = os.path.join(folder, name)
                if os.path.isfile(path):
                    return path
        return None

    def _folders(self, given):
        """A name that was given counts from the folder of the run, any other is looked for beside the parameters."""
        return ("", self.folder) if given else (self.folder, )

    def read(self, key, panels=None):
        """The dataset of a tag (Velout, bkgimg, Dimage, grad, illum, vel, rec, sou, ...); outputs by whole panels."""
        path = self.path(key)
        if path is None:
            raise Error("%s: no file of %s was found" % (self.folder, key))
        if panels is None and key in ("Velout", "bkgimg", "Dimage", "grad", "illum"):
            panels = 4
        return read(path, panels)

    def course(self):
        """See course(); Error if there is no log."""
        path = self.path("log")
        if path is None:
            raise Error("%s: there is no log of a run%s" % (self.folder, " (%s)" % self.keys["log"] if "log" in self.keys else ""))
        return course(path)

    def recorded(self):
        """Every parameter that the run read, given or defaulted, from its history; empty without one."""
        path = self.path("history")
        if path is None:
            return {}
        values = {}
        with open(path, encoding="latin1") as file:
            for line in file:
                if line.strip().startswith("From par: "):
                    values.update(words(line.strip()[len("From par: "):]))
        return values


def run(par=None, folder=".", messages="messages", history="history.H", check=True, tool="morvane", **keys):
    """Runs morvane and waits for its end.

    par       parameter file; keys (niter=5, bounds="y", vel="start.H") are added and count before it. True and False
              are y and n
    folder    where it runs: names of files count from there. Its standard output goes to `history`, its messages to
              `messages`, both beside the parameter file (or in the folder)
    check     raise Error, with the last message, if the status is not 0
    Returns the Run, with its exit status in `status`.
    """
    path = program(tool)
    if not os.path.isdir(folder):
        raise Error("folder=%s is no folder" % folder)
    beside = os.path.join(folder, os.path.dirname(os.fspath(par))) if par else folder
    given = {key: ("n", "y")[value] if isinstance(value, bool) else str(value) for key, value in keys.items()}
    command = [path] + (["par=" + os.fspath(par)] if par else []) + ["%s=%s" % pair for pair in given.items()]
    with open(os.path.join(beside, history), "wb") as out, open(os.path.join(beside, messages), "wb") as err:
        status = subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=out, stderr=err).returncode
    if check and status != 0:
        with open(os.path.join(beside, messages), encoding="utf-8", errors="replace") as file:
            said = [line for line in file.read().split("\n") if line.strip()] or ["no message"]
        raise Error("%s ended with status %d: %s" % (tool, status, said[-1]))
    given["history"], given["messages"] = os.path.join(beside, history), os.path.join(beside, messages)
    given = {key: os.path.abspath(value) if key in ("history", "messages") else value for key, value in given.items()}
    result = _in_folder(folder, par, given)
    result.status = status
    return result


def _in_folder(folder, par, given):
    """A Run whose names count from the folder it ran in, wherever the caller stands."""
    found = Run(os.path.join(folder, os.fspath(par)) if par else folder, **given)
    base = os.path.abspath(folder)
    for key in list(_FILES) + ["log", "list"]:
        value = found.keys.get(key)
        if value and not os.path.isabs(value):
            found.keys[key] = os.path.join(base, value)
    found.keys.setdefault("log", os.path.join(base, "log"))
    for key in _FILES:
        if key not in found.keys and os.path.isfile(os.path.join(base, key)):
            found.keys[key] = os.path.join(base, key)
    return found
