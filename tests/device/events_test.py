"""What happens after the daemon has found its gate closed."""

from device import GATE_CLOSED, STARTED, on_each_platform, on_linux


@on_each_platform
def test_network_consent_and_network_again_open_the_gate(device):
    device.do("publish", "1.05")
    device.boot(until=GATE_CLOSED)
    device.do("set", "network", "up")
    device.await_log("[CADAgentd] T&C is = [0].")
    device.await_log(STARTED)
    assert device.requests("/TileAd/v2") == 0

    device.do("set", "consent", "1")
    device.await_requests("/AppsAd/v2", 1)
    assert "m_CheckZelPath" not in device.log()

    device.do("set", "network", "down")
    device.await_log("Current Network State is 0")
    device.do("set", "network", "up")
    device.await_log("[CADAgentd] T&C is = [1].")
    device.await_log("[CADAgentd] m_ReplaceLibSo end")
    device.assert_installed("1.05")

    device.do("set", "network", "down")
    device.await_log("Current Network State is 0", times=2)
    device.do("set", "network", "up")
    device.await_log('Already done. Do not launch "Start" function')


@on_each_platform
def test_each_language_change_requests_the_configuration(device):
    device.do("set", "network", "up")
    device.boot(until="[CADAgentd] T&C is = [0].")
    for times, language in enumerate(("de_DE", "fr_FR"), 1):
        device.do("set", "language", language)
        device.await_requests("/AppsAd/v2", times)
        assert device.requests("/TileAd/v2") == times


@on_each_platform
def test_configuration_request_waits_for_the_settings_marker(device):
    settings = device.opt / "etc/ad-agent.conf"
    settings.write_text("[server]\nurl=\n[timeouts]\nstall=7\n")
    device.open_gate()
    device.boot("--unready", until="[CADAgentd] Vconf is not ready, sleep!")
    assert device.requests("/TileAd/v2") == 0
    device.do("exec", "touch", "/tmp/vconf_ready")
    device.await_log(STARTED)
    assert device.requests("/TileAd/v2") == 1
    assert "stall=7" in settings.read_text()


@on_linux
def test_connection_taken_down_and_up_opens_the_gate(device):
    device.do("set", "network", "up")
    device.boot(until="[CADAgentd] T&C is = [0].")
    device.do("exec", "nmcli", "connection", "down", "wired")
    device.await_log("Current Network State is 0")
    device.do("exec", "dconf", "write",
              "/db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree", "1")
    device.await_log("defaultdisclaimeragree, value = 1(int)")
    assert device.requests("/AppsAd/v2") == 0
    device.do("exec", "nmcli", "connection", "up", "wired")
    device.await_log("[CADAgentd] T&C is = [1].")
    device.await_requests("/AppsAd/v2", 1)


@on_linux
def test_update_completes_after_every_service_was_replaced(device):
    device.do("publish", "1.05")
    device.boot(until=GATE_CLOSED)
    device.do("services", "kill")
    device.do("services", "start")
    device.do("set", "consent", "1")
    device.await_log("defaultdisclaimeragree, value = 1(int)")
    device.do("set", "network", "up")
    device.await_log(STARTED)
    device.assert_installed("1.05")
