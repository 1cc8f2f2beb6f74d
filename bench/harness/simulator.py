'''Where the benchmarks find the project's simulated BlueZ: sim/ of this
tree (or KELVANE_SIM_DIR), else an installed kelvane-sim. The only place in
bench/ that knows.'''

import os
import sys
from pathlib import Path

SIM_DIR = Path(os.environ.get('KELVANE_SIM_DIR') or
               Path(__file__).resolve().parents[2] / 'sim')

if str(SIM_DIR) not in sys.path:
    sys.path.insert(0, str(SIM_DIR))

from kelvane_sim.client import PrivateBus, Sim  # noqa: E402,F401  pylint: disable=wrong-import-position
