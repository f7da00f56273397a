"""Datasets and runs of morvane in Python.

    import morvane
    velocity = morvane.read("velocity.H", panels=4)      # (evaluation, depth, 1, lateral)
    morvane.write("vel.H", 1 / velocity.panel(-1), d=(10, 10), o=(-1800, 0), axes=(1, 3))
    run = morvane.run("run/morvane.par", niter=5)
    print(run.course()["fun"])
    morvane.show(run.read("Velout"), panel=-1)

Arrays count as NumPy does: axis 1 of the header, the fastest, is the last. NumPy is needed, Matplotlib for show() and
the report (`morvane_report`, or `python3 -m morvane.report`).
"""
from .dataset import Dataset, Error, read, write
from .runs import Run, course, parameters, program, run
from .figures import show

__all__ = ["Dataset", "Error", "Run", "course", "parameters", "program", "read", "run", "show", "write"]
