"""Peak resident memory and wall time of short kelvane runs.

The tool is started many times a day on small devices, so start-up cost and
peak memory matter more than steady-state speed. Runs that need BlueZ are
measured with the bus unreachable, which exercises the whole fallback chain.
"""
import os
import resource
import subprocess
import sys
import time

CASES = [
    ["-h"],
    ["-x"],
    ["-e"],
]


def measure(binary, args):
    env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS="unix:abstract=kelvane-bench-no-bus")
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    start = time.monotonic()
    proc = subprocess.run([binary, *args], env=env, capture_output=True, timeout=120)
    elapsed = time.monotonic() - start
    peak = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    return proc.returncode, elapsed, max(peak, before)


def main():
    binary = sys.argv[1]
    print(f"{'arguments':<12} {'exit':>4} {'wall ms':>8} {'peak RSS KiB (max so far)':>26}")
    for args in CASES:
        code, elapsed, peak = measure(binary, args)
        print(f"{' '.join(args):<12} {code:>4} {elapsed * 1000:>8.1f} {peak:>26}")


if __name__ == "__main__":
    main()
