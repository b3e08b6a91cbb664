"""Creating, replacing the image, installing libraries and resources, removing."""

import errno
import fcntl
import mmap
import os
import struct

import pytest

from device import (AGENT_LIBRARY, CACHE_MANIFEST, COPY_LIBRARY, COPY_TREE, CREATE_MANIFEST,
                    CREATIONS, DATA, DOWNLOAD, FLOOR, LIB, MOUNT, MOUNTED_LIBRARY, PLAYER_LIBRARY,
                    POINT, REMOVE_RESOURCES, REPLACE, RES, SOURCE, STORED)
from supervisor import ANSWERED, run_and_disturb, run_without, supervise


def hold_descriptor(path):
    return open(path, "rb+")


def hold_mapping(path):
    with open(path, "rb+") as file:
        return mmap.mmap(file.fileno(), 0)


@pytest.mark.parametrize("hold, change, moved", [
    (None, "true", True),
    (hold_descriptor, "true", False),
    (hold_mapping, "true", False),
    (None, "chmod 664 $download", False),
    (None, "chmod 646 $download", False),
    (None, "chown 1234 $download", False),
    (None, "ln $download stage/link", False),
    (None, "chmod 775 $data", False),
    (None, "chmod 757 $data", False),
    (None, "chown 1234 $data", False),
    (None, "mount -t tmpfs data $data && cp stage/image $download", False),
])
def test_moves_only_a_download_that_nobody_but_root_can_write(device, hold, change, moved):
    for path in "/stage/image", DOWNLOAD:
        device.write(path, device.image("2.0"))
    device.write(STORED, device.image("1.0"))
    device.sh(change)
    with open(device.at(DOWNLOAD), "rb") as file:
        held = hold(device.at(DOWNLOAD)) if hold else None
        device.run(REPLACE).expect(0)
        assert os.path.sameopenfile(file.fileno(), os.open(device.at(STORED), os.O_PATH)) == moved
    if held:
        # Only what can no longer be written is mounted.
        device.run(MOUNT).expect(0)
        held = [held, hold(device.at(STORED))]
        assert "open for writing" in device.run(MOUNT).expect(77).err
        for holder in held:
            holder.close()
        device.run(MOUNT).expect(0)
        device.unmount_all()
    assert device.read(STORED) == device.image("2.0")
    assert device.ownership(STORED) == "0:0 644"
    assert os.stat(device.at(STORED)).st_nlink == 1
    assert not device.exists(DOWNLOAD)
    device.expect_clean()


UNTRUSTED_FILE_SYSTEMS = {
    "fuse": 0x65735546, "nfs": 0x6969, "smb": 0x517b, "cifs": 0xff534d42, "smb2": 0xfe534d42,
    "9p": 0x01021997, "ceph": 0x00c36400, "fat": 0x4d44, "exfat": 0x2011bab0, "ntfs3": 0x7366746e,
    "iso9660": 0x9660, "udf": 0x15013346}


@pytest.mark.parametrize("file_system", [*UNTRUSTED_FILE_SYSTEMS, "no lease"])
def test_owner_counts_only_where_a_file_system_keeps_it(device, file_system):
    def decide(call):
        if call.name == "fcntl" and call.arguments[1] == fcntl.F_SETLEASE:
            return errno.EINVAL if file_system == "no lease" else 0
        if call.name != "fstatfs" or not call.file().endswith(".img"):
            return 0
        with open(f"/proc/{call.process}/mem", "rb+", buffering=0) as memory:
            memory.seek(call.arguments[1])
            memory.write(struct.pack("=Q", UNTRUSTED_FILE_SYSTEMS.get(file_system, 0xef53)))
        return ANSWERED

    device.put(DOWNLOAD, device.image("2.0"))
    inode = os.stat(device.at(DOWNLOAD)).st_ino
    supervise(device, REPLACE, decide).expect(0)
    assert os.stat(device.at(STORED)).st_ino != inode
    supervise(device, MOUNT, decide).expect(77)
    device.expect_clean()


def refuse_before_copying(device, name):
    """Makes the download, of a user's, what must be refused before a byte of it is copied."""
    image = device.image("2.0")
    if name == "unsigned":
        image = device.file_system("2.0") + bytes(500_000)
    elif name == "older":
        device.write(FLOOR, "2.01\n")
    elif name == "no room":
        device.sh("mount -t tmpfs -o size=4k,mode=755 small $(dirname $stored)")
    elif name == "product":
        image = device.image("2.0", words=" product:other")
    device.write(DOWNLOAD, image)
    if name == "large":
        os.truncate(device.at(DOWNLOAD), (2 << 30) + 1)
    elif name == "largest":
        os.truncate(device.at(DOWNLOAD), 2 << 30)
    os.chown(device.at(DOWNLOAD), 1234, 0)


@pytest.mark.parametrize("name, status, reason", [
    ("unsigned", 65, "not signed"),
    ("older", 65, "version 2.0 is older than 2.01, the highest version ever stored here; "
                  "image not stored"),
    ("product", 65, "signed for product other, this device is no product; image not stored"),
    ("large", 65, "larger than"),
    ("largest", 65, "not signed"),
    ("no room", 74, "space"),
])
def test_nothing_is_copied_that_will_be_refused(device, name, status, reason):
    refuse_before_copying(device, name)
    writes = []
    result = supervise(device, REPLACE, lambda call: writes.append(call) if call.name == "linkat"
                       or call.creates_file() and "zelADAgent" in str(list(call.paths())) else 0)
    assert reason in result.expect(status).err
    assert not writes
    assert device.exists(DOWNLOAD) and not device.exists(STORED)
    device.expect_clean()


@pytest.mark.parametrize("owner", [0, 1234])
def test_reads_the_download_once(device, owner):
    device.write(DOWNLOAD, device.maker.signed_image(
        device.file_system("2.0") + os.urandom(1_000_001), "2.0"))
    os.chown(device.at(DOWNLOAD), owner, 0)
    size, reads = os.stat(device.at(DOWNLOAD)).st_size, []
    supervise(device, REPLACE, lambda call: reads.append(call.arguments[2]) if call.name in (
        "pread64", "read", "sendfile") and call.file().endswith(".img") else 0).expect(0)
    # And its header and trailer once more.
    assert size < sum(reads) < size + 12_000


@pytest.mark.parametrize("make, status", [
    ("true", 66),
    ("mkdir $download", 65),
    ("mkfifo $download", 65),
    ("cp $stored opt/secret; chown 1234 opt/secret; ln opt/secret $download", 77),
])
def test_refused_download_leaves_both_files(device, make, status):
    device.write(STORED, device.image("1.0"))
    device.sh(make)
    before = device.snapshot("/opt")
    device.run(REPLACE).expect(status)
    assert device.snapshot("/opt") == before


def test_leaves_a_newer_download_alone(device):
    device.write(DOWNLOAD, device.image("2.0"))
    run_and_disturb(device, REPLACE, lambda call: call.name == "renameat",
                    "rm $download; echo newer > $download").expect(0)
    assert device.read(STORED) == device.image("2.0")
    assert device.read(DOWNLOAD) == b"newer\n"


@pytest.fixture
def updated(device):
    """A device with a new version to install and an old one installed."""
    device.mount("2.0")
    device.write(AGENT_LIBRARY, "the old library")
    device.write(RES + "/old/page", "the old page")
    return device


def test_library_is_a_new_file_of_roots(updated):
    updated.sh("echo half > $lib/.libad-agent-fwk.so.ad-mounter;"
               "mkdir -p $lib/.libad-player-fwk.so.ad-mounter/directory")
    # As a process that has loaded it.
    with open(updated.at(AGENT_LIBRARY), encoding="ascii") as old:
        for path in AGENT_LIBRARY, PLAYER_LIBRARY:
            source = POINT + path.removeprefix(LIB)
            updated.run(["--copylib", source, path]).expect(0)
            assert updated.read(path) == updated.read(source)
            assert updated.ownership(path) == "0:0 644"
        assert old.read() == "the old library"
    updated.expect_clean(1)
    for change, status in (("true", 66), ("mkdir libad-agent-fwk.so", 65),
                           ("ln -s adplayer libad-agent-fwk.so", 77)):
        updated.mount("2.0", change=f"rm libad-agent-fwk.so; {change}")
        updated.run(COPY_LIBRARY).expect(status)


@pytest.mark.parametrize("change, status", [
    ("umount $point", 66),
    ("umount $point; mkdir -p $source; echo bad > $point/libad-agent-fwk.so", 66),
    ("mount -t tmpfs other $point; mkdir -p $source; echo bad > $point/libad-agent-fwk.so", 77),
    ("mkdir -p home/adplayer/res; echo bad > home/libad-agent-fwk.so; mount --bind home $point", 77),
    ("cp $stored stage/other; umount $point; mount -o loop,ro,nosuid,nodev stage/other $point", 77),
    ("cp $stored stage/other; mount -o loop,ro,nosuid,nodev stage/other $point", 77),
    ("umount $point; mount -o loop,ro $stored $point", 75),
    ("cp $stored stage/new; mv stage/new $stored", 75),
    ("rm $stored", 66),
    ("chown 1234 $stored", 77),
    ("chmod 664 $stored", 77),
    ("mv $stored stage/new; ln -s /stage/new $stored", 77),
])
def test_installs_only_from_the_mounted_stored_image(updated, change, status):
    updated.sh(change)
    before = [updated.snapshot(LIB), updated.snapshot(RES)]
    for words in COPY_LIBRARY, COPY_TREE:
        updated.run(words).expect(status)
    assert [updated.snapshot(LIB), updated.snapshot(RES)] == before


@pytest.mark.parametrize("missing", [[], ["openat2"]])
@pytest.mark.parametrize("words, change", [
    (COPY_LIBRARY, "mount --bind $download $point/libad-agent-fwk.so"),
    (COPY_TREE, "mount --bind $download $source/page.html"),
    (COPY_TREE, "mount -t tmpfs other $source/a/b"),
    (COPY_TREE, "mount -t tmpfs other $source"),
    (COPY_TREE, "mount --bind home $point/adplayer"),
])
def test_installs_nothing_from_a_mount_inside_the_image(updated, words, change, missing):
    updated.sh(f"echo bad > $download; mkdir home/res; {change}")
    before = [updated.snapshot(LIB), updated.snapshot(RES)]
    run_without(updated, words, missing).expect(75)
    assert [updated.snapshot(LIB), updated.snapshot(RES)] == before


@pytest.mark.parametrize("pieces", [0, 1, 2])
def test_library_is_copied_where_the_kernel_cannot(updated, pieces):
    calls = []

    def decide(call):
        if call.name == "sendfile":
            calls.append(call)
            return errno.EINVAL if len(calls) > pieces else 0
        return 0

    updated.mount("2.0", change="head -c 2500000 /dev/urandom > libad-agent-fwk.so")
    supervise(updated, COPY_LIBRARY, decide).expect(0)
    assert len(calls) == pieces + 1
    assert updated.read(AGENT_LIBRARY) == updated.read(MOUNTED_LIBRARY)


def test_download_that_shrinks_meanwhile_is_not_stored(device):
    device.write(STORED, device.image("1.0"))
    device.write(DOWNLOAD, device.image("2.0"))
    os.chown(device.at(DOWNLOAD), 1234, 0)
    result = run_and_disturb(device, REPLACE, lambda call: call.name == "openat" and
                             call.creates_file() and "zelADAgent" in str(list(call.paths())),
                             "truncate -s 1500 $download")
    assert "truncated" in result.expect(65).err
    assert device.read(STORED) == device.image("1.0")
    device.expect_clean()


@pytest.mark.parametrize("words, path, temporary", [
    (COPY_LIBRARY, AGENT_LIBRARY, LIB + "/.libad-agent-fwk.so.ad-mounter"),
    (CREATE_MANIFEST, CACHE_MANIFEST, CACHE_MANIFEST.replace("zelAD", ".zelAD") + ".ad-mounter"),
])
def test_temporary_of_somebody_else_is_not_used(updated, words, path, temporary):
    before = updated.snapshot(path)
    # The last call before the temporary is created.
    run_and_disturb(updated, words, lambda call: call.name == "fstatfs" and
                    call.file() == updated.at(os.path.dirname(path)),
                    f"echo bad > .{temporary}").expect(73)
    assert updated.snapshot(path) == before


def expect_tree_is_copied(device):
    device.run(COPY_TREE).expect(0)
    assert device.snapshot(RES) == {
        path: (mode, 0, 0, content)
        for path, (mode, _, _, content) in device.snapshot(SOURCE).items()}
    device.expect_clean(1)


def test_tree_is_the_source_owned_by_root(updated):
    updated.mount("2.0", change="cd adplayer/res && head -c 5000001 /dev/urandom > large"
                  " && touch shared && mkdir sticky wide && chmod 666 shared && chmod 1777 sticky"
                  " && chmod 775 . && seq 3000 | split -l 1 -a 60 - wide/"
                  " && mkdir -p deep$(printf '/d%.0s' $(seq 50)) && chown -hR 1234:1234 .")
    expect_tree_is_copied(updated)


@pytest.mark.parametrize("make", [
    "touch bad; chmod 4755 bad",
    "mkdir bad; chmod 2755 bad",
    "mknod bad b 7 0",
    "ln -s c/../../../.. bad",
    "mkdir -p bad$(printf '/d%.0s' $(seq 80))",
])
def test_tree_with_what_does_not_belong_into_an_image_is_rejected(updated, make):
    updated.mount("2.0", change=f"cd adplayer/res/a/b; {make}")
    before = updated.snapshot(RES)
    assert "bad" in updated.run(COPY_TREE).expect(65).err
    assert updated.snapshot(RES) == before
    updated.expect_clean(1)


def test_tree_is_copied_without_exchange_and_on_an_overlay(updated):
    run_without(updated, COPY_TREE, ["renameat2"], errno.EINVAL).expect(0)
    expect_tree_is_copied(updated)
    # An overlay does not rename directories of its lower layer.
    updated.write("/stage/lower/zels/zelADAgent/adplayer/res/old/page", "the old page")
    updated.sh("cd stage && mkdir upper layer && mount -t overlay overlay -o "
               "lowerdir=lower,upperdir=upper,workdir=layer $root/usr/bin")
    assert updated.exists(RES + "/old/page")
    expect_tree_is_copied(updated)
    updated.run(REMOVE_RESOURCES).expect(0)
    assert not updated.exists(RES)
    expect_tree_is_copied(updated)


@pytest.mark.parametrize("words, path, options", [
    (COPY_LIBRARY, AGENT_LIBRARY, "size=20k"),
    (COPY_TREE, RES, "size=8k"),
    (COPY_TREE, RES, "nr_inodes=8"),
])
def test_lack_of_space_is_noticed_before_anything_is_written(updated, words, path, options):
    updated.sh(f"mount -t tmpfs -o mode=755,{options} small $(dirname .{path})")
    writes = []
    supervise(updated, words, lambda call: writes.append(call) if call.is_mutating() and call.name
              in ("write", "sendfile", "symlinkat") else 0).expect(74)
    assert not writes
    assert not updated.exists(path)
    updated.expect_clean(1)


OTHER_LIBRARY = LIB + "/libother.so"


@pytest.mark.parametrize("name, gone", [
    ("remove_usr_lib_file", [AGENT_LIBRARY, PLAYER_LIBRARY]),
    ("remove_usr_lib_path", [AGENT_LIBRARY, PLAYER_LIBRARY, OTHER_LIBRARY, LIB]),
    ("remove_zel_adagent_img_file", [STORED]),
    ("remove_player_res_path", [RES + "/page", RES]),
])
def test_removes_the_target_and_nothing_else(device, name, gone):
    everything = [AGENT_LIBRARY, PLAYER_LIBRARY, OTHER_LIBRARY, CACHE_MANIFEST, STORED,
                  RES + "/page"]
    for path in everything:
        device.write(path, "x")
    for _ in "again":
        device.run(["--remove", name]).expect(0)
    for path in everything + gone:
        assert device.exists(path) == (path not in gone)
    device.start_over()
    device.run(["--remove", name]).expect(0)


def test_removal_does_not_follow_links_in_wide_and_deep_trees(device):
    device.write("/home/kept/file", "kept")
    device.sh("mkdir $res && cd $res && ln -s /home/kept directory"
              " && ln -s /home/kept/file file && seq 3000 | split -l 1 -a 100 - wide"
              " && mkdir -p deep$(printf '/d%.0s' $(seq 60))")
    device.run(REMOVE_RESOURCES).expect(0)
    assert not device.exists(RES)
    assert device.read("/home/kept/file") == b"kept"
    device.sh("mkdir -p $res$(printf '/d%.0s' $(seq 130))")
    assert "nested too deeply" in device.run(REMOVE_RESOURCES).expect(71).err


@pytest.mark.parametrize("mount", ["-t tmpfs other", "--bind home/kept"])
@pytest.mark.parametrize("listed, missing", [(True, None), (False, None), (False, "openat2")])
def test_removal_does_not_cross_a_mount_point(device, mount, listed, missing):
    device.write("/home/kept/file", "kept")
    device.sh(f"mkdir -p $res/a/mounted; mount {mount} $res/a/mounted; echo > $res/a/mounted/new")
    def decide(call):
        hidden = not listed and "/proc/self/mountinfo" in call.paths()
        return errno.ENOSYS if call.name == missing or hidden else 0

    # Without the list of mounts it is noticed only in the tree, which has been renamed by then.
    supervise(device, REMOVE_RESOURCES, decide).expect(75)
    top = "$res" if listed else "${res%/res}/.res.ad-mounter-old"
    device.sh(f"test -e {top}/a/mounted/new && umount {top}/a/mounted")
    assert device.read("/home/kept/file") == b"kept"
    device.run(REMOVE_RESOURCES).expect(0)
    assert not device.exists(RES)
    device.expect_clean()


def test_creation_keeps_what_exists(device):
    device.write(CACHE_MANIFEST, "<Cache/>")
    device.sh("chown 77:88 $data/zelADAgentCache.xml; chown 66:99 $data")
    before = device.snapshot("/opt")
    for name in CREATIONS:
        device.run(["--create", name]).expect(0)
    assert device.snapshot("/opt") == before
    device.sh("rm $data/zelADAgentCache.xml")
    run_and_disturb(device, CREATE_MANIFEST, lambda call: call.name == "renameat2",
                    "echo new > $data/zelADAgentCache.xml").expect(0)
    assert device.read(CACHE_MANIFEST) == b"new\n"
    device.expect_clean()


@pytest.mark.parametrize("make, words", [
    ("mkdir -p $lib/libad-agent-fwk.so/x", ["--remove", "remove_usr_lib_file"]),
    ("echo file > $res", REMOVE_RESOURCES),
    ("mkdir $data/zelADAgentCache.xml", CREATE_MANIFEST),
    ("rm -r $lib; echo file > $lib", ["--create", "create_path_usr_lib"]),
])
def test_something_else_in_the_way_is_reported(device, make, words):
    device.sh(make)
    before = device.snapshot("/opt") | device.snapshot(RES)
    device.run(words).expect(73)
    assert device.snapshot("/opt") | device.snapshot(RES) == before


@pytest.mark.parametrize("words, trigger", [
    (["--create", "create_path_apps_adagent"], ".adagent.ad-mounter"),
    (["--create", "create_path_apps_adagent"], ".usr.ad-mounter"),
])
def test_directory_that_takes_the_place_of_a_new_one_stays_as_it_is(empty_device, words, trigger):
    device = empty_device
    device.sh("mkdir home/private && echo secret > home/private/file")
    before, exchanged = device.snapshot("/home/private"), []

    def decide(call):
        # When it is opened, which is once it has been made.
        if not exchanged and call.name == "openat2" and trigger in call.paths():
            exchanged.extend(device.sh(f"find opt -name {trigger}").split())
            device.sh(f"rmdir {exchanged[0]}; mv home/private {exchanged[0]}")

    supervise(device, words, decide, lambda: os.setresuid(1234, 0, 0)).expect(77)
    device.sh(f"mv {exchanged[0]} home/private")
    assert device.snapshot("/home/private") == before
    assert not device.exists(DATA)
