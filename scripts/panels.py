"""Datasets as arrays, and rows of panels as pictures: what the scripts that draw figures share."""
import os
import re
import subprocess
import sys
import tempfile

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
import numpy as np
from PIL import Image

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def program(name):
    """A program of the release build."""
    path = os.path.join(root, "build", "release", "bin", name)
    if not os.path.exists(path):
        sys.exit("%s is not built: cmake --preset release && cmake --build --preset release" % path)
    return path


def read(header):
    """The samples of a dataset, (.., axis 2, axis 1), and the coordinates of its first three axes."""
    with tempfile.TemporaryDirectory() as folder:
        array = os.path.join(folder, "a.npy")
        subprocess.run([program("qas"), "npy", header, array], check=True, stdin=subprocess.DEVNULL)
        data = np.load(array)
        history = open(array + ".H", encoding="latin1").read()

    def value(key, otherwise):
        found = re.findall(r'(?:^|\s)%s="?([^"\s]*)"?' % key, history)
        return float(found[-1]) if found else otherwise

    lengths = (data.shape[::-1] + (1, 1))[:3]
    axes = [value("o%d" % k, 0) + value("d%d" % k, 1) * np.arange(n) for k, n in enumerate(lengths, 1)]
    return data, axes


def clip(*panels, share=99.5):
    """Limits, symmetric about 0, that the share (percent) of the samples of all panels keep to."""
    most = np.percentile(np.abs(np.concatenate([p.ravel() for p in panels])), share)
    return -most, most


def relative(title, panel, **how):
    """A panel in units of its own clip, from -1 to 1."""
    return title, panel / clip(panel, **how)[1], (-1, 1)


def draw(panels, x, z, name, bars, xlabel="position, km", xlim=None, zlim=None, lines=(), **style):
    """A row of panels (title, samples (depth, lateral), limits) as docs/NAME; x and z in km, `lines` (x, z) on each.

    bars: a label and the number of panels, from the left, that share the colour bar, for each bar."""
    figure, axes = plt.subplots(1, len(panels), figsize=(3.2 * len(panels) + 0.9 * len(bars), 2.7), sharey=True,
                                layout="constrained")
    shown = []
    for axis, (title, panel, limits) in zip(axes, panels):
        shown.append(axis.imshow(panel, extent=(x[0], x[-1], z[-1], z[0]), aspect="auto", vmin=limits[0],
                                 vmax=limits[1], **style))
        for line in lines:
            axis.plot(*line, color="black", linewidth=0.8)
        axis.set_title(title, fontsize=9)
        axis.set_xlabel(xlabel)
        axis.set_xlim(xlim)
        axis.set_ylim(zlim)
    axes[0].set_ylabel("depth, km")
    first = 0
    for label, count in bars:
        figure.colorbar(shown[first], ax=axes[first:first + count], label=label, shrink=0.9)
        first += count
    path = os.path.join(root, "docs", name)
    figure.savefig(path, dpi=80)
    plt.close(figure)
    picture = Image.open(path).convert("RGB")
    picture.quantize(256, method=Image.Quantize.MAXCOVERAGE, dither=Image.Dither.NONE).save(path, optimize=True)
    print("%s: %d bytes" % (path, os.path.getsize(path)))
