#!/usr/bin/env python3
"""Prints start time, memory and wake-ups of the daemon and of empty main-loop programs.

Runs inside a device whose network is down; see bench/daemon/run.
"""

import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import time

RUNS = 41
IDLE_SECONDS = 10
# The first line that the daemon writes after "ad_agent_init" has returned.
MARKERS = {"daemon": b"GetConnectionProfile enter!"}


class Program:
    """A started program, killed at the end of a with statement."""

    def __init__(self, path, marker):
        begin = time.monotonic()
        self.process = subprocess.Popen([path], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        seen = b""
        while marker not in seen:
            chunk = os.read(self.process.stdout.fileno(), 65536)
            if not chunk:
                sys.exit(f"process_cost: {path} exited before it wrote {marker!r}")
            seen += chunk
        self.start_ms = (time.monotonic() - begin) * 1000

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.stdout.close()
        self.process.wait()

    def proc(self, name, field):
        """Adds up a field of a file of the process's in /proc."""
        text = pathlib.Path(f"/proc/{self.process.pid}/{name}").read_text(encoding="ascii")
        return sum(int(line.split()[1]) for line in text.splitlines() if line.startswith(field))


def idle_cost(path, marker):
    """Returns private dirty and resident memory in kB, and the wake-ups while idle."""
    with Program(path, marker) as program:
        time.sleep(2)
        # A file's pages count as dirty, too, until they have been written back.
        os.sync()
        switches = program.proc("status", "voluntary_ctxt")
        time.sleep(IDLE_SECONDS)
        return (program.proc("smaps_rollup", "Private_Dirty"), program.proc("status", "VmRSS"),
                program.proc("status", "voluntary_ctxt") - switches)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("daemon")
    parser.add_argument("empty", help="an empty GLib program")
    parser.add_argument("empty_cpp", help="the same with the C++ run-time library loaded")
    programs = {name: (path, MARKERS.get(name, b"ready"))
                for name, path in vars(parser.parse_args()).items()}

    times = {name: [] for name in programs}
    for _ in range(RUNS):
        for name, program in programs.items():
            with Program(*program) as started:
                times[name].append(started.start_ms)
    start = {name: statistics.median(values) for name, values in times.items()}
    print(f"start until ad_agent_init returned: {start['daemon']:.2f} ms; empty program "
          f"{start['empty']:.2f} ms; difference {start['daemon'] - start['empty']:.2f} ms "
          f"(aim: 10)")

    cost = {name: idle_cost(*program) for name, program in programs.items()}
    (dirty, resident, wakeups), empty, cpp = (cost[name] for name in programs)
    print(f"private dirty memory: {dirty} kB; empty program {empty[0]} kB; empty C++ program "
          f"{cpp[0]} kB; {dirty - cpp[0]} kB above it (aim: 200)")
    print(f"resident memory: {resident} kB; empty program {empty[1]} kB, ratio "
          f"{resident / empty[1]:.2f}; empty C++ program {cpp[1]} kB, ratio "
          f"{resident / cpp[1]:.2f}")
    print(f"wake-ups in {IDLE_SECONDS} idle seconds: {wakeups}; empty program {empty[2]} (aim: 0)")


if __name__ == "__main__":
    main()
