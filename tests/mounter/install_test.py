"""Creating, replacing the image, installing libraries and resources, removing."""

import errno
import os

import pytest

from device import (AGENT_LIBRARY, CACHE_MANIFEST, COPY_LIBRARY, COPY_TREE, CREATE_MANIFEST,
                    CREATIONS, DOWNLOAD, LIB, MOUNTED_LIBRARY, PLAYER_LIBRARY, POINT,
                    REMOVE_RESOURCES, REPLACE, RES, SOURCE, STORED)
from supervisor import run_and_disturb, run_without, supervise


@pytest.mark.parametrize("change, moved", [
    ("true", True),
    ("chmod 664 $download", False),
    ("chmod 646 $download", False),
    ("chown 1234 $download", False),
    ("ln $download stage/link", False),
    ("chmod 775 $data", False),
    ("chmod 757 $data", False),
    ("chown 1234 $data", False),
    ("mount -t tmpfs data $data && cp stage/image $download", False),
])
def test_moves_only_a_download_that_nobody_but_root_can_write(device, change, moved):
    for path in "/stage/image", DOWNLOAD:
        device.write(path, device.image("2.0"))
    device.write(STORED, device.image("1.0"))
    device.sh(change)
    with open(device.at(DOWNLOAD), "rb+") as file:
        device.run(REPLACE).expect(0)
        assert os.path.sameopenfile(file.fileno(), os.open(device.at(STORED), os.O_PATH)) == moved
    assert device.read(STORED) == device.image("2.0")
    assert device.ownership(STORED) == "0:0 644"
    assert os.stat(device.at(STORED)).st_nlink == 1
    assert not device.exists(DOWNLOAD)
    device.expect_clean()


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
    device.put_tree(POINT, "2.0")
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
    updated.expect_clean()
    updated.sh("rm $point/libad-agent-fwk.so")
    updated.run(COPY_LIBRARY).expect(66)
    updated.sh("mkdir $point/libad-agent-fwk.so")
    updated.run(COPY_LIBRARY).expect(65)


@pytest.mark.parametrize("pieces", [0, 1, 2])
def test_library_is_copied_where_the_kernel_cannot(updated, pieces):
    calls = []

    def decide(call):
        if call.name == "sendfile":
            calls.append(call)
            return errno.EINVAL if len(calls) > pieces else 0
        return 0

    updated.write(MOUNTED_LIBRARY, os.urandom(2_500_000))
    supervise(updated, COPY_LIBRARY, decide).expect(0)
    assert len(calls) == pieces + 1
    assert updated.read(AGENT_LIBRARY) == updated.read(MOUNTED_LIBRARY)


@pytest.mark.parametrize("words, path, size", [
    (COPY_LIBRARY, MOUNTED_LIBRARY, 100_000),
    (COPY_LIBRARY, MOUNTED_LIBRARY, 1_500_000),
    (REPLACE, DOWNLOAD, None),
])
def test_source_that_shrinks_meanwhile_is_not_installed(updated, words, path, size):
    updated.write(path, os.urandom(size) if size else updated.image("2.0"))
    os.chown(updated.at(path), 1234, 0)
    before = updated.snapshot(words[2])
    run_and_disturb(updated, words,
                    lambda call: call.name == "sendfile"
                    or (call.name == "read" and call.arguments[2] > 2048),
                    f"truncate -s 1500 .{path}").expect(74)
    assert updated.snapshot(words[2]) == before
    updated.expect_clean()


@pytest.mark.parametrize("words, path, temporary", [
    (COPY_LIBRARY, AGENT_LIBRARY, LIB + "/.libad-agent-fwk.so.ad-mounter"),
    (CREATE_MANIFEST, CACHE_MANIFEST, CACHE_MANIFEST.replace("zelAD", ".zelAD") + ".ad-mounter"),
])
def test_temporary_of_somebody_else_is_not_used(updated, words, path, temporary):
    before = updated.snapshot(path)
    # The last call before the temporary is created.
    run_and_disturb(updated, words, lambda call: call.name == "fstatfs",
                    f"echo bad > .{temporary}").expect(73)
    assert updated.snapshot(path) == before


def expect_tree_is_copied(device):
    device.run(COPY_TREE).expect(0)
    device.sh("chown -hR 0:0 $source")
    assert device.snapshot(RES) == device.snapshot(SOURCE)
    device.expect_clean()


def test_tree_is_the_source_owned_by_root(updated):
    updated.sh("cd $source && head -c 5000001 /dev/urandom > large && touch shared"
               " && mkdir sticky wide && chmod 666 shared && chmod 1777 sticky && chmod 775 ."
               " && seq 3000 | split -l 1 -a 60 - wide/"
               " && mkdir -p deep$(printf '/d%.0s' $(seq 50)) && chown -hR 1234:1234 .")
    expect_tree_is_copied(updated)


@pytest.mark.parametrize("missing", [[], ["openat2"]])
@pytest.mark.parametrize("make, status", [
    ("touch bad; chmod 4755 bad", 65),
    ("touch bad; chmod 2755 bad", 65),
    ("mkdir bad; chmod 2755 bad", 65),
    ("mknod bad c 1 3", 65),
    ("mknod bad b 7 0", 65),
    ("mkfifo bad", 65),
    ("ln -s c/../../../.. bad", 65),
    ("mkdir -p bad$(printf '/d%.0s' $(seq 80))", 65),
    ("mkdir bad; mount --bind c bad", 75),
])
def test_tree_with_what_does_not_belong_into_an_image_is_rejected(updated, make, status, missing):
    before = updated.snapshot(RES)
    updated.sh(f"cd $source/a/b; {make}")
    assert "bad" in run_without(updated, COPY_TREE, missing).expect(status).err
    assert updated.snapshot(RES) == before
    updated.expect_clean()


def has_scanned(call):
    return call.name == "lseek"


def opens_file(call):
    return call.name == "openat" and call.arguments[2] & os.O_NONBLOCK


@pytest.mark.parametrize("when, change, status", [
    (has_scanned, "chmod 4755 bad", 65),
    (has_scanned, "rm bad; mkdir -m 2755 bad", 65),
    (has_scanned, "ln -sf /stage/secret bad", 65),
    (has_scanned, "rm bad; mkfifo bad", 65),
    (has_scanned, "rm bad; mkdir -p bad$(printf '/d%.0s' $(seq 80))", 65),
    (has_scanned, "rm bad; mkdir bad; mount --bind . bad", 75),
    # After its directory entry has been read as that of a regular file.
    (opens_file, "ln -sf /stage/secret bad", 77),
    (opens_file, "rm bad; mkdir bad", 65),
])
def test_tree_is_checked_again_when_it_is_copied(updated, when, change, status):
    updated.write("/stage/secret", "root's own")
    updated.sh("rm -r $source; mkdir $source; echo good > $source/bad")
    before = updated.snapshot(RES)
    result = run_and_disturb(updated, COPY_TREE, when, f"cd $source; {change}")
    assert "bad" in result.expect(status).err
    assert updated.snapshot(RES) == before
    updated.expect_clean()


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
    updated.sh(f"mount -t tmpfs -o {options} small $(dirname .{path})")
    writes = []
    supervise(updated, words, lambda call: writes.append(call) if call.is_mutating() and call.name
              in ("write", "sendfile", "symlinkat") else 0).expect(74)
    assert not writes
    assert not updated.exists(path)
    updated.expect_clean()


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
