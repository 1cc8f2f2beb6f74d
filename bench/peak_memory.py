"""Peak resident memory and wall time of short kelvane runs.

The tool is started many times a day on small devices, so start-up cost and
peak memory matter more than steady-state speed. Runs that need BlueZ are
measured with the bus unreachable, which exercises the whole fallback chain.

Peak memory comes from GNU time (%M): a child started straight from Python
inherits Python's resident high-water mark until it execs, so Python's own
rusage figures would report ~10 MiB too much for every run.
"""
import os
import subprocess
import sys
import tempfile
import time

CASES = [
    ["-h"],
    ["-x"],
    ["-e"],
]


def measure(binary, args):
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS="unix:abstract=kelvane-bench-no-bus")
    with tempfile.NamedTemporaryFile(mode="r") as report:
        start = time.monotonic()
        proc = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report.name, binary, *args],
                              env=env, capture_output=True, timeout=120)
        elapsed = time.monotonic() - start
        peak = int(report.read().split()[-1])
    return proc.returncode, elapsed, peak


def main():
    binary = sys.argv[1]
    print(f"{'arguments':<12} {'exit':>4} {'wall ms':>8} {'peak RSS KiB':>13}")
    for args in CASES:
        code, elapsed, peak = measure(binary, args)
        print(f"{' '.join(args):<12} {code:>4} {elapsed * 1000:>8.1f} {peak:>13}")


if __name__ == "__main__":
    main()
