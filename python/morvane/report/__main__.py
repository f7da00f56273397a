"""morvane_report: the report of a run."""
import os
import sys
import time

from .. import command
from ..dataset import Error
from ..runs import Run
from .facts import gather, is_locked
from .page import write_page

HELP = """morvane_report: what a run of morvane did, as one HTML file that needs nothing else

    morvane_report FOLDER|FILE.par [name=value ...] [--follow]

Works on a run that is not finished, too. Files are looked for under the names of the parameter file, then under their
usual names beside it. For the warnings and all parameters of the run, keep its two outputs there:
    morvane par=run/morvane.par < /dev/null > run/history.H 2> run/messages
    morvane_report run

  --follow                  write it anew after each evaluation, until the run ends; an open page reads itself anew
  out=report.html           the report; its standard place is beside the parameter file
  true=FILE                 true model, slowness: model error and difference
  unit=m, km, ft            unit of length; default: that of prepare.txt, else guessed from the velocities
  wait=60 seconds           with --follow: how long to wait for a run that has not begun
  history=FILE              standard output of the run; default: history.H
  messages=FILE             standard error of the run; default: messages
  course=FILE               table of the run by evaluation
  log=, list=, Velout=, bkgimg=, grad=, illum=, rec=
                            files of the run, where they have other names than in the parameter file

--help, --version. Status 0: written; 23: an error, told on the standard error.
"""
KEYS = ("out", "true", "unit", "wait", "log", "list", "history", "messages", "course", "Velout", "bkgimg", "Dimage", "grad",
        "illum", "vel", "rec", "sou")
REFRESH = 20  # seconds


def _arguments(words):
    names, given, flags = command.take(words, KEYS, flags=("--follow",))
    if not names:
        raise Error("give the folder of a run or its parameter file; --help tells more")
    if given.get("unit", "m") not in ("m", "km", "ft"):
        raise Error("unit=%s is not one of m, km, ft" % given["unit"])
    wait = command.number(given, "wait", 60.0)
    given.pop("wait", None)
    return names[0], given, bool(flags), wait


def _report(run, given, out, before=None, refresh=0):
    facts = gather(run, given.get("true"), given.get("unit"), before)
    size = write_page(facts, out, refresh)
    print("%s: %d evaluations, %s, %d bytes; %s" % (out, facts.evaluations, facts.state, size, facts.level), flush=True)
    return facts


def _lines(run):
    """What grows when an evaluation is done."""
    path = run.path("log")
    return os.path.getsize(path) if path else 0


def _follow(make_run, given, out, wait):
    facts, seen, begun = None, -1, time.monotonic()
    while True:
        run = make_run()
        running, lines = is_locked(run.path("log")), _lines(run)
        if lines != seen and lines > 0:
            try:
                facts, seen = _report(run, given, out, facts, REFRESH), lines
            except Error:
                if not running:
                    raise
        if not running and (facts is not None or time.monotonic() - begun > wait):
            if facts is None:
                raise Error("%s: no run began within %g s" % (run.folder, wait))
            if facts.state == "running":
                _report(make_run(), given, out, facts)
            return
        time.sleep(0.5)


def _work(words):
    where, given, follow, wait = _arguments(words)
    files = {key: value for key, value in given.items() if key not in ("out", "true", "unit")}
    make_run = lambda: Run(where, **files)
    out = given.get("out") or os.path.join(make_run().folder, "report.html")
    if not os.access(os.path.dirname(os.path.abspath(out)), os.W_OK) or os.path.isdir(out):
        raise Error("out=%s: a file cannot be made there" % out)
    if follow:
        _follow(make_run, given, out, wait)
    else:
        _report(make_run(), given, out)


def main(words=None):
    return command.main("morvane_report", HELP, _work, words)


if __name__ == "__main__":
    sys.exit(main())
