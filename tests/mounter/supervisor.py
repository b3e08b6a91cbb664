"""Runs the tool and decides on each of its system calls, by seccomp_unotify(2)."""

import ctypes
import errno
import fcntl
import os
import select
import socket
import struct
from typing import NamedTuple

SECCOMP = ctypes.CDLL("libseccomp.so.2")
SECCOMP.seccomp_init.restype = ctypes.c_void_p
ACT_ALLOW, ACT_NOTIFY = 0x7fff0000, 0x7fc00000
CTL_NNP = 3
COMPARE_EQUAL = 4
PR_CAPBSET_DROP, PR_SET_NO_NEW_PRIVS = 24, 38
IOCTL_RECEIVE, IOCTL_SEND = 0xc0502100, 0xc0182101
NOTIFICATION = struct.Struct("=QIIiIQ6Q")
RESPONSE = struct.Struct("=QqiI")
ANSWERED = -1  # from decide(): the call succeeds without being made
LOOP_CONFIGURE, LOOP_CTL_GET_FREE = 0x4c0a, 0x4c82

# Calls that are given a path, those that are given a descriptor, and those that tests watch.
WITH_PATH = {"openat", "openat2", "mkdirat", "unlinkat", "renameat", "renameat2", "linkat",
             "symlinkat", "newfstatat", "mount", "umount2", "move_mount"}
WITH_DESCRIPTOR = {"write", "fsync", "syncfs", "fsopen", "fsconfig", "fsmount", "read", "fchown",
                   "fchmod", "ioctl", "fchdir", "flock", "fstatfs", "getdents64", "sendfile",
                   "sync_file_range"}
# Where the paths are among the arguments; second for most.
PATHS = {"renameat": (1, 3), "renameat2": (1, 3), "linkat": (1, 3), "symlinkat": (0, 2),
         "mount": (0, 1), "umount2": (0,), "move_mount": (1, 3)}
WATCHED = {"prlimit64", "umask", "close_range", "capget", "capset", "prctl", "seccomp", "setresuid",
           "setitimer", "lseek", "pread64", "fcntl", "exit_group", "landlock_create_ruleset",
           "landlock_add_rule", "landlock_restrict_self", "clone3"}
# What Linux 4.19 lacks.
NEWER_CALLS = ["openat2", "fsopen", "fsconfig", "fsmount", "move_mount", "close_range", "clone3",
               "landlock_create_ruleset", "landlock_add_rule", "landlock_restrict_self",
               "LOOP_CONFIGURE"]
READING = {"openat2", "newfstatat", "fsopen", "read", "getdents64", "fchdir", "flock", "fstatfs"}

# Of the calls that come in great numbers: argument and value.
CONDITIONS = {"prctl": [[(0, PR_SET_NO_NEW_PRIVS)], [(0, PR_CAPBSET_DROP), (1, 0)]]}

NUMBERS = {SECCOMP.seccomp_syscall_resolve_name(name.encode()): name
           for name in WITH_PATH | WITH_DESCRIPTOR | WATCHED}


class Call(NamedTuple):
    """A system call that is about to happen."""
    process: int
    name: str
    arguments: tuple

    def memory(self, address, size):
        """Up to `size` bytes of the process's memory."""
        with open(f"/proc/{self.process}/mem", "rb") as memory:
            memory.seek(address)
            return memory.read1(size)

    def paths(self):
        """The paths that it is given."""
        for argument in PATHS.get(self.name, (1,)) if self.name in WITH_PATH else ():
            yield self.memory(self.arguments[argument], 4096).partition(b"\0")[0].decode()

    def file(self):
        """The file that its first argument is a descriptor of."""
        return os.readlink(f"/proc/{self.process}/fd/{self.arguments[0]}")

    def creates_file(self):
        return self.name == "openat" and self.arguments[2] & os.O_CREAT != 0

    def is_faulty(self):
        """Whether the tests inject errors; not into the failure's own message."""
        message = self.name == "write" and self.arguments[0] <= 2
        return not message and self.name in WITH_PATH | WITH_DESCRIPTOR

    def is_mutating(self):
        """Whether it changes something outside of the process."""
        if self.name == "openat":
            return self.creates_file()
        if self.name == "ioctl":
            return self.arguments[1] in (LOOP_CONFIGURE, LOOP_CTL_GET_FREE)
        return self.name == "exit_group" or (self.is_faulty() and self.name not in READING)


def make_filter():
    context = ctypes.c_void_p(SECCOMP.seccomp_init(ACT_ALLOW))
    SECCOMP.seccomp_attr_set(context, CTL_NNP, 0)
    for number, name in NUMBERS.items():
        for conditions in CONDITIONS.get(name, [[]]):
            packed = b"".join(struct.pack("=IiQQ", argument, COMPARE_EQUAL, value, 0)
                              for argument, value in conditions)
            assert SECCOMP.seccomp_rule_add_array(context, ACT_NOTIFY, number, len(conditions),
                                                  packed) == 0
    return context


FILTER = make_filter()


def receive(listener):
    """The next notification; None when the process is gone."""
    buffer = bytearray(NOTIFICATION.size)
    try:
        fcntl.ioctl(listener, IOCTL_RECEIVE, buffer)
    except OSError as error:
        assert error.errno == errno.ENOENT
        return None
    return NOTIFICATION.unpack(buffer)


def answer_calls(listener, decide):
    """Answers notifications until the process and all its threads are gone."""
    started = False
    poll = select.poll()
    poll.register(listener)
    while poll.poll()[0][1] & select.POLLIN:
        notification = receive(listener)
        if notification is None:
            continue
        identifier, process, _, number, _, _, *arguments = notification
        call = Call(process, NUMBERS[number], tuple(arguments))
        # The first call that the tool itself makes.
        started = started or (call.name == "prlimit64" and call.arguments[2] != 0)
        error = started and decide(call) or 0
        try:
            answer = (0, 0) if error == ANSWERED else (-error, not error)
            fcntl.ioctl(listener, IOCTL_SEND, RESPONSE.pack(identifier, 0, *answer))
        except OSError as failure:
            assert failure.errno == errno.ENOENT  # killed


def supervise(device, words, decide, before_exec=lambda: None):
    """Runs the tool. `decide` is called before each call of all its threads, but none of a
    dynamic loader, and returns the errno value that the call fails with, if any."""
    ours, theirs = socket.socketpair()

    def load():
        before_exec()
        if SECCOMP.seccomp_load(FILTER) == 0:
            socket.send_fds(theirs, [b"."], [SECCOMP.seccomp_notify_fd(FILTER)])

    with ours:
        with theirs:
            pid = device.start(words, load)
        listener = socket.recv_fds(ours, 1, 1)[1][0]
    try:
        answer_calls(listener, decide)
    finally:
        # Where `decide` has failed, further calls fail with ENOSYS.
        os.close(listener)
        result = device.wait_for(pid)
    return result


def run_without(device, words, calls, error=errno.ENOSYS, before_exec=lambda: None):
    """Runs the tool with these calls failing. LOOP_CONFIGURE, an ioctl(2), fails with EINVAL."""
    def decide(call):
        if call.name == "ioctl" and call.arguments[1] == LOOP_CONFIGURE:
            return errno.EINVAL if "LOOP_CONFIGURE" in calls else 0
        return error if call.name in calls else 0

    return supervise(device, words, decide, before_exec)


def run_and_disturb(device, words, when, command):
    """Runs the tool, and a shell command before the first call that `when` selects."""
    disturbed = []

    def decide(call):
        if not disturbed and when(call):
            disturbed.append(call)
            device.sh(command)

    result = supervise(device, words, decide)
    assert disturbed
    return result
