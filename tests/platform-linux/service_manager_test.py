"""The notifications to a service manager, which is a datagram socket here."""

import contextlib
import socket
import sys
import time

import pytest

import platform_probe
from conftest import LIBRARY

SOCKET = "/run/notify"
WATCHDOG_SECONDS = 0.2

# Calls every service before the one whose call means "started", which is then called twice.
CALLER = f"""
import ctypes
platform = ctypes.CDLL("{LIBRARY}/libad-platform.so.1")
handle = ctypes.c_void_p()
getattr(platform, "__dlog_print")(0, 2, b"test", b"a line")
platform.vconf_get_int(b"key", ctypes.byref(handle))
platform.system_info_get_value_string(1104, ctypes.byref(handle))
platform.connection_get_type(None, ctypes.byref(handle))
print("initialised", flush=True)
input()
for _ in range(2): platform.connection_create(ctypes.byref(handle))
print("connected", flush=True)
input()
"""


class Manager:
    def __init__(self, address):
        self.address = address
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(address.replace("@", "\0"))

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
def test_is_ready_once_the_connection_is_created(manager, monkeypatch):
    monkeypatch.setenv("NOTIFY_SOCKET", manager.address)
    with platform_probe.Process(sys.executable, "-c", CALLER) as caller:
        caller.wait_for("initialised")
        assert manager.received() == []
        print(file=caller.child.stdin)
        caller.wait_for("connected")
        assert manager.received() == ["READY=1"]


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
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other, \
            contextlib.suppress(BlockingIOError):
        while True:  # Until its queue is full.
            other.sendto(b"unread", socket.MSG_DONTWAIT, SOCKET)
    probe = start_probe(NOTIFY_SOCKET=address)
    assert probe.ask("profiles") == "0: 2 ethernet"
    assert f"failed to send READY=1 to the service manager at {address}: " in (
        line := device.run(f"journalctl --sync; journalctl -q -o cat -t ad-platform "
                           f"_PID={probe.child.pid}")) and error in line
