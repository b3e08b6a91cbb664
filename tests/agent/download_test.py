"""Downloads that are interrupted and resumed, and what their processes leave behind."""

import os
import pathlib
import re
import select
import signal
import time

import pytest
from conftest import IMAGE, TENTH

PATH = "/images/zelADAgent-1.06.img"


def kill(device, host):
    """Kills a host, with which its transfer must end."""
    transfer = os.pidfd_open(device.children(host.pid)[0])
    host.kill()
    host.wait()
    assert select.select([transfer], [], [], 10)[0], "the transfer outlives its host"


def kill_at(device, size):
    """Kills a host in the middle of a new download, after so many bytes."""
    for path in device.data.glob("zelADAgent.img*"):
        path.unlink()
    device.server.misbehave(f"/images/* stall {size}")
    host = device.start("update", "1.05")
    device.await_part(size)
    kill(device, host)
    device.server.misbehave()
    device.server.requests()


def complete(device, **options):
    """Updates. Returns the requests for the image and the log."""
    log = device.expect_update(**options)
    assert device.names("zelADAgent.img*") == {"zelADAgent.img"} and not device.names("*.part")
    return device.server.requests()[1:], log


def test_downloads_an_image_once(device, server):
    requests, log = complete(device, CHILDREN="ignored")
    assert requests == [PATH]
    # One line for each tenth, and three around them.
    assert "update: downloaded 30 % of 400000 bytes\n" in log and 5 <= log.count("\n") <= 13
    # The host has not taken it: there is no need to download it again.
    assert "version 1.06 was already downloaded to" in device.expect_update("0.00")
    assert server.requests() == ["/update.ini 304"]
    device.expect_update("1.06", image=server.publish("1.07"))
    # A server that withdraws it leaves nothing of it here.
    server.offer("1.06", IMAGE)
    device.expect_no_update("1.06 is not newer than the stored version 1.06", "1.06")
    assert device.names("zelADAgent.img*") == set()


def test_resumes_where_the_host_was_killed(device):
    for size in (TENTH, 9 * TENTH):
        kill_at(device, size)
        device.write("data/update.ini.part", "left by a kill at another time")
        requests, log = complete(device)
        assert requests == [f"{PATH} from {size}"] and f"resuming after {size} bytes" in log
        assert log.count(" % of ") <= 10 - size // TENTH
    kill_at(device, TENTH)
    device.expect_no_update("not newer", "1.06")
    assert device.names("zelADAgent.img*") == set()


def test_reconnects_as_long_as_bytes_arrive(device, server):
    server.misbehave(f"/images/* cut {TENTH}")
    assert complete(device)[0] == [PATH, *(f"{PATH} from {TENTH * i}" for i in range(1, 10))]
    device.image.unlink()
    server.misbehave("/images/* cut 1")
    device.expect_no_update("bytes remaining")
    assert len(server.requests()) == 51  # of the index and the image
    device.part.unlink()
    # Bytes that stop arriving are the same, but not beyond the time-out of the image.
    server.misbehave(f"/images/* stall {TENTH}")
    device.configure(server.url, "[timeouts]", "stall=1", "image=2")
    assert not device.update().ok
    device.part.unlink()
    server.misbehave(f"/images/* stall {5 * TENTH}")
    device.configure(server.url, "[timeouts]", "stall=1")
    server.requests()
    assert complete(device)[0] == [PATH, f"{PATH} from {5 * TENTH}"]


def test_starts_over_when_the_file_has_changed(device, server):
    validator = device.data / "zelADAgent.img.validator"
    kill_at(device, TENTH)
    assert complete(device, image=server.publish("1.06"))[0] == [PATH]
    server.offer("1.06", IMAGE)
    # The server takes it for another file, or for one that it cannot tell from another.
    for pattern, change in (("\n\"", "\n\"another"), ("\n\"", "\nW/\""), ("^.", "x")):
        kill_at(device, TENTH)
        validator.write_text(re.sub(pattern, change, validator.read_text(), count=1))
        requests, log = complete(device)
        assert requests == [PATH] and ("resuming" in log) == ("another" in change)
    for fault in ("norange", "noetag"):
        kill_at(device, TENTH)
        server.misbehave(f"/images/* {fault}")
        assert complete(device)[0] == [PATH]
    # What it had is discarded at once, not only when the rest has arrived.
    kill_at(device, 5 * TENTH)
    server.misbehave(f"/images/* noetag {TENTH}")
    device.expect_no_update("bytes remaining")
    assert device.part.stat().st_size == TENTH and not validator.exists()


def test_does_not_trust_a_partial_download(device, server):
    kill_at(device, 9 * TENTH)
    device.part.write_bytes(b"\xff" + device.part.read_bytes()[1:])
    requests, log = complete(device)
    assert requests == [f"{PATH} from 360000", PATH] and "the partial download is corrupt" in log
    # All of it arrived before the kill, and more than all of it.
    for extra, expected in ((b"", []), (b"x", [PATH])):
        kill_at(device, TENTH)
        device.part.write_bytes(IMAGE + extra)
        assert complete(device)[0] == expected
    # A captive portal in between does not cost what is there.
    kill_at(device, TENTH)
    for fault in ("shift 10", "declare 10", "status 200", "status 500"):
        server.misbehave(f"/images/* {fault}")
        assert not device.update().ok and device.part.stat().st_size == TENTH, fault
    server.misbehave()
    server.requests()
    assert complete(device)[0] == [f"{PATH} from 40000"]
    # The server's file ends before that; or the disk is full.
    kill_at(device, TENTH)
    server.misbehave("/images/* status 416")
    assert not device.update().ok and not device.part.exists()
    server.misbehave()
    device.write("image", IMAGE)
    device.image.symlink_to(device.root / "image")
    device.trace("-e", "trace=pwrite64", "-e", "inject=pwrite64:error=ENOSPC:when=3+")
    device.expect_no_update("failed to write: No space left on device")
    assert not device.part.exists()


@pytest.mark.parametrize("act, reason, stopped", [
    (lambda host, transfer: os.kill(transfer, signal.SIGKILL), "killed by signal 9", 0),
    # Neither the host's handler nor another child of the host's affects the transfer.
    (lambda host, transfer: os.kill(transfer, signal.SIGTERM), "killed by signal 15", 0),
    (lambda host, transfer: os.kill(host, signal.SIGTERM), "interrupted by a signal", 1),
    (lambda host, transfer: None, "timed out", 0)])
def test_reports_what_ended_a_download(device, server, act, reason, stopped):
    server.misbehave(f"/images/* stall {TENTH}")
    device.configure(server.url, "[timeouts]", "image=2")
    device.record("1.05")
    host = device.start("update", "1.05", CHILDREN="unrelated")
    device.await_part(TENTH)
    act(host.pid, device.children(host.pid)[-1])
    result = device.finish(host, children=1, stopped=stopped)
    assert not result.ok and reason in result.log
    assert device.names("zelADAgent.img*") == {"zelADAgent.img.part", "zelADAgent.img.validator"}


def test_transfer_without_a_host_does_nothing(device, server):
    # The host dies before its transfer could ask to die with it.
    device.trace("-D", "-e", "trace=prctl", "-e", "inject=prctl:delay_enter=1000000")
    host = device.start("update", "1.05")
    name = pathlib.Path(f"/proc/{host.pid}/comm")
    while name.read_text() != "agent-driver\n" or not device.children(host.pid):
        time.sleep(0.002)
    kill(device, host)
    assert server.requests() == []
