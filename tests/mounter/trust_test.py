"""Which images are trusted: by --replaceimg and by --mount, on what is stored."""

import os
import subprocess
from dataclasses import replace
from itertools import count

import pytest

from device import (DOWNLOAD, FLOOR, KEYS, MOUNT, PRODUCT, REMOVE_IMAGE, REPLACE, STORED, UMOUNT)
from maker import Maker
from supervisor import supervise

kinds = pytest.mark.parametrize("kind", ["squashfs", "erofs"])


def expect_refused(device, image):
    device.sh("rm -f $stored")
    device.write(DOWNLOAD, image)
    device.run(REPLACE).expect(65)
    assert not device.exists(STORED)
    assert device.read(DOWNLOAD) == image
    # As if a killed run had stored it.
    device.sh("ln $download $stored")
    device.run(REPLACE).expect(65)
    result = device.run(MOUNT).expect(65)
    device.expect_clean()
    return result


def expect_accepted(device, image):
    device.sh("rm -f $stored")
    device.write(DOWNLOAD, image)
    device.run(REPLACE).expect(0)
    assert device.read(STORED) == image
    device.run(MOUNT).expect(0)
    device.run(UMOUNT).expect(0)


def signed(device, file_system, comment):
    return file_system + device.maker.sign(file_system, comment).trailer()


@kinds
def test_rejects_what_is_incomplete_or_not_the_makers(device, kind):
    content, good = device.file_system("1.5", kind), device.image("1.5", kind)
    text = device.maker.sign(content, "version:1.5")
    forgeries = [
        content,
        Maker().signed_image(content, "1.5"),
        Maker(twin=device.maker).signed_image(content, "1.5"),
        content + device.maker.sign(content + b"x", "version:1.5").trailer(),
        content + bytes(4096) + text.trailer(),
        good + b"\n",
        good[:-1],
        text.trailer(),
    ]
    length = len(text.trailer()) - 16
    other = device.maker.sign(b"x", "version:1.5")
    for change in [{"layout": 2}, {"magic": b"ADIMGSIX"}, {"length_error": 1},
                   {"length_error": -1}, {"length_error": 0x7ffff000}, {"length_error": -length},
                   {"length_error": len(content)},
                   {"comment_signature": other.comment_signature},
                   {"comment_signature": text.comment_signature + "\n"},
                   {"trusted": text.trusted + " newer"}, {"untrusted": "untrusted comment: hello"},
                   {"signature": text.signature + "\r"}, {"signature": "RWR" + text.signature[3:]}]:
        forgeries.append(content + replace(text, **change).trailer())
    for comment in ["", "version:", "version:1.6", "version:1.50", "version:1.5 version:1.5",
                    "noversion:1.5", "version:1.5000000000000000000000", "version:1.5\x01"]:
        forgeries.append(signed(device, content, comment))
    for forgery in forgeries:
        expect_refused(device, forgery)
    expect_accepted(device, good)
    expect_accepted(device, signed(device, content, "file:a.img version:1.5\ttime:7"))


@kinds
def test_rejects_a_flipped_bit_anywhere(device, kind):
    # Several times what is hashed at once, and ends within a block.
    content = device.file_system("1.5", kind) + os.urandom(300_001)
    image = bytearray(device.maker.signed_image(content, "1.5"))
    expect_accepted(device, bytes(image))
    for place in [*range(0, len(content), len(content) // 100), len(content) - 1,
                  *range(len(content), len(image), 3)]:
        image[place] ^= 1 << place % 8
        device.write(STORED, image)
        device.run(MOUNT).expect(65)
        image[place] ^= 1 << place % 8


def test_keys_are_rotated_one_by_one(device):
    maker, twin = Maker(), Maker(twin=device.maker)
    content, old_image = device.file_system("1.5"), device.image("1.5")
    new_image = maker.signed_image(content, "1.5")
    expect_refused(device, new_image)
    device.write(KEYS + "/next.pub", maker.public_key())
    device.write(KEYS + "/twin.pub", twin.public_key())
    for image in new_image, old_image, twin.signed_image(content, "1.5"):
        expect_accepted(device, image)
    device.sh("rm $keys/device.pub $keys/twin.pub")
    expect_accepted(device, new_image)
    expect_refused(device, old_image)
    device.sh("for i in $(seq 15); do cp $keys/next.pub $keys/$i.pub; done")
    expect_accepted(device, new_image)
    device.sh("cp $keys/next.pub $keys/16.pub")
    assert "too many keys" in expect_refused(device, new_image).err


@pytest.mark.parametrize("make, mend", [
    ("chmod 646 device.pub", "chmod 644 device.pub"),
    ("chmod 664 device.pub", "chmod 644 device.pub"),
    ("chown 1234 device.pub", "chown 0 device.pub"),
    ("chmod 1777 .", "chmod 755 ."),
    ("chmod 775 ..", "chmod 755 .."),
    ("chown 1234 .", "chown 0 ."),
    ("chown 1234 ..", "chown 0 .."),
    ("ln -s device.pub other.pub", "rm other.pub"),
    ("mkfifo other.pub", "rm other.pub"),
    ("printf 'untrusted comment: key\\nhello\\n' > other.pub", "rm other.pub"),
    ("touch other.pub", "rm other.pub"),
    ("(echo 'untrusted comment: minisign encrypted secret key'; yes AAAA | head -n 53"
     " | tr -d '\\n') > other.pub", "rm other.pub"),
    ("mv device.pub device.old", "mv device.old device.pub"),
    ("mv ../keys ../moved", "mv ../moved ../keys"),
    ("mv ../keys ../moved; ln -s moved ../keys", "rm ../keys; mv ../moved ../keys"),
])
def test_unsafe_keys_are_no_keys(device, make, mend):
    device.sh(f"cd $keys && {make}")
    expect_refused(device, device.image("1.5"))
    device.sh(f"cd $keys/../moved || cd $keys; {mend}")
    expect_accepted(device, device.image("1.5"))


@kinds
@pytest.mark.parametrize("change", [
    "rm zelADAgent.xml",
    "ln -sf adplayer/res/page.html zelADAgent.xml",
    "sed -i s/1.5/1.50/ zelADAgent.xml",
    "(yes '' | head -c 100000; cat zelADAgent.xml) > long; mv long zelADAgent.xml",
])
def test_manifest_must_state_the_signed_version(device, kind, change):
    expect_refused(device, signed(device, device.file_system("1.5", kind, change), "version:1.5"))
    content = device.file_system("1.5", kind, "sed -i 's/>/> /' zelADAgent.xml")
    expect_accepted(device, signed(device, content, "version:1.5"))


@kinds
def test_manifest_of_a_mounted_image_is_checked(device, kind):
    device.write(STORED, signed(device, device.file_system("1.5", kind), "version:1.6"))
    device.sh("mount -o loop,ro,nosuid,nodev $stored $point")
    device.run(MOUNT).expect(65)


@kinds
def test_file_system_may_not_reach_into_its_trailer(device, kind):
    """Its superblock counts one block more than is signed: the trailer, which is as long."""
    content = bytearray(device.file_system("1.5", kind))
    place, added = (40, 4096) if kind == "squashfs" else (1024 + 36, 1)
    length = int.from_bytes(content[place:place + 4], "little")
    if kind == "squashfs":
        length = len(content)
    content[place:place + 4] = (length + added).to_bytes(4, "little")
    content = bytes(content)
    padding = len(content) + 4096 - len(signed(device, content, "version:1.5 "))
    image = signed(device, content, "version:1.5 " + "x" * padding)
    assert "truncated" in expect_refused(device, image).err


@pytest.mark.parametrize("first, second", [("good", "bad"), ("bad", "good"), ("good", "older"),
                                           ("older", "good"), ("good", "short")])
def test_stores_what_is_verified_and_not_what_the_download_becomes(device, first, second):
    """The download, a user's, changes before each of its reads in turn."""
    good = device.maker.signed_image(device.file_system("1.5") + bytes(200_000), "1.5")
    images = {"good": good, "bad": good[:100] + bytes([good[100] ^ 1]) + good[101:],
              "older": device.image("1.4"), "short": good[:-1]}
    stored = set()
    for point in count():
        device.sh("rm -f $stored")
        device.write(FLOOR, "1.5\n")
        device.write(DOWNLOAD, images[first])
        os.chown(device.at(DOWNLOAD), 1234, 0)
        reads = []

        def decide(call, point=point, reads=reads):
            if call.name == "pread64" and call.file().endswith("adagent/zelADAgent.img"):
                reads.append(call)
                if len(reads) == point + 1:
                    device.write(DOWNLOAD, images[second])

        result = supervise(device, REPLACE, decide).expect(0, 65)
        assert device.read(STORED) == (good if result.status == 0 else None)
        assert device.read(FLOOR) == b"1.5\n"
        stored.add(device.read(STORED))
        device.expect_clean()
        if len(reads) <= point:
            break
    assert good in stored and (None in stored or second == "short")


def test_mounted_image_is_verified_again(device):
    device.write(STORED, device.image("1.5"))
    device.run(MOUNT).expect(0)
    before = device.mounts()
    device.sh("rm $keys/device.pub")
    device.run(MOUNT).expect(65)
    device.write(KEYS + "/device.pub", Maker().public_key())
    device.run(MOUNT).expect(65)
    assert device.mounts() == before
    device.run(UMOUNT).expect(0)


@pytest.mark.parametrize("make, stated, reason", [
    ("true", "", ""),
    ("true", "demo", "signed for product demo, this device is no product"),
    ("echo demo > $product", "demo", ""),
    ("printf demo > $product", "demo", ""),
    ("echo demo > $product", "", "signed for no product, this device is demo"),
    ("echo demo > $product", "demo2", "signed for product demo2, this device is demo"),
    ("echo demo2 > $product", "demo", "signed for product demo, this device is demo2"),
    ("echo demo > $product", "Demo", "this device is demo"),
    (f"echo {63 * 'a'} > $product", 63 * "a", ""),
    (f"echo {64 * 'a'} > $product", 63 * "a", "not one word"),
    ("echo demo box > $product", "demo", "not one word"),
    ("(echo demo; echo) > $product", "demo", "not one word"),
    ("echo > $product", "", "not one word"),
    ("touch $product", "", "not one word"),
    ("echo demo > $product; chmod 664 $product", "demo", "writable"),
    ("echo demo > $product; chmod 646 $product", "demo", "writable"),
    ("echo demo > $product; chown 1234 $product", "demo", "not owned by root"),
    ("echo demo > stage/demo; ln -s /stage/demo $product", "demo", "symbolic link"),
    ("mkfifo $product", "", "not a regular file"),
    ("mkdir $product", "", "not a regular file"),
])
def test_image_must_be_for_this_product(device, make, stated, reason):
    device.sh(make)
    image = device.image("1.5", words=f" product:{stated}" if stated else "")
    if reason:
        assert reason in expect_refused(device, image).err
        assert not device.exists(FLOOR)
    else:
        expect_accepted(device, image)


def store(device, version):
    device.put(DOWNLOAD, device.image(version))
    return device.run(REPLACE)


@pytest.mark.parametrize("owner", [0, 1234])
def test_an_older_version_is_never_stored(device, owner):
    for version, floor in (("1.10", "1.10"), ("1.1", "1.10"), ("1.9", "1.9"), ("1.09", None),
                           ("1.10", None), ("1.90", "1.9"), ("2", "2"), ("1.99", None)):
        device.put(DOWNLOAD, device.image(version))
        os.chown(device.at(DOWNLOAD), owner, 0)
        device.run(REPLACE).expect(0 if floor else 65)
        if floor:
            assert device.read(FLOOR).decode() == floor + "\n"
            assert device.ownership(FLOOR) == "0:0 644"
            assert device.read(STORED) == device.image(version)
        device.expect_clean()
    device.run(REMOVE_IMAGE).expect(0)
    reason = "version 1.99 is older than 2, the highest version ever stored here; image not stored"
    assert reason in store(device, "1.99").expect(65).err
    device.sh("rm $floor")
    store(device, "1.99").expect(0)


@pytest.mark.parametrize("words, floor", [(MOUNT, b"3.0\n"), (REMOVE_IMAGE, b"3.0\n"), (UMOUNT, None)])
def test_floor_follows_a_power_cut_that_lost_it(device, words, floor):
    device.write(STORED, device.image("3.0"))
    for content in None, "2.5\n":
        if content:
            device.write(FLOOR, content)
            device.put(STORED, device.image("3.0"))
        device.run(words).expect(0)
        assert device.read(FLOOR) == (floor or content and content.encode())
        assert "older than 3.0" in store(device, "2.6").expect(65).err if floor or not content else True
        device.expect_clean(1)


def test_only_a_verified_image_counts_as_stored(device):
    for image in (Maker().signed_image(device.file_system("3.0"), "3.0"), device.file_system("3.0"),
                  b""):
        device.put(STORED, image)
        store(device, "2.0").expect(0)
        device.put(STORED, image)
        device.run(REMOVE_IMAGE).expect(0)
        assert device.read(FLOOR) == b"2.0\n"
    # Mounted, or removed without keys, the floor does not come down either.
    device.put(STORED, device.image("1.0"))
    device.run(MOUNT).expect(0)
    device.run(UMOUNT).expect(0)
    device.sh("rm $keys/device.pub")
    device.run(REMOVE_IMAGE).expect(0)
    assert device.read(FLOOR) == b"2.0\n"
    assert not device.exists(STORED)


@pytest.mark.parametrize("make, reason", [
    ("printf 1.0 > $floor", "not a version"),
    ("touch $floor", "not a version"),
    ("echo 1.0x > $floor", "not a version"),
    ("echo '1.0 ' > $floor", "not a version"),
    ("(echo 1.0; echo) > $floor", "not a version"),
    ("echo 1.0000000000000000000 > $floor", "not a version"),
    ("echo 1.0 > $floor; chmod 664 $floor", "writable"),
    ("echo 1.0 > $floor; chmod 646 $floor", "writable"),
    ("echo 1.0 > $floor; chown 1234 $floor", "not owned by root"),
    ("echo 1.0 > stage/floor; ln -s /stage/floor $floor", "symbolic link"),
    ("mkdir $floor", "not a regular file"),
    ("mkfifo $floor", "not a regular file"),
])
def test_unsafe_floor_refuses_instead_of_being_forgotten(device, make, reason):
    device.write(STORED, device.image("1.5"))
    device.write(DOWNLOAD, device.image("2.0"))
    device.sh(make)
    before = device.snapshot("/opt") if "fifo" not in make else None
    for words in REPLACE, MOUNT, REMOVE_IMAGE:
        assert reason in device.run(words).expect(65).err
    assert before is None or device.snapshot("/opt") == before
    device.expect_clean()


def test_parallel_exchange_of_the_download_never_stores_the_older_one(device):
    device.write(FLOOR, "1.5\n")
    device.write("/stage/good", device.image("1.5"))
    device.write("/stage/older", device.image("1.4"))
    exchange = subprocess.Popen(["sh", "-c", "while :; do for i in good older; do"
                                 " ln -f stage/$i $download; done; done"], cwd=device.root,
                                env=os.environ | device.variables, stderr=subprocess.DEVNULL)
    try:
        statuses = {device.run(REPLACE).status for _ in range(1000)}
    finally:
        exchange.kill()
        exchange.wait()
    assert statuses <= {0, 65, 66, 77}
    assert device.read(STORED) == device.image("1.5")
