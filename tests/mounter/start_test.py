"""How a run begins: what it takes over from its caller, who that may be, and the lock."""

import ctypes
import errno
import os
import resource
import signal
import struct
import subprocess
import time

import pytest

from device import (AGENT_LIBRARY, CACHE_MANIFEST, COPY_LIBRARY, COPY_TREE, CREATIONS, DATA,
                    DOWNLOAD, LIB, LIBC, MOUNT, MOUNTED_LIBRARY, PLAYER_LIBRARY, POINT,
                    REMOVE_RESOURCES, REPLACE, RES, SOURCE, STORED, TOOL, UMOUNT,
                    pass_on_capability, status_field)
from supervisor import PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS, run_without, supervise

HAS_LANDLOCK = LIBC.syscall(444, 0, 0, 1) > 0  # landlock_create_ruleset(2): its version
LINKED_DYNAMICALLY = b"/ld-linux" in TOOL.read_bytes()
USER, GROUP = 1234, 5678
CREATE = ["--create", "create_path_usr_lib"]


def test_wrong_usage_is_one_line_and_touches_nothing(empty_device):
    empty_device.run([]).expect(64)
    empty_device.run(["--umount", "/"]).expect(64)
    result = empty_device.run(["--create", b"x\ny\x1f \x7e\x7f\x80\xff"]).expect(64)
    assert result.err == "ad-mounter: unknown name: x?y? ~???; see --help\n"
    nothing = (ctypes.c_char_p * 1)(None)
    empty_device.run([], lambda: LIBC.execve(b"/tool/ad-mounter", nothing, nothing)).expect(64)
    assert not empty_device.exists("/run/ad-mounter")


def test_prints_help_and_version(empty_device):
    text = empty_device.run(["--help"]).expect(0).out
    for part in "--copy_all", CREATIONS[3], STORED, PLAYER_LIBRARY, RES, "--version":
        assert part in text
    assert empty_device.run(["--version"]).expect(0).out.startswith("ad-mounter ")
    full = empty_device.run(["--help"], lambda: os.dup2(os.open("/dev/full", os.O_WRONLY), 1))
    assert full.status == 74


@pytest.mark.parametrize("name, argument", [
    ("capget", None), ("capset", None), ("prctl", PR_SET_NO_NEW_PRIVS), ("prctl", PR_CAPBSET_DROP),
    ("landlock_create_ruleset", None), ("landlock_restrict_self", None), ("seccomp", None),
    ("setresuid", None)])
def test_failure_to_drop_privileges_is_fatal(empty_device, name, argument):
    if name == "landlock_restrict_self" and not HAS_LANDLOCK:
        pytest.skip("needs Landlock")
    supervise(empty_device, CREATE, lambda call: errno.EINVAL if call.name == name and argument in
              (None, call.arguments[0]) else 0).expect(71)
    assert not empty_device.exists("/run/ad-mounter")


@pytest.mark.parametrize("missing", [[], ["close_range"]])
def test_callers_files_do_not_keep_the_mount_busy(device, missing):
    def use_mount():
        for _ in range(100):
            os.set_inheritable(os.open(MOUNTED_LIBRARY, os.O_RDONLY), True)
        os.chdir(POINT)

    device.put(STORED, device.image("1.0"))
    device.run(MOUNT).expect(0)
    run_without(device, UMOUNT, missing, before_exec=use_mount).expect(0)


UNLIMITED = (1 << 64) - 1
RTTIME = 15
LIMITS = {resource.RLIMIT_STACK: 8 << 20, resource.RLIMIT_CPU: UNLIMITED, RTTIME: UNLIMITED,
          resource.RLIMIT_AS: UNLIMITED, resource.RLIMIT_DATA: UNLIMITED,
          resource.RLIMIT_FSIZE: UNLIMITED, resource.RLIMIT_NPROC: UNLIMITED,
          resource.RLIMIT_MEMLOCK: 64 << 10, resource.RLIMIT_NOFILE: 1024, resource.RLIMIT_CORE: 0}


def starve():
    """Lowers the limits. Few machines let the tests exceed a hard limit again."""
    for limit, value in {resource.RLIMIT_STACK: 1 << 15, resource.RLIMIT_AS: 1 << 23,
                         resource.RLIMIT_FSIZE: 0, resource.RLIMIT_NPROC: 0,
                         resource.RLIMIT_NOFILE: 3}.items():
        resource.setrlimit(limit, (value, resource.getrlimit(limit)[1]))


@pytest.mark.parametrize("kind", ["squashfs", "erofs"])
def test_callers_limits_do_not_matter(device, kind):
    asked = {}

    def decide(call):
        if call.name == "prlimit64" and call.arguments[2]:
            value = struct.unpack("2Q", call.memory(call.arguments[2], 16))
            asked.setdefault(call.arguments[1], []).append(value)
            return errno.EPERM if len(asked[call.arguments[1]]) == 1 else 0
        assert len(asked) == len(LIMITS) or call.name == "prlimit64"
        return 0

    device.put(DOWNLOAD, device.image("1.0", kind))
    device.sh("chown 1234 $download")
    for words in REPLACE, MOUNT, COPY_LIBRARY, COPY_TREE, REMOVE_RESOURCES, UMOUNT:
        device.run(words, None if LINKED_DYNAMICALLY else starve).expect(0)
    # Without CAP_SYS_RESOURCE the limits are raised as far as possible.
    supervise(device, CREATE, decide).expect(0)
    for limit, value in LIMITS.items():
        hard = resource.getrlimit(limit)[1] % (1 << 64)
        assert asked[limit] == [(value, value), (min(value, hard), hard)]


def test_closed_pipe_is_not_fatal(device):
    def close_pipe():
        reader, writer = os.pipe()
        os.close(reader)
        os.dup2(writer, 2)
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)

    assert device.run(["--frobnicate"], close_pipe).status == 64


def test_gives_up_on_the_lock_after_thirty_seconds(empty_device):
    timeouts = []

    def decide(call):
        if call.name == "setitimer":
            timeouts.append(struct.unpack("4q", call.memory(call.arguments[1], 32)))
        elif call.name == "flock" and timeouts:
            return errno.EINTR
        return 0

    with empty_device.hold_lock():
        supervise(empty_device, CREATE, decide).expect(75)
    # Repeats: the first signal may come before the run waits.
    assert timeouts == [(0, 100_000, 30, 0), (0, 0, 0, 0)]
    assert not empty_device.exists(LIB)


@pytest.mark.parametrize("change", ["chmod 755", "chmod 710", "chown 1234"])
def test_refuses_a_lock_that_others_could_hold(empty_device, change):
    empty_device.run(CREATE).expect(0)
    assert empty_device.ownership("/run/ad-mounter") == "0:0 700"
    empty_device.sh(f"{change} run/ad-mounter")
    empty_device.run(["--create", "create_path_zeladagent"]).expect(77)
    assert not empty_device.exists("/opt/down")


def become_user(group=GROUP):
    pass_on_capability()
    os.setgroups([4242])
    os.setgid(group)
    os.setuid(USER)


@pytest.fixture
def set_user_id_device(empty_device):
    """A device whose tool is installed set-user-ID for a group."""
    empty_device.sh(f"chgrp {GROUP} tool/ad-mounter && chmod 4750 tool/ad-mounter")
    return empty_device


def test_updates_for_an_ordinary_users_daemon(set_user_id_device):
    device = set_user_id_device
    for name in CREATIONS:
        device.run(["--create", name], become_user).expect(0)
    assert device.ownership(DATA) == f"{USER}:{GROUP} 755"
    assert device.ownership(CACHE_MANIFEST) == f"{USER}:{GROUP} 644"
    assert device.ownership(POINT) == device.ownership(LIB) == "0:0 755"
    for kind in "squashfs", "erofs":
        device.put(DOWNLOAD, device.image("1.0", kind))
        device.sh(f"chown {USER} $download; chmod 600 $download")
        for words in REPLACE, MOUNT, COPY_LIBRARY, COPY_TREE:
            device.run(words, become_user).expect(0)
        assert device.read(AGENT_LIBRARY) == device.read(MOUNTED_LIBRARY)
        assert device.snapshot(RES) == device.snapshot(SOURCE)
        assert device.ownership(AGENT_LIBRARY) == device.ownership(STORED) == "0:0 644"
        for words in UMOUNT, REMOVE_RESOURCES, ["--remove", "remove_usr_lib_file"]:
            device.run(words, become_user).expect(0)
        device.expect_clean()


def test_serves_only_its_group_and_the_callers_own_download(set_user_id_device):
    device = set_user_id_device
    assert device.run(["--help"], lambda: become_user(GROUP + 1)).status == 126
    device.make_layout()
    device.put(DOWNLOAD, device.image("1.0"))
    device.sh(f"chown {USER + 1} $download")
    device.run(REPLACE, become_user).expect(77)
    device.sh("chmod 755 tool/ad-mounter")
    device.run(["--remove", "remove_usr_lib_path"], become_user).expect(77)
    assert device.exists(LIB) and not device.exists(STORED)


def test_keeps_nothing_of_its_callers(set_user_id_device):
    """A waiting process can be ended, whatever its caller has blocked, but not by its caller."""
    device = set_user_id_device

    def block_signals():
        signal.pthread_sigmask(signal.SIG_SETMASK, signal.valid_signals())
        become_user()

    with device.hold_lock():
        pid = device.start(CREATE, block_signals)
        while status_field(pid, "Seccomp") != "2":
            time.sleep(0.001)
        assert status_field(pid, "SigBlk") == status_field(pid, "CapInh") == "0000000000000000"
        assert status_field(pid, "Groups") == ""
        assert status_field(pid, "Uid") == status_field(pid, "Gid") == "0\t0\t0\t0"
        killer = subprocess.run(["kill", "-KILL", str(pid)], user=USER, check=False)
        assert killer.returncode != 0
        time.sleep(0.1)
        assert not device.exists(LIB)
        os.kill(pid, signal.SIGTERM)
        assert device.wait_for(pid).status == -signal.SIGTERM
