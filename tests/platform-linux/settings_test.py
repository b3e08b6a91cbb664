"""The settings store on dconf, written with dconf(1)."""

import socket
import threading

import pytest

KEY = "db/test/value"


def watch(probe, key=KEY):
    assert probe.ask(f"watch {key}") == "ok"
    return probe


def change(value, type_code=41, key=KEY):
    return f"setting {key} {type_code} {value}"


def test_reports_type_and_value_of_each_change(device, probe):
    watch(probe)
    assert probe.ask(f"get {KEY}") == "failed -2"
    for written, type_code, result in [
            ("1", 41, "1"), ("0", 41, "0"), ("-2147483648", 41, "-2147483648"),
            ("'1'", 115, "failed -22"), ("true", 98, "failed -22"), ("1.5", 100, "failed -22"),
            ("uint32 7", 117, "failed -22"), ("['a']", 97, "failed -22"), ("1", 41, "1")]:
        device.write_setting(KEY, written)
        value = result if type_code == 41 else 0
        assert probe.next_change()[1] == change(value, type_code)
        assert probe.ask(f"get {KEY}") == result
    device.run(f"dconf reset /{KEY}")
    assert probe.next_change()[1] == change(0, 0)
    assert probe.ask(f"get {KEY}") == "failed -2"
    for key in ["", "/db/a", "db/a/"]:
        assert probe.ask(f"get {key}") == probe.ask(f"watch {key}") == "failed -22"


def test_reports_only_changes_of_the_key_to_every_watch(device, probe):
    device.write_setting(KEY, "1")
    watch(watch(probe))
    watch(probe, "db/test/other")
    for key in [KEY, "db/test/value2", "db/test/valu", "db/test/value/below"]:
        device.write_setting(key, "1")
    device.run("dconf reset -f /db/another/")
    # For a directory that is reset or loaded, dconf signals the directory, not the key.
    device.run("dconf reset -f /db/")
    device.run(r"printf '[test]\nvalue=5\nother=6\n' | dconf load /db/")
    seen = [probe.next_change()[1] for _ in range(5)]
    assert seen[:2] == [change(0, 0)] * 2
    assert sorted(seen[2:]) == sorted([change(5)] * 2 + [change(6, key="db/test/other")])


def test_reports_a_change_that_was_undone_while_the_main_loop_was_busy(
        device, probe, start_probe):
    witness = watch(start_probe())
    device.write_setting(KEY, "1")
    assert witness.next_change()
    watch(probe).ask("hold")
    for value in ["0", "1"]:
        device.write_setting(KEY, value)
        assert witness.next_change()[1] == change(value)
        device.run("sleep 0.1")  # The held probe has seen it too by then.
    probe.ask("release")
    assert probe.next_change()[1] == change(1)
    device.write_setting(KEY, "2")
    assert probe.next_change()[1] == change(2)


def test_finds_the_bus_of_the_user_without_a_session(device, start_probe):
    # As in a system unit, which does not share dconf's marker of changes either.
    probe = watch(start_probe(XDG_RUNTIME_DIR=None))
    for value in ["1", "2", "3"]:
        device.write_setting(KEY, value)
        assert probe.next_change()[1] == change(value)
        assert probe.ask(f"get {KEY}") == value


def test_reports_missed_changes_after_the_bus_reconnects(device, probe):
    for outage in [1, 2]:
        device.services("kill", "session-bus")
        if outage == 1:
            watch(probe)
        # On another bus, over the same database.
        device.run(f"dbus-run-session -- dconf write /{KEY} {outage}")
        assert probe.ask(f"get {KEY}") == str(outage)
        device.run("sleep 0.3")  # Several attempts, which are logged once.
        log = device.run("journalctl --sync; journalctl -o cat -t ad-platform -g "
                         f"'ad-settings.*/run/user/0/bus.*will retry' _PID={probe.child.pid}")
        assert log.count("\n") == outage, log
        device.services("start", "session-bus")
        assert probe.next_change()[1] == change(outage)
        device.write_setting(KEY, "8")
        assert probe.next_change()[1] == change(8)


def test_answers_while_the_bus_hangs(device, probe):
    device.services("pause", "session-bus")
    watch(probe)
    assert probe.ask(f"get {KEY}") == "failed -2"
    device.services("resume", "session-bus")
    device.write_setting(KEY, "1")
    assert probe.next_change()[1] == change(1)


@pytest.fixture
def held_bus(tmp_path):
    """A bus address whose connection is held from the first subscription until released."""
    path = str(tmp_path / "bus")
    subscribing, released = threading.Event(), threading.Event()

    def forward(source, sink):
        while data := source.recv(65536):
            if b"AddMatch" in data:
                subscribing.set()
                released.wait()
            sink.sendall(data)

    def serve():
        client = listener.accept()[0]
        bus.connect("/run/user/0/bus")
        threading.Thread(target=forward, args=(bus, client), daemon=True).start()
        forward(client, bus)

    with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX) as bus:
        listener.bind(path)
        listener.listen()
        threading.Thread(target=serve, daemon=True).start()
        yield f"unix:path={path}", subscribing, released
        released.set()


def test_reads_the_value_only_once_it_is_subscribed(device, start_probe, held_bus):
    address, subscribing, released = held_bus
    probe = watch(start_probe(DBUS_SESSION_BUS_ADDRESS=address))
    assert subscribing.wait(8)
    device.write_setting(KEY, "1")
    released.set()
    assert probe.next_change()[1] == change(1)
