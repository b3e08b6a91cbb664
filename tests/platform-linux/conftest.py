"""What the tests have in common: the services, and the probe on the platform library."""

import contextlib
import os
import pathlib
import subprocess
import sys

import pytest

SOURCE = pathlib.Path(os.environ["SOURCE_DIR"])
BUILD = pathlib.Path(os.environ["BUILD_DIR"])
LIBRARY = BUILD / "lib/linux"
sys.path.insert(0, str(SOURCE / "tools/platform-probe"))

import platform_probe  # noqa: E402

RESTORE = r"""
mountpoint -q /etc/os-release && umount /etc/os-release
for link in $(ip -o link | sed -n 's/^[0-9]*: \(test[a-z0-9]*\).*/\1/p'); do ip link del $link; done
ip link set far0 up
dconf reset -f /
for uuid in $(nmcli -g UUID,TYPE connection | sed -n 's/:loopback$//;t;s/:.*//p'); do
    nmcli -t connection delete $uuid
done
"""


class Device:
    """The namespaces that the tests run in, with every service of a Linux device."""

    @staticmethod
    def run(command):
        """Runs a shell command that must succeed and returns its output."""
        run = subprocess.run(command, shell=True, capture_output=True, text=True, check=False)
        assert run.returncode == 0, f"{command}: status {run.returncode}: {run.stderr}"
        return run.stdout

    def services(self, action, *names):
        """Starts, kills, pauses or resumes services; see device/linux-services --help."""
        self.run(" ".join([str(SOURCE / "device/linux-services"), action, *names]))

    def write_setting(self, key, value):
        self.run(f'dconf write /{key} "{value}"')

    def set_cable(self, state):
        """Plugs the cable in ("up") or out ("down"), at its other end."""
        self.run(f"ip link set far0 {state}")

    def add_wired(self, more="ipv4.gateway 10.9.0.1"):
        """Adds a profile for the wired port, which NetworkManager activates at once."""
        self.run("nmcli -t connection add type ethernet con-name wired ifname eth0 "
                 "ipv4.method manual ipv4.addresses 10.9.0.2/24 ipv6.method disabled " + more)

    def connect_wired(self):
        self.add_wired()
        self.run("nmcli connection up wired")

    def restore(self):
        """Every service runs, no setting and no profile exists, the cable is plugged in."""
        self.services("resume")
        self.services("start")
        subprocess.run(RESTORE, shell=True, capture_output=True, check=False)


@pytest.fixture
def device():
    device = Device()
    device.restore()
    return device


@pytest.fixture
def start_probe(device):
    """Starts consoles on the platform, with further environment variables."""
    with contextlib.ExitStack() as stack:
        yield lambda **environment: stack.enter_context(
            platform_probe.Probe(BUILD / "bin/platform-probe", LIBRARY, **environment))


@pytest.fixture
def probe(start_probe):
    return start_probe()
