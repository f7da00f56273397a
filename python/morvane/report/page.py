"""The page of a report."""
import html
import os
import time

import numpy as np

from .. import command
from ..dataset import Error
from . import pictures
from .facts import fall

MOST_FRAMES = 12
LIMIT = 5_000_000  # bytes of a page


def _text(value):
    return html.escape(str(value), quote=True)


def _figure(address, alt, caption=""):
    tail = "<figcaption>%s</figcaption>" % _text(caption) if caption else ""
    return '<figure><img src="%s" alt="%s">%s</figure>' % (address, _text(alt), tail)


def _table(head, rows, numbers=(), classes=None, caption=""):
    """Rows of text; the columns of `numbers` stand right."""
    cell = lambda tag, k, value: '<%s%s%s>%s</%s>' % (tag, ' class="n"' if k in numbers else "",
                                                      ' scope="col"' if tag == "th" else "", _text(value), tag)
    lines = ['<div class="scroll"><table>']
    if caption:
        lines.append("<caption class=quiet>%s</caption>" % _text(caption))
    if head:
        lines.append("<thead><tr>%s</tr></thead>" % "".join(cell("th", k, name) for k, name in enumerate(head)))
    lines.append("<tbody>")
    for i, row in enumerate(rows):
        mark = ' class="%s"' % classes[i] if classes else ""
        lines.append("<tr%s>%s</tr>" % (mark, "".join(cell("td", k, value) for k, value in enumerate(row))))
    return "\n".join(lines + ["</tbody></table></div>"])


def _choice(name, frames, kept):
    """One frame at a time, chosen by buttons above it: frames are (label, content), `kept` those that are printed.
    Needs no script."""
    last = len(frames) - 1
    style, buttons, bodies = [], [], []
    for k, (label, content) in enumerate(frames):
        button = "%s%d" % (name, k)
        style.append("#%s:checked ~ .%s { display: block; }" % (button, button))
        buttons.append('<input type="radio" name="%s" id="%s"%s><label for="%s">%s</label>'
                       % (name, button, " checked" if k == last else "", button, _text(label)))
        bodies.append('<div class="frame %s%s">%s</div>' % (button, " kept" if k in kept else "", content))
    return '<style>%s</style><div class="choice" role="group" aria-label="%s">%s%s</div>' % (
        "".join(style), name, "".join(buttons), "".join(bodies))


def _frames(shown, most=MOST_FRAMES):
    """At most `most` of them, the first and the last among them."""
    if len(shown) <= most:
        return list(range(len(shown)))
    return sorted({round(k * (len(shown) - 1) / (most - 1)) for k in range(most)})


def _label(k, last):
    return "start" if k == 0 else "iteration %d%s" % (k, " (result)" if k == last else "")


def _convergence(facts):
    x = np.arange(1, facts.evaluations + 1)
    accepted = facts.course["accepted"][:facts.evaluations]
    fun = facts.course["fun"][:facts.evaluations]
    figures = [_figure(pictures.curve(x, fun, accepted, "fun", log=True),
                       "Curve of fun by evaluation, from %.4g to %.4g" % (fun[0], fun[-1]), "Objective fun")]
    for values, label, caption, scale in ((facts.gradient, "rms of grad", "Size of the gradient", 1),
                                          (facts.share, "percent", "Share of the image's energy at zero offset", 100),
                                          (facts.errors, "percent", "Model error |s - s_true| / |s_true|", 100),
                                          (facts.minutes, "min", "Time of an evaluation", 1)):
        n = min(len(values), facts.evaluations)
        if n and any(v > 0 for v in values[:n]):
            figures.append(_figure(
                pictures.curve(x[:n], scale * np.asarray(values[:n]), accepted[:n], label, log=label.startswith("rms")),
                "%s by evaluation, from %.4g to %.4g %s" % (caption, scale * values[0], scale * values[n - 1], label), caption))
    at, fit = _fit(facts)
    if len(at):
        figures.insert(1, _figure(pictures.curve(at, fit, accepted[at - 1], "fit", from_zero=False),
                                  "Fit by evaluation, from %.4g to %.4g" % (fit[0], fit[-1]),
                                  "Fit: how well the image predicts the data (1: entirely)"))
    return '<div class="pair">%s</div>%s' % ("".join(figures), _course_rows(facts))


def _fit(facts):
    """Evaluations, from 1, whose fit the file of course= tells, and those fits."""
    table = facts.table or {}
    pairs = [(int(i), f) for i, f in zip(table.get("evaluation", ()), table.get("fit", ()))
             if 1 <= i <= facts.evaluations and np.isfinite(f)]
    return np.array([i for i, _ in pairs], int), [f for _, f in pairs]


def _course_rows(facts):
    head = ["evaluation", "iteration", "accepted", "fun", "rms of grad", "zero-offset share, %", "error, %", "min"]
    series = [None] * 4 + [facts.gradient, facts.share, facts.errors, facts.minutes]
    scale = [1] * 5 + [100, 100, 1]
    used = [k for k in range(8) if series[k] is None or series[k]]
    rows = []
    for i in range(facts.evaluations):
        line = facts.course[i]
        row = [i + 1, line["iteration"], "yes" if line["accepted"] else "no", "%.6e" % line["fun"]]
        row += ["%.4g" % (scale[k] * series[k][i]) if series[k] and i < len(series[k]) else "" for k in range(4, 8)]
        rows.append([row[k] for k in used])
    text = _table([head[k] for k in used], rows, numbers=[0, 1] + list(range(3, len(used))))
    extra = [k for k in facts.table if k] if facts.table else []
    if extra:
        values = [["%g" % facts.table[k][i] for k in extra] for i in range(len(facts.table[extra[0]]))]
        text += _table(extra, values, numbers=range(len(extra)), caption="file of course=")
    return "<details><summary>As a table</summary>%s</details>" % text


def _models(facts):
    x, z, unit = facts.velocity.axis(1), facts.velocity.axis(3), facts.unit
    shown = facts.shown
    start = facts.velocity.panel(shown[0]).astype(float)
    chosen = _frames(shown)
    panels = [facts.velocity.panel(shown[k]).astype(float) for k in chosen]
    known = [facts.truth] if facts.truth is not None else []
    limits = pictures.limits_of(start, panels[-1], *known)
    change = pictures.around_zero(*[p - start for p in panels])
    speed, frames = unit + "/s", []
    for k, panel in zip(chosen, panels):
        label = _label(k, len(shown) - 1)
        span = "%.4g to %.4g %s" % (np.nanmin(panel), np.nanmax(panel), speed)
        pair = [_figure(pictures.section(panel, x, z, limits, "viridis", "velocity, " + label, speed, unit, facts.window),
                        "Section of the velocity, %s, %s" % (label, span)),
                _figure(pictures.section(panel - start, x, z, change, "RdBu_r", label + " - start", speed, unit, facts.window),
                        "Section of the change of velocity against the start model, %s, %.3g to %.3g %s"
                        % (label, (panel - start).min(), (panel - start).max(), speed))]
        if known:
            pair.append(_figure(pictures.section(panel - facts.truth, x, z, pictures.around_zero(start - facts.truth), "RdBu_r",
                                                 label + " - true model", speed, unit, facts.window),
                                "Section of the velocity less that of the true model, %s" % label))
        frames.append((label, '<div class="pair">%s</div>' % "".join(pair)))
    if known:
        frames.insert(0, ("true model", '<div class="pair">%s</div>' % _figure(
            pictures.section(facts.truth, x, z, limits, "viridis", "velocity, true model", speed, unit, facts.window),
            "Section of the velocity of the true model")))
    kept = {0, len(frames) - 1} | ({1} if known else set())
    return _choice("model", frames, kept)


def _images(facts):
    if facts.image is None:
        return "<p>No image was found (bkgimg).</p>"
    shown = [i for i in facts.shown if i < facts.image.shape[0]] or [0]
    ends = [("start", facts.image.panel(shown[0]))]
    if len(shown) > 1:
        ends.append((_label(len(shown) - 1, len(shown) - 1), facts.image.panel(shown[-1])))
    x, h, z, unit = facts.image.axis(1), facts.image.axis(2), facts.image.axis(3), facts.unit
    zero = int(np.argmin(np.abs(h)))
    cube = lambda panel: panel.reshape(len(z), len(h), len(x))
    limit = max(pictures.clip(cube(p)[:, zero], share=99) for _, p in ends)
    low, high = facts.window
    at = sorted({int(np.argmin(np.abs(x - (low + part * (high - low))))) for part in (0.2, 0.35, 0.5, 0.65, 0.8)})
    frames = []
    for label, panel in ends:
        panel = cube(panel)
        pair = [_figure(pictures.section(panel[:, zero], x, z, (-limit, limit), "gray", "image at zero offset, " + label,
                                         "amplitude", unit, facts.window), "Section of the image at zero offset, " + label)]
        if len(h) > 1:
            pair.append(_figure(pictures.gathers([panel[:, :, i] for i in at], x[at], h, z, limit, "gathers, " + label, unit),
                                "Image gathers over subsurface offset at x = %s, %s: a focused image has its energy at offset 0"
                                % (", ".join("%g" % v for v in x[at]), label)))
        frames.append((label, '<div class="pair">%s</div>' % "".join(pair)))
    note = '<p class="quiet">All at one clip, %.4g. Energy at zero offset, on the red lines, is focused.</p>' % limit
    return note + _choice("image", frames, {0, len(frames) - 1})


def _sensitivity(facts):
    if facts.sensitivity is None:
        return "<p>Neither illumination (light=y) nor gradient was found.</p>"
    values = facts.sensitivity / facts.sensitivity.max()
    text = {"illumination": "Illumination as light=y gathers it, of its largest value.",
            "gradient": "Size of the first gradient, smoothed, of its largest value. Where it is pale, the data say little "
                        "and the model is what it was at the start."}[facts.sensitivity_kind]
    x, z = facts.velocity.axis(1), facts.velocity.axis(3)[:len(values)]
    if values.shape[1] != len(x):
        return "<p>%s does not fit the model.</p>" % facts.sensitivity_kind
    picture = pictures.section(np.sqrt(values), x, z, (0, 1), "magma_r", "where the data see the model", "square root of the share",
                               facts.unit, facts.window)
    return '<div class="pair">%s</div>' % _figure(picture, "Section of where the data see the model", text)


def _scores(facts):
    if not facts.errors:
        return ""
    a, b = facts.errors[facts.shown[0]], facts.errors[facts.shown[-1]]
    least = min(facts.shown, key=lambda i: facts.errors[i])
    where = ", ".join("%s %g" % pair for pair in sorted(facts.region.items())) or "all samples of both models"
    return "<h2>Against the true model</h2><p>Model error %.3f %% at the start, %.3f %% at the end (%.1f %% less); least " \
           "%.3f %% at evaluation %d. Region: %s.</p>" % (100 * a, 100 * b, fall(a, b), 100 * facts.errors[least], least + 1,
                                                       _text(where))


def _warnings(facts):
    known = facts.run.path("messages")
    if facts.warnings:
        return "<ul>%s</ul>" % "".join("<li>%s</li>" % _text(w) for w in facts.warnings)
    if known:
        return "<p>None.</p>"
    return "<p>Unknown: the standard error of the run was not kept. Start it with <code>2&gt; messages</code>, or by " \
           "<code>morvane.run</code>.</p>"


def _parameter_table(facts):
    if not facts.parameters:
        return "<p>Unknown: there is neither a parameter file nor history.H of the run.</p>"
    order = sorted(facts.parameters, key=lambda p: p[2] == "default")
    return _table(["key", "value", "", "meaning"], order, classes=[p[2] for p in order])


def page(facts, refresh=0):
    """The text of the page; `refresh`: seconds after which a browser reads an unfinished one anew."""
    name = os.path.basename(os.path.abspath(facts.run.folder))
    state = {"running": "unfinished, running", "ended": "ended", "stopped": "stopped early"}[facts.state]
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "page.css"), encoding="utf-8") as file:
        style = file.read()
    assumed = " (assumed from the numbers; unit= says otherwise)" if facts.unit_assumed else ""
    body = ["<h1>morvane: %s</h1>" % _text(name),
            '<p class="quiet">%s; report of %s. Lengths in %s%s.</p>' % (state, time.strftime("%Y-%m-%d %H:%M"), facts.unit, assumed),
            '<div class="verdict %s"><b>%s</b><br>%s %s</div>' % ((facts.level, facts.level) + tuple(map(_text, facts.verdict))),
            "<p class=quiet>%s</p>" % _text(facts.closing) if facts.closing else "",
            "<h2>What was run</h2>", _table([], facts.survey),
            "<h2>Convergence</h2>", _convergence(facts),
            "<h2>Velocity</h2>", _models(facts),
            _scores(facts),
            "<h2>Image and gathers, before and after</h2>", _images(facts),
            "<h2>Where the data see the model</h2>", _sensitivity(facts),
            "<h2>Warnings of the run</h2>", _warnings(facts),
            "<h2>Parameters</h2>", _parameter_table(facts)]
    if facts.prepared:
        body += ["<h2>Preparation</h2><details><summary>prepare.txt</summary><pre>%s</pre></details>" % _text(facts.prepared)]
    body += ["<h2>Versions</h2><p>%s</p>" % "<br>".join(map(_text, facts.versions))]
    again = '<meta http-equiv="refresh" content="%d">' % refresh if refresh and facts.state == "running" else ""
    return '<!DOCTYPE html>\n<html lang="en"><head><meta charset="utf-8">%s<meta name="viewport" content="width=device-width, ' \
           'initial-scale=1"><link rel="icon" href="data:,"><title>morvane: %s</title><style>%s</style></head>\n<body><main>\n%s\n' \
           '</main></body></html>\n' % (again, _text(name), style, "\n".join(body))


def write_page(facts, out, refresh=0):
    """Writes the page beside `out` and puts it there when it is whole. Errors (Error): too large, or not writable."""
    text = page(facts, refresh).encode("utf-8")
    if len(text) > LIMIT:
        raise Error("the page would have %d bytes, more than %d" % (len(text), LIMIT))
    with command.whole(out) as part, open(part, "wb") as file:
        file.write(text)
    return len(text)
