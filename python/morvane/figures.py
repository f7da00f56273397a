"""Pictures of models and images."""
import numpy as np

from .dataset import Error, Dataset, read


def clip(*panels, share=99.5):
    """The value that `share` percent of the samples of all panels do not exceed in size; at least a tiny one."""
    sizes = [np.abs(p[np.isfinite(p)]).ravel() for p in panels]
    sizes = np.concatenate(sizes) if sizes else np.zeros(0)
    return max(float(np.percentile(sizes, share)), 1e-30) if sizes.size else 1.0


def draw(axes, values, x, z, limits, cmap):
    """A section (depth, lateral) on Matplotlib axes, depth downward; returns the picture."""
    dx, dz = (x[-1] - x[0]) / max(1, len(x) - 1) or 1, (z[-1] - z[0]) / max(1, len(z) - 1) or 1
    return axes.imshow(values, extent=(x[0] - dx / 2, x[-1] + dx / 2, z[-1] + dz / 2, z[0] - dz / 2), aspect="auto",
                       vmin=limits[0], vmax=limits[1], cmap=cmap, interpolation="nearest")


def show(data, panel=-1, offset=None, ax=None, limits=None, cmap=None, label=None):
    """Draws a model or a section of an image, and returns Matplotlib's axes.

    data    a Dataset, or the name of a header
    panel   of axis 4, from 0; -1 is the last
    offset  of an image: which offset (in the header's unit) to show, the nearest one; standard 0. Of complex samples
            the size is shown
    limits  (least, most) of the colours; standard: all of a model, 99.5 % of an image on both sides of zero
    Errors (Error): a panel that is not there.
    """
    import matplotlib.pyplot as plt

    if not isinstance(data, Dataset):
        data = read(data)
    values = np.asarray(data.data.reshape((-1,) + ((1, 1) + data.data.shape)[-3:]))
    if not -len(values) <= panel < len(values):
        raise Error("%s has %d panels, none %d" % (data.name, len(values), panel))
    values = values[panel]
    if values.shape[1] > 1:
        values = values[:, int(np.argmin(np.abs(data.axis(2) - (offset or 0))))]
        signed = True
    else:
        values = values[:, 0]
        signed = bool((values.real < 0).any())
    values = np.abs(values) if np.iscomplexobj(values) else values
    if limits is None:
        limits = (-clip(values), clip(values)) if signed else (np.nanmin(values), np.nanmax(values))
    ax = ax or plt.subplots(layout="constrained")[1]
    z = data.axis(3) if len(data.n) > 2 else np.arange(values.shape[0])
    shown = draw(ax, values, data.axis(1), z, limits, cmap or ("gray" if signed else "viridis"))
    ax.figure.colorbar(shown, ax=ax, label=label or "")
    ax.set_xlabel("lateral position")
    ax.set_ylabel("depth")
    return ax
