"""Which images are trusted: by --replaceimg and by --mount, on what is stored."""

import os
from dataclasses import replace

import pytest

from device import DOWNLOAD, KEYS, MOUNT, REPLACE, STORED, UMOUNT
from maker import Maker
from supervisor import run_without, supervise

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
    ("chmod 775 $root", "chmod 755 $root"),
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


@pytest.mark.parametrize("good_first", [True, False])
def test_verifies_the_copy_and_not_the_download(device, good_first):
    good = device.image("1.5")
    bad = good[:100] + bytes([good[100] ^ 1]) + good[101:]
    first, second = (good, bad) if good_first else (bad, good)
    device.write(DOWNLOAD, first)
    os.chown(device.at(DOWNLOAD), 1234, 1234)
    copied = []

    def decide(call):
        if copied and call.name == "pread64":
            device.write(DOWNLOAD, second)
        elif call.name == "write" and call.is_mutating():
            copied.append(call)

    supervise(device, REPLACE, decide).expect(0 if good_first else 65)
    assert copied
    assert device.read(STORED) == (good if good_first else None)
    device.expect_clean()


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
