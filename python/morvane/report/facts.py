"""What a run did, in numbers, and the verdict on it."""
import csv
import dataclasses
import fcntl
import math
import os
import re
import struct
import subprocess
import time

import numpy as np

from ..dataset import Dataset, Error, read
from ..runs import Run, program

SLACK = 0.005  # of a bound, in which a sample counts as lying on it


@dataclasses.dataclass
class Facts:
    run: Run
    unit: str = ""              # of length
    unit_assumed: bool = False
    state: str = "ended"        # running, ended, stopped
    course: np.ndarray = None   # see morvane.course
    table: dict = None          # of the file that course= names: column, values
    gradient: list = dataclasses.field(default_factory=list)  # rms by evaluation
    share: list = dataclasses.field(default_factory=list)     # zero-offset share of the image by evaluation
    minutes: list = dataclasses.field(default_factory=list)   # by evaluation
    velocity: Dataset = None
    image: Dataset = None
    sensitivity: np.ndarray = None   # (depth, lateral)
    sensitivity_kind: str = ""
    window: tuple = None             # x from, to
    truth: np.ndarray = None         # velocity (depth, lateral)
    region: dict = dataclasses.field(default_factory=dict)
    errors: list = dataclasses.field(default_factory=list)    # model error by evaluation, with a true model
    on_bounds: float = None          # share of samples
    warnings: list = dataclasses.field(default_factory=list)
    closing: str = ""
    parameters: list = dataclasses.field(default_factory=list)  # name, value, given or default, meaning
    survey: list = dataclasses.field(default_factory=list)      # what, value
    versions: list = dataclasses.field(default_factory=list)
    prepared: str = ""
    level: str = "look"
    verdict: tuple = ("", "")

    @property
    def shown(self):
        """Evaluations (from 0) of the start model and of each accepted step, up to the result: with best= or stop= that is
        the model of the greatest fit, else the last one."""
        accepted = self.accepted
        fits = {int(e) - 1: f for e, f in zip((self.table or {}).get("evaluation", ()), (self.table or {}).get("fit", ()))
                if math.isfinite(e) and math.isfinite(f)}
        known = [i for i in accepted if i in fits]
        if not known or not {"best", "stop"} & set(self.run.keys):
            return accepted
        best = max(known, key=fits.get)
        return [i for i in accepted if i <= best]

    @property
    def accepted(self):
        """Those of all accepted models."""
        return [i for i in range(self.evaluations) if self.course["accepted"][i]] or list(range(min(1, self.evaluations)))

    @property
    def evaluations(self):
        """How many have a line in the log and a panel of the model."""
        return min(len(self.course), self.velocity.shape[0])


def is_locked(path):
    """Whether a program is writing the file: those of morvane lock their outputs."""
    if path is None:
        return False
    try:
        with open(path, "rb") as file:
            asked = struct.pack("hhqqi4x", fcntl.F_RDLCK, os.SEEK_SET, 0, 0, 0)
            return struct.unpack("hhqqi4x", fcntl.fcntl(file, fcntl.F_GETLK, asked))[0] != fcntl.F_UNLCK
    except OSError:
        return False


def gather(run, true=None, unit=None, before=None):
    """All facts of a run; `before`, facts of the same run, spares what was computed then.
    Errors (Error): no log or no model of a run, files that do not fit each other."""
    facts = Facts(run, course=run.course())
    facts.velocity = run.read("Velout")
    if facts.evaluations == 0:
        raise Error("%s: the run has no evaluation yet" % run.folder)
    facts.table = _course_table(run.path("course"))
    facts.image = _optional(run, "bkgimg")
    if facts.image is not None and facts.image.shape[0] == 0:
        facts.image = None
    _unit(facts, unit)
    _messages(facts)
    _state(facts)
    _truth(facts, true)
    _series(facts, before)
    _sensitivity(facts)
    facts.window = _window(facts)
    _bounds(facts)
    _minutes(facts)
    _survey(facts)
    _parameters(facts)
    _versions(facts)
    _verdict(facts)
    return facts


def _optional(run, key):
    try:
        return run.read(key)
    except Error:
        return None


def _course_table(path):
    """The columns of the file of course=, as numbers where they are."""
    if path is None:
        return {}
    with open(path, encoding="utf-8", newline="") as file:
        rows = [row for row in csv.reader(line for line in file if not line.startswith("#"))]
    if len(rows) < 2:
        return {}
    table = {}
    for k, name in enumerate(rows[0]):
        table[name.strip()] = [_float(row[k]) if k < len(row) else math.nan for row in rows[1:]]
    return table


def _float(text):
    try:
        return float(text)
    except ValueError:
        return math.nan


def _unit(facts, unit):
    prepared = os.path.join(facts.run.folder, "prepare.txt")
    if os.path.isfile(prepared):
        with open(prepared, encoding="utf-8", errors="replace") as file:
            facts.prepared = file.read(1 << 18)
    found = re.search(r"^Geometry \((m|km|ft)\)", facts.prepared, re.M)
    if unit:
        facts.unit = unit
    elif found:
        facts.unit = found.group(1)
    else:
        median = float(np.median(facts.velocity[0]))
        facts.unit, facts.unit_assumed = ("km" if 0.3 <= median <= 8 else "m"), True


def _messages(facts):
    path = facts.run.path("messages")
    if path is None:
        return
    with open(path, encoding="utf-8", errors="replace") as file:
        for line in file:
            found = re.match(r"\S*?: warning: (.*)", line)
            if found and found.group(1) not in facts.warnings:
                facts.warnings.append(found.group(1))
            if "; result: panel " in line or line.rstrip().endswith("no result"):
                facts.closing = line.split(": ", 1)[-1].strip()


def _niter(facts):
    return int(_float(facts.run.recorded().get("niter", facts.run.keys.get("niter", "5"))) or 0)


def _state(facts):
    accepted = int(facts.course["accepted"].sum()) - 1
    if is_locked(facts.run.path("log")):
        facts.state = "running"
    elif facts.closing or accepted >= _niter(facts):
        facts.state = "ended"
    else:
        facts.state = "stopped"


def _truth(facts, true):
    if true is None:
        return
    model = read(true)
    x, z = facts.velocity.axis(1), facts.velocity.axis(3)
    xt, zt = model.axis(1), model.axis(3)
    ix, iz = np.rint((x - xt[0]) / model.d[0]).astype(int), np.rint((z - zt[0]) / model.d[2]).astype(int)
    if abs(model.d[0] - facts.velocity.d[0]) > 1e-4 * abs(model.d[0]) or abs(model.d[2] - facts.velocity.d[2]) > 1e-4 * abs(model.d[2]):
        raise Error("true=%s: its steps, %g by %g, are not those of the run, %g by %g"
                    % (true, model.d[0], model.d[2], facts.velocity.d[0], facts.velocity.d[2]))
    inside = ((ix >= 0) & (ix < len(xt)))[None] & ((iz >= 0) & (iz < len(zt)))[:, None]
    slowness = model.panel(0)[np.clip(iz, 0, len(zt) - 1)][:, np.clip(ix, 0, len(xt) - 1)]
    if not inside.any() or not (slowness[inside] > 0).all():
        raise Error("true=%s: it must be slowness, greater than 0, and share samples with the model of the run" % true)
    facts.truth = np.where(inside, 1 / np.where(inside, slowness, 1), np.nan)
    facts.region = {k: _float(model.header[k]) for k in ("xmin", "xmax", "zmin", "zmax") if k in model.header}
    in_x, in_z = _in_region(facts, x, z)
    if not np.isfinite(facts.truth[in_z][:, in_x]).any():
        raise Error("true=%s: its region (%s) encloses no sample of the model"
                    % (true, " ".join("%s=%g" % pair for pair in sorted(facts.region.items()))))


def _in_region(facts, x, z):
    slack = 1e-6 * (abs(x[-1]) + abs(z[-1]))
    limit = facts.region.get
    return (((x >= limit("xmin", -math.inf) - slack) & (x <= limit("xmax", math.inf) + slack)),
            ((z >= limit("zmin", -math.inf) - slack) & (z <= limit("zmax", math.inf) + slack)))


def model_error(facts, i):
    """|s - s_true| / |s_true| in slowness over the region of the true model, as morvane_score has it."""
    in_x, in_z = _in_region(facts, facts.velocity.axis(1), facts.velocity.axis(3))
    truth = 1 / facts.truth[in_z][:, in_x].astype(float)
    model = 1 / facts.velocity.panel(i)[in_z][:, in_x].astype(float)
    there = np.isfinite(truth)
    return math.sqrt(np.sum((model - truth)[there] ** 2) / np.sum(truth[there] ** 2))


def _zero_offset_share(facts, i):
    panel = facts.image[i]
    h = facts.image.axis(2)
    in_x, in_z = _in_region(facts, facts.image.axis(1), facts.image.axis(3))
    zero = int(np.argmin(np.abs(h)))
    whole = at_zero = 0.0
    for iz in np.flatnonzero(in_z):
        energy = np.square(panel[iz][:, in_x], dtype=float).sum(axis=1)
        whole += energy.sum()
        at_zero += energy[zero]
    return at_zero / whole if whole > 0 else math.nan


def _series(facts, before):
    known = before if before is not None and before.run.folder == facts.run.folder else Facts(facts.run)
    gradient = _optional(facts.run, "grad")
    for i in range(facts.evaluations):
        if gradient is not None and i < gradient.shape[0]:
            facts.gradient.append(known.gradient[i] if i < len(known.gradient) else
                                  math.sqrt(np.square(gradient[i], dtype=float).mean()))
        if facts.image is not None and i < facts.image.shape[0]:
            facts.share.append(known.share[i] if i < len(known.share) else _zero_offset_share(facts, i))
        if facts.truth is not None:
            facts.errors.append(known.errors[i] if i < len(known.errors) else model_error(facts, i))


def _smooth(values, half):
    """Mean over boxes of 2 half + 1 samples along both axes, twice."""
    for _ in range(2):
        for axis in (0, 1):
            n = values.shape[axis]
            total = np.concatenate([np.zeros_like(values.take([0], axis)), np.cumsum(values, axis)], axis)
            low, high = np.maximum(np.arange(n) - half, 0), np.minimum(np.arange(n) + half + 1, n)
            shape = [1, 1]
            shape[axis] = n
            values = (total.take(high, axis) - total.take(low, axis)) / (high - low).reshape(shape)
    return values


def _sensitivity(facts):
    light, gradient = _optional(facts.run, "illum"), _optional(facts.run, "grad")
    if light is not None and light.shape[0] > 0:
        facts.sensitivity, facts.sensitivity_kind = light.panel(-1).astype(float), "illumination"
    elif gradient is not None and gradient.shape[0] > 0:
        values = np.abs(gradient.panel(0).astype(float))
        if np.isfinite(values).all() and values.any():
            facts.sensitivity, facts.sensitivity_kind = _smooth(values, max(1, min(values.shape) // 40)), "gradient"
    if facts.sensitivity is not None and (facts.sensitivity.ndim != 2 or not facts.sensitivity.max() > 0):
        facts.sensitivity = None


def _window(facts):
    """Lateral range that holds 99 % of the image's energy, with a tenth more on each side."""
    x = facts.velocity.axis(1)
    if facts.image is None:
        return x[0], x[-1]
    xi = facts.image.axis(1)
    energy = np.zeros(len(xi))
    for row in facts.image[0]:
        energy += np.square(row, dtype=float).sum(axis=0)
    total = np.cumsum(energy)
    if not total[-1] > 0:
        return x[0], x[-1]
    low, high = xi[np.searchsorted(total, 0.005 * total[-1])], xi[np.searchsorted(total, 0.995 * total[-1])]
    margin = 0.1 * (high - low) + abs(facts.image.d[0])
    return max(x[0], low - margin), min(x[-1], high + margin)


def _yes(text):
    return (text or "n")[:1] in "yY1"


def _bounds(facts):
    keys = dict(facts.run.keys, **facts.run.recorded())
    if not _yes(keys.get("bounds")):
        return
    start = facts.velocity.panel(0).astype(float)
    last = facts.velocity.panel(facts.shown[-1]).astype(float)
    def factor(text, sign):
        value = _float(text)
        return 1 + sign * value / 100 if value >= 1 else value
    if _yes(keys.get("cbounds")):
        slow, fast = _float(keys.get("vmin", "")), _float(keys.get("vmax", ""))
    else:
        slow, fast = start / factor(keys.get("p_up", ""), 1), start / factor(keys.get("p_lo", ""), -1)
    moved = np.abs(last - start) > 1e-6 * start
    reached = (last <= slow * (1 + SLACK)) | (last >= fast * (1 - SLACK))
    facts.on_bounds = float((reached & moved).mean())


def _minutes(facts):
    path = facts.run.path("list")
    if path is None:
        return
    image = 0.0
    with open(path, encoding="latin1") as file:
        for line in file:
            found = re.match(r" *COMPUTED (BACKGROUND IMAGE|THE GRADIENT) IN +([\d.]+) min", line)
            if not found:
                continue
            if found.group(1) == "BACKGROUND IMAGE":
                image = float(found.group(2))
            else:
                facts.minutes.append(image + float(found.group(2)))


def _span(axis, unit):
    return "%g to %g %s, every %g" % (axis[0], axis[-1], unit, axis[1] - axis[0] if len(axis) > 1 else 0)


def _survey(facts):
    put = lambda what, value: facts.survey.append((what, value))
    rec = _optional(facts.run, "rec")
    if rec is not None and len(rec.n) >= 3:
        shots = rec.n[3] if len(rec.n) > 3 else 1
        put("Data", "%d shots, %d traces each, %d frequencies (%g to %g cycles/s)"
            % (shots, rec.n[0], rec.n[2], rec.o[2], rec.axis(3)[-1]))
    keys = dict(facts.run.recorded(), **facts.run.keys)
    if "areal" in keys:
        put("Layout", "whole line (areal=y)" if _yes(keys["areal"]) else "per shot (areal=n)")
    x, z = facts.velocity.axis(1), facts.velocity.axis(3)
    put("Model", "%d by %d samples; x %s, depth %s" % (len(x), len(z), _span(x, facts.unit), _span(z, facts.unit)))
    if facts.image is not None:
        put("Image", "x %s; offset %s" % (_span(facts.image.axis(1), facts.unit), _span(facts.image.axis(2), facts.unit)))
    knots = [keys.get(k, "99999") for k in ("nxk", "nzk")]
    if "99999" not in knots:
        put("Variables", "%s by %s spline knots" % tuple(knots))
    put("Gradient", keys.get("gradient", "classic"))
    log = facts.run.path("log")
    put("Last change", time.strftime("%Y-%m-%d %H:%M", time.localtime(os.path.getmtime(log))))
    put("Files", "%s; %s" % (facts.run.par or facts.run.folder, facts.run.path("Velout")))


def _key_table():
    """name: (default, meaning) of every key of morvane, from its help."""
    try:
        text = subprocess.run([program("morvane"), "--help"], stdout=subprocess.PIPE, stdin=subprocess.DEVNULL).stdout
    except (Error, OSError):
        return {}
    found = re.findall(r"^  ([\w.]+)=(\S*)(?: [\w-]+)? *\n? {2,}(.*)$", text.decode("utf-8", "replace"), re.M)
    return {name: (default, meaning) for name, default, meaning in found}


def _same(a, b):
    if a == b or (a[:1].lower() in "yn" and b in ("y", "n") and a[:1].lower() == b):
        return True
    return math.isfinite(_float(a)) and _float(a) == _float(b)


def _parameters(facts):
    table, recorded = _key_table(), facts.run.recorded()
    names = list(recorded) + [name for name in facts.run.keys if name not in recorded]
    for name in names:
        if name in ("history", "messages"):
            continue
        value = recorded.get(name, facts.run.keys.get(name))
        default, meaning = table.get(name, ("", ""))
        given = name in facts.run.keys or (bool(default) and not _same(value.strip(), default))
        facts.parameters.append((name, value, "given" if given else "default", meaning))


def _versions(facts):
    import matplotlib
    import platform
    try:
        said = subprocess.run([program("morvane"), "--version"], stdout=subprocess.PIPE, stdin=subprocess.DEVNULL)
        facts.versions.append("%s (the program found now)" % said.stdout.decode("utf-8", "replace").strip())
    except (Error, OSError):
        pass
    facts.versions.append("Python %s, NumPy %s, Matplotlib %s"
                          % (platform.python_version(), np.__version__, matplotlib.__version__))


def fall(first, last):
    """Percent by which a number fell."""
    return 100 * (1 - last / first) if first else 0.0


def _verdict(facts):
    shown, fun = facts.shown, facts.course["fun"]
    first, last = fun[shown[0]], fun[shown[-1]]
    steps = len(shown) - 1
    what = "The objective fun fell by %.3g %% in %d iterations" % (fall(first, last), steps)
    if steps == 0:
        what = ("No step was accepted: the result is the start model" if len(facts.accepted) == 1
                else "The start model predicts the data best: it is the result")
    focus = None
    if len(facts.share) > shown[-1] and steps > 0 and facts.share[shown[0]] > 0:
        a, b = facts.share[shown[0]], facts.share[shown[-1]]
        focus = b / a - 1
        what += ", and the share of the image's energy at zero offset went from %.1f to %.1f %%" % (100 * a, 100 * b)
    what = "%s (%d evaluations)." % (what, facts.evaluations)
    facts.level, then = _advice(facts, steps, focus)
    if facts.state == "running":
        then = "The run goes on; so far: " + then[0].lower() + then[1:]
    facts.verdict = (what, then)


def _advice(facts, steps, focus):
    """(level, sentence)"""
    fun, shown = facts.course["fun"], facts.shown
    if not np.isfinite(fun[shown]).all():
        return "wrong", "Values of fun are not finite: scale rec and sou down, or check the units."
    if steps == 0:
        if facts.state == "running":
            return "look", "No step has been accepted yet."
        if len(facts.accepted) > 1:
            return "wrong", "No model that the run found fits better than its start: check the data with morvane_check."
        return "wrong", "Try gradient=exact and firststep=0.03, and check the data with morvane_check."
    if focus is not None and focus < 0.02:
        return "wrong", "The image did not gain focus: do not trust this model before sign, source time and mute of the data are checked."
    if len(facts.errors) > shown[-1] and facts.errors[shown[-1]] >= facts.errors[shown[0]]:
        return "wrong", "The model moved away from the true one."
    if facts.on_bounds and facts.on_bounds > 0.1:
        return "look", "%.0f %% of the model lie on their bounds: widen them, or look for an error of the data there." % (100 * facts.on_bounds)
    if facts.state == "stopped":
        return "look", "The run stopped before its %d iterations were done; the model is that of iteration %d." % (_niter(facts), steps)
    if steps < len(facts.accepted) - 1:
        return "ok", "The data that the image predicts fitted best at iteration %d of %d: its model is the result." % (
            steps, len(facts.accepted) - 1)
    recent = fall(fun[shown[-2]], fun[shown[-1]])
    if recent > 3:
        return "ok", "The last iteration still lowered fun by %.2g %%: more of them may sharpen the model." % recent
    return "ok", "The last iteration lowered fun by %.2g %%: the run has settled." % recent
