"""The notifications to a service manager, which is a datagram socket here."""

import contextlib
import os
import re
import socket
import subprocess
import time

import pytest

from conftest import BUILD, LIBRARY

SOCKET = "/run/notify"
WATCHDOG_SECONDS = 0.2


def check(address):
    """Calls every function of the platform, and returns a line for each."""
    return subprocess.run([BUILD / "bin/platform-probe", "check", "--strict"], check=True,
                          capture_output=True, text=True, env={
                              **os.environ, "LD_LIBRARY_PATH": str(LIBRARY),
                              "NOTIFY_SOCKET": address}).stdout


class Manager:
    def __init__(self, address):
        self.address = address
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(address.replace("@", "\0"))

    def hang(self):
        """Fills its queue, so that those who send to it wait."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other, \
                contextlib.suppress(BlockingIOError):
            while True:
                other.sendto(b"unread", socket.MSG_DONTWAIT, self.address)

    def received(self, seconds=0.0):
        """What was received up to that time."""
        time.sleep(seconds)
        texts = []
        with contextlib.suppress(BlockingIOError):
            while True:
                texts.append(self.socket.recv(100, socket.MSG_DONTWAIT).decode())
        return texts


@pytest.fixture
def manager(device, request):
    device.run(f"rm -f {SOCKET}")
    manager = Manager(getattr(request, "param", SOCKET))
    with manager.socket:
        yield manager


@pytest.mark.parametrize("manager", [SOCKET, "@notify"], indirect=True)
def test_is_ready_once(manager):
    check(manager.address)
    assert manager.received() == ["READY=1"]


def test_is_ready_when_the_connection_is_created(manager):
    manager.hang()
    slow = [line for line in check(SOCKET).splitlines() if re.search(r"\(1\d\d\d ms\)", line)]
    assert len(slow) == 1 and "connection_create makes a client" in slow[0]


def watchdog(**more):
    return {"NOTIFY_SOCKET": SOCKET, "WATCHDOG_USEC": str(int(WATCHDOG_SECONDS * 1e6)), **more}


def test_the_watchdog_runs_with_the_main_loop(manager, start_probe):
    probe = start_probe(**watchdog())
    probe.ask("hold")
    assert manager.received()[0] == "READY=1"
    assert manager.received(3 * WATCHDOG_SECONDS) == []
    probe.ask("release")
    beats = manager.received(5 * WATCHDOG_SECONDS)
    # Twice in each watchdog time.
    assert set(beats) == {"WATCHDOG=1"} and 7 <= len(beats) <= 11


@pytest.mark.parametrize("environment", [
    watchdog(WATCHDOG_USEC=None), watchdog(WATCHDOG_USEC="0"), watchdog(WATCHDOG_USEC="none"),
    watchdog(WATCHDOG_PID="1")])
def test_has_no_watchdog_unless_it_is_asked_for(manager, start_probe, environment):
    start_probe(**environment).ask("type")
    assert manager.received(2 * WATCHDOG_SECONDS) == ["READY=1"]


@pytest.mark.parametrize("address, error", [
    (SOCKET, "Resource temporarily unavailable"), ("/run/nobody", "No such file or directory"),
    ("vsock:2:1", "Address family not supported by protocol"),
    ("/" + 107 * "x", "File name too long")])
def test_starts_without_a_service_manager_that_listens(device, manager, start_probe, address,
                                                       error):
    manager.hang()
    probe = start_probe(NOTIFY_SOCKET=address)
    assert probe.ask("profiles") == "0: 2 ethernet"
    assert f"failed to send READY=1 to the service manager at {address}: " in (
        line := device.run(f"journalctl --sync; journalctl -q -o cat -t ad-platform "
                           f"_PID={probe.child.pid}")) and error in line
