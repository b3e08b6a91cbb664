"""The network-connection service on a real NetworkManager with a wired port."""

import os
import subprocess

import pytest

from conftest import BUILD, CONNECTED, DISCONNECTED, LIBRARY, watch

CONNECTIONS = "/etc/NetworkManager/system-connections"


@pytest.fixture
def watching_probe(device, start_probe):
    """A probe that was started on an active wired connection, and watches it."""
    device.connect_wired()
    return watch(start_probe())


def test_follows_the_cable(device, probe):
    device.set_cable("down")
    device.add_wired()
    watch(probe)
    assert probe.ask("type") == "0 disconnected"
    assert probe.ask("state ethernet") == "0"
    changes = []
    for _ in range(3):
        device.set_cable("up")
        changes += probe.changes_until(*CONNECTED)
        assert probe.ask("type") == "3 ethernet"
        assert probe.ask("state ethernet") == "2 connected"
        device.set_cable("down")
        changes += probe.changes_until(*DISCONNECTED)
        assert probe.ask("type") == "0 disconnected"
    # Each once, apart from the states of a profile that is being activated.
    between = ["profile 0 1", "profile 0 2"]
    assert [change for change in changes if change not in between] == (
        CONNECTED + DISCONNECTED) * 3
    assert probe.ask("unwatch-profile 0") == "ok"
    device.set_cable("up")
    assert probe.next_change()[1] == CONNECTED[0]
    device.set_cable("down")
    assert probe.next_change()[1] == DISCONNECTED[0]


def test_a_profile_is_connected_only_with_a_default_route(device, probe):
    watch(probe)
    device.add_wired("ipv4.never-default yes")
    device.run("nmcli connection up wired")
    probe.changes_until("profile 0 2")
    assert probe.ask("type") == "0 disconnected"
    device.run("nmcli connection modify wired ipv4.never-default no ipv4.gateway 10.9.0.1")
    device.run("nmcli device reapply eth0")
    assert probe.changes_until(*CONNECTED) == CONNECTED


def test_activating_again_is_no_loss(device, watching_probe):
    def losses():
        for _ in range(5):
            device.run("nmcli connection up wired")
        device.set_cable("down")
        changes = watching_probe.changes_until(*DISCONNECTED)
        device.set_cable("up")
        watching_probe.changes_until(*CONNECTED)
        return changes.count(DISCONNECTED[0]) - 1

    # On a machine under load, an activation may take longer than losses are held back.
    assert any(losses() == 0 for _ in range(5))


def test_reports_a_loss_that_ended_while_the_main_loop_was_busy(device, watching_probe):
    probe = watching_probe
    probe.ask("hold")
    device.set_cable("down")
    probe.ask_until("type", "0 disconnected")
    device.set_cable("up")
    probe.ask_until("type", "3 ethernet")
    probe.ask("release")
    assert probe.changes_until(*CONNECTED) == CONNECTED


def test_a_bridge_counts_as_ethernet(device, probe):
    if subprocess.run("ip link add name test0 type bridge", shell=True, check=False).returncode:
        pytest.skip("this kernel has no bridges")
    device.run("ip link del test0")
    device.run("nmcli -t connection add type bridge con-name bridge ifname test0 bridge.stp no "
               "ipv4.method manual ipv4.addresses 10.8.0.2/24 ipv4.gateway 10.8.0.1 "
               "ipv6.method disabled")
    # Over a port that has no profile.
    device.run("for i in $(seq 100); do ip link set far0 master test0 && exit; sleep 0.02; done; "
               "exit 1")
    probe.ask_until("type", "3 ethernet")
    assert probe.ask("state ethernet") == "2 connected"


@pytest.mark.parametrize("services", ["available", "missing"])
def test_keeps_the_promises_of_the_interface(device, services):
    device.connect_wired()
    if services == "missing":
        device.services("kill", "system-bus", "network", "session-bus", "log")
    check = subprocess.run([BUILD / "bin/platform-probe", "check", "--strict"], check=False,
                           capture_output=True, text=True,
                           env={**os.environ, "LD_LIBRARY_PATH": str(LIBRARY)})
    assert check.returncode == 0, check.stdout
    assert "BROKEN" not in check.stdout


def test_recovers_what_changed_while_the_services_were_away(device, watching_probe):
    probe = watching_probe
    device.services("kill", "system-bus", "network")
    probe.changes_until(*DISCONNECTED)
    for command in ["type", "state ethernet"]:
        assert probe.ask(command) == "failed -107"
    # It does not depend on the services.
    assert probe.ask("profiles") == "0: 2 ethernet"
    device.run(f"rm {CONNECTIONS}/*; ip address flush dev eth0")
    device.services("start", "system-bus", "network")
    probe.ask_until("type", "0 disconnected")
    device.add_wired()
    probe.changes_until(*CONNECTED)


@pytest.mark.parametrize("hanging", ["network", "system-bus"])
def test_waits_for_a_hanging_service_once(device, start_probe, hanging):
    device.connect_wired()
    device.services("pause", hanging)
    probe = start_probe()
    try:
        # A wait for each of them would take longer than the time limit of a result.
        probe.send(*["type", "state ethernet"] * 10)
        for _ in range(20):
            assert probe.result() == "failed -110"
        watch(probe)
    finally:
        device.services("resume", hanging)
    assert probe.changes_until(*CONNECTED) == CONNECTED
    assert probe.ask("type") == "3 ethernet"


def test_keeps_the_last_state_while_the_service_hangs(device, watching_probe):
    probe = watching_probe
    device.services("pause", "network")
    device.set_cable("down")
    assert probe.ask("type") == "3 ethernet"
    # It never continues, but is replaced.
    device.services("kill", "network")
    probe.changes_until(DISCONNECTED[0])
    device.services("start", "network")
    device.set_cable("up")
    probe.changes_until(CONNECTED[0])
