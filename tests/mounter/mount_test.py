"""Mounting and unmounting the stored image."""

import contextlib
import errno
import fcntl
import os
import pathlib
import struct

import pytest

from device import DOWNLOAD, MOUNT, REPLACE, SOURCE, STORED, UMOUNT
from supervisor import LOOP_CONFIGURE, NEWER_CALLS, run_and_disturb, run_without, supervise

LOOP_SET_STATUS64, LOOP_GET_STATUS64, LOOP_CHANGE_FD = 0x4c04, 0x4c05, 0x4c06

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
@pytest.mark.parametrize("missing", [["fsopen"], ["fsconfig"], ["fsmount"], ["symlinkat"],
                                     ["LOOP_CONFIGURE", "symlinkat"], NEWER_CALLS])
def test_works_without_newer_calls(device, kind, missing):
    device.put(DOWNLOAD, device.image("1.0", kind))
    run_without(device, REPLACE, missing).expect(0)
    # Mounts nothing more for an image that says something else than its signature.
    device.put(DOWNLOAD, device.maker.signed_image(device.file_system("1.0", kind), "2.0"))
    run_without(device, REPLACE, missing).expect(65)
    assert device.read(STORED) == device.image("1.0", kind)
    device.expect_clean()
    run_without(device, MOUNT, missing).expect(0)
    before = device.mounts()
    device.run(MOUNT).expect(0)
    assert device.mounts() == before
    expect_mounted(device, "1.0")
    device.put(STORED, device.maker.signed_image(device.file_system("1.0", kind), "2.0"))
    run_without(device, MOUNT, missing).expect(65)
    assert device.mounts() == before
    run_without(device, UMOUNT, missing).expect(0)
    device.expect_clean()


@kinds
def test_clears_what_a_killed_run_left_without_newer_calls(device, kind):
    device.put(STORED, device.image("1.0", kind))
    device.sh("mkdir -p run/ad-mounter/image && chmod 700 run/ad-mounter"
              " && mount -t tmpfs left run/ad-mounter/image")
    run_without(device, MOUNT, NEWER_CALLS).expect(0)
    expect_mounted(device, "1.0")
    assert not device.exists("/run/ad-mounter/image")


@contextlib.contextmanager
def open_loop_device(device):
    """The only loop device, and what it reports: a loop_info64."""
    with open(device.loop_devices()[0], "rb") as loop:
        yield loop, bytearray(fcntl.ioctl(loop, LOOP_GET_STATUS64, bytes(232)))


def loop_information(device):
    """Read-only, autoclear, offset, size limit, backing file, and the name that it goes by."""
    with open_loop_device(device) as (loop, status):
        directory = pathlib.Path("/sys/block", os.path.basename(loop.name))
        return [(directory / file).read_text(encoding="utf-8").strip() for file in
                ("ro", "loop/autoclear", "loop/offset", "loop/sizelimit", "loop/backing_file")
                ] + [status[56:120].rstrip(b"\0").decode()]


@pytest.mark.parametrize("missing", [[], ["LOOP_CONFIGURE"], NEWER_CALLS])
def test_loop_device_is_the_same_without_newer_calls(device, missing):
    device.put(STORED, device.image("1.0"))
    run_without(device, MOUNT, missing).expect(0)
    assert loop_information(device) == ["1", "1", "0", "0", device.at(STORED), STORED]


# Where in a loop_info64, and what: another file, an offset, a size limit, no autoclear.
@pytest.mark.parametrize("change", [None, (24, 4096), (32, 4096), (52, 1)])
@pytest.mark.parametrize("missing", [[], ["LOOP_CONFIGURE"]])
def test_loop_device_that_another_process_changes_is_not_used(device, change, missing):
    device.put(STORED, device.image("1.0"))
    device.sh("cp $stored stage/other")
    changed, other = [], device.at("/stage/other")

    def decide(call):
        if call.name != "ioctl":
            return 0
        if call.arguments[1] == LOOP_GET_STATUS64 and not changed:
            with open_loop_device(device) as (loop, status), open(other, "rb") as file:
                changed.append(loop.name)
                if change is None:
                    fcntl.ioctl(loop, LOOP_CHANGE_FD, file.fileno())
                else:
                    struct.pack_into("<I", status, *change)
                    fcntl.ioctl(loop, LOOP_SET_STATUS64, status)
        return errno.EINVAL if call.arguments[1] == LOOP_CONFIGURE and missing else 0

    supervise(device, MOUNT, decide).expect(0)
    assert changed
    device.expect_clean(1)
    assert loop_information(device) == ["1", "1", "0", "0", device.at(STORED), STORED]


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
