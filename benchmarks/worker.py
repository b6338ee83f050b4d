"""One fresh process of measurements: prints its values as JSON. Started by run.py.

worker.py MODULE.FUNCTION[:ARGUMENT...] [--quick]
"""

from __future__ import annotations

import importlib
import json
import sys

kind, *arguments = sys.argv[1].split(":")
module, function = kind.split(".")
measure = getattr(importlib.import_module(module), function)
print(json.dumps(measure("--quick" in sys.argv[2:], *arguments)))
