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

CONSENT = "db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree"
CONNECTED = ["type 3 ethernet", "profile 0 3 connected"]
DISCONNECTED = ["type 0 disconnected", "profile 0 0"]

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

    def add_wired(self, more="ipv4.gateway 10.9.0.1", name="wired", port="eth0"):
        """Adds a profile for a wired port, which NetworkManager activates if the port is free."""
        self.run(f"nmcli -t connection add type ethernet con-name {name} ifname {port} "
                 "ipv4.method manual ipv4.addresses 10.9.0.2/24 ipv6.method disabled " + more)

    def connect_wired(self):
        self.add_wired()
        self.run("nmcli connection up wired")

    def restore(self):
        """Every service runs, no setting and no profile exists, the cable is plugged in."""
        self.services("resume")
        self.services("start")
        subprocess.run(RESTORE, shell=True, capture_output=True, check=False)


def watch(probe):
    """Watches the type of the connection, and its profile, before anything is connected."""
    assert probe.ask("profiles") == "0: 2 ethernet"
    assert probe.ask("watch-profile 0") == probe.ask("watch-type") == "ok"
    return probe


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


@pytest.fixture
def restart_daemon():
    """Kills the daemon, if it runs, and starts it. Its /opt is private, over the machine's."""
    subprocess.run("mountpoint -q /opt || { cd /run && mkdir -p opt opt-work && mount -t overlay "
                   "-o lowerdir=/opt,upperdir=/run/opt,workdir=/run/opt-work opt /opt && "
                   "mkdir -p /opt/media/Documents; }", shell=True, check=True)
    with contextlib.ExitStack() as stack:
        def restart():
            stack.close()
            return stack.enter_context(platform_probe.Process(
                BUILD / "bin/adagentd", env={**os.environ, "LD_LIBRARY_PATH": str(LIBRARY)}))
        yield restart
