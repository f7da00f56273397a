"""morvane_export: panels of a dataset as SEG-Y, .npy, VTK ImageData or CSV. Memory does not grow with the file."""
import math
import mmap
import os
import sys

import numpy as np

from . import command
from .dataset import Error, Dataset, read

HELP = """morvane_export: a panel of a dataset in a format of other programs

    morvane_export HEADER FILE.sgy|FILE.npy|FILE.vti|FILE.csv [name=value ...]

    morvane_export run/velocity.H velocity.sgy unit=m       velocity section of the last model
    morvane_export run/image.H gathers.sgy panel=0          image gathers before the first step
    morvane_export run/velocity.H models.npy panel=all      all models, (evaluation, depth, 1, lateral)
    morvane_export run/image.H image.vti                    for ParaView: lateral, offset, depth upward
    morvane_export run/velocity.H well.csv x=1200           depth profile

  panel=-1                  of axis 4, from 0; -1 the last one, -2 the one before; all: .npy and .csv only
  invert=n                  y: 1/sample, slowness from velocity and back
  unit=m                    SEG-Y: unit of length of the header, m, km or ft; km is written as m
  line=x0,y0,x1,y1          SEG-Y: position 0 of the line, and a point farther along it; default: along x from 0,0
  x= length                 CSV: position of the profile; the nearest column is taken
  offset=0 length           CSV of an image: the nearest offset is taken
  overwrite=n               y: FILE may exist

SEG-Y (needs python3-segyio): revision 1, IEEE floats, a trace per column and offset. CDP number in word 21 (from 1),
offset in word 37, CDP coordinates in 181 and 185 in hundredths, depth step in thousandths of the unit as interval.
--help, --version. Status 0: written; 23: an error, told on the standard error, and nothing is written.
"""
KEYS = ("panel", "invert", "unit", "line", "x", "offset", "overwrite")
FORMATS = (".sgy", ".segy", ".npy", ".vti", ".csv")
BLOCK = 1 << 22  # samples moved at once
SHORT, LONG = (1 << 16) - 1, (1 << 31) - 1  # what header words hold


def _panels(data, given, form):
    """The dataset, its panels as (panel, depth, offset, lateral), and the number of the one that is asked for or None."""
    axes = 4 if len(data.n) > 4 and math.prod(data.n[4:]) > 1 else None
    if axes:
        raise Error("%s has more than 4 axes of several samples" % data.name)
    n = (list(data.n) + [1] * 4)[:4]
    cube = data.data.reshape(n[::-1])
    text = given.get("panel", "-1")
    if text == "all":
        if form not in (".npy", ".csv"):
            raise Error("panel=all: only .npy and .csv take all panels")
        return cube, None
    try:
        k = int(text)
    except ValueError:
        raise Error("panel=%s is neither a whole number nor all" % text) from None
    if not -n[3] <= k < n[3]:
        raise Error("panel=%s: %s has %d" % (text, data.name, n[3]))
    return cube, k % n[3]


def _inverse(samples, wanted, name):
    if not wanted:
        return samples
    if not (samples != 0).all():
        raise Error("invert=y: %s has samples that are 0" % name)
    return 1 / samples


def _release(cube):
    """What was read of a mapped file need not stay in memory."""
    if isinstance(cube, np.memmap):
        cube._mmap.madvise(mmap.MADV_DONTNEED)


def _blocks(cube):
    """Stretches of whole rows of an array, some BLOCK samples each."""
    rows = cube.reshape(-1, cube.shape[-1])
    step = max(1, BLOCK // rows.shape[1])
    for first in range(0, len(rows), step):
        yield rows[first:first + step]
        _release(cube)


def _columns(panel, first, last):
    """(column, offset, depth) of the columns first to last - 1 of a panel (depth, offset, column)."""
    nz, nh, nx = panel.shape
    block = np.empty((last - first, nh, nz), "f4")
    step = max(1, BLOCK // (nh * nx))
    for z in range(0, nz, step):
        block[:, :, z:z + step] = panel[z:z + step, :, first:last].transpose(2, 1, 0)
        _release(panel)
    return block


def to_npy(path, cube, k, data, given):
    chosen = cube if k is None else cube[k]
    kind = chosen.dtype.newbyteorder("=")
    with open(path, "wb") as file:
        np.lib.format.write_array_header_1_0(file, {"descr": np.lib.format.dtype_to_descr(kind), "fortran_order": False,
                                                    "shape": chosen.shape})
        for block in _blocks(chosen):
            file.write(_inverse(block.astype(kind), command.yes(given, "invert"), data.name).tobytes())


def to_vti(path, cube, k, data, given):
    """VTK's order of points, x fastest, is that of the dataset; depth runs against z."""
    d, o = (list(data.d) + [1] * 4)[:3], (list(data.o) + [0] * 4)[:3]
    if np.iscomplexobj(cube) or min(d) <= 0:
        raise Error("%s: .vti takes real samples and positive intervals" % data.name)
    n = cube.shape[:0:-1]
    extent = "0 %d 0 %d 0 %d" % tuple(count - 1 for count in n)
    size = 4 * math.prod(n)
    head = ('<?xml version="1.0"?>\n<VTKFile type="ImageData" version="1.0" byte_order="BigEndian" header_type="UInt64">\n'
            '<ImageData WholeExtent="%s" Origin="%.10g %.10g %.10g" Spacing="%.10g %.10g %.10g" Direction="1 0 0 0 1 0 0 0 -1">\n'
            '<Piece Extent="%s"><PointData Scalars="samples"><DataArray type="Float32" Name="samples" format="appended" '
            'offset="0"/></PointData></Piece>\n</ImageData>\n<AppendedData encoding="raw">\n_'
            % (extent, o[0], o[1], -o[2], d[0], d[1], d[2], extent))
    with open(path, "wb") as file:
        file.write(head.encode() + size.to_bytes(8, "big"))
        for block in _blocks(cube[k]):
            file.write(_inverse(block.astype(">f4"), command.yes(given, "invert"), data.name).astype(">f4").tobytes())
        file.write(b"\n</AppendedData>\n</VTKFile>\n")


def _nearest(axis, value, what):
    step = abs(axis[1] - axis[0]) if len(axis) > 1 else math.inf
    i = int(np.argmin(np.abs(axis - value)))
    if abs(axis[i] - value) > 0.5001 * step:
        raise Error("%s=%g lies outside %g to %g" % (what, value, axis[0], axis[-1]))
    return i


def to_csv(path, cube, k, data, given):
    x = command.number(given, "x")
    if x is None:
        raise Error("a depth profile needs x=, a position from %g to %g" % (data.o[0], data.axis(1)[-1]))
    column = _nearest(data.axis(1), x, "x")
    row = _nearest(data.axis(2), command.number(given, "offset", 0.0), "offset") if len(data.n) > 1 and data.n[1] > 1 else 0
    depth = data.axis(3) if len(data.n) > 2 else np.zeros(1)
    if np.iscomplexobj(cube):
        raise Error("%s: a profile takes real samples" % data.name)
    chosen = range(cube.shape[0]) if k is None else [k]
    values = _inverse(np.array([cube[i, :, row, column] for i in chosen], "f4"), command.yes(given, "invert"), data.name)
    with open(path, "w", encoding="utf-8") as file:
        file.write("depth," + ",".join("panel%d" % i for i in chosen) + "\n")
        for z, line in zip(depth, values.T):
            file.write("%.10g,%s\n" % (z, ",".join("%.9g" % v for v in line)))
    print("profile at x=%g%s" % (data.axis(1)[column], ", offset %g" % data.axis(2)[row] if row else ""))


def _line(given):
    try:
        x0, y0, x1, y1 = [float(v) for v in given.get("line", "0,0,1,0").split(",")]
        length = math.hypot(x1 - x0, y1 - y0)
    except ValueError:
        raise Error("line=%s must be x0,y0,x1,y1" % given["line"]) from None
    if not 0 < length < math.inf:
        raise Error("line=%s: its two points must differ" % given["line"])
    return x0, y0, (x1 - x0) / length, (y1 - y0) / length


def _whole(value, most, what):
    """A header word, with its sign."""
    if not abs(value) <= most:
        raise Error("%s=%g does not fit its word of the SEG-Y header, which takes up to %d" % (what, value, most))
    return int(round(value))


def _segy_spec(segyio, data, nz, traces, scale):
    dz = data.d[2] * scale if len(data.n) > 2 else 1.0
    interval = dz * 1000
    if not 0 < interval <= SHORT or abs(interval - round(interval)) > 1e-3 * interval:
        raise Error("%s: a depth step of %g cannot stand in the header of SEG-Y: it must be a thousandth of the unit or a "
                    "multiple, up to %g" % (data.name, dz, SHORT / 1000))
    if nz > SHORT:
        raise Error("%s: %d samples are more than a trace of SEG-Y holds" % (data.name, nz))
    spec = segyio.spec()
    spec.samples, spec.tracecount, spec.format = np.arange(nz) * dz, traces, 5
    return spec, int(round(interval))


def to_segy(path, cube, k, data, given):
    try:
        import segyio
    except ModuleNotFoundError:
        raise Error("SEG-Y needs Debian's python3-segyio") from None
    unit = given.get("unit", "m")
    if unit not in ("m", "km", "ft"):
        raise Error("unit=%s is not one of m, km, ft" % unit)
    if np.iscomplexobj(cube):
        raise Error("%s: SEG-Y takes real samples; .npy takes these" % data.name)
    scale = 1000.0 if unit == "km" else 1.0
    x0, y0, cx, cy = _line(given)
    x = data.axis(1) * scale
    h = data.axis(2) * scale if len(data.n) > 1 and data.n[1] > 1 else np.zeros(1)
    panel = cube[k]
    nz, nh, nx = panel.shape
    spec, interval = _segy_spec(segyio, data, nz, nx * nh, scale)
    for value in (x0 + cx * x[0], x0 + cx * x[-1], y0 + cy * x[0], y0 + cy * x[-1]):
        _whole(100 * value, LONG, "coordinate in hundredths")
    if np.abs(h - np.rint(h)).max() > 0.01:
        print("morvane_export: warning: offsets are no whole numbers and stand rounded in their header word", file=sys.stderr)
    text = {1: "morvane: panel %d of %s" % (k, os.path.basename(data.name)), 2: "%d columns, %d offsets, %d depths" % (nx, nh, nz),
            3: "first depth %g, step %g %s" % (data.o[2] * scale if len(data.o) > 2 else 0, interval / 1000, unit.replace("km", "m")),
            4: "samples: %s" % ("inverted" if command.yes(given, "invert") else "as in the dataset")}
    with segyio.create(path, spec) as file:
        file.text[0] = segyio.create_text_header(text)
        file.bin[3217], file.bin[3221], file.bin[3225], file.bin[3501] = interval, nz, 5, 256
        file.bin[3255] = 2 if unit == "ft" else 1
        file.bin[3503] = 1
        step = max(1, BLOCK // (nz * nh))
        for first in range(0, nx, step):
            block = _inverse(_columns(panel, first, min(nx, first + step)), command.yes(given, "invert"), data.name)
            for i, gather in enumerate(block, first):
                words = {21: i + 1, 29: 1, 71: -100, 115: nz, 117: interval, 189: 1, 193: i + 1,
                         181: int(round(100 * (x0 + cx * x[i]))), 185: int(round(100 * (y0 + cy * x[i])))}
                for j, trace in enumerate(gather):
                    words[1] = words[5] = i * nh + j + 1
                    words[25], words[37] = j + 1, int(round(h[j]))
                    file.header[i * nh + j] = words
                    file.trace[i * nh + j] = trace


def export(header, path, **given):
    """As the command; `given` are its keys as text. Errors (Error)."""
    form = os.path.splitext(path)[1].lower()
    if form not in FORMATS:
        raise Error("%s: its suffix is not one of %s" % (path, " ".join(FORMATS)))
    if os.path.exists(path) and not command.yes(given, "overwrite"):
        raise Error("%s exists; overwrite=y replaces it" % path)
    data = read(header)
    if isinstance(data.data, np.memmap) and os.path.exists(path) and os.path.samefile(path, data.data.filename):
        raise Error("%s holds the samples of %s" % (path, header))
    cube, k = _panels(data, given, form)
    writer = {".sgy": to_segy, ".segy": to_segy, ".npy": to_npy, ".vti": to_vti, ".csv": to_csv}[form]
    with command.whole(path, "FILE") as part:
        writer(part, cube, k, data, given)


def _work(words):
    names, given, _ = command.take(words, KEYS, most=2)
    if len(names) < 2:
        raise Error("give a header and the file to write; --help tells more")
    export(names[0], names[1], **given)


def main(words=None):
    return command.main("morvane_export", HELP, _work, words)


if __name__ == "__main__":
    sys.exit(main())
