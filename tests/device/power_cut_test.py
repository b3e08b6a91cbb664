"""Cuts an update at each ad-mounter command and at each tenth of the download. The next
boot must end on one complete version, with nothing left over."""

import subprocess
import sys

import pytest
from device import BUILD, SOURCE, STARTED, run, wait_until

# What runs in place of the command whose turn it is, and whether the daemon survives it.
CUTS = {
    "daemon-before": ("cut", False),
    "daemon-after": ('ad-mounter.real "$@"; cut', False),
    "both": ('ad-mounter.real "$@" & cut', False),
    "tool": ('ad-mounter.real "$@" & sleep 0.001; kill -KILL $!; exit 1', True),
}
PARTS = ("opt", "usr-bin", "usr-lib")


class UpdatableDevice:
    """A device on version 1.05 with 1.06 published, to which it can be reset."""

    def __init__(self, device, server):
        self.device = device
        self.url = f"http://127.0.0.1:{server.stdout.readline().strip()}"
        self.publish("1.05")
        device.update("--url", self.url)
        self.assert_complete("1.05")
        self.publish("1.06")
        self.kept = device.home / "run/kept"
        self.kept.mkdir()
        self.copy_parts(device.home, self.kept)

    @staticmethod
    def copy_parts(source, destination):
        run("rm", "-rf", *(destination / part for part in PARTS))
        run("cp", "-a", *(source / part for part in PARTS), destination)

    def reset(self):
        self.copy_parts(self.kept, self.device.home)

    def publish(self, version):
        """Publishes an image whose every file ends in its version."""
        tree = self.device.home / "run" / version
        (tree / "res").mkdir(parents=True)
        (tree / "res/version").write_text(f"={version}")
        for name in ("libad-agent-fwk.so", "libad-player-fwk.so"):
            (tree / name).write_bytes((BUILD / "lib" / name).read_bytes() + b"=" + version.encode())
        image, tool = tree / "image", SOURCE / "tools/ad-image"
        run(tool, "pack", "--version", version, "--agent", tree / "libad-agent-fwk.so",
            "--player", tree / "libad-player-fwk.so", "--resources", tree / "res", "--output", image)
        run(tool, "sign", "--key", self.device.home / "maker.key", image)
        run(tool, "publish", image, self.device.home / "www")

    def start(self):
        self.device.start("--url", self.url)

    def assert_recovers(self):
        """Runs a boot without faults, which must end on the new version."""
        self.device.boot("--url", self.url)
        self.device.stop()
        self.assert_complete("1.06")

    def assert_complete(self, version):
        device = self.device
        for file in (device.agent_copy, device.player_copy, device.resources / "version"):
            assert file.read_bytes().rpartition(b"=")[2] == version.encode(), file
        assert device.installed_version() == version
        assert device.leftovers() == []


@pytest.fixture
def updatable(device):
    faults = device.home / "run/faults"
    with subprocess.Popen([sys.executable, SOURCE / "tests/support/content_server.py",
                           device.home / "www", "--faults", faults],
                          stdout=subprocess.PIPE, text=True) as server:
        yield UpdatableDevice(device, server)
        server.kill()


@pytest.mark.parametrize("cut, survives", CUTS.values(), ids=CUTS)
def test_at_each_command(updatable, cut, survives):
    device = updatable.device
    updatable.assert_recovers()
    commands = device.log().count("system command:[ad-mounter")
    assert commands > 8
    for turn in range(1, commands + 1):
        updatable.reset()
        # Counts on a tmpfs of the device, so anew at each boot.
        device.insert_before_mounter(f"""
            n=$(($(cat /run/turn 2>/dev/null || echo 0) + 1)); echo $n >/run/turn
            cut() {{ pkill -KILL -x adagentd; sleep 10; }}
            [ $n != {turn} ] || {{ {cut}; }}""")
        updatable.start()
        wait_until(lambda: device.status() or STARTED in device.log(), f"turn {turn}")
        assert (STARTED in device.log()) == survives, turn
        device.do("stop")
        device.restore_mounter()
        updatable.assert_recovers()


def test_at_each_tenth_of_the_download(updatable):
    device = updatable.device
    size = max(image.stat().st_size for image in device.home.glob("www/images/*-1.06-*"))
    part = device.opt / "usr/apps/adagent/zelADAgent.img.part"
    for tenth in range(10):
        updatable.reset()
        arriving = size * tenth // 10
        (device.home / "run/faults").write_text(f"/images/* stall {arriving}\n")
        updatable.start()
        wait_until(lambda: part.exists() and part.stat().st_size >= arriving, f"tenth {tenth}")
        device.do("kill")
        (device.home / "run/faults").unlink()
        updatable.assert_recovers()
