"""The daemon while its services are killed: before it starts, while it starts, while it idles
and in the middle of a change. It must live, and notice the next change."""

import itertools
import time

import pytest

from conftest import CONSENT

STAGES = ["before the start", "during the start", "idle", "during a change"]


def expect_setting(device, daemon, value):
    device.write_setting(CONSENT, value)
    daemon.wait_for(f"value = {value}(int)")
    device.run("journalctl --sync; journalctl -t AD_DAEMON -a "
               f"| grep -qF 'value = {value}(int)'")


def expect_network(device, daemon):
    # It came back, which is reported to the daemon.
    daemon.wait_for("Check Profile is registered or not")
    device.set_cable("down")
    daemon.wait_for("Unknown Type, 0")
    device.set_cable("up")
    daemon.wait_for("Check Profile is registered or not")
    daemon.wait_for("[CADAgentd] T&C is")


@pytest.mark.parametrize("service", ["session-bus", "settings", "network", "system-bus network",
                                     "log"])
def test_daemon_survives_outages(device, restart_daemon, service):
    device.write_setting(CONSENT, "0")
    device.connect_wired()
    daemon = None
    # The moment of a kill moves with the round.
    for delay, stage in itertools.product(range(3), STAGES):
        if stage == "during the start":
            daemon = restart_daemon()
            time.sleep(delay * 0.004)
        elif stage == "during a change":
            # Written in the background, since the writer may wait for the service.
            device.run(f"dconf write /db/menu_widget/language \"'{delay}'\" >/dev/null 2>&1 & "
                       "ip link set far0 down")
            time.sleep(delay * 0.04)
        device.services("kill", service)
        if stage == "before the start":
            daemon = restart_daemon()
        if "start" in stage:
            daemon.wait_for(" Network is ")  # It has all of its watches by then.
        device.set_cable("up")
        device.services("start", service)
        if "network" in service:
            expect_network(device, daemon)
        else:
            expect_setting(device, daemon, 1000 + delay * len(STAGES) + STAGES.index(stage))
        assert daemon.child.poll() is None, "\n".join(daemon.transcript)
    assert daemon.stop() == 0
