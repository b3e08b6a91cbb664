"""What a run cannot do: system calls, paths and capabilities beyond those of its command."""

import ctypes
import errno
import mmap
import os
import pathlib
import platform
import signal
import struct

import pytest

from device import (COPY_LIBRARY, COPY_TREE, CREATE_MANIFEST, LIB, LIBC, MOUNT,
                    REMOVE_RESOURCES, REPLACE, RES, STORED, TOOL, UMOUNT)
from supervisor import LOOP_CONFIGURE, LOOP_CTL_GET_FREE, SECCOMP, run_and_disturb, supervise

CREATE = ["--create", "create_path_usr_lib"]
REMOVE = ["--remove", "remove_usr_lib_file"]
COMMANDS = [CREATE, REMOVE, MOUNT, UMOUNT, REPLACE, COPY_LIBRARY, COPY_TREE]

PR_SET_NO_NEW_PRIVS, PR_SET_SECCOMP = 38, 22
MARK, MARKED, KILLED = 0x5ec0, 4000, 4001
RETURN_KILL, RETURN_KILLED = (struct.pack("<HBBI", 0x06, 0, 0, action)
                              for action in (0x80000000, 0x50000 | KILLED))
# Fails every call whose last argument is MARK with MARKED: allowed ones have no effect.
HARMLESS = struct.pack("<HBBIHBBIHBBIHBBI", 0x20, 0, 0, 16 + 5 * 8, 0x15, 0, 1, MARK,
                       0x06, 0, 0, 0x50000 | MARKED, 0x06, 0, 0, 0x7fff0000)
# uretprobe and uprobe, which the kernel lets pass: they only work for its own trampolines.
UNFILTERED = 335, 336
THREAD, X32 = 0x3d0f00, 1 << 30
# Name -> call and its arguments.
CALLS_WITH_ARGUMENTS = {
    "ioctl LOOP_GET_STATUS64": ("ioctl", 0, 0x4c05),
    "ioctl LOOP_SET_STATUS64": ("ioctl", 0, 0x4c04),
    "ioctl LOOP_SET_FD": ("ioctl", 0, 0x4c00),
    "ioctl LOOP_CLR_FD": ("ioctl", 0, 0x4c01),
    "ioctl LOOP_CONFIGURE": ("ioctl", 0, LOOP_CONFIGURE),
    "ioctl LOOP_CTL_GET_FREE": ("ioctl", 0, LOOP_CTL_GET_FREE),
    "ioctl LOOP_CHANGE_FD": ("ioctl", 0, 0x4c06),
    "ioctl TIOCSTI": ("ioctl", 0, 0x5412),
    "mmap PROT_EXEC": ("mmap", 0, 4096, 4),
    "mprotect PROT_EXEC": ("mprotect", 0, 4096, 4),
    "mount ro,nosuid,nodev": ("mount", 0, 0, 0, 1 | 2 | 4),
    "mount ro,nosuid": ("mount", 0, 0, 0, 1 | 2),
    "mount ro,nosuid,nodev,bind": ("mount", 0, 0, 0, 1 | 2 | 4 | 4096),
    "clone of a thread": ("clone", THREAD),
    "clone of a process": ("clone", signal.SIGCHLD),
    "clone of a thread in a namespace": ("clone", THREAD | 0x10000000),
    "tgkill SIGABRT": ("tgkill", 0, 0, signal.SIGABRT),
    "tgkill SIGKILL": ("tgkill", 0, 0, signal.SIGKILL),
}


def number_of(name):
    return SECCOMP.seccomp_syscall_resolve_name(name.encode())


def name_of(number):
    SECCOMP.seccomp_syscall_resolve_num_arch.restype = ctypes.c_char_p
    return (SECCOMP.seccomp_syscall_resolve_num_arch(0, number) or b"?").decode()


def calls_to_try():
    """Description and arguments of each call."""
    calls = [(name_of(number), (number,)) for number in range(1000) if number not in UNFILTERED]
    calls += [(f"x32 {number}", (number | X32,)) for number in range(1000)]
    return calls + [(name, (number_of(call[0]), *call[1:]))
                    for name, call in CALLS_WITH_ARGUMENTS.items()]


def filter_of(device, words):
    """The BPF program that the tool gives to seccomp(2)."""
    programs = []

    def decide(call):
        if call.name != "seccomp":
            return 0
        length, address = struct.unpack("H6xQ", call.memory(call.arguments[2], 16))
        programs.append(call.memory(address, 8 * length))
        return errno.EINVAL

    supervise(device, words, decide).expect(71)
    return programs[0]


def install(program):
    steps = ctypes.create_string_buffer(program)
    header = struct.pack("H6xQ", len(program) // 8, ctypes.addressof(steps))
    assert LIBC.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0
    assert LIBC.prctl(PR_SET_SECCOMP, 2, header, 0, 0) == 0


def try_calls(program, calls):
    """The errno value that each call fails with under both filters."""
    results = mmap.mmap(-1, len(calls) * 2)
    pid = os.fork()
    if pid == 0:
        install(HARMLESS)
        install(program)
        for i, call in enumerate(calls):
            LIBC.syscall(*map(ctypes.c_long, (call + (0,) * 6)[:6]), ctypes.c_long(MARK))
            results[2 * i:2 * i + 2] = struct.pack("H", ctypes.get_errno())
        os._exit(0)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), [
        result for result, in struct.iter_unpack("H", results[:])]


@pytest.mark.skipif(platform.machine() != "x86_64" or b"/ld-linux" in TOOL.read_bytes(),
                    reason="the list is of the release build for x86-64")
def test_filter_allows_exactly_the_listed_calls(empty_device):
    calls = calls_to_try()
    verbs = {name: [] for name, _ in calls}
    for words in COMMANDS:
        program = filter_of(empty_device, words)
        survived = program.replace(RETURN_KILL, RETURN_KILLED)
        status, results = try_calls(survived, [call for _, call in calls])
        assert status == 0
        for (name, _), result in zip(calls, results):
            if result != KILLED:
                assert result == (errno.ENOSYS if name == "clone3" else MARKED), name
                verbs[name].append(words[0][2:])
        for name in "execve", "x32 1", "mmap PROT_EXEC":
            status, _ = try_calls(program, [call for other, call in calls if other == name])
            assert status == -signal.SIGSYS
    allowed = [f"{name}: {' '.join(verbs[name])}" for name in sorted(verbs) if verbs[name]]
    expected = pathlib.Path(__file__).with_name("allowed_calls.txt").read_text(encoding="ascii")
    assert allowed == expected.splitlines()


@pytest.mark.skipif(LIBC.syscall(444, 0, 0, 1) <= 0, reason="needs Landlock")
@pytest.mark.parametrize("words, directory", [
    (CREATE, "/opt/usr"), (CREATE_MANIFEST, "/opt/usr/apps"), (REMOVE, "/opt/usr"),
    (REMOVE_RESOURCES, os.path.dirname(RES)), (COPY_LIBRARY, "/opt/usr"),
    (COPY_TREE, os.path.dirname(RES))])
def test_cannot_change_directories_of_others(device, words, directory):
    """With another directory in the place of the request's own, after the run has begun."""
    device.put(STORED, device.image("1.0"))
    device.run(MOUNT).expect(0)
    device.write(LIB + "/libad-agent-fwk.so", "the old library")
    device.write(RES + "/page", "the old page")
    if words == CREATE:
        device.sh("rm -r $lib")
    outside = device.at(directory)
    result = run_and_disturb(device, words, lambda call: call.name == "flock",
                             f"cp -ax {outside} stage/new && (! [ -d stage/new/apps ] ||"
                             f" mount --bind $point stage/new/apps/zelADAgent)"
                             f" && mount --rbind stage/new {outside}"
                             " && find stage/new -xdev > stage/list")
    assert "Permission denied" in result.expect(77).err
    device.sh("find stage/new -xdev | cmp - stage/list")
