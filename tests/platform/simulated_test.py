"""The simulated platform through the probe, on a device of its own: a private /opt."""

import contextlib
import os
import pathlib
import subprocess
import sys

import pytest

SOURCE = pathlib.Path(os.environ["SOURCE_DIR"])
BUILD = pathlib.Path(os.environ["BUILD_DIR"])
sys.path.insert(0, str(SOURCE / "tools/platform-probe"))

from platform_probe import Probe  # noqa: E402

STATE = pathlib.Path("/opt/platform/state.ini")
LOG = STATE.with_name("platform.log")


def state(consent=0, kind="ethernet", wired=3, home=0, more=""):
    """A device's state as a person would write it."""
    return f"""[settings]
consent=int:{consent}
language=string:en_GB
[network]
type={kind}
profiles=wired;home
wifi=1
cellular=4
ethernet=2
bluetooth=3
[profile wired]
type=ethernet
state={wired}
[profile home]
type=wifi
state={home}
[system]
firmware=T-1200.1
{more}"""


def rename_over(text):
    STATE.with_suffix(".new").write_text(text, encoding="utf-8")
    STATE.with_suffix(".new").rename(STATE)


@pytest.fixture(autouse=True)
def device():
    """A device with that state."""
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/opt"], check=True)
    STATE.parent.mkdir()
    STATE.write_text(state(), encoding="utf-8")
    yield
    subprocess.run(["umount", "--lazy", "/opt"], check=True)


@pytest.fixture
def start_console():
    with contextlib.ExitStack() as stack:
        yield lambda: stack.enter_context(Probe(BUILD / "bin/platform-probe", BUILD / "lib"))


@pytest.fixture
def console(start_console):
    """A console that watches everything."""
    console = start_console()
    for command in ["profiles", "watch consent", "watch language", "watch-type",
                    "watch-profile 0", "watch-profile 1"]:
        console.ask(command)
    return console


def run_probe(*arguments):
    return subprocess.run([BUILD / "bin/platform-probe", *arguments], check=False,
                          capture_output=True, text=True)


def errors(console):
    """What the platform printed on standard error; all edits up to now have been read."""
    console.ask("type")
    return [line for line in console.transcript if line.startswith("simulated platform: ")]


@pytest.mark.parametrize("write", [STATE.write_text, rename_over])
def test_reports_edits_in_file_order(console, write):
    for text, reported in [
            (state(1, "wifi", 0, 3),
             ["setting consent 41 1", "type 1 wifi", "profile 0 0", "profile 1 3 connected"]),
            (state(1, "wifi", 2, 3), ["profile 0 2"]),
            # Equal values in another form.
            (state("01", "1", "+2", 3, "[network]\nwifi=2\n"), []),
            ("[profile home]\ntype=wifi\nstate=1\n[settings]\nlanguage=string:fr\n"
             "consent=int:2\n[network]\nprofiles=wired;home\n[profile wired]\ntype=ethernet\n",
             ["profile 1 1", "setting language 42 0", "setting consent 41 2", "profile 0 0",
              "type 0 disconnected"]),
            # A change of type alone; removed entries come last, profiles if they had a state.
            ("[settings]\nconsent=string:2\n",
             ["setting consent 42 0", "setting language 0 0", "profile 1 0"]),
            (state(), ["setting consent 41 0", "setting language 42 0", "type 3 ethernet",
                       "profile 0 3 connected"])]:
        write(text)
        assert errors(console) == []
        assert console.changes() == reported
    assert not LOG.exists()


def test_reads_only_the_last_of_several_edits(console):
    console.ask("hold")
    for write, consent in [(STATE.write_text, 1), (rename_over, 2), (STATE.write_text, 7)]:
        write(state(consent))
        assert console.ask("get consent") == "0", "until the main loop runs"
    console.ask("release")
    console.ask("type")
    assert console.changes() == ["setting consent 41 7"]


def test_keeps_the_last_good_state_until_there_is_a_better_one(console):
    with STATE.open("w", encoding="utf-8") as file:
        file.write(state(1))
        file.flush()
        STATE.with_name("other").write_text(state(1), encoding="utf-8")
        assert errors(console) == [], "while it is still being written"
        file.write("[torn")
    for count, bad in enumerate(["", state(1, more="[network"), state(1, "wlan"), state(1)[:-1]]):
        assert len(errors(console)) == len(LOG.read_text(encoding="utf-8").splitlines()) == 1 + count
        STATE.write_text(bad, encoding="utf-8")
    assert console.ask("get consent") == "0"
    assert errors(console)[3] == (f'simulated platform: {STATE}: [network] type: "wlan" is not a '
                                  "known type or a number; keeping the previous state")
    assert f" ERROR PLATFORM {STATE}: [network]" in LOG.read_text(encoding="utf-8")
    STATE.unlink()
    assert len(errors(console)) == 5
    assert console.changes() == []
    STATE.write_text(state(1), encoding="utf-8")
    assert len(errors(console)) == 5
    assert console.changes() == ["setting consent 41 1"]


def count_watches(console):
    return sum(file.read_text(encoding="ascii").count("inotify wd:")
               for file in pathlib.Path(f"/proc/{console.child.pid}/fdinfo").iterdir())


def test_follows_a_directory_that_appears_and_is_replaced(start_console):
    directory = STATE.parent.rename("/opt/first")
    console = start_console()
    assert console.ask("type") == "0 disconnected"
    assert console.ask("firmware") == console.ask("get consent") == "failed -2"
    assert console.ask("profiles") == "none"
    STATE.parent.mkdir()
    console.ask("type")
    STATE.write_text(state(1), encoding="utf-8")
    console.ask_until("get consent", "1")
    watches = count_watches(console)

    STATE.parent.rename("/opt/second")
    directory.rename(STATE.parent)
    console.ask_until("get consent", "0")
    STATE.write_text(state(3), encoding="utf-8")
    console.ask_until("get consent", "3")
    assert count_watches(console) == watches
    # Reported once while it is missing, and once when it is missing again.
    assert len(errors(console)) == 1
    STATE.parent.rename("/opt/third")
    STATE.parent.mkdir()
    assert len(errors(console)) == 2


def test_notices_an_edit_after_the_event_queue_overflowed(console):
    limit = int(pathlib.Path("/proc/sys/fs/inotify/max_queued_events").read_text("ascii"))
    if limit > 100000:
        pytest.skip(f"the queue takes {limit} events")
    console.ask("hold")
    # The kernel merges equal events in a row: two names in turn.
    for _ in range(limit // 2 + 1):
        for name in ["one", "two"]:
            os.close(os.open(STATE.with_name(name), os.O_WRONLY | os.O_CREAT))
    STATE.write_text(state(1), encoding="utf-8")
    console.ask("release")
    console.ask_until("get consent", "1")


@pytest.mark.parametrize("text, reason", [
    ("type=wifi\n", "group"),
    ("[network]\nwifi=on\n", '[network] wifi: "on"'),
    ("[network]\ncable=1\n", "[network] cable"),
    ("[network]\nprofiles=wired\n", "[profile wired]"),
    ("[network]\nprofiles=a\\qb\n", "[network] profiles"),
    ("[network]\nprofiles=p;p\n[profile p]\ntype=wifi\n", "p twice"),
    ("[profile p]\nstate=3\n", "[profile p] type"),
    ("[profile p]\ntype=disconnected\n", '"disconnected"'),
    ("[profile p]\ntype=wifi\nstate=up\n", '[profile p] state: "up"'),
    ("[profile p]\ntype=wifi\nstrength=3\n", "[profile p] strength"),
    ("[settings]\nkey=1\n", '[settings] key: "1"'),
    ("[settings]\nkey=int:1x\n", "int:1x"),
    ("[settings]\nkey=int:2147483648\n", "int:2147483648"),
    ("[settings]\nkey=double:1,5\n", "double:1,5"),
    ("[settings]\nkey=bool:maybe\n", "bool:maybe"),
    ("[settings]\nkey=float:true\n", "float:true"),
    ("[results]\nconnection_get_typ=1\n", "connection_get_typ"),
    ("[results]\nvconf_get_int=a\\nb\n", 'vconf_get_int: "a b"'),
    ("[system]\nmodel=3\n", "[system] model"),
    ("[setings]\nkey=int:1\n", "[setings]")])
def test_rejects_an_invalid_file_with_a_reason(text, reason):
    STATE.write_text(text, encoding="utf-8")
    shown = run_probe()
    assert reason in shown.stderr
    assert shown.stderr.count("\n") == 1


@pytest.mark.parametrize("name, connection, profile", [
    ("wifi", "1 wifi", "1 wifi"), ("cellular", "2 cellular", "0 cellular"),
    ("ethernet", "3 ethernet", "2 ethernet"), ("bluetooth", "4 bluetooth", "3 bluetooth"),
    ("-9", "-9", "-9")])
def test_connections_and_profiles_number_types_differently(name, connection, profile):
    STATE.write_text(f"[profile a]\ntype=wifi\n[profile p]\ntype={name}\n"
                     f"[network]\ntype={name}\nprofiles=p\n", encoding="utf-8")
    shown = run_probe().stdout
    assert f"connection type: {connection}\n" in shown
    assert f"profiles: 0: {profile}\n" in shown


def test_settings_have_types_and_normal_forms(console):
    for key in ["volume", "mute"]:
        console.ask(f"watch {key}")
    for volume, changes in [
            # The last of several equal keys counts.
            ("0.50", ["setting consent 41 7", "setting volume 43 0", "setting mute 44 0"]),
            ("0.5", [])]:
        text = f"volume=double:{volume}\nconsent=int:-4\nconsent=int:7\nmute=bool:true\n"
        STATE.write_text(state(more="[settings]\n" + text), encoding="utf-8")
        assert errors(console) == []
        assert console.changes() == changes


def test_log_follows_its_path_and_waits_for_its_directory(start_console):
    STATE.parent.rename("/opt/first")
    console = start_console()
    assert console.ask("log 2 lost") == "-2"
    STATE.parent.mkdir()
    console.ask("log 2 a")
    first = LOG.rename("/opt/first.log")
    LOG.write_text("rotated\n", encoding="utf-8")
    console.ask("log 2 b")
    second = LOG.rename("/opt/second.log")
    console.ask("log 2 c")
    assert [file.read_text(encoding="utf-8").split("Z ")[-1] for file in [first, second, LOG]] == [
        f"NORMAL platform-probe {letter}\n" for letter in "abc"]
    assert second.read_text(encoding="utf-8").startswith("rotated\n20")


PROFILES = "0: 2 ethernet, 1: 1 wifi"


@pytest.mark.parametrize("command, answer, function, forced", [
    ("firmware", "T-1200.1", "system_info_get_value_string", "failed -71"),
    ("type", "3 ethernet", "connection_get_type", "failed -71"),
    ("state wifi", "1", "connection_get_wifi_state", "failed -71"),
    ("state cellular", "4", "connection_get_cellular_state", "failed -71"),
    ("state ethernet", "2 connected", "connection_get_ethernet_state", "failed -71"),
    ("state bluetooth", "3", "connection_get_bt_state", "failed -71"),
    ("profiles", PROFILES, "connection_get_profile_iterator", "failed -71"),
    ("profiles", PROFILES, "connection_profile_iterator_has_next", "none"),
    ("profiles", PROFILES, "connection_profile_iterator_next", "failed -71"),
    ("profiles", PROFILES, "connection_profile_get_type", "failed -71"),
    ("watch-type", "ok", "connection_set_type_changed_cb", "failed -71"),
    ("watch-profile 0", "ok", "connection_profile_set_state_changed_cb", "failed -71"),
    ("unwatch-profile 0", "ok", "connection_profile_unset_state_changed_cb", "failed -71"),
    ("get consent", "0", "vconf_get_int", "failed -71"),
    ("watch consent", "ok", "vconf_notify_key_changed", "failed -71"),
    ("log 7 kept", "47", "__dlog_print", "-71")])
def test_every_call_answers_and_can_be_made_to_fail(console, command, answer, function, forced):
    assert console.ask(command) == answer
    STATE.write_text(state(more=f"[results]\n{function}=-71\n"), encoding="utf-8")
    console.ask("type")
    assert console.ask(command) == forced


def test_log_result_is_forced_from_the_first_reading(start_console):
    STATE.write_text(state(more="[results]\n__dlog_print=-71\n"), encoding="utf-8")
    assert start_console().ask("log 2 dropped") == "-71"


def test_keeps_the_promises_of_the_interface():
    check = run_probe("check", "--strict")
    assert check.returncode == 0, check.stdout
    # Lines of a signal handler fall between those that it interrupts.
    for line in LOG.read_text(encoding="utf-8").splitlines():
        assert line.split("Z NORMAL platform-probe ")[1] in [
            "a line", "another line", "interrupted", "from a signal handler"]


def find_broken_promises():
    check = run_probe("check")
    assert check.returncode == 1
    return [line[8:] for line in check.stdout.splitlines() if line.startswith("BROKEN")]


@pytest.mark.parametrize("function, broken", [
    ("connection_create", ["connection_create makes a client, even if its service is missing"]),
    ("connection_destroy", 2 * ["connection_destroy releases an iterator"] + [
        "connection_destroy releases a client"]),
    ("connection_profile_iterator_has_next", 2 * [
        "connection_profile_iterator_next at the end is refused"])])
def test_probe_finds_broken_promises(function, broken):
    STATE.write_text(state(more=f"[results]\n{function}=-71\n"), encoding="utf-8")
    assert find_broken_promises() == broken


def test_log_keeps_its_other_promises_without_its_directory():
    STATE.parent.rename("/opt/first")
    assert find_broken_promises() == ["__dlog_print returns the number of bytes written"]


def test_probe_shows_every_result():
    assert run_probe("show", "consent", "none").stdout.splitlines() == [
        "firmware: T-1200.1", "connection type: 3 ethernet", "wifi state: 1",
        "cellular state: 4", "ethernet state: 2 connected", "bluetooth state: 3",
        f"profiles: {PROFILES}", "setting consent: 0", "setting none: failed -2"]
