"""The platform log on journald, and the firmware version from os-release."""

import pathlib

import pytest


def journal(device, probe, priority):
    """The messages that a probe logged with this priority, a line each."""
    return device.run("journalctl --sync; journalctl -q -o cat -a -t platform-probe "
                      f"SYSLOG_FACILITY=3 _PID={probe.child.pid} PRIORITY={priority} || true")


def test_logs_lines_with_tag_and_priority(device, probe):
    long_line = "x" * 4000
    assert probe.ask("log 2 a line") == str(len("platform-probe: a line"))
    for line in ["16 100% \x1b[31m red: [1] tag: <3>", "4 another priority", f"2 {long_line}",
                 "4 \x1b[0;1m\x1b[mplain\x1b[2J\x1bxm\x1b\x1b[1\x1b[m"]:
        probe.ask(f"log {line}")
    assert journal(device, probe, 6) == f"a line\n{long_line}\n"
    assert journal(device, probe, 3) == "100%  red: [1] tag: <3>\n"
    # Without colours, but otherwise unchanged.
    assert journal(device, probe, 5) == "another priority\nplain\x1b[2J\x1bxm\x1b\x1b[1\n"
    probe.ask("log 4 " + "y" * 20000)
    assert 8000 < len(journal(device, probe, 5)) < 8300


def test_writes_to_standard_error_without_a_logger(device, probe):
    device.services("kill", "log")
    probe.send("log 16 unheard")
    assert probe.wait_for("unheard") == "platform-probe: unheard"
    device.services("start", "log")
    probe.ask("log 16 heard")
    assert journal(device, probe, 3) == "heard\n"


def test_a_hanging_logger_delays_one_line_only(device, probe):
    device.services("pause", "log")
    # Well over the time limit of a result if each line waited.
    assert probe.ask("log-burst 5000") == "ok"
    assert "platform-probe: burst 4999" in probe.transcript
    device.services("resume", "log")
    device.run("journalctl --sync")
    probe.ask("log 16 heard again")
    assert journal(device, probe, 3) == "heard again\n"


@pytest.mark.parametrize("os_release, version", [
    ("VERSION_ID=12\nIMAGE_VERSION=T-1200.3\n", "T-1200.3"),
    ('VERSION_ID="12.1"\n', "12.1"),
    ("IMAGE_VERSION='T 1200'\nVERSION_ID=12\n", "T 1200"),
    ("IMAGE_VERSION=\nVERSION_ID=12\n", "12"),
    ("NAME=Box\n", "failed -61")])
def test_prefers_the_version_of_the_image(device, probe, os_release, version):
    file = pathlib.Path("/run/os-release")
    file.write_text("IMAGE_VERSION=older\n", encoding="utf-8")
    device.run(f"mount --bind {file} /etc/os-release")
    assert probe.ask("firmware") == "older"
    file.write_text(os_release, encoding="utf-8")
    assert probe.ask("firmware") == version
