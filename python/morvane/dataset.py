"""Tagged datasets: a text header that names a file of samples."""
import math
import os
import re

import numpy as np

_WORD = re.compile(r"""(?:^|(?<=\s))([A-Za-z][\w.]*)=("(?:[^"]|"")*"|'(?:[^']|'')*'|\S*)""", re.M)
_DATA_FOLLOW = b"\f\f\x04"
_REAL = {"xdr_float": ">f4", "native_float": "=f4", "xdr_int": ">i4", "xdr_byte": "u1", "native_byte": "u1"}
_MOST_AXES = 9
_BLOCK = 1 << 20  # samples moved at once


class Error(Exception):
    """What is wrong with a file, a parameter or a run: file or key, value, and what is allowed."""


def words(text):
    """The name=value words of a header or parameter file as a dictionary; of several for a name the last counts."""
    values = {}
    for name, value in _WORD.findall(text):
        if value[:1] in ("'", '"') and len(value) > 1:
            value = value[1:-1].replace(2 * value[0], value[0])
        values[name] = value
    return values


def _number(values, name, kind, standard, header):
    text = values.get(name)
    if text is None:
        return standard
    try:
        number = kind(text)
    except ValueError:
        raise Error("%s: %s=%s is no number" % (header, name, text)) from None
    if not math.isfinite(number):
        raise Error("%s: %s=%s is not finite" % (header, name, text))
    return number


class Dataset:
    """Samples and axes of one dataset; NumPy takes it as an array.

    data     samples, the last axis of the header first; a read-only view of the file where that is one file
    n, d, o  counts, intervals, first coordinates of the axes: n[0] is n1 of the header
    header   all values of the header, as text
    """

    def __init__(self, data, n, d, o, header, name):
        self.data, self.n, self.d, self.o, self.header, self.name = data, n, d, o, header, name

    def __array__(self, dtype=None):
        return np.asarray(self.data, dtype)

    def __getitem__(self, index):
        return self.data[index]

    @property
    def shape(self):
        return self.data.shape

    def __repr__(self):
        axes = " ".join("n%d=%d" % (k + 1, n) for k, n in enumerate(self.n))
        return "<dataset %s: %s, %s>" % (self.name, axes, self.data.dtype)

    def axis(self, k):
        """Coordinates of axis k of the header, counted from 1, in the header's unit."""
        if not 1 <= k <= len(self.n):
            raise Error("%s has axes 1 to %d, none %d" % (self.name, len(self.n), k))
        return self.o[k - 1] + self.d[k - 1] * np.arange(self.n[k - 1])

    def panel(self, k=0):
        """Panel k of axis 4, without axes of one sample, in the machine's own numbers: (depth, lateral) of a model,
        (depth, offset, lateral) of an image. k may count from the end, -1 is the last."""
        panels = self.data.reshape((-1,) + self.data.shape[-3:])
        if not -len(panels) <= k < len(panels):
            raise Error("%s has %d panels, none %d" % (self.name, len(panels), k))
        panel = panels[k]
        return np.array(panel.reshape([n for n in panel.shape if n > 1] or [1]), panel.dtype.newbyteorder("="))


def _header(name):
    try:
        with open(name, "rb") as file:
            raw = file.read(1 << 24)
    except OSError as error:
        raise Error("%s cannot be read: %s" % (name, error.strerror)) from None
    end = raw.find(_DATA_FOLLOW)
    text = (raw if end < 0 else raw[:end]).decode("latin1")
    return words(text), (None if end < 0 else end + len(_DATA_FOLLOW)), text


def _data_files(name, values, offset):
    """(file, first byte) of each data file."""
    if "in" not in values:
        raise Error("%s names no data: there is no in=" % name)
    if values["in"] in ("stdin", "follow_hdr"):
        if offset is None:
            raise Error("%s: its data should follow the header and do not" % name)
        return [(name, offset)]
    found = []
    for path in values["in"].split(";"):
        beside = os.path.join(os.path.dirname(os.path.abspath(name)), os.path.basename(path))
        for candidate in (path, beside):  # a folder that was moved still is whole
            if os.path.isfile(candidate):
                found.append((candidate, 0))
                break
        else:
            raise Error("%s: its data file %s does not exist" % (name, path))
    return found


def _sample_type(name, values):
    form = values.get("data_format", "xdr_float")
    if form not in _REAL:
        raise Error("%s: data_format=%s is not one of %s" % (name, form, ", ".join(_REAL)))
    dtype = np.dtype(_REAL[form])
    size = _number(values, "esize", int, dtype.itemsize, name)
    if size == 8 and form.endswith("_float"):
        return np.dtype(dtype.str.replace("f4", "c8"))
    if size != dtype.itemsize:
        raise Error("%s: esize=%d does not go with data_format=%s" % (name, size, form))
    return dtype


def _samples(name, files, dtype, wanted):
    """Up to `wanted` samples, mapped where they lie in one file."""
    if len(files) == 1:
        path, first = files[0]
        there = max(0, os.path.getsize(path) - first) // dtype.itemsize
        count = min(there, wanted)
        if count == 0:
            return np.zeros(0, dtype), there
        return np.memmap(path, dtype, "r", first, (count,)), there
    raw = np.concatenate([np.fromfile(path, "u1") for path, _ in files])
    there = raw.size // dtype.itemsize
    return raw[: min(there, wanted) * dtype.itemsize].view(dtype), there


def read(header, panels=None):
    """The dataset behind a header file. Samples are mapped, not loaded, where they lie in one file.

    panels=k: as many whole panels of axis k as the file holds, whatever the header promises; what a run writes grows
    along axis 4, so that read("velocity.H", panels=4) also reads it while it grows.
    Errors (Error): no header, no axes, counts below 1, no data, another format, fewer samples than the axes promise.
    """
    name = os.fspath(header)
    values, offset, _ = _header(name)
    last = max((k for k in range(1, _MOST_AXES + 1) if "n%d" % k in values), default=0)
    if last == 0:
        raise Error("%s has no axes: there is no n1=" % name)
    n = [_number(values, "n%d" % k, int, 1, name) for k in range(1, last + 1)]
    d = [_number(values, "d%d" % k, float, 1.0, name) for k in range(1, last + 1)]
    o = [_number(values, "o%d" % k, float, 0.0, name) for k in range(1, last + 1)]
    for k, count in enumerate(n, 1):
        if count < 1:
            raise Error("%s: n%d=%d, it must be 1 or more" % (name, k, count))
    dtype = _sample_type(name, values)
    files = _data_files(name, values, offset)
    if panels is not None:
        n, d, o = n[:panels], d[:panels], o[:panels]
        if len(n) < panels:
            raise Error("%s has no axis %d" % (name, panels))
        size = math.prod(n[:-1])
        there = _samples(name, files, dtype, 0)[1]
        n[-1] = there // size
    wanted = math.prod(n)
    data, there = _samples(name, files, dtype, wanted)
    if there < wanted:
        raise Error("%s promises %d bytes, its data have %d" % (name, wanted * dtype.itemsize, there * dtype.itemsize))
    return Dataset(data.reshape(n[::-1]), n, d, o, values, name)


def _axis_numbers(data, axes):
    numbers = tuple(range(1, data.ndim + 1)) if axes is None else tuple(axes)
    if len(numbers) != data.ndim or len(set(numbers)) != data.ndim or not all(1 <= k <= _MOST_AXES for k in numbers) \
            or list(numbers) != sorted(numbers):
        raise Error("axes=%s: %d rising numbers from 1 to %d are needed, one for each axis of the array, "
                    "its last axis first" % (axes, data.ndim, _MOST_AXES))
    return numbers


def _per_axis(name, values, standard, count):
    values = [standard] * count if values is None else [float(v) for v in values]
    if len(values) != count or not all(math.isfinite(v) for v in values):
        raise Error("%s=%s: %d finite numbers are needed, axis 1 first" % (name, values, count))
    return values


def _quoted(text):
    if any(ord(c) < 32 for c in text):
        raise Error("%r: a header cannot hold control characters" % text)
    return '"' + text.replace('"', '""') + '"'


def _replace(path, fill):
    """Writes a file beside `path` and puts it there when it is whole and on the disk."""
    part = path + ".part"
    try:
        with open(part, "wb") as file:
            fill(file)
            file.flush()
            os.fsync(file.fileno())
        os.replace(part, path)
    except OSError as error:
        if os.path.exists(part):
            os.unlink(part)
        raise Error("%s cannot be written: %s" % (path, error.strerror)) from None


def write(header, data, d=None, o=None, axes=None, values=None, samples=None):
    """Writes an array as a dataset that every program of morvane reads; what was there is replaced when it is whole.

    data     real or complex, any order in memory, mapped files too: samples are moved in blocks. Single precision
    d, o     interval and first coordinate of each axis, axis 1 (the last of the array) first; standard 1 and 0
    axes     numbers of the header's axes for those of the array, the last first; (1, 3) makes a model of
             (depth, lateral), (1, 3, 4) data of (shot, frequency, trace). Axes between have one sample
    values   further name: value pairs for the header
    samples  name of the data file; standard: beside the header, NAME@
    Errors (Error): no samples, samples that are no numbers, axes that do not fit, a disk that is full.
    """
    name = os.path.abspath(os.fspath(header))
    target = os.path.abspath(samples) if samples else name + "@"
    data = data.data if isinstance(data, Dataset) else np.asanyarray(data)
    if data.size == 0 or data.ndim == 0 or data.dtype.kind not in "fciub":
        raise Error("%s: an array of type %s and shape %s cannot be written" % (name, data.dtype, data.shape))
    numbers = _axis_numbers(data, axes)
    d, o = _per_axis("d", d, 1.0, data.ndim), _per_axis("o", o, 0.0, data.ndim)
    dtype = np.dtype(">c8" if data.dtype.kind == "c" else ">f4")

    lines = ["", "", "python:   dataset written by morvane.write"]
    counts = {k: (data.shape[-1 - i], d[i], o[i]) for i, k in enumerate(numbers)}
    for k in range(1, max(numbers) + 1):
        count, step, first = counts.get(k, (1, 1.0, 0.0))
        lines += ["\t\tn%d=%d" % (k, count), "\t\td%d=%.10g" % (k, step), "\t\to%d=%.10g" % (k, first)]
    lines += ["\t\t%s=%s" % (key, _quoted(str(value))) for key, value in (values or {}).items()]
    lines += ["\t\tesize=%d" % dtype.itemsize, "\t\tsets next: in=%s" % _quoted(target), '\t\tdata_format="xdr_float"']

    def fill(file):
        for block in _blocks(data):
            file.write(np.ascontiguousarray(block, dtype).tobytes())

    _replace(target, fill)
    _replace(name, lambda file: file.write(("\n".join(lines) + "\n").encode("latin1", "replace")))


def _blocks(data):
    """The array in the order of the file, in parts of some _BLOCK samples."""
    if data.ndim == 1 or data.size <= _BLOCK:
        for first in range(0, len(data), _BLOCK if data.ndim == 1 else max(1, len(data))):
            yield data[first:first + _BLOCK] if data.ndim == 1 else data
        return
    rows = max(1, _BLOCK // max(1, data.size // len(data)))
    for first in range(0, len(data), rows):
        if rows == 1:
            yield from _blocks(data[first])
        else:
            yield data[first:first + rows]
