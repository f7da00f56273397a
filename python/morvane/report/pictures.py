"""The pictures of a report, as data that stand in the page."""
import base64
import io

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from PIL import Image

from ..figures import clip, draw

WIDTH, DPI = 5.4, 150
plt.rcParams.update({"font.size": 10, "axes.titlesize": 10, "svg.fonttype": "none", "svg.hashsalt": "morvane"})


def png(figure):
    """The figure as a data address, in 256 colours: a section has those of its colour bar."""
    raw = io.BytesIO()
    figure.savefig(raw, dpi=DPI)
    plt.close(figure)
    picture = Image.open(raw).convert("RGB").quantize(256, method=Image.Quantize.MAXCOVERAGE, dither=Image.Dither.NONE)
    out = io.BytesIO()
    picture.save(out, "PNG", optimize=True)
    return "data:image/png;base64," + base64.b64encode(out.getvalue()).decode()


def svg(figure):
    raw = io.BytesIO()
    figure.savefig(raw, format="svg", metadata={"Date": None})
    plt.close(figure)
    return "data:image/svg+xml;base64," + base64.b64encode(raw.getvalue()).decode()


def section(values, x, z, limits, cmap, title, label, unit, window=None, height=3.1):
    """A section (depth, lateral) with its colour bar."""
    figure = plt.figure(figsize=(WIDTH, height))
    axes, bar = figure.add_axes((0.14, 0.16, 0.66, 0.74)), figure.add_axes((0.82, 0.16, 0.025, 0.74))
    shown = draw(axes, values, x, z, limits, cmap)
    axes.set(title=title, xlabel="position, " + unit, ylabel="depth, " + unit, xlim=window)
    figure.colorbar(shown, cax=bar, label=label)
    return png(figure)


def gathers(panels, positions, h, z, limit, title, unit):
    """Image gathers (depth, offset) side by side, one per position."""
    figure, row = plt.subplots(1, len(panels), figsize=(WIDTH, 3.1), sharey=True, layout="constrained", squeeze=False)
    for axes, panel, position in zip(row[0], panels, positions):
        draw(axes, panel, h, z, (-limit, limit), "gray")
        axes.set_title("x %g" % position, fontsize=8)
        axes.tick_params(labelsize=7)
        axes.axvline(0, color="tab:red", linewidth=0.5)
    row[0][0].set_ylabel("depth, " + unit)
    figure.suptitle(title, fontsize=10)
    figure.supxlabel("subsurface half-offset, " + unit, fontsize=9)
    return png(figure)


def curve(x, values, accepted, label, log=False, from_zero=True):
    """A number by evaluation; those of accepted models filled and joined."""
    figure, axes = plt.subplots(figsize=(WIDTH, 2.5), layout="constrained")
    x, values = np.asarray(x), np.asarray(values, float)
    axes.plot(x, values, "o", mfc="white", mec="tab:blue", ms=5)
    axes.plot(x[accepted], values[accepted], "o-", color="tab:blue", ms=5, linewidth=1)
    if log and (values[np.isfinite(values)] > 0).all():
        axes.set_yscale("log")
    elif from_zero:
        axes.set_ylim(bottom=0)
    axes.xaxis.get_major_locator().set_params(integer=True)
    axes.set(xlabel="evaluation (filled: accepted)", ylabel=label)
    axes.grid(alpha=0.3)
    return svg(figure)


def limits_of(*panels):
    finite = np.concatenate([p[np.isfinite(p)].ravel() for p in panels])
    low, high = np.percentile(finite, [0.2, 99.8])
    return (low, high) if high > low else (low - 1e-6 * abs(low) - 1e-30, high + 1e-6 * abs(high) + 1e-30)


def around_zero(*panels, share=100):
    most = clip(*panels, share=share)
    return -most, most
