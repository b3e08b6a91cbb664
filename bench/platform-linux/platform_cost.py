"""How long changes take from the services to the platform's callbacks, and what an idle daemon
on the platform needs. Runs in the namespaces of device/linux-services. Argument: the build tree.
"""

import os
import pathlib
import statistics
import subprocess
import sys
import threading
import time

from gi.repository import Gio, GLib
from platform_probe import TIMEOUT, Probe, Process

SETTING_CHANGES = 201
NETWORK_CHANGES = 41
IDLE_SECONDS = 10
PAUSE_SECONDS = 0.1


class Subscriber:
    """A plain subscriber to one D-Bus signal: the least that noticing a change takes."""

    def __init__(self, bus, interface, signal, path, text):
        self.bus = bus  # Closed with its last reference.
        self.times = []

        def on_signal(_bus, _sender, _path, _interface, _signal, parameters):
            if text in parameters.print_(False):
                self.times.append(GLib.get_monotonic_time())

        bus.signal_subscribe(None, interface, signal, path, None, Gio.DBusSignalFlags.NONE,
                             on_signal)

    def first_since(self, begin):
        """Microseconds from then to the first signal, which may still be on its way."""
        deadline = time.monotonic() + TIMEOUT
        while not self.times or self.times[-1] < begin:
            if time.monotonic() > deadline:
                sys.exit("no signal within the time limit")
            time.sleep(0.001)
        return next(moment for moment in self.times if moment >= begin) - begin


def run(command):
    subprocess.run(command, shell=True, check=True, stdout=subprocess.DEVNULL)


def report(what, callback, signal, aim):
    to_callback, to_signal = statistics.median(callback), statistics.median(signal)
    print(f"{what}: median {to_callback / 1000:.2f} ms, worst {max(callback) / 1000:.2f} ms of "
          f"{len(callback)} (aim: {aim}); signal {to_signal / 1000:.2f} ms; ratio "
          f"{to_callback / to_signal:.2f}", flush=True)


def measure_settings(start_probe):
    bus = Gio.bus_get_sync(Gio.BusType.SESSION)
    subscriber = Subscriber(bus, "ca.desrt.dconf.Writer", "Notify", None, "/db/test/value")
    callback, signal = [], []
    with start_probe() as probe:
        probe.ask("watch db/test/value")
        for value in range(SETTING_CHANGES):
            # What dconf(1) sends, without the time that a process takes to start.
            change = GLib.Variant("a{smv}", {"/db/test/value": GLib.Variant("i", value)})
            arguments = GLib.Variant("(ay)", (change.get_data_as_bytes().get_data(),))
            begin = GLib.get_monotonic_time()
            bus.call_sync("ca.desrt.dconf", "/ca/desrt/dconf/Writer/user", "ca.desrt.dconf.Writer",
                          "Change", arguments, None, Gio.DBusCallFlags.NONE, -1)
            moment, text = probe.next_change()
            assert text == f"setting db/test/value 41 {value}", text
            callback.append(moment - begin)
            signal.append(subscriber.first_since(begin))
    report("setting written to callback", callback, signal, "10 ms")


def wait_for_profile(probe, state):
    while True:
        moment, text = probe.next_change()
        if text == f"profile 0 {state}":
            return moment


def measure_network(start_probe):
    subscriber = Subscriber(Gio.bus_get_sync(Gio.BusType.SYSTEM),
                            "org.freedesktop.DBus.Properties", "PropertiesChanged",
                            "/org/freedesktop/NetworkManager", "PrimaryConnection")
    with start_probe() as probe, Process("ip", "-batch", "-") as link:
        for command in ["type", "profiles", "watch-profile 0"]:
            probe.ask(command)
        for what, cable, state, aim in [
                ("cable pulled out to \"disconnected\"", "down", "0",
                 "150 ms, 50 of them NetworkManager's carrier-wait-timeout"),
                ("cable plugged in to \"connected\"", "up", "3 connected", "150 ms")]:
            callback, signal = [], []
            for _ in range(NETWORK_CHANGES):
                begin = GLib.get_monotonic_time()
                print("link set far0", cable, file=link.child.stdin)
                callback.append(wait_for_profile(probe, state) - begin)
                time.sleep(PAUSE_SECONDS)
                signal.append(subscriber.first_since(begin))
                print("link set far0", "up" if cable == "down" else "down", file=link.child.stdin)
                wait_for_profile(probe, "3 connected" if cable == "down" else "0")
                time.sleep(PAUSE_SECONDS)
            report(what, callback, signal, aim)
            print("link set far0", cable, file=link.child.stdin)
            wait_for_profile(probe, state)


def field(path, name):
    """A number that proc(5) gives for a name, or the sum of several."""
    return sum(int(line.split()[1]) for line in path.read_text("ascii").splitlines()
               if line.startswith(name))


def memory(process):
    rollup = pathlib.Path(f"/proc/{process.child.pid}/smaps_rollup")
    return field(rollup, "Private_Dirty:"), field(rollup, "Rss:")


def wakeups(process):
    return sum(field(task / "status", "voluntary_ctxt_switches")
               for task in pathlib.Path(f"/proc/{process.child.pid}/task").iterdir())


def measure_daemon(build, library):
    run("cd /run && mkdir opt opt-work && mount -t overlay -o "
        "lowerdir=/opt,upperdir=/run/opt,workdir=/run/opt-work opt /opt && "
        "mkdir -p /opt/media/Documents")
    # Pages of a file that is not on disk yet count as dirty.
    os.sync()
    environment = {**os.environ, "LD_LIBRARY_PATH": str(library)}
    with Process(build / "bin/adagentd", env=environment) as daemon, \
            Process(build / "bin/bench-empty-loop-cpp") as empty:
        # One change of each kind, so that what only they need is counted too.
        daemon.wait_for(" Network is Working")
        run("ip link set far0 down")
        daemon.wait_for("Current Network State is 0")
        run("ip link set far0 up")
        daemon.wait_for("Network is reconnected")
        run("dconf write /db/menu_widget/language \"'de_DE'\"")
        daemon.wait_for("m_VConfLanguageChangeCB")
        empty.wait_for("ready")
        time.sleep(2)
        before = wakeups(daemon)
        time.sleep(IDLE_SECONDS)
        print(f"wake-ups of the daemon in {IDLE_SECONDS} idle seconds, all threads: "
              f"{wakeups(daemon) - before} (aim: 0)")
        for what, ours, theirs in zip(["private dirty", "resident"], memory(daemon),
                                      memory(empty)):
            print(f"{what} memory of the daemon without an agent library: {ours} kB; empty C++ "
                  f"program {theirs} kB; ratio {ours / theirs:.2f}")


def main():
    build = pathlib.Path(sys.argv[1])
    library = build / "lib/linux"
    threading.Thread(target=GLib.MainLoop().run, daemon=True).start()
    run("nmcli -t connection add type ethernet con-name wired ifname eth0 ipv4.method manual "
        "ipv4.addresses 10.9.0.2/24 ipv4.gateway 10.9.0.1 ipv6.method disabled")
    run("nmcli -t connection up wired")

    def start_probe():
        return Probe(build / "bin/platform-probe", library)

    measure_settings(start_probe)
    measure_network(start_probe)
    measure_daemon(build, library)


main()
