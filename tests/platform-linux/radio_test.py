"""Wi-Fi, cellular and Bluetooth, which cannot be activated without hardware: a mock of
NetworkManager reports what the real one would."""

import time

import dbus
import pytest

import platform_probe
from conftest import watch

NAME = "org.freedesktop.NetworkManager"
ROOT = "/org/freedesktop/NetworkManager"
ACTIVE = ROOT + "/ActiveConnection/0"
RADIO = ROOT + "/Devices/radio"


class Mock:
    """A NetworkManager with one radio, whose properties the test sets."""

    def __init__(self):
        self.bus = dbus.bus.BusConnection("unix:path=/run/dbus/system_bus_socket")

    def call(self, path, interface, method, *arguments):
        return self.bus.get_object(NAME, path, introspect=False).get_dbus_method(
            method, "org.freedesktop." + interface)(*arguments)

    def update(self, path, interface, **properties):
        self.call(path, "DBus.Mock", "UpdateProperties", NAME + interface, properties)

    def set_device_state(self, state):
        self.update(RADIO, ".Device", State=dbus.UInt32(state))

    def set_active_state(self, state):
        self.update(ACTIVE, ".Connection.Active", State=dbus.UInt32(state))

    def set_primary(self, path):
        self.call(ROOT, "DBus.Properties", "Set", NAME, "PrimaryConnection",
                  dbus.ObjectPath(path))

    def add_radio(self, device_type, connection_type):
        self.call(ROOT, "DBus.Mock", "AddWiFiDevice", "radio", "radio0", 30)
        self.update(RADIO, ".Device", DeviceType=dbus.UInt32(device_type))
        settings = {"id": "mine", "uuid": "a-uuid", "type": connection_type}
        self.call(ROOT + "/Settings", "NetworkManager.Settings", "AddConnection",
                  dbus.Dictionary({"connection": settings}, signature="sa{sv}"))

    def activate(self):
        self.call(ROOT, "DBus.Mock", "AddActiveConnection", [dbus.ObjectPath(RADIO)],
                  dbus.ObjectPath(ROOT + "/Settings/0"), dbus.ObjectPath("/"), "0",
                  dbus.UInt32(1))


@pytest.fixture
def mock(device):
    device.services("stop", "network")
    with platform_probe.Process("/usr/bin/python3", "-m", "dbusmock", "--system", "--template",
                                "networkmanager"):
        # It owns its name some time before it has its objects.
        device.run(f"for i in $(seq 500); do gdbus introspect --system -d {NAME} -o "
                   f"{ROOT}/Settings | grep -q AddConnection && exit; sleep 0.02; done; exit 1")
        mock = Mock()
        mock.call(ROOT, "DBus.Mock", "AddProperty", NAME, "PrimaryConnection",
                  dbus.ObjectPath("/"))
        yield mock


@pytest.mark.parametrize(
    "name, device_type, connection_type, profile_type, connection, connected",
    [("wifi", 2, "802-11-wireless", "1 wifi", "1 wifi", 2),
     ("cellular", 8, "gsm", "0 cellular", "2 cellular", 5),
     ("bluetooth", 5, "bluetooth", "3 bluetooth", "4 bluetooth", 2)])
def test_connects_and_disconnects(mock, probe, name, device_type, connection_type, profile_type,
                                  connection, connected):
    watch(probe)
    assert probe.ask(f"state {name}") == "0"
    mock.add_radio(device_type, connection_type)
    probe.ask_until(f"state {name}", "1")

    # In NetworkManager's order.
    mock.activate()
    mock.set_device_state(50)
    assert probe.next_change()[1] == "profile 0 1"
    mock.set_primary(ACTIVE)
    mock.set_device_state(70)
    # The primary connection is named before it is activated.
    assert probe.next_change()[1] == "profile 0 2"
    assert probe.ask("type") == "0 disconnected"
    mock.set_device_state(100)
    mock.set_active_state(2)
    assert probe.next_change()[1] == f"type {connection}"
    assert probe.next_change()[1] == "profile 0 3 connected"
    assert probe.ask("type") == connection
    assert probe.ask("profiles") == f"0: {profile_type}"
    assert probe.ask(f"state {name}") == f"{connected} connected"
    assert probe.ask("state ethernet") == "0"

    mock.set_active_state(3)
    mock.set_device_state(30)
    mock.set_primary("/")
    assert probe.next_change()[1] == "type 0 disconnected"
    assert probe.next_change()[1] == "profile 0 0"
    probe.ask_until(f"state {name}", "1")
    assert probe.ask("profiles") == "0: 2 ethernet"


def test_another_type_of_connection_without_a_loss_is_reported(mock, probe):
    watch(probe)
    mock.add_radio(1, "802-3-ethernet")
    mock.activate()
    mock.set_primary(ACTIVE)
    mock.set_active_state(2)
    probe.changes_until("type 3 ethernet", "profile 0 3 connected")
    mock.update(ACTIVE, ".Connection.Active", Type="802-11-wireless")
    assert probe.next_change()[1] == "type 1 wifi"
    assert probe.next_change()[1] == "profile 0 3 connected"
    assert probe.ask("profiles") == "0: 1 wifi"


def test_reports_a_loss_during_an_activation_only_if_it_lasts(mock, probe):
    mock.add_radio(2, "802-11-wireless")
    mock.activate()
    mock.set_primary(ACTIVE)
    mock.set_active_state(2)
    probe.ask_until("type", "1 wifi")
    assert probe.ask("watch-type") == "ok"
    begin = time.monotonic_ns() // 1000
    mock.set_active_state(1)
    end, change = probe.next_change()
    assert change == "type 0 disconnected"
    assert end - begin >= 100_000, "microseconds"
