"""The report of a run: one HTML file that needs nothing else. `morvane_report --help` tells how to call it."""
from .facts import Facts, gather
from .page import write_page

__all__ = ["Facts", "gather", "write_page"]
