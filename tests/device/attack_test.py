"""Attacks on updates, by whoever holds the network, the content server, the keys that are online,
or the daemon's rights. The device stays on what it has, says why, and takes the next honest
image."""

import functools
import hashlib
import shutil
import threading

import content_server
import pytest
from device import BUILD, SOURCE, Device, run

PRODUCT = "demo-box"


class Maker:
    """Publishes for a device: honestly with ad-image, otherwise by writing the index itself."""

    def __init__(self, device):
        self.home, self.web = device.home, device.home / "www"
        self.faults, self.forged = self.home / "faults", 0
        self.keys = device.home / "usr-lib/upper/ad-mounter/keys"
        index_keys = device.home / "usr-lib/upper/ad-agent/keys"
        index_keys.mkdir(parents=True)
        self.keys.with_name("product").write_text(PRODUCT + "\n")
        self.tool("keygen", "--index", "--no-password", "--key", self.home / "index.key",
                  "--public", index_keys / "index.pub")
        for options, name in (([], "thief"), (["--index"], "index-thief")):
            self.tool("keygen", *options, "--no-password", "--key", self.home / f"{name}.key",
                      "--public", self.home / f"{name}.pub")
        server = content_server.Server(self.web, self.home / "requests", self.faults)
        self.url = f"http://127.0.0.1:{server.server_port}"
        threading.Thread(target=server.serve_forever, daemon=True).start()
        (self.home / "opt/etc/ad-agent.conf").write_text(
            "[server]\nurl=\n[timeouts]\nstall=5\ndocument=2\n")

    @staticmethod
    def tool(*command):
        run(SOURCE / "tools/ad-image", *command)

    @functools.lru_cache(maxsize=None)
    def image(self, version, key="maker", product=PRODUCT, **words):
        """Returns the path of a signed image."""
        image = self.home / f"{version}-{key}-{product}-{len(words)}.img"
        self.tool("pack", "--version", version, "--agent", BUILD / "lib/libad-agent-fwk.so",
                  "--player", BUILD / "lib/libad-player-fwk.so",
                  "--resources", SOURCE / "ad-agent/adplayer/res", "--output", image)
        options = [f"--{name.replace('_', '-')}={value}" for name, value in words.items()]
        self.tool("sign", "--key", self.home / f"{key}.key", "--product", product, *options, image)
        return image

    def publish(self, version, **options):
        """Publishes after the last honest index, which an attack may have replaced."""
        index, honest = self.web / "update.ini", self.home / "honest.ini"
        if honest.exists():
            shutil.copyfile(honest, index)
        self.tool("publish", "--index-key", self.home / "index.key",
                  self.image(version, **options), self.web)
        shutil.copyfile(index, honest)

    def forge(self, image, version="1.06", key="index", contents=None, serial=2,
              expires="2099-01-01T00:00:00Z"):
        """Serves an image with an index that states neither product nor firmware."""
        data = image.read_bytes()
        self.forged += 1  # no two indexes are alike, or the device has one already (304)
        (self.web / "images" / image.name).write_bytes(contents or data)
        index, signature = self.web / "update.ini", self.home / "signature"
        index.write_text(
            f"[image]\nversion={version}\nsize={len(data)}\nfile={image.name}\n"
            f"sha256={hashlib.sha256(data).hexdigest()}\n"
            f"[index]\nserial={serial}\nissued=2001-01-01T00:00:{self.forged:02}Z\n"
            f"expires={expires}\n")
        if key:
            run("minisign", "-S", "-s", self.home / f"{key}.key", "-m", index, "-x", signature)
            lines = signature.read_text().splitlines()
            index.write_text(index.read_text() + "".join(f"# {line}\n" for line in lines))

    def replay(self):
        """Serves the index from before the present one, under the same signature."""
        shutil.copyfile(self.home / "first.ini", self.web / "update.ini")

    def misbehave(self, fault):
        self.forge(self.image("1.06"))
        self.faults.write_text(fault)


@pytest.fixture(name="victim", scope="module")
def make_victim():
    """A device on version 1.05, with its maker. The tests share it: no attack may change it."""
    device = Device("attacked")
    device.maker = Maker(device)
    device.maker.publish("1.04")
    shutil.copyfile(device.maker.web / "update.ini", device.home / "first.ini")
    device.maker.publish("1.05")
    device.update("--url", device.maker.url)
    device.assert_installed("1.05")
    yield device
    device.do("destroy")


ATTACKS = {
    "arbitrary software, no key": (
        lambda maker: maker.forge(maker.image("1.06", "thief"), key=None),
        "index refused: not signed"),
    "arbitrary software, another key": (
        lambda maker: maker.forge(maker.image("1.06", "thief"), key="index-thief"),
        "index refused: signed by unknown key"),
    "arbitrary software, stolen index key": (
        lambda maker: maker.forge(maker.image("1.06", "thief")), "not signed with a trusted key"),
    "rollback": (
        lambda maker: maker.forge(maker.image("1.04"), version="9.99"),
        "signed for version 1.04, the index says 9.99"),
    "replay of an older index": (Maker.replay, "serial 1 is older than 2"),
    "freeze": (
        lambda maker: maker.forge(maker.image("1.06"), expires="2002-01-01T00:00:00Z"),
        "index refused: expired at 2002-01-01T00:00:00Z"),
    "endless index": (
        lambda maker: maker.misbehave("/update.ini endless"), "response exceeds the expected size"),
    "endless image": (
        lambda maker: maker.misbehave("/images/* endless"), "response exceeds the expected size"),
    "slow retrieval": (lambda maker: maker.misbehave("/update.ini drip"), "Operation timed out"),
    "mix and match": (
        lambda maker: maker.forge(maker.image("1.06"), contents=maker.image("1.05").read_bytes()),
        "version 1.06 refused: SHA-256 is "),
    "wrong product": (
        lambda maker: maker.forge(maker.image("1.06", product="other-box")),
        f"signed for product other-box, this device is {PRODUCT}"),
    "wrong firmware": (
        lambda maker: maker.forge(maker.image("1.06", min_firmware="T-1300.1")),
        "it requires firmware T-1300.1 or later, this is T-1200.1"),
}


def boot(victim):
    """Boots with the gate open until the update is through. Nothing temporary may be left."""
    victim.update("--url", victim.maker.url)
    print(victim.log())
    assert victim.leftovers() == []


@pytest.mark.parametrize("attack", ATTACKS)
def test_stays_on_what_it_has(victim, attack):
    prepare, reason = ATTACKS[attack]
    stored = victim.stored_image.read_bytes()
    prepare(victim.maker)
    boot(victim)
    assert reason in victim.log()
    victim.assert_installed("1.05")
    assert victim.stored_image.read_bytes() == stored
    victim.maker.faults.unlink(missing_ok=True)


def test_rolls_back_for_nobody_with_the_daemons_rights(victim):
    victim.maker.publish("1.07")
    boot(victim)
    victim.assert_installed("1.07")
    victim.do("exec", "ad-mounter", "--remove", "remove_zel_adagent_img_file")
    victim.agent_copy.unlink()
    download = "opt/usr/apps/adagent/zelADAgent.img"
    shutil.copyfile(victim.maker.image("1.05"), victim.home / download)
    store = victim.command("exec", "ad-mounter", "--replaceimg", f"/{download}",
                           "/opt/down/zels/zelADAgent_img/zelADAgent.img")
    refused = run(*store, check=False)
    reason = "version 1.05 is older than 1.07, the highest version ever stored here"
    assert refused.returncode == 65 and reason in refused.stdout
    # Nor does the agent library offer what would be refused.
    victim.maker.forge(victim.maker.image("1.05"), "1.05", serial=3)
    boot(victim)
    assert "version 1.05 is older than 1.07" in victim.log()
    assert not victim.stored_image.exists() and not victim.agent_copy.exists()
    victim.maker.publish("1.08")
    boot(victim)
    victim.assert_installed("1.08")


def test_takes_nothing_that_was_signed_with_a_removed_key(victim):
    maker = victim.maker
    maker.tool("keygen", "--no-password", "--key", maker.home / "new.key",
               "--public", maker.keys / "new.pub")
    (maker.keys / "device.pub").unlink()
    maker.publish("1.09")
    boot(victim)
    assert "[CADAgentd] Replace /opt/usr/apps/adagent/zelADAgent.img to" in victim.log()
    assert b"version:1.09" not in victim.stored_image.read_bytes()
    maker.publish("1.2", key="new")
    boot(victim)
    victim.assert_installed("1.2")
