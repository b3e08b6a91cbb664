#!/usr/bin/env python3
"""Start, resident memory and wake-ups of the daemon against empty main-loop programs.

Runs inside a device. Arguments: the daemon, the empty program and the empty program
with the C++ run time loaded, as the device sees them.
"""
import os
import statistics
import subprocess
import sys
import time

RUNS = 41
IDLE_SECONDS = 10


def start_until(program, marker):
    """Seconds from exec to the marker on standard output, and the live process."""
    begin = time.monotonic()
    process = subprocess.Popen([program], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    seen = b""
    while marker not in seen:
        piece = os.read(process.stdout.fileno(), 65536)
        if not piece:
            sys.exit(f"{program} ended before it was ready")
        seen += piece
    return time.monotonic() - begin, process


def end(process):
    process.kill()
    process.stdout.close()
    process.wait()


def field(process, name):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return sum(int(line.split()[1]) for line in status if line.startswith(name))


def idle_cost(program, marker):
    _, process = start_until(program, marker)
    time.sleep(2)
    os.set_blocking(process.stdout.fileno(), False)
    switches = field(process, "voluntary_ctxt")
    time.sleep(IDLE_SECONDS)
    cost = field(process, "VmRSS"), field(process, "voluntary_ctxt") - switches
    end(process)
    return cost


def main():
    daemon, bare, cpp = sys.argv[1:]
    # The first line that the daemon writes after "ad_agent_init" has returned.
    programs = {"daemon": (daemon, b"GetConnectionProfile enter!"),
                "empty": (bare, b"ready"), "empty, C++": (cpp, b"ready")}
    times = {name: [] for name in programs}
    for _ in range(RUNS):
        for name, (program, marker) in programs.items():
            seconds, process = start_until(program, marker)
            times[name].append(seconds * 1000)
            end(process)
    start = {name: statistics.median(values) for name, values in times.items()}
    print(f"start until ad_agent_init returned: {start['daemon']:.2f} ms; empty program "
          f"{start['empty']:.2f} ms; difference {start['daemon'] - start['empty']:.2f} ms (aim: 10)")
    costs = {name: idle_cost(*values) for name, values in programs.items()}
    memory, wakeups = costs["daemon"]
    for name in ("empty", "empty, C++"):
        print(f"resident memory: {memory} kB; {name} program {costs[name][0]} kB; "
              f"ratio {memory / costs[name][0]:.2f} (aim: 1.3)")
    print(f"wake-ups in {IDLE_SECONDS} idle seconds: {wakeups}; empty program "
          f"{costs['empty'][1]} (aim: 0)")


main()
