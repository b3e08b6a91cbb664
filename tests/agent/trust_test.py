"""Which indexes are believed, and which images are what they should be."""

import os
import re
import subprocess

import pytest
from conftest import IMAGE, MAKER, NOW, sign
from maker import Maker

HOUR = 3600
ISSUED = {"serial": 5, "issued": "2026-11-21T10:00:00Z", "expires": "2026-11-22T10:00:00Z"}
OTHER, TWIN = Maker(), Maker(MAKER)
PATH = "/images/zelADAgent-1.06.img"

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="what is trusted is root's")


@pytest.fixture
def device(device):
    device.environment["NOW"] = str(NOW)
    return device


@pytest.fixture
def guarded(device, server):
    """A device with a key, and an index that it believes."""
    device.write("keys/maker.pub", MAKER.public_key())
    server.offer("1.06", IMAGE, MAKER, ISSUED)
    return device


def expect_request(device, is_expected, reason):
    """Updates from an index with a wrong image. Returns whether that was downloaded."""
    device.server.requests()
    log = device.expect_no_update(reason)
    assert (PATH in device.server.requests()) == is_expected, log
    assert device.names("zelADAgent.img*") == set()


@pytest.mark.parametrize("comment, keys, product, reason", [
    (None, {}, None, "not signed"),
    ("version:1.06 version:1.06", {}, None, "signed comment states two versions"),
    ("version:1.05", {}, None, "signed for version 1.05, the index says 1.06"),
    ("version:1.06", {"min_firmware": "T-1"}, None,
     "signed without min-firmware, the index says T-1"),
    ("version:1.06 max-firmware:T-2", {"max_firmware": "T-1999"}, None,
     "signed for max-firmware T-2, the index says T-1999"),
    ("version:1.06 product:box", {"product": "other"}, "other\n",
     "signed for product box, the index says other"),
    ("version:1.06 product:box", {}, "other", "signed for product box, this device is other"),
    ("version:1.06", {}, "other\n", "signed for no product, this device is other"),
    ("version:1.06 product:box", {}, None, "signed for product box, this device names none"),
    ("version:1.06 min-firmware:T-1201", {}, None, "it requires firmware T-1201 or later"),
    ("version:1.06 max-firmware:T-1199", {}, None, "it requires firmware T-1199 or earlier"),
    ("version:1.06", {"sha256": "0" * 64}, None, "SHA-256 is ")])
def test_wrong_image_is_left_alone_for_some_time(device, server, comment, keys, product, reason):
    image = sign(b"content", comment) if comment else b"content"
    server.offer("1.06", image, **keys)
    if product:
        device.write("product", product)
    expect_request(device, True, f"version 1.06 refused: {reason}")
    wrong = device.state()["wrong"]
    assert reason in wrong["reason"] and wrong["sha256"].count(";") == 1
    expect_request(device, False, f"version 1.06 refused until 2026-11-21T11:00:00Z: {reason}")
    assert reason in device.state()["check"]["result"]


def test_back_off_doubles_up_to_a_week(device, server):
    def expect(now, is_expected):
        device.environment["NOW"] = str(now)
        expect_request(device, is_expected, "version 1.06 refused")

    image = b"wrong"
    server.offer("1.06", image)
    now = NOW
    expect(now, True)
    for hours in (1, 2, 4, 8, 16, 32, 64, 128, 168, 168):
        expect(now + hours * HOUR - 1, False)
        now += hours * HOUR
        expect(now, True)
    # A clock that was set back does not block it.
    expect(now - 1, True)
    expect(now - 1, False)
    # An index that was corrected does not either; nor does another image of this version.
    server.offer("1.07", image)
    device.expect_no_update("version 1.07 refused: not signed; not downloading it again before")
    device.expect_update(image=server.publish("1.06"))
    for number in range(40):
        server.offer("1.06", b"wrong %d" % number)
        device.expect_no_update("not signed")
    assert device.state()["wrong"]["sha256"].count(";") == 32


def test_image_for_another_device_is_not_downloaded(device, server):
    words = {"product": "box", "min_firmware": "T-1200.1", "max_firmware": "T-1200.10"}
    image = server.publish("1.06", b"x", "product:box min-firmware:T-1200.1 max-firmware:T-1200.10",
                           **words)
    expect_request(device, False, "version 1.06 refused: for product box, this device names none")
    device.write("product", "other")
    expect_request(device, False, "version 1.06 refused: for product box, this device is other")
    device.write("product", "box\n")
    for firmware, reason in (("T-1200.0", "T-1200.1 or later"), ("T-1201", "T-1200.10 or earlier")):
        device.environment["FIRMWARE"] = firmware
        expect_request(device, False, f"version 1.06 refused: it requires firmware {reason}")
    device.environment["FIRMWARE"] = "T-1200.9"
    device.expect_update(image=image)
    # One that was downloaded earlier is looked at again.
    device.image.write_bytes(IMAGE)
    server.offer("1.06", IMAGE)
    assert "no product" in device.expect_no_update("downloading it again before")
    assert device.names("zelADAgent.img*") == set()


def unsafe(path):
    """Yields shell commands that make a file of the device unsafe, and the reason."""
    yield f"chmod g+w {path}", "writable by users other than root"
    yield f"chmod o+w {path}", "writable by users other than root"
    yield f"chown 1 {path}", "writable by users other than root"
    yield f"mv {path} real; ln -s real {path}", "Too many levels of symbolic links"
    yield f"rm {path}; mkfifo {path}", "not a regular file"
    yield f"rm {path}; mkdir {path}", "not a regular file"
    yield f"head -c 2000 /dev/zero >{path}", "is larger than"
    yield f"echo a b >{path}", " is not a "


@pytest.mark.parametrize("damage, reason", [
    *unsafe("product"), (": >product", "not a product's name"),
    ("printf 'box\n\n' >product", "not a product's name"), ("chmod o+w .", "writable by users")])
def test_unsafe_product_rules_out_every_image(device, server, damage, reason):
    device.write("product", "box")
    server.publish("1.06", b"", "product:box")
    subprocess.run(damage, shell=True, cwd=device.root, check=True)
    assert reason in device.expect_no_update("update: refusing every image: ")
    assert server.requests() == []


@pytest.mark.parametrize("damage, reason", [
    *unsafe("keys/maker.pub"), ("chmod g+w keys", "writable by users other than root"),
    ("chown 1 keys", "writable by users other than root"),
    ("mv keys k; ln -s k keys", "Not a directory"), ("rm -r keys; touch keys", "Not a directory"),
    ("for i in $(seq 16); do cp keys/maker.pub keys/$i.pub; done", "more than 16 files")])
def test_unsafe_key_rules_out_every_index(guarded, server, damage, reason):
    subprocess.run(damage, shell=True, cwd=guarded.root, check=True)
    assert reason in guarded.expect_no_update("update: refusing every index: ")
    assert server.requests() == []


def edit(old, new):
    return lambda text: text.replace(old, new, 1)


@pytest.mark.parametrize("maker, index, change, reason", [
    (None, ISSUED, None, "not signed"),
    (OTHER, ISSUED, None, f"signed by unknown key {OTHER.key_id[::-1].hex().upper()}"),
    (TWIN, ISSUED, None, "wrong signature"),
    (MAKER, ISSUED, edit(b"version=1.06", b"version=1.07"), "wrong signature"),
    (MAKER, ISSUED, edit(b": an index", b": another "), "wrong signature"),
    (MAKER, ISSUED, edit(b"# RU", b"# RW"), "unsupported signature algorithm"),
    (MAKER, ISSUED, edit(b"# trusted", b"#  trusted"), "malformed signature"),
    (MAKER, ISSUED, edit(b"# trusted", b"x trusted"), "malformed signature"),
    (MAKER, ISSUED, lambda text: text[:-1], "malformed signature"),
    (MAKER, ISSUED, lambda text: text + b"[image]\nversion=9\n", "malformed signature"),
    (MAKER, ISSUED, lambda text: text + b"# version=9\n", "malformed signature"),
    (MAKER, None, None, "[index] serial is not a decimal number"),
    (MAKER, {**ISSUED, "serial": "-1"}, None, "[index] serial is not a decimal number"),
    (MAKER, {**ISSUED, "serial": 2**64}, None, "[index] serial is not a decimal number"),
    (MAKER, {**ISSUED, "issued": "2026-11-21"}, None, "[index] issued or expires is not a"),
    (MAKER, {**ISSUED, "expires": "never"}, None, "[index] issued or expires is not a"),
    (MAKER, {**ISSUED, "serial": 4}, None, "serial 4 is older than 5, the highest accepted here"),
    (MAKER, {**ISSUED, "serial": 6, "expires": "2026-11-21T10:00:00Z"}, None,
     "expired at 2026-11-21T10:00:00Z, it is 2026-11-21T10:00:00Z")])
def test_index_is_refused(guarded, server, maker, index, change, reason):
    server.misbehave("/images/* status 404")
    guarded.expect_no_update("The requested URL returned error")  # but the index counts
    guarded.data.joinpath("update.ini").unlink()
    server.misbehave()
    server.offer("1.06", IMAGE, maker, index)
    if change:
        file = server.content / "update.ini"
        changed = change(file.read_bytes())
        assert changed != file.read_bytes()
        file.write_bytes(changed)
    server.requests()
    log = guarded.expect_no_update(f"update: {server.url}/update.ini: index refused: {reason}")
    assert log.count("\n") == 1 and server.requests() == ["/update.ini"]
    assert not guarded.data.joinpath("update.ini").exists()


def test_index_counts_until_it_expires(guarded, server):
    serials = []
    for index, now in ((ISSUED, NOW), (ISSUED, NOW + 24 * HOUR - 1),
                       ({**ISSUED, "serial": 2**64 - 1}, NOW),
                       # A clock that was never set.
                       ({**ISSUED, "serial": 2**64 - 1, "issued": ISSUED["expires"],
                         "expires": "2000-01-01T00:00:00Z"}, NOW)):
        server.offer("1.06", IMAGE, MAKER, index)
        guarded.environment["NOW"] = str(now)
        guarded.expect_update()
        serials.append(guarded.state()["index"]["serial"])
    assert serials == ["5;", "5;", f"{2**64 - 1};", f"{2**64 - 1};"]

    # A key that was stolen and withdrawn leaves no high serial number behind.
    guarded.write("keys/other.pub", OTHER.public_key())
    guarded.write("keys/README", "not a key")
    server.offer("1.06", IMAGE, OTHER, ISSUED)
    guarded.expect_no_update("older than 18446744073709551615")
    (guarded.root / "keys/maker.pub").unlink()
    guarded.expect_update()
    assert guarded.state()["index"]["serial"] == "5;"


def test_cached_index_expires_too(guarded, server):
    guarded.expect_update()
    server.requests()
    guarded.expect_no_update("not newer", "1.06")
    assert server.requests() == ["/update.ini 304"]
    guarded.environment["NOW"] = str(NOW + 24 * HOUR)
    guarded.expect_no_update("index refused: expired at 2026-11-22T10:00:00Z", "1.06")
    assert server.requests() == ["/update.ini"]
    server.misbehave("/update.ini status 304")
    guarded.expect_no_update("unexpected HTTP status 304", "1.06")
    # One from before the key came is not believed either.
    guarded.environment["NOW"] = str(NOW)
    server.misbehave()
    server.offer("1.06", IMAGE)
    (guarded.root / "keys/maker.pub").rename(guarded.root / "maker.pub")
    guarded.expect_no_update("not newer", "1.06")
    (guarded.root / "maker.pub").rename(guarded.root / "keys/maker.pub")
    guarded.expect_no_update("index refused: not signed", "1.06")


def test_serial_is_stored_before_the_image_arrives_or_nothing_is(guarded, server):
    obstacle = guarded.data / "state.ini.part"
    obstacle.mkdir()
    guarded.expect_no_update(f"failed to create {obstacle}")
    assert server.requests() == ["/update.ini"]


def test_stock_minisign_verifies_the_index(guarded, server):
    subprocess.run("sed -n '/^# untrusted comment:/,$s/^# //p' update.ini >sig;"
                   "sed '/^# untrusted comment:/,$d' update.ini >text;"
                   f"minisign -V -p {guarded.root}/keys/maker.pub -m text -x sig",
                   shell=True, cwd=server.content, check=True)


def test_warns_of_what_is_not_protected(device, server, tmp_path):
    missing = f"update: index not authenticated: no key in {device.root}/keys"
    log = device.expect_update()
    assert f"{missing}, and anyone on the network can replace what {server.url} sends\n" in log
    device.configure(f"file://{server.content}")
    assert f"{missing}\n" in device.update().log
    device.configure("https://127.0.0.1:1", "verify=false", "[timeouts]", "proxy=1", "[x]", "url=y")
    log = device.update().log
    assert f"{missing}, and anyone" in log
    for key in ("[timeouts] proxy", "[x] url"):
        assert f"configuration {tmp_path}/agent.conf: ignoring unknown key {key}\n" in log
    check = device.state()["check"]
    assert check["time"] == "2026-11-21T10:00:00Z"
    assert check["url"] == "https://127.0.0.1:1/update.ini"
    assert "update.ini: Failed to connect" in check["result"]
    device.write("keys/maker.pub", MAKER.public_key())
    assert "not authenticated" not in device.update().log
    # Whatever a server sends is one short line.
    (device.root / "keys/maker.pub").unlink()
    device.configure(server.url)
    server.serve("update.ini", f"[image]\n\x1b[2J\u202e{'x' * 60000}\n".encode())
    line = device.update().log.splitlines()[-1]
    for text in (line, device.state()["check"]["result"]):
        assert len(text) < 512 and re.search(r"\\x1b\[2J.*\\u202e.*\.\.\.$", text)
