'''Where the benchmarks find the project's simulated BlueZ.

The simulator lives with the end-to-end tests; this is the only place in
bench/ that knows the directory, so moving it means changing one line (or
setting KELVANE_SIM_DIR).'''

import os
import sys
from pathlib import Path

SIM_DIR = Path(os.environ.get('KELVANE_SIM_DIR') or
               Path(__file__).resolve().parents[2] / 'tests' / 'e2e')

if str(SIM_DIR) not in sys.path:
    sys.path.insert(0, str(SIM_DIR))

from simbus import PrivateBus, Sim  # noqa: E402,F401  pylint: disable=wrong-import-position
