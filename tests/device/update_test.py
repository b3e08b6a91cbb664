"""The way of every device: firmware copy, download, installation, restart on the new
copy, and back to the firmware copy when the new one fails or the firmware changes."""

from device import GATE_CLOSED, on_each_platform


@on_each_platform
def test_installs_the_update_and_boots_on_it(device):
    device.resources.joinpath("stale.txt").write_text("from the firmware\n")
    device.do("publish", "1.05")
    device.open_gate()
    device.boot()
    log = device.log()
    assert "Successfully get /usr/lib agent so" in log
    assert (device.requests("/TileAd/v2"), device.requests("/AppsAd/v2")) == (1, 1)
    assert log.count("[ad_mount] Mount done !!") == log.count("[ad_umount] umount done !!") == 2
    device.assert_installed("1.05")
    assert device.player_copy.exists()
    assert not (device.resources / "stale.txt").exists()
    device.stop()
    assert device.leftovers() == []

    device.install("1.04")
    log = device.log()
    assert "Successfully get so" in log
    assert "Version = 1.05" in log
    assert "replace img file" not in log
    device.assert_installed("1.05")
    device.install("1.1")
    device.assert_installed("1.1")


@on_each_platform
def test_falls_back_to_the_firmware_copy(device):
    device.install("1.05")
    device.agent_copy.write_text("not a library")
    device.do("set", "network", "down")
    device.boot(until=GATE_CLOSED)
    device.stop()
    log = device.log()
    assert "Can't dlopen /opt/usr/lib/libad-agent-fwk.so" in log
    assert "Successfully get /usr/lib agent so" in log
    assert "Save Firm File done : T-1200.1" in log
    assert device.agent_copy.parent.exists()
    # The bad version is not installed again, neither from the stored image nor from the server.
    device.update()
    assert not device.agent_copy.exists()
    device.install("1.06")
    device.assert_installed("1.06")

    device.do("set", "firmware", "T-1300.1")
    device.do("set", "network", "down")
    device.boot(until=GATE_CLOSED)
    device.stop()
    assert "Successfully get so" not in device.log()
    assert not device.agent_copy.exists() and not device.player_copy.exists()
    assert (device.opt / "media/Documents/adagentversion.txt").read_text() == "T-1300.1"


def test_refuses_a_forged_image_and_takes_the_next_one(device):
    device.do("publish", "1.05", "--flipped")
    device.update()
    assert "[CADAgentd] Replace /opt/usr/apps/adagent/zelADAgent.img to" in device.log()
    assert not device.stored_image.exists() and not device.agent_copy.exists()
    assert device.leftovers() == []
    device.install("1.06")
    device.assert_installed("1.06")


def test_leaks_nothing_under_valgrind(device):
    device.do("publish", "1.05")
    device.open_gate()
    device.boot("--under", "valgrind --quiet --leak-check=full --error-exitcode=99")
    device.assert_installed("1.05")
    device.do("set", "language", "de_DE")
    device.await_requests("/AppsAd/v2", 2)
