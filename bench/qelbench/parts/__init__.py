"""The parts of the benchmarks: every module of this folder is one.

A part has

  NAME   what `bench/run --only` calls it
  TITLE  its heading on the page; its module's comment (Markdown) is the text below that
  ORDER  where it stands among the others
  run(bench: qelbench.context.Context) -> qelbench.results.Results
"""

import importlib
import pkgutil


def find():
    """All parts in the order of the page."""
    modules = [importlib.import_module(f"{__name__}.{found.name}") for found in pkgutil.iter_modules(__path__)]
    return sorted(modules, key=lambda part: (part.ORDER, part.NAME))
