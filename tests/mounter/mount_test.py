"""Mounting and unmounting the stored image."""

import errno
import os

import pytest

from device import MOUNT, SOURCE, STORED, UMOUNT
from supervisor import LOOP_CONFIGURE, run_and_disturb, run_without, supervise

kinds = pytest.mark.parametrize("kind", ["squashfs", "erofs"])


def expect_mounted(device, version):
    assert device.read(SOURCE + "/page.html").decode() == f"page {version}"
    device.expect_clean(1)
    assert " ro,nosuid,nodev,relatime " in device.mounts()[0]


@kinds
def test_leaves_an_image_in_use_mounted(device, kind):
    device.put(STORED, device.image("1.0", kind))
    device.run(MOUNT).expect(0)
    before = device.mounts()
    with open(device.at(SOURCE + "/page.html"), encoding="ascii"):
        device.run(MOUNT).expect(0)
        assert "busy" in device.run(UMOUNT).expect(75).err
        device.put(STORED, device.image("2.0", kind))
        assert "busy" in device.run(MOUNT).expect(75).err
        expect_mounted(device, "1.0")
        assert device.mounts() == before
    device.run(MOUNT).expect(0)
    expect_mounted(device, "2.0")
    for _ in "again":
        device.run(UMOUNT).expect(0)
        device.expect_clean()


@kinds
def test_remounts_an_image_without_the_flags(device, kind):
    device.put(STORED, device.image("1.0", kind))
    device.sh("mount -o loop,ro $stored $point")
    device.run(MOUNT).expect(0)
    expect_mounted(device, "1.0")


@kinds
def test_keeps_the_old_image_when_the_new_one_is_damaged(device, kind):
    device.put(STORED, device.image("1.0", kind))
    device.run(MOUNT).expect(0)
    # Superblock and signature are valid, what the superblock points to is not.
    size = 96 if kind == "squashfs" else 1152
    damaged = device.file_system("2.0", kind)
    damaged = damaged[:size] + b"\xee" * (len(damaged) - size)
    device.put(STORED, device.maker.signed_image(damaged, "2.0"))
    assert "verify" not in device.run(MOUNT).expect(65).err
    expect_mounted(device, "1.0")


@kinds
def test_unmounts_all_of_ours_and_nothing_else(device, kind):
    device.put(STORED, device.image("1.0", kind))
    device.run(MOUNT).expect(0)
    device.sh("mount --move $point home && mount -t tmpfs below $point"
              " && for i in 1 2 3; do mount --bind home $point; done && umount home")
    os.remove(device.at(STORED))
    device.run(UMOUNT).expect(0)
    assert len(device.mounts()) == 1 and "tmpfs" in device.mounts()[0]
    device.sh("umount $point")
    device.expect_clean()


@kinds
def test_undoes_the_mount_when_the_mount_point_changes_meanwhile(device, kind):
    device.put(STORED, device.image("1.0", kind))
    run_and_disturb(device, MOUNT, lambda call: call.name == "move_mount",
                    "mv $point stage/away; mkdir $point").expect(75)
    assert not device.exists("/stage/away/zelADAgent.xml")
    device.expect_clean()


@kinds
@pytest.mark.parametrize("missing", [["fsopen"], ["symlinkat"],
                                     ["fsopen", "openat2", "close_range"]])
def test_works_without_newer_calls(device, kind, missing):
    device.put(STORED, device.image("1.0", kind))
    run_without(device, MOUNT, missing).expect(0)
    before = device.mounts()
    device.run(MOUNT).expect(0)
    assert device.mounts() == before
    expect_mounted(device, "1.0")
    run_without(device, UMOUNT, missing).expect(0)
    device.expect_clean()


@pytest.mark.parametrize("command, status", [
    ("rm stage/good", 66),
    ("mkdir $stored", 65),
    ("mkfifo $stored", 65),
    ("mknod $stored b 7 0", 65),
    ("ln -s /stage/good $stored", 77),
    ("touch $stored", 65),
    ("head -c 3000 stage/good > $stored", 65),
    ("truncate -s 1M $stored; mkfs.ext4 -q -F $stored", 65),
    ("cp stage/good $stored; chown 1234 $stored", 77),
    ("cp stage/good $stored; chmod 646 $stored", 77),
    ("cp stage/good $stored; chmod 664 $stored", 77),
    ("cp stage/good $stored; rmdir $point", 66),
])
def test_rejects_invalid_or_untrusted_images(device, command, status):
    device.write("/stage/good", device.image("1.0"))
    device.sh(command)
    device.run(MOUNT).expect(status)
    device.run(UMOUNT).expect(0)
    device.expect_clean()


@pytest.mark.parametrize("command", [
    "mount -t tmpfs other $point",
    "mount -o loop,ro stage/other $point",
    # Parts of the stored image.
    "mount -o loop,ro,sizelimit=$half $stored $point",
    "mount -o loop,ro,offset=$half $stored $point",
    # The stored image's device under the name of the other one's.
    "stored_loop=$(losetup -f --show -r $stored) && mount -o loop,ro stage/other $point"
    " && other_loop=$(losetup -n -O NAME -j $root/stage/other) && mount -t tmpfs nodes dev"
    " && mknod dev/${other_loop#/dev/} b 7 ${stored_loop#/dev/loop}",
])
def test_leaves_foreign_mounts_alone(device, command):
    file_system = device.file_system("1.0")
    device.write("/stage/other", device.image("1.0"))
    device.write(STORED, device.maker.signed_image(2 * file_system, "1.0"))
    device.sh(f"half={len(file_system)}; {command}")
    before = device.mounts()
    device.run(MOUNT).expect(77)
    device.run(UMOUNT).expect(77)
    assert device.mounts() == before


@kinds
@pytest.mark.parametrize("command, left", [
    ("mount -t tmpfs other $point", 2),
    # Below a stale one of ours.
    ("mkdir stage/ours; mount --move $point stage/ours; mount -t tmpfs other $point;"
     " mount --bind stage/ours $point; umount stage/ours", 1),
])
def test_does_not_mount_over_a_foreign_mount(device, kind, command, left):
    device.mount("1.0", kind)
    device.sh(command)
    device.put(STORED, device.image("2.0", kind))
    assert "something else" in device.run(MOUNT).expect(77).err
    assert len(device.mounts()) == left and "tmpfs" in device.mounts()[-1]


@pytest.mark.parametrize("error, times, status", [(errno.EBUSY, 5, 0), (errno.EAGAIN, 1000, 75)])
def test_retries_busy_loop_devices_for_a_limited_time(device, error, times, status):
    device.put(STORED, device.image("1.0"))
    failures = []

    def decide(call):
        if call.name == "ioctl" and call.arguments[1] == LOOP_CONFIGURE and len(failures) < times:
            failures.append(call)
            return error
        return 0

    supervise(device, MOUNT, decide).expect(status)
    assert 5 <= len(failures) <= 100
