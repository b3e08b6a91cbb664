"""Every verb from a known state to a known state: with failing calls, killed, without newer
calls, with symbolic links in its paths, and with how few privileges."""

import errno
import os
import re
import shutil
import signal
from itertools import count
from typing import Callable, NamedTuple

import pytest

from device import (AGENT_LIBRARY, CACHE_MANIFEST, COPY_LIBRARY, COPY_TREE, CREATE_MANIFEST, DATA,
                    DOWNLOAD, FLOOR, LIB, MOUNT, MOUNTED_LIBRARY, PLAYER_LIBRARY, POINT,
                    REMOVE_IMAGE, REMOVE_RESOURCES, REPLACE, RES, SOURCE, STORED, TOOL, UMOUNT,
                    pass_on_capability, status_field)
from supervisor import NEWER_CALLS, WITH_PATH, run_without, supervise

# As with sanitizers: slower, and would not even start without /usr.
LINKED_DYNAMICALLY = b"/ld-linux" in TOOL.read_bytes()
FIXED_DIRECTORIES = {"/", "/usr"} if LINKED_DYNAMICALLY else {"/"}


class Scenario(NamedTuple):
    """`prepare` brings the device into the state before, from any state; the state shows in
    `changed`. `walked` is a further path. With a `gap` the old may go before the new comes."""
    words: list
    prepare: Callable
    changed: str
    walked: str = ""
    gap: bool = False


def nothing(device):
    device.start_over()


# Larger than what is copied at a time.
LARGE_LIBRARY = "head -c 1500000 /dev/zero > libad-agent-fwk.so"


def old_version(device):
    device.start_over()
    device.make_layout()
    device.mount("2.0", change=LARGE_LIBRARY)
    device.write(AGENT_LIBRARY, "the old library")
    device.write(PLAYER_LIBRARY, "the old player")
    device.write(RES + "/old/page", "the old page")


def no_resources(device):
    old_version(device)
    device.sh("rm -r $res")


def stored(kind="squashfs"):
    def prepare(device):
        device.start_over()
        device.make_layout()
        device.write(STORED, device.image("1.0", kind))
    return prepare


def mounted(kind, next_version=None):
    def prepare(device):
        stored(kind)(device)
        device.run(MOUNT).expect(0)
        if next_version:
            device.put(STORED, device.image(next_version, kind))
    return prepare


def downloaded(owner):
    def prepare(device):
        stored()(device)
        device.write(DOWNLOAD, device.image("2.0"))
        os.chown(device.at(DOWNLOAD), owner, 0)
    return prepare


SCENARIOS = {
    "create_directory": Scenario(["--create", "create_path_apps_adagent"], nothing, DATA),
    "create_manifest": Scenario(CREATE_MANIFEST, nothing, CACHE_MANIFEST),
    "remove_libraries": Scenario(["--remove", "remove_usr_lib_file"], old_version, AGENT_LIBRARY,
                                 PLAYER_LIBRARY),
    "remove_library_path": Scenario(["--remove", "remove_usr_lib_path"], old_version, LIB),
    "remove_image": Scenario(REMOVE_IMAGE, stored(), STORED),
    "remove_resources": Scenario(REMOVE_RESOURCES, old_version, RES),
    "mount_squashfs": Scenario(MOUNT, stored(), POINT, STORED),
    "mount_erofs": Scenario(MOUNT, stored("erofs"), POINT, STORED),
    "mount_over_old_squashfs": Scenario(MOUNT, mounted("squashfs", "2.0"), POINT, STORED, True),
    "mount_over_old_erofs": Scenario(MOUNT, mounted("erofs", "2.0"), POINT, STORED, True),
    "unmount": Scenario(UMOUNT, mounted("squashfs"), POINT),
    "replace_by_rename": Scenario(REPLACE, downloaded(0), STORED, DOWNLOAD),
    "replace_by_copy": Scenario(REPLACE, downloaded(1234), STORED, DOWNLOAD),
    "copy_library": Scenario(COPY_LIBRARY, old_version, AGENT_LIBRARY, MOUNTED_LIBRARY),
    "copy_tree": Scenario(COPY_TREE, old_version, RES, SOURCE),
    "copy_tree_anew": Scenario(COPY_TREE, no_resources, RES, SOURCE),
}
scenarios = pytest.mark.parametrize("scenario", SCENARIOS.values(), ids=SCENARIOS.keys())

KILLED = 0  # stands among the errors for the death of the process
STATUSES = {errno.ENOSPC: [0, 74], errno.EIO: [0, 65, 74], errno.EROFS: [0, 73],
            errno.EACCES: [0, 77], errno.EBUSY: [0, 75], errno.EMFILE: [0, 71],
            KILLED: [-signal.SIGKILL]}


def run_with_error(device, words, is_point, point, error):
    """Runs the tool with the error at a point. Returns its result and the calls that are
    points, up to there."""
    points = []

    def decide(call):
        if not is_point(call):
            return 0
        points.append(call)
        if len(points) != point + 1:
            return 0
        if error == KILLED:
            os.kill(call.process, signal.SIGKILL)
        return error

    return supervise(device, words, decide), points


def check_each_point(device, scenario, is_point, errors):
    """Each error at each point leaves the old or the new, and the next run completes the work.
    `errors` is called with a point's number."""
    scenario.prepare(device)
    old = device.snapshot(scenario.changed)
    result, points = run_with_error(device, scenario.words, is_point, -2, 0)
    result.expect(0)
    new, floor = device.snapshot(scenario.changed), device.read(FLOOR)
    assert old != new
    for point, error in ((point, error) for point in range(len(points)) for error in errors(point)):
        scenario.prepare(device)
        result, seen = run_with_error(device, scenario.words, is_point, point, error)
        if len(seen) <= point:
            # Another test took the loop device in the counted run, which tried again.
            result.expect(0)
            continue
        call = seen[point]
        # A loop device that cannot be queried is not known to be ours.
        uses_mount = any(word.startswith(POINT) for word in scenario.words)
        unsure = [75, 77] if uses_mount and error != KILLED else []
        result.expect(*STATUSES[error], *unsure)
        state = device.snapshot(scenario.changed)
        assert state in (old, new) or (scenario.gap and not device.mounts()), (call, error)
        assert state == new or result.status != 0, (call, error)
        assert state == new or scenario.walked != DOWNLOAD or device.exists(DOWNLOAD), (call, error)
        # Without a download there is nothing left to store.
        gone = scenario.walked == DOWNLOAD and not device.exists(DOWNLOAD)
        device.run(scenario.words).expect(66 if gone else 0)
        assert device.snapshot(scenario.changed) == new, (call, error)
        assert device.read(FLOOR) == floor, (call, error)
        device.expect_clean(1)


@scenarios
def test_each_failing_call_leaves_old_or_new(empty_device, scenario):
    others = [errno.EBUSY, errno.ENOSPC, errno.EROFS, errno.EACCES, errno.EMFILE]
    check_each_point(empty_device, scenario, lambda call: call.is_faulty(), lambda point:
                     [errno.EIO] + ([] if LINKED_DYNAMICALLY else [others[point % len(others)]]))


@scenarios
def test_each_kill_leaves_old_or_new(empty_device, scenario):
    check_each_point(empty_device, scenario, lambda call: call.is_mutating(), lambda _: [KILLED])


VICTIM = "/home/victim"


@pytest.fixture
def device_with_victim(empty_device):
    """A device with a tree that looks like its own, where symbolic links lead."""
    for path in AGENT_LIBRARY, PLAYER_LIBRARY, CACHE_MANIFEST, DOWNLOAD, STORED:
        empty_device.write(VICTIM + path, "the victim's own")
    empty_device.put_tree(VICTIM + POINT, "9.9")
    empty_device.write(VICTIM + RES + "/page.html", "the victim's own page")
    return empty_device


def components(device, scenario):
    """Each component of each path that could be a link, as the path up to it."""
    found = set()
    for path in filter(None, (scenario.changed, scenario.walked)):
        while path not in FIXED_DIRECTORIES | found:
            scenario.prepare(device)
            if not (device.mounts() and f"{path}/".startswith(POINT + "/")):
                found.add(path)
                yield path
            path = os.path.dirname(path)


class Swap:
    """Puts a link to the victim's in the place of a component, and back."""

    def __init__(self, device, component):
        self.device = device
        self.path = device.at(component)
        self.target = VICTIM + component
        self.victim = device.snapshot(VICTIM)

    def swap_in(self):
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        try:
            os.rename(self.path, self.path + ".real")
        except FileNotFoundError:
            pass
        except OSError as error:
            assert error.errno == errno.EBUSY  # mounted in the meantime
            return
        os.symlink(self.target, self.path)

    def swap_back(self):
        if os.path.islink(self.path):
            os.unlink(self.path)
        try:
            os.rename(self.path + ".real", self.path)
        except OSError:
            # The tool has replaced the link.
            shutil.rmtree(self.path + ".real", ignore_errors=True)
        assert self.device.snapshot(VICTIM) == self.victim
        for mount in self.device.mounts():
            assert f" {self.device.at(POINT)} " in mount


@scenarios
def test_link_at_any_component_is_refused(device_with_victim, scenario):
    for component in components(device_with_victim, scenario):
        swap = Swap(device_with_victim, component)
        swap.swap_in()
        device_with_victim.run(scenario.words).expect(77)
        swap.swap_back()


@scenarios
def test_directory_that_others_can_change_is_refused(empty_device, scenario):
    """But for the caller's own, which holds the download and the cache manifest."""
    device, changes = empty_device, ["chmod 757", "chmod 775", "chown 1234"]
    if scenario.prepare == nothing:
        device.make_layout()
    for number, path in enumerate({os.path.dirname(path) for path in components(device, scenario)}):
        scenario.prepare(device)
        if device.exists(path) and path not in (DATA, POINT):
            before = device.snapshot("/opt/usr") | device.snapshot("/opt/down")
            device.sh(f"{changes[number % len(changes)]} .{path}")
            assert f"to use {path}: " in device.run(scenario.words).expect(77).err
            device.sh(f"chmod 755 .{path}; chown 0 .{path}")
            assert device.snapshot("/opt/usr") | device.snapshot("/opt/down") == before


@scenarios
def test_link_swapped_in_before_any_lookup_has_no_effect(device_with_victim, scenario):
    for component in components(device_with_victim, scenario):
        swap, lookups = Swap(device_with_victim, component), []

        def decide(call, name=os.path.basename(component)):
            if name in call.paths():
                lookups.append(call)
                if len(lookups) == point + 1:
                    swap.swap_in()

        for point in count():
            lookups.clear()
            scenario.prepare(device_with_victim)
            assert supervise(device_with_victim, scenario.words, decide).status >= 0
            swap.swap_back()
            if len(lookups) <= point:
                break


FILES, MOUNTING, OWNING = 1 << 1, 1 << 21, 1 << 0 | 1 << 3
CAPABILITIES = {"--create": FILES | OWNING, "--remove": FILES | 1 << 3, "--mount": FILES | MOUNTING,
                "--umount": FILES | MOUNTING, "--replaceimg": FILES | MOUNTING | OWNING,
                "--copylib": FILES | OWNING, "--copy_all": FILES | OWNING}


@scenarios
def test_process_is_confined_and_in_order_before_anything_is_touched(empty_device, scenario):
    device = empty_device
    scenario.prepare(device)
    confined = []

    def cause_disorder():
        os.chdir("/home")
        os.umask(0o777)
        pass_on_capability()
        for fd in range(3):
            os.set_inheritable(fd, False)

    def decide(call):
        process = f"/proc/{call.process}"
        assert confined or not call.is_mutating()
        if call.name == "flock":
            for fd in range(3):
                assert os.readlink(f"{process}/fd/{fd}") == device.at("/dev/null")
            assert os.readlink(f"{process}/cwd") == device.root
        if confined and call.name in WITH_PATH:
            for name, expected in {"CapPrm": CAPABILITIES[scenario.words[0]], "CapInh": 0,
                                   "CapEff": CAPABILITIES[scenario.words[0]], "CapAmb": 0,
                                   "CapBnd": 0}.items():
                assert int(status_field(call.process, name), 16) == expected, name
            assert status_field(call.process, "NoNewPrivs") == "1"
            assert status_field(call.process, "Seccomp_filters") == "2"
            assert status_field(call.process, "Umask") == "0022"
        if call.name == "seccomp":
            confined.append(call)

    supervise(device, scenario.words, decide, cause_disorder).expect(0)
    assert confined


@scenarios
def test_contents_are_synced_before_renaming_and_the_directory_afterwards(empty_device, scenario):
    """In the order of contents (f), renaming (r), its directory (d), removing (u)."""
    order = []

    def decide(call):
        if call.name in ("fsync", "syncfs"):
            is_directory = os.path.isdir(f"/proc/{call.process}/fd/{call.arguments[0]}")
            order.append("d" if is_directory and call.name == "fsync" else "f")
        elif call.name in ("renameat", "renameat2"):
            order.append("r")
        elif call.name == "unlinkat" and "r" in order:
            order.append("u")

    scenario.prepare(empty_device)
    supervise(empty_device, scenario.words, decide).expect(0)
    expected = {"--create": "u*(r?du*)*" if scenario.changed == DATA else "u*(r?du*)*frd",
                "--mount": "frd", "--umount": "", "--remove": "(frdu)?(ru*)?d+",
                "--replaceimg": "frdu*frdu*"}.get(scenario.words[0], "fr+du*")
    assert re.fullmatch(expected, "".join(order)), order


@scenarios
def test_works_without_newer_calls(empty_device, scenario):
    scenario.prepare(empty_device)
    empty_device.run(scenario.words).expect(0)
    new = empty_device.snapshot(scenario.changed)
    scenario.prepare(empty_device)
    run_without(empty_device, scenario.words, NEWER_CALLS + ["renameat2"]).expect(0)
    assert empty_device.snapshot(scenario.changed) == new
    empty_device.expect_clean(1)
