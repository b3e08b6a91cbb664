"""A box from bare to its first update, crash loops and removal, by the commands of docs/box.md."""

import re
import shutil
import time

import pytest
from box import BUILD, SOURCE, Box, Publisher, sh, wait_for

BLOCKS = re.findall(r"^```sh (\S+)\n(.*?)^```", (SOURCE / "docs/box.md").read_text(), re.M | re.S)
COPY, FIRMWARE_COPY = "/opt/usr/lib/libad-agent-fwk.so", "/usr/lib/libad-agent-fwk.so"
SETTINGS = "env DBUS_SESSION_BUS_ADDRESS=unix:path=/run/adagentd/bus dconf write "
CONSENT = SETTINGS + "/db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree "
GAVE_UP = f"adagentd-guard: gave up {COPY}"
PANIC = "/opt/usr/apps/adagent/panic"
INSTALLED = "m_ReplaceLibSo end"


def next_block(where):
    """Returns the page's next commands, which are for that machine."""
    label, script = BLOCKS.pop(0)
    assert label == where
    return script


@pytest.fixture(scope="module", name="machines")
def bare_machines():
    box, publisher = Box(BUILD / "box/box"), Publisher(BUILD / "box/publisher")
    box.boot()
    for home in (box.home(), publisher.home):
        sh(f"cp {BUILD}/packages/*.deb {home}")
    yield box, publisher
    print(box.journal("| grep -aE 'adagentd-guard|ad-agent: (update|loaded)|ad-mounter: |adagentd.service'"))
    box.cut_power()


def test_installs_from_packages(machines):
    box, publisher = machines
    assert "tools/package" in next_block("build")
    box.files = box.list_files()
    box.run(next_block("box"))
    box.wait_logged("Please check network")
    assert [box.property(name) for name in ("ActiveState", "Type", "User")] == \
        ["active", "notify", "adagent"]
    assert box.run("stat -c '%a %U %G' /usr/bin/ad-mounter") == "4750 root adagent\n"
    publisher.run(next_block("publisher"))
    shutil.copy(publisher.home / "maker.pub", box.home())
    shutil.copy(publisher.home / "index.pub", box.home())
    box.run(next_block("box"))


def test_updates_with_read_only_usr(machines):
    box, publisher = machines
    box.cut_power()
    box.boot("ro")
    publisher.serve()
    box.run(next_block("box"))
    box.wait_logged("CONNECTION_TYPE_ETHERNET")
    box.run(next_block("box"))
    box.wait_logged("defaultdisclaimeragree, value = 1(int)")
    box.run("useradd stranger")
    assert "Permission denied" in box.run(f"! runuser -u stranger -- {CONSENT} 1")
    publisher.run(next_block("publisher"))
    box.run(next_block("box"))
    box.wait_logged(INSTALLED)
    mark = box.mark()
    box.run(next_block("box"))
    box.wait_logged(f"ad-agent: loaded from {COPY}")
    report = box.run(next_block("box"))
    print(report)
    assert COPY in report and "1.06" in report
    assert f"loaded from {COPY}" in box.run(next_block("box"))
    box.run("diff -r /usr/share/ad-agent/res /usr/bin/zels/zelADAgent/adplayer/res")
    memory = box.run(f"sed -n 's/^[RP]ss: *//p' /proc/{box.property('MainPID')}/smaps_rollup").split()
    print(f"memory of the daemon: {memory[0]} kB resident, its share of that {memory[2]} kB")
    # 8 MB, and what the kernel maps around the pages of libraries that are used.
    assert int(memory[0]) < 8.5 * 1024
    # It does not look for another image after that.
    box.wait_logged("[CADAgentd] Start end", since=mark)


def test_image_that_crashes_is_given_up_for_good(machines):
    box, publisher = machines
    publisher.publish("1.07", BUILD / "lib/libbox-init.so")
    mark = box.mark()
    box.run("systemctl restart adagentd")
    box.wait_logged(INSTALLED, since=mark)
    mark = box.mark()
    box.run("systemctl restart --no-block adagentd")
    box.wait_logged(GAVE_UP, 60, since=mark)
    box.wait_logged("refused: ", since=mark)
    assert "crashed" in box.run("adagentctl status || true")
    publisher.publish("1.08", BUILD / "lib/libad-agent-fwk.so")
    mark = box.mark()
    box.run("systemctl restart adagentd")
    box.wait_logged(INSTALLED, since=mark)
    for _ in range(4):  # A good copy survives power cuts right after it has started.
        mark = box.mark()
        box.run("sync; systemctl restart adagentd")
        box.wait_logged(f"ad-agent: loaded from {COPY}", since=mark)
        box.cut_power()
        box.boot()


@pytest.mark.parametrize("kind, limit", [
    ("constructor", 60), ("init", 60), ("immediate_exit", 60), ("exit", 60), ("later", 60),
    ("hang_later", 60), ("hang", 180)])
def test_recovers(machines, kind, limit):
    box, _ = machines
    # Without consent the daemon waits, so that a watchdog this short does not disturb it.
    box.run(f"{CONSENT} 0; systemctl stop adagentd; mkdir -p /run/systemd/system/adagentd.service.d")
    box.run("printf '[Service]\\nWatchdogSec=5\\n' >/run/systemd/system/adagentd.service.d/test.conf")
    shutil.copy(BUILD / f"lib/libbox-{kind}.so", box.path(COPY))
    mark, start = box.mark(), time.monotonic()
    box.run("systemctl daemon-reload; systemctl start --no-block adagentd")
    box.wait_logged(f"ad-agent: loaded from {FIRMWARE_COPY}", limit, since=mark)
    print(f"{kind}: on the firmware's copy after {time.monotonic() - start:.0f} s")
    assert GAVE_UP in box.journal(mark)


def test_recovers_from_reboots(machines):
    box, _ = machines
    shutil.copy(BUILD / "lib/libbox-panic.so", box.path(COPY))
    mark, boots, start = box.mark(), 0, time.monotonic()
    box.run("sync; systemctl restart --no-block adagentd")
    while wait_for(lambda: box.path(PANIC).exists() or GAVE_UP in box.journal(mark), 30) \
            and box.path(PANIC).exists():
        box.path(PANIC).unlink()
        box.cut_power()
        box.boot(complete=False)
        boots += 1
        assert boots < 10
    print(f"panic: given up after {boots} boots, {time.monotonic() - start:.0f} s")
    box.wait_logged(f"ad-agent: loaded from {FIRMWARE_COPY}")


def test_upgrades_and_leaves_nothing(machines):
    box, _ = machines
    print(box.run(next_block("box")).splitlines()[-1])
    upgrade, remove, purge = next_block("box").splitlines()
    # The other platform takes this one's place, and the upgrade brings this one back.
    box.run("apt install ./libad-platform-simulated_*.deb")
    wait_for(lambda: (box.property("ActiveState"), box.property("Type")) == ("active", "simple"), 30)
    before = box.property("MainPID")
    box.run(upgrade + "; apt purge libad-platform-simulated")
    wait_for(lambda: box.property("MainPID") not in ("0", before), 30)
    assert box.run("stat -c '%a %U %G' /usr/bin/ad-mounter") == "4750 root adagent\n"
    box.run(remove)
    assert "adagentd" not in box.run("ps -A -o comm=")
    box.run(purge)
    assert {file for file in box.list_files() - box.files
            if re.search("^/opt|zel|ad-?(agent|mounter|platform)", file)} == set()
    assert box.run("getent passwd adagent || true; getent group adagent || true") == ""
    assert BLOCKS == []
