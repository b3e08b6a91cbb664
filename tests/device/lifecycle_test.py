"""The device leaves nothing on the machine, however it ends, and the commands refuse
what they cannot do before they begin."""

import signal
import subprocess
from pathlib import Path

import pytest
from device import BUILD, SOURCE, on_each_platform, on_linux, run, wait_until


@on_each_platform
def test_foreground_device_ends_with_its_parent(device):
    device.install("1.05")
    (device.home / "run/daemon.log").unlink()
    start = device.command("start", "--foreground", "--preload", BUILD / "lib/libshort-waits.so")
    parent = subprocess.Popen(["bash", "-c", '"$@" & wait', "bash", *start])
    device.await_log("Version = 1.05")
    daemon = Path("/proc", device.do("pid").strip(), "exe")
    assert daemon.exists()
    parent.send_signal(signal.SIGKILL)
    parent.wait()
    wait_until(lambda: not daemon.exists() and device.leftovers() == [], "the end of the device")


def test_mounted_image_disappears_with_the_power(device):
    device.install("1.05")
    device.insert_before_mounter('[ "$1" != --umount ] || exit 71')
    device.boot()
    assert device.leftovers() != []
    device.do("kill")
    wait_until(lambda: device.leftovers() == [], "the end of the mount")


@on_linux
def test_starts_once_and_is_set_while_it_starts(device):
    starts = [subprocess.Popen(device.command("start"), stderr=subprocess.PIPE) for _ in range(4)]
    wait_until((device.home / "run/holder.pid").exists, "the first to start it")
    device.do("set", "language", "it_IT")
    device.do("set", "network", "up")
    assert sorted(start.wait() for start in starts) == [0, 1, 1, 1]
    assert device.do("exec", "dconf", "read", "/db/menu_widget/language") == "'it_IT'\n"
    device.await_log("CONNECTION_TYPE_ETHERNET")
    device.do("kill")
    assert run("pgrep", "-f", f"ad-device-init {device.home}", check=False).stdout == ""


def test_refuses_in_one_line_what_it_cannot_do(device):
    for status, command in (
            (1, "create"), (1, "publish one"), (1, "start --under nothing-of-this-name"),
            (64, "set"), (64, "set network sideways"), (64, "set consent perhaps"), (64, "dance"),
            (64, "start --url")):
        result = run(*device.command(*command.split()), check=False)
        assert (result.returncode, result.stdout.count("\n")) == (status, 1), result


@pytest.mark.parametrize("status, message, command", [
    (64, "--platform requires a value", './run --platform'),
    (64, "simulated or linux", './run --platform real'),
    (77, "namespaces", 'setpriv --bounding-set=-sys_admin ./run --build "$BUILD_DIR"'),
    (77, "/dev/loop-control",
     'unshare --mount sh -c \'mount -t tmpfs none /dev; ./run --build "$BUILD_DIR"\''),
    (77, "cannot download 1 missing package", 'echo no-such-package >"$BUILD_DIR/packages.txt";'
     'unshare --net tools/check-machine "$BUILD_DIR" "$BUILD_DIR/packages.txt"'),
])
def test_commands_check_the_machine_first(status, message, command):
    result = run("env", "-C", SOURCE, "sh", "-c", command, check=False)
    assert (result.returncode, result.stdout.count("\n")) == (status, 1), result
    assert message in result.stdout
