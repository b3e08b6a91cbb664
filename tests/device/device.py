"""A device under test: the real daemon, ad-mounter, agent library and platform in
namespaces of their own, driven through device/ad-device as a person would."""

import fnmatch
import os
import re
import subprocess
import time
from pathlib import Path

import pytest

BUILD = Path(os.environ["BUILD_DIR"])
SOURCE = Path(os.environ["SOURCE_DIR"])
STARTED = "[CADAgentd] Start end"
GATE_CLOSED = "Please check network"

# All that a device without an update in progress has below /opt.
KNOWN_FILES = ("platform.log", "state.ini", "ad-agent.conf", "adagentversion.txt", "*Ad-v2*",
               "zelADAgentCache.xml", "zelADAgent.img", "zelADAgent.floor", "libad-*-fwk.so",
               "update.ini*")

on_each_platform = pytest.mark.parametrize("device", ["simulated", "linux"], indirect=True)
on_linux = pytest.mark.parametrize("device", ["linux"], indirect=True)


def wait_until(condition, what):
    """Waits with more patience than a loaded machine needs."""
    deadline = time.monotonic() + 60
    while not (result := condition()):
        assert time.monotonic() < deadline, f"timed out: {what}"
        time.sleep(0.01)
    return result


def run(*command, check=True):
    """Runs a command. Returns it with its output, standard error included, as text."""
    result = subprocess.run(list(map(str, command)), check=False, text=True, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert not check or result.returncode == 0, f"{command}: {result.stdout}"
    return result


class Device:
    """Boots with the daemon's long waits cut short, unless started by other means."""

    def __init__(self, name, platform="simulated"):
        self.home = BUILD / "test-devices" / re.sub(r"[^\w-]+", "-", name)
        self.opt = self.home / "opt"
        self.agent_copy = self.opt / "usr/lib/libad-agent-fwk.so"
        self.player_copy = self.opt / "usr/lib/libad-player-fwk.so"
        self.stored_image = self.opt / "down/zels/zelADAgent_img/zelADAgent.img"
        self.resources = self.home / "usr-bin/upper/zels/zelADAgent/adplayer/res"
        self.mounter = self.home / "usr-bin/upper/ad-mounter"
        self.do("destroy")
        self.do("--platform", platform, "create")

    def command(self, *arguments):
        """Returns the command line of an ad-device command."""
        return [SOURCE / "device/ad-device", "--build", BUILD, "--dir", self.home, *arguments]

    def do(self, *arguments):
        """Runs an ad-device command, which must succeed. Returns its output."""
        return run(*self.command(*arguments)).stdout

    def open_gate(self):
        self.do("set", "network", "up")
        self.do("set", "consent", "1")

    def start(self, *options):
        self.do("start", "--preload", BUILD / "lib/libshort-waits.so", *options)

    def boot(self, *options, until=STARTED):
        """Starts the device and waits for a text in the daemon's log."""
        self.start(*options)
        self.await_log(until)

    def stop(self):
        """Stops the daemon, which must exit with status 0."""
        self.do("stop")
        assert self.status() == "0"

    def status(self):
        """Returns the daemon's exit status as text, empty while the device is on."""
        file = self.home / "run/status"
        return file.read_text().strip() if file.exists() else ""

    def update(self, *options):
        """Runs a boot with the gate open until the update is through."""
        self.open_gate()
        self.boot(*options)
        self.stop()

    def install(self, version):
        self.do("publish", version)
        self.update()

    def log(self):
        """Returns the daemon's output since the last boot."""
        file = self.home / "run/daemon.log"
        return file.read_text(errors="replace") if file.exists() else ""

    def await_log(self, text, times=1):
        wait_until(lambda: self.log().count(text) >= times, text)

    def requests(self, path):
        """Counts the requests for a path that the device's server has answered."""
        return (self.home / "run/server.log").read_text().count(f'"GET {path} ')

    def await_requests(self, path, times):
        wait_until(lambda: self.requests(path) >= times, path)

    def installed_version(self):
        """Returns the version in the cache manifest, None without one."""
        text = (self.opt / "usr/apps/adagent/zelADAgentCache.xml").read_text()
        found = re.search("<SoVersion>(.*)</SoVersion>", text)
        return found and found[1]

    def assert_installed(self, version):
        assert self.installed_version() == version
        assert self.agent_copy.read_bytes() == (BUILD / "lib/libad-agent-fwk.so").read_bytes()

    def insert_before_mounter(self, script):
        """Has a shell script run before each ad-mounter command, which it can replace."""
        self.mounter.rename(self.mounter.with_suffix(".real"))
        self.mounter.write_text(f'#!/bin/sh\n{script}\nexec ad-mounter.real "$@"\n')
        self.mounter.chmod(0o755)

    def restore_mounter(self):
        self.mounter.with_suffix(".real").replace(self.mounter)

    def leftovers(self):
        """Lists what a stopped device must not leave: loop devices, mounts, temporary files."""
        # A loop device names its file as the device saw it, so compare inodes.
        inode = self.stored_image.stat().st_ino if self.stored_image.exists() else None
        loops = run("losetup", "--list", "--noheadings", "--output", "BACK-INO").stdout.split()
        mounts = Path("/proc/self/mounts").read_text().splitlines()
        files = (file for file in self.opt.rglob("*") if file.is_file())
        return ([f"loop device of inode {inode}"] * (str(inode) in loops) +
                [mount for mount in mounts if str(self.home) in mount] +
                [file for file in files
                 if not any(fnmatch.fnmatch(file.name, known) for known in KNOWN_FILES)])
