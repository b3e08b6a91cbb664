"""The network-connection service on a real NetworkManager with a wired port."""

import os
import subprocess

import pytest

from conftest import BUILD, LIBRARY

CONNECTED = ["type 3 ethernet", "profile 0 3 connected"]
DISCONNECTED = ["type 0 disconnected", "profile 0 0"]
CONNECTIONS = "/etc/NetworkManager/system-connections"


def watch(probe):
    """Watches the type of the connection and the only profile."""
    probe.ask_until("profiles", "0: 2 ethernet")
    assert probe.ask("watch-profile 0") == probe.ask("watch-type") == "ok"
    return probe


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
    for _ in range(5):
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
        CONNECTED + DISCONNECTED) * 5
    assert probe.ask("unwatch-profile 0") == "ok"
    device.set_cable("up")
    assert probe.next_change()[1] == CONNECTED[0]
    device.set_cable("down")
    assert probe.next_change()[1] == DISCONNECTED[0]


def test_a_profile_is_connected_only_with_a_default_route(device, probe):
    assert probe.ask("watch-type") == "ok"
    device.add_wired("ipv4.never-default yes")
    device.run("nmcli connection up wired")
    watch(probe)
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


def test_profiles_keep_their_order_and_handles(device, start_probe):
    # Profiles need no hardware. By priority, name and UUID, mapped types last: c-wired, b-wired,
    # home, phone, the twins and a-bridge; the loopback profile is not listed.
    for profile in [
            "bridge con-name a-bridge ifname test0", "gsm con-name phone ifname '*' apn net",
            "wifi con-name home ssid home", "ethernet con-name b-wired",
            "bluetooth con-name tether bluetooth.type panu bluetooth.bdaddr 00:11:22:33:44:55",
            "ethernet con-name c-wired connection.autoconnect-priority 5"]:
        device.run(f"nmcli -t connection add autoconnect no type {profile}")
    for uuid, kind in [("8b", "ethernet"), ("8d", "gsm ifname '*' apn net"),
                       ("8a", "wifi ssid home"), ("8c", "wifi ssid home")]:
        device.run("nmcli -t connection add autoconnect no con-name twin connection.uuid "
                   f"{uuid}000000-0000-4000-8000-000000000000 type {kind}")
    order = ("0: 2 ethernet, 1: 2 ethernet, 2: 1 wifi, 3: 0 cellular, 4: 3 bluetooth, 5: 1 wifi, "
             "6: 2 ethernet, 7: 1 wifi, 8: 0 cellular, 9: 2 ethernet")
    probe = start_probe()
    assert probe.ask("profiles") == order

    device.services("kill", "network")
    probe.ask_until("profiles", "failed -107")
    device.services("start", "network")
    # The service numbers its connections anew; the handles stay the same.
    probe.ask_until("profiles", order)

    device.run("nmcli connection delete phone twin twin twin twin")
    device.run("nmcli connection modify b-wired connection.autoconnect-priority 9")
    probe.ask_until("profiles", "1: 2 ethernet, 0: 2 ethernet, 2: 1 wifi, 4: 3 bluetooth, "
                                       "9: 2 ethernet")


def test_a_removed_profile_is_disconnected_and_may_return(device, watching_probe):
    probe = watching_probe
    device.run(f"cp {CONNECTIONS}/wired.nmconnection /run/kept.nmconnection")
    device.run("nmcli connection delete wired")
    probe.changes_until(DISCONNECTED[1])
    probe.ask_until("profiles", "none")
    device.run(f"mv /run/kept.nmconnection {CONNECTIONS}/wired.nmconnection")
    device.run("nmcli connection reload")
    probe.changes_until(CONNECTED[1])
    assert probe.ask("profiles") == "0: 2 ethernet"


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
    assert probe.ask("profiles") == "0: 2 ethernet"


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
    for command in ["type", "state ethernet", "profiles"]:
        assert probe.ask(command) == "failed -107"
    device.run(f"rm {CONNECTIONS}/*; ip address flush dev eth0")
    device.services("start", "system-bus", "network")
    probe.ask_until("profiles", "none")
    assert probe.ask("type") == "0 disconnected"
    device.add_wired()
    probe.changes_until(CONNECTED[0])


@pytest.mark.parametrize("hanging", ["network", "system-bus"])
def test_waits_for_a_hanging_service_once(device, start_probe, hanging):
    device.connect_wired()
    device.services("pause", hanging)
    probe = start_probe()
    try:
        # A wait for each of them would take longer than the time limit of a result.
        probe.send(*["type", "profiles"] * 10)
        for _ in range(20):
            assert probe.result() == "failed -110"
        assert probe.ask("watch-type") == "ok"
    finally:
        device.services("resume", hanging)
    assert probe.next_change()[1] == CONNECTED[0]
    assert probe.ask("type") == "3 ethernet"


def test_keeps_the_last_state_while_the_service_hangs(device, watching_probe):
    probe = watching_probe
    device.services("pause", "network")
    device.set_cable("down")
    assert probe.ask("type") == "3 ethernet"
    assert probe.ask("profiles") == "0: 2 ethernet"
    # It never continues, but is replaced.
    device.services("kill", "network")
    probe.changes_until(DISCONNECTED[0])
    device.services("start", "network")
    device.set_cable("up")
    probe.changes_until(CONNECTED[0])
