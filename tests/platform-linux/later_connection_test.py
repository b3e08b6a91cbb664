"""Connections that are created while the platform is already watched, on a NetworkManager with
its own defaults: it creates a connection for the wired port, which finds no DHCP server here."""

import pytest

from conftest import CONNECTED, CONSENT, DISCONNECTED, watch

CONFIGURATION = "/etc/NetworkManager/NetworkManager.conf"


@pytest.fixture(autouse=True)
def defaults(device):
    device.run(f"cp {CONFIGURATION} /run/kept.conf && sed -i /no-auto-default/d {CONFIGURATION}")
    restart = ["kill network", "start network"]
    device.set_cable("down")  # Otherwise it takes its start to last until DHCP has failed.
    for action in restart:
        device.services(action)
    assert "Wired connection 1" in device.run("nmcli -g NAME connection")
    yield
    device.run(f"mv /run/kept.conf {CONFIGURATION}; nmcli networking off; nmcli networking on")
    for action in restart:
        device.services(action)


def test_reports_connections_that_are_created_later(device, probe):
    watch(probe)
    device.set_cable("up")
    device.connect_wired()
    # Once, whatever was activated in between.
    assert [change for change in probe.changes_until(*CONNECTED)
            if change in CONNECTED + DISCONNECTED[:1]] == CONNECTED
    # Another profile for the same port takes over, then one for another port.
    device.add_wired(name="second")
    device.run("nmcli connection up second; nmcli connection delete wired")
    assert probe.ask("type") == "3 ethernet"
    device.set_cable("down")
    assert set(DISCONNECTED) <= set(probe.changes_until(*DISCONNECTED))
    device.run("ip link add test0 type veth peer name test1; ip link set test1 up")
    device.add_wired(name="other", port="test0")
    device.run("nmcli connection up other")
    probe.changes_until(*CONNECTED)
    device.set_cable("up")
    device.run("nmcli connection up second; ip link del test0")
    assert probe.ask("type") == "3 ethernet"
    assert DISCONNECTED[0] not in probe.changes()


def test_the_daemon_opens_its_gate(device, restart_daemon):
    device.write_setting(CONSENT, "1")
    device.set_cable("up")
    daemon = restart_daemon()
    daemon.wait_for("Please check network")
    device.connect_wired()
    daemon.wait_for("Network is reconnected, Try Start")
    daemon.wait_for("[CADAgentd] T&C is = [1].")
