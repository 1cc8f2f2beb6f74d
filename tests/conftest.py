'''The one place the test suites learn where the simulated BlueZ lives:
pytest loads this before any suite below tests/, so they import it as
`kelvane_sim` from sim/, exactly as an installed copy would be imported.'''

import sys
from pathlib import Path

SIM_DIR = str(Path(__file__).resolve().parents[1] / 'sim')
if SIM_DIR not in sys.path:
    sys.path.insert(0, SIM_DIR)
