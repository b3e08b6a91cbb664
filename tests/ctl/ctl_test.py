"""adagentctl on devices of every state, in private /opt, /run, /usr and /sys/fs/cgroup."""

import contextlib
import fcntl
import hashlib
import json
import os
import pathlib
import re
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time

import content_server
import pytest
from maker import Maker

BUILD = pathlib.Path(os.environ["BUILD_DIR"])
CTL, DAEMON = pathlib.Path("/opt/bin/adagentctl"), pathlib.Path("/opt/bin/adagentd")
DATA = pathlib.Path("/opt/usr/apps/adagent")
STATE, CACHE = DATA / "state.ini", DATA / "zelADAgentCache.xml"
COPY, FIRMWARE_COPY = (pathlib.Path(path, "libad-agent-fwk.so") for path in ("/opt/usr/lib", "/usr/lib"))
STORED = pathlib.Path("/opt/down/zels/zelADAgent_img/zelADAgent.img")
FLOOR = STORED.with_suffix(".floor")
RECORDED = pathlib.Path("/opt/media/Documents/adagentversion.txt")
MANIFEST = pathlib.Path("/usr/bin/zels/zelADAgent/zelADAgent.xml")
CONFIGURATION = pathlib.Path("/opt/etc/ad-agent.conf")
KEYS, PRODUCT = pathlib.Path("/usr/lib/ad-mounter/keys"), pathlib.Path("/usr/lib/ad-mounter/product")
OLD_KEYS = KEYS.with_name("old")
TOOL, LOCK = pathlib.Path("/usr/bin/ad-mounter"), pathlib.Path("/run/ad-mounter/lock")
PLATFORM = pathlib.Path("/opt/platform/state.ini")
LINUX = pathlib.Path("/lib/systemd/system/adagentd-bus.socket")
BUS = pathlib.Path("/run/dbus/system_bus_socket")
INVOCATION = pathlib.Path("/run/systemd/units/invocation:adagentd.service")
CONTROL_GROUP = pathlib.Path("/sys/fs/cgroup/system.slice/adagentd.service/cgroup.procs")
MAKER = Maker()
IMAGE = b"image" * 100
IMAGE += MAKER.sign(IMAGE, "version:1.06 product:demo-box released:2026-11-21T10:00:00Z").trailer()
SHA256 = hashlib.sha256(IMAGE).hexdigest()
BAD = "[{sha256}]\nversion={version}\ntime={time}\nreason=its library crashed\n"
SIZE = 1000


def mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True)


def write(path, content):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content if isinstance(content, bytes) else content.encode())


def index(version, sha256="a" * 64, size=SIZE, more=""):
    return f"[image]\nversion={version}\nsize={size}\nsha256={sha256}\nfile=a.img\n{more}"


class Box:
    """A device that is healthy and runs the update 1.06."""

    def __init__(self, stack):
        self.stack = stack
        for library in (COPY, FIRMWARE_COPY):
            write(library, (BUILD / "lib/libguard-good.so").read_bytes())
        for program, source in ((CTL, BUILD / "bin/adagentctl"), (DAEMON, "/bin/sleep")):
            program.parent.mkdir(exist_ok=True)
            shutil.copy(source, program)
        pathlib.Path("/opt/lib").mkdir()
        shutil.copy(BUILD / "lib/libad-platform.so.1", "/opt/lib")
        for path, content in (
                (STORED, IMAGE), (FLOOR, "1.06\n"), (RECORDED, "T-1200.1"),
                (PLATFORM, "[system]\nfirmware=T-1200.1\n"),
                (MANIFEST, "<Zel><Version>1.00</Version></Zel>"),
                (CACHE, "<Cache><SoVersion>1.06</SoVersion></Cache>"),
                (CONFIGURATION, "[server]\nurl=http://127.0.0.1:1/\n"), (PRODUCT, "demo-box\n"),
                (KEYS / "maker.pub", MAKER.public_key()), (TOOL, ""), (LOCK, ""),
                (DATA / "update.ini", index("1.06", SHA256, len(IMAGE))),
                (STATE, f"[installed]\nsha256={SHA256}\nversion=1.06\nloaded=true\n[offered]\n"
                        "version=1.06\nfirmware=T-1200.1\n[check]\ntime=2026-11-20T10:00:00Z\n"
                        "url=http://a/update.ini\nresult=version 1.06 is not newer\n"),
                (DATA / "guard.ini", "[copy]\nsha256=" + "c" * 64 + "\nstarts=4\nconfirmed=true\n"
                                     "[failures]\nfailed=1\ninterrupted=2\nending=killed by SEGV\n"
                                     f"recent=2020-01-01T00:00:00Z crashed;{now()} crashed;\n")):
            write(path, content)
        TOOL.chmod(0o4755)
        self.daemon = self.start(COPY)

    def start(self, library):
        """Starts a process with the daemon's name and a library."""
        daemon = subprocess.Popen([DAEMON, "1000"], env={"LD_PRELOAD": str(library or "")})
        self.stack.callback(daemon.wait)
        self.stack.callback(daemon.kill)
        while library and str(library) not in pathlib.Path(f"/proc/{daemon.pid}/maps").read_text():
            time.sleep(0.01)
        return daemon

    def stop(self):
        self.daemon.kill()
        self.daemon.wait()

    def restart(self, library):
        self.stop()
        self.daemon = self.start(library)

    def fall_back(self, *, keep_image=True, recorded="1.06"):
        """The daemon has removed the copy and runs the firmware's."""
        self.restart(FIRMWARE_COPY)
        COPY.unlink()
        write(CACHE, f"<Cache><SoVersion>{recorded}</SoVersion></Cache>" if recorded else "")
        if not keep_image:
            STORED.unlink()

    def edit(self, path, old, new):
        text = path.read_text()
        assert old in text
        path.write_text(text.replace(old, new))

    def give_up(self, version="1.06", sha256=SHA256, at="2026-11-21T10:00:00Z"):
        write(DATA / "guard-bad.ini", BAD.format(sha256=sha256, version=version, time=at))

    @staticmethod
    def run(*arguments, **options):
        environment = {**os.environ, "LD_LIBRARY_PATH": "/opt/lib"}  # where the platform is
        return subprocess.run([CTL, *arguments], check=False, text=True, capture_output=True,
                              **{"env": environment, **options})

    def status(self, **options):
        """Returns the exit status, the document and the screen, which must agree."""
        document, screen = self.run("status", "--json", **options), self.run("status", **options)
        assert document.returncode == screen.returncode
        parsed = json.loads(document.stdout)
        assert all(problem in screen.stdout for problem in parsed["problems"])
        assert ("healthy", "fallback", "cannot_update")[screen.returncode] == parsed["health"]
        return screen.returncode, parsed, screen.stdout


def now(ahead=0):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() + ahead))


@pytest.fixture
def box():
    mounts = ["/opt", "/run", "/sys/fs/cgroup", "/usr"]
    for point in mounts[:3]:
        mount("-t", "tmpfs", "box", point)
    for name in ("upper", "work"):
        pathlib.Path("/opt/overlay", name).mkdir(parents=True)
    mount("-t", "overlay", "box", "-o",
          "lowerdir=/usr,upperdir=/opt/overlay/upper,workdir=/opt/overlay/work", "/usr")
    with contextlib.ExitStack() as stack:
        yield Box(stack)
    for point in reversed(mounts):
        subprocess.run(["umount", "--lazy", point], check=True)


def select(document, path):
    for name in path.split("."):
        document = document[int(name) if isinstance(document, list) else name]
    return document


def clean(box):
    """Nothing was ever installed."""
    box.fall_back(keep_image=False)
    shutil.rmtree(DATA)
    FLOOR.unlink()


def not_loaded(box):
    box.fall_back()
    box.edit(STATE, "[check]", f"[bad]\nsha256={SHA256};\nversion=1.06;\ntime=2026-11-21T10:00:00Z;\n"
                               "reason=its library failed to load;\ncount=1;\n[check]")


def other_firmware(box, recorded="T-1200.2"):
    write(PLATFORM, "[system]\nfirmware=T-1200.2\n")
    write(RECORDED, recorded)


def wait_for_restart(box):
    box.stop()
    INVOCATION.parent.mkdir(parents=True)
    INVOCATION.symlink_to("1")


BEGIN, OK = now(-5), "updatable installed"
# What happened, the exit status, the copy that runs and why, and those of the next start if not the same.
HISTORIES = {
    "updated": (lambda box: None, 0, OK),
    "never updated": (clean, 0, "firmware never_installed"),
    "did not load": (not_loaded, 1, "firmware did_not_load"),
    "crashed": (lambda box: (box.fall_back(), box.give_up()), 1, "firmware crashed"),
    "crashed before it was recorded": (lambda box: (box.fall_back(recorded="1.05"), box.give_up()), 1,
                                       "firmware crashed"),
    "crashed after another did not load": (
        lambda box: (not_loaded(box), box.give_up(at="2026-11-22T10:00:00Z")), 1, "firmware crashed"),
    "did not load after another crashed": (
        lambda box: (not_loaded(box), box.give_up(at="2026-11-20T10:00:00Z")), 1, "firmware did_not_load"),
    "an older one crashed": (lambda box: (box.fall_back(), box.give_up("1.05", "b" * 64)), 1,
                             "firmware not_recorded"),
    "firmware changed": (lambda box: (box.fall_back(), other_firmware(box)), 1, "firmware firmware_changed"),
    "firmware changes next": (lambda box: other_firmware(box, "T-1200.1"), 0, OK, "firmware firmware_changed"),
    "firmware version lost": (lambda box: RECORDED.unlink(), 0, OK, "firmware firmware_changed"),
    "firmware newer": (lambda box: (box.fall_back(keep_image=False), box.edit(MANIFEST, "1.00", "1.07")), 0,
                       "firmware firmware_newer"),
    "firmware newer next": (lambda box: box.edit(MANIFEST, "1.00", "1.07"), 0, OK, "firmware firmware_newer"),
    "same number": (lambda box: box.edit(MANIFEST, "1.00", "1.060"), 0, OK),
    "interrupted": (lambda box: box.fall_back(recorded="1.05"), 1, "firmware interrupted"),
    "removed by hand": (lambda box: box.fall_back(), 1, "firmware not_recorded"),
    "updated since": (lambda box: box.restart(FIRMWARE_COPY), 0, "firmware pending", OK),
    "updated again since": (lambda box: (COPY.unlink(), shutil.copy(FIRMWARE_COPY, COPY)), 0,
                            "updatable pending", OK),
    "no library loaded": (lambda box: box.restart(None), 0, "none not_recorded", OK),
    "stopped": (lambda box: box.stop(), 2, "none not_running", OK),
    "stopped after a fallback": (lambda box: (box.fall_back(), box.stop()), 2, "none not_running",
                                 "firmware not_recorded"),
    "waits for its restart": (wait_for_restart, 0, "none not_running", OK),
    "waits after a fallback": (lambda box: (box.fall_back(), box.give_up(), wait_for_restart(box)), 1,
                               "none not_running", "firmware crashed"),
}


@pytest.mark.parametrize("name", HISTORIES)
def test_says_which_copy_runs_and_why(box, name):
    happen, expected, running, *following = HISTORIES[name]
    happen(box)
    status, document, screen = box.status()
    found = [" ".join(document[key][part] for part in ("copy", "reason"))
             for key in ("running", "next_start")]
    assert (found, status) == ([running, *(following or [running])], expected), document
    assert box.daemon.poll() is not None or BEGIN < document["service"]["started"] < now(5)
    assert document["running"]["seen"] == ("not_running" not in running)
    assert f"Running     {running.split()[0]}" in screen and document["running"]["detail"] in screen


# What is changed, a member of the document and its value, and a line of the screen.
DETAILS = {
    "image": (lambda box: None, {"image.version": "1.06", "image.product": "demo-box",
                                 "image.key": MAKER.key_id[::-1].hex().upper(),
                                 "image.key_installed": True, "image.verified": True,
                                 "image.released": "2026-11-21T10:00:00Z", "image.bad": None},
              "version 1.06 for demo-box, signed with key .*[0-9A-F], verified when it was mounted"),
    "not mounted": (lambda box: box.edit(CACHE, "1.06", "1.05"), {"image.verified": False},
                    "not mounted yet"),
    "other key": (lambda box: write(KEYS / "maker.pub", Maker().public_key()),
                  {"image.key_installed": False}, "which is not installed"),
    "not signed": (lambda box: write(STORED, IMAGE[:-1]),
                   {"image.version": None, "image.rejection": "not signed"}, "refused: not signed"),
    "bad here": (lambda box: box.give_up(), {
        "image.bad": "its library crashed here on 2026-11-21", "bad_images.0.found_by": "guard",
        "bad_images.0.sha256": SHA256}, "bad: its library crashed here on 2026-11-21"),
    "another is bad": (lambda box: box.give_up(sha256="d" * 64), {"image.bad": None}, "Bad images  1.06"),
    "part": (lambda box: (write(DATA / "update.ini", index("1.07")),
                          write(DATA / "zelADAgent.img.part", bytes(250))),
             {"download.received": 250, "download.size": SIZE, "download.version": "1.07",
              "download.complete": False}, "version 1.07: 250 of 1000 bytes, 25 %"),
    "downloaded": (lambda box: write(DATA / "zelADAgent.img", b"12"), {"download.complete": True},
                   "complete, 2 bytes"),
    "server": (lambda box: None, {"server.url": "http://127.0.0.1:1", "server.index_version": "1.06",
                                  "server.checked": "2026-11-20T10:00:00Z", "server.not_before": None},
               "2026-11-20T10:00:00Z: version 1.06 is not newer"),
    "damaged index": (lambda box: write(DATA / "update.ini", "[image]\n"), {
        "server.index_version": None, "server.index_refused": "[image] version is not a decimal fraction"},
        "Index       not believed: .image. version"),
    "not yet looked": (lambda box: None, {
        "server.next_try": "once the network is connected and the viewer has consented"}, "Next try"),
    "looked": (lambda box: box.edit(STATE, "2026-11-20T10", "2099-11-20T10"),
               {"server.next_try": "at the next start of adagentd"}, "at the next start"),
    "wrong": (lambda box: box.edit(STATE, "[check]", f"[wrong]\nsha256={SHA256};\nversion=1.06;\n"
                                   f"time={now()};\nreason=not signed;\ncount=2;\n[check]"),
              {"wrong_images.0.count": 2, "wrong_images.0.reason": "not signed"}, "1.06 not before"),
    "guard": (lambda box: None, {"guard.starts": 4, "guard.confirmed": True, "guard.failed": 1,
                                 "guard.interrupted": 2, "guard.failures_in_24_hours": 1},
              "4 starts, confirmed, 1 failed, 2 interrupted, 1 in 24 hours; last killed by SEGV"),
    "firmware": (lambda box: other_firmware(box, "T-1"), {
        "firmware.current": "T-1200.2", "firmware.recorded": "T-1", "firmware.copy_version": "1.00"},
        r"T-1200\.2, was T-1 when"),
    "linux": (lambda box: (write(LINUX, ""), write(pathlib.Path("/usr/lib/os-release"), "VERSION_ID=T-5")),
              {"firmware.current": "T-5", "unseen": []}, r"T-5, was T-1200\.1 when"),
    "disguised": (lambda box: box.edit(STATE, "is not", r"\\\"\x1b[31m‮"),
                  {"server.checked_url": "http://a/update.ini"}, "Last check"),
    "lock": (lambda box: fcntl.flock(box.stack.enter_context(LOCK.open()), fcntl.LOCK_EX),
             {"readiness.lock.detail": f"held by process {os.getpid()}"}, "held by"),
    "control group": (lambda box: (box.start(None), write(CONTROL_GROUP, f"1\n{box.start(None).pid}\n")),
                      {"running.copy": "none"}, "process"),
}


@pytest.mark.parametrize("name", DETAILS)
def test_shows_what_is_on_the_device(box, name):
    change, members, line = DETAILS[name]
    change(box)
    _, document, screen = box.status()
    assert {path: select(document, path) for path in members} == members
    assert re.search(line, screen), screen
    assert re.fullmatch(r"[ -~\n]*", screen) and max(map(len, screen.splitlines())) < 530


# What is broken, and the check that fails.
BROKEN = {
    "no library": (lambda box: (COPY.unlink(), FIRMWARE_COPY.unlink()), "library"),
    "no configuration": (lambda box: CONFIGURATION.unlink(), "configuration"),
    "no server": (lambda box: write(CONFIGURATION, "[server]\n"), "configuration"),
    "unsafe index key": (lambda box: (write(pathlib.Path("/usr/lib/ad-agent/keys/a.pub"), ""),
                                      pathlib.Path("/usr/lib/ad-agent/keys").chmod(0o777)), "index-keys"),
    "no room": (lambda box: write(DATA / "update.ini", index("1.07", size=1 << 29))
                or mount("-o", "remount,size=64M", "/opt"), "room", f"space in {DATA}: "),
    "no tool": (lambda box: TOOL.unlink(), "tool"),
    "no key": (lambda box: (KEYS / "maker.pub").unlink(), "key"),
    "malformed key": (lambda box: write(KEYS / "other.pub", "key"), "key"),
    "unsafe product": (lambda box: PRODUCT.chmod(0o666), "product"),
    "no loop device": (lambda box: (mount("-t", "tmpfs", "box", "/dev"),
                                    box.stack.callback(subprocess.run, ["umount", "/dev"])), "loop"),
    "not running": (lambda box: box.stop(), "daemon"),
}


@pytest.mark.parametrize("name", BROKEN)
def test_names_what_an_update_lacks(box, name):
    damage, check, *texts = BROKEN[name]
    damage(box)
    status, document, screen = box.status()
    failed = [name for name, state in document["readiness"].items() if state["state"] == "failed"]
    assert (status, failed) == (2, [check]), document["readiness"]
    assert f"{check}: FAILED: {document['problems'][0]}" in screen and all(t in screen for t in texts)


def test_works_as_ordinary_user_and_names_what_it_cannot_see(box):
    os.chmod(LOCK.parent, 0o700)
    for path in (STATE, CONFIGURATION, KEYS / "maker.pub"):
        os.chmod(path, 0o600)
    status, document, screen = box.status(user=65534, group=65534, extra_groups=[])
    assert status == 0 and not document["running"]["seen"] and "(decided from files)" in screen
    assert document["running"]["reason"] == "installed"
    unseen = "\n".join(document["unseen"])
    for path in (f"/proc/{box.daemon.pid}/maps", STATE, LOCK, CONFIGURATION, KEYS / "maker.pub"):
        assert f"{path}: Permission denied" in unseen and f"{path}: Permission denied" in screen
    assert document["readiness"]["lock"]["state"] == "not_seen"
    TOOL.chmod(0o755)
    box.stop()
    box.daemon = subprocess.Popen([DAEMON, "1000"], user=65534)
    box.stack.callback(box.daemon.kill)
    assert "not set-user-ID root" in box.status()[1]["problems"][0]
    pathlib.Path("/opt/lib/libad-platform.so.1").unlink()
    document = box.status()[1]
    assert "libad-platform.so.1" in str(document["unseen"])
    assert document["next_start"]["reason"] == "installed"


def test_asks_the_service_manager_about_a_daemon_without_a_process(box):
    box.stop()
    assert box.status()[1]["unseen"] == []
    pathlib.Path("/run/systemd/system").mkdir(parents=True)
    assert f"whether adagentd waits for its restart: {BUS}: No such file" in box.status()[1]["unseen"][0]
    BUS.parent.mkdir()
    with socket.socket(socket.AF_UNIX) as mute:
        mute.bind(str(BUS))
        mute.listen()
        assert "Resource temporarily unavailable" in box.status()[1]["unseen"][0]
    BUS.unlink()
    environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={BUS}"}
    name, path = "org.freedesktop.systemd1", "/org/freedesktop/systemd1/unit/adagentd_2eservice"
    for command in (["dbus-daemon", "--session", "--nofork", f"--address=unix:path={BUS}"],
                    [sys.executable, "-m", "dbusmock", "--system", name, path, f"{name}.Unit"]):
        process = subprocess.Popen(command, env=environment)
        box.stack.callback(process.wait)
        box.stack.callback(process.kill)
        while not BUS.exists():
            time.sleep(0.01)
    call = ["busctl", f"--address=unix:path={BUS}", "--timeout=5", "call", name, path]
    while subprocess.run([*call, "org.freedesktop.DBus.Mock", "AddProperty", "ssv", f"{name}.Unit",
                          "ActiveState", "s", ""], check=False, capture_output=True).returncode != 0:
        time.sleep(0.05)
    for state, shown in (("activating", "starting"), ("failed", "failed"), ("inactive", "stopped")):
        subprocess.run([*call, "org.freedesktop.DBus.Properties", "Set", "ssv", f"{name}.Unit",
                        "ActiveState", "s", state], check=True)
        document = box.status()[1]
        assert (document["service"]["state"], document["unseen"]) == (shown, [])


def contents():
    return {path: (path.stat().st_mtime_ns, path.is_file() and path.read_bytes())
            for path in pathlib.Path("/opt/usr").rglob("*")}


def test_check_foretells_the_next_pass_and_changes_nothing(box):
    server = content_server.Server(pathlib.Path("/opt/content"), pathlib.Path("/opt/log"), None, None)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    box.stack.callback(server.shutdown)
    write(CONFIGURATION, f"[server]\nurl=http://127.0.0.1:{server.server_port}\n")
    (DATA / "zelADAgent.img.part").write_bytes(bytes(250))
    for prepare, published, expected, status in (
            (lambda: None, index("1.07"), "would download version 1.07 of 1000 bytes, resuming at 250", 0),
            (lambda: None, index("1.06"), "nothing to install: version 1.06 is not newer than the stored", 0),
            (lambda: None, index("1.07", more="product=other"), "refused: for product other, this", 0),
            (lambda: box.give_up("1.07", "a" * 64), index("1.07"), "refused: its library crashed here", 0),
            (lambda: None, "[image\x1b]2J", r"Key file contains line “[image\x1b]2J”", 2),
            (lambda: KEYS.rename(OLD_KEYS), index("1.08", "b" * 64), "key: no public key in", 2),
            (lambda: OLD_KEYS.rename(KEYS), index("1.08", hashlib.sha256(b"1").hexdigest(), 1),
             "would install version 1.08 of 1 bytes, which is downloaded already", 0),
            (lambda: write(RECORDED, "T-0"), index("1.08", "b" * 64), "removes the updatable copy", 0),
            (lambda: (write(RECORDED, "T-1200.1"), box.edit(CACHE, "1.06", "1.05")), index("1.08"),
             "would install the stored image of version 1.06 again", 0),
            (lambda: box.edit(MANIFEST, "1.00", "1.06"), index("1.055", "e" * 64), "not newer than the firmware's version", 0),
            (lambda: (box.edit(MANIFEST, "1.06", "1.00"), box.edit(CACHE, "1.05", "1.06"), STORED.unlink(),
                      write(RECORDED, "T-0")), index("1.06", "b" * 64), "would download version 1.06", 0),
            (lambda: CONFIGURATION.unlink(), index("1.08"), "failed to read configuration", 2)):
        prepare()
        write(DATA / "zelADAgent.img", b"1")
        write(pathlib.Path("/opt/content/update.ini"), published)
        before = contents()
        done = box.run("check")
        assert expected in done.stdout and done.returncode == status, (expected, done)
        assert before == contents()


def entry(seconds, identifier, message):
    value = message.encode()
    field = b"MESSAGE\n" + struct.pack("<Q", len(value)) + value if "\x1b" in message or "\n" in message \
        else b"MESSAGE=" + value
    return (f"__CURSOR=a\n__REALTIME_TIMESTAMP={seconds}000001\n".encode() + field
            + f"\nSYSLOG_IDENTIFIER={identifier}\n\n".encode())


def test_log_merges_what_all_of_them_say(box):
    journal, arguments = pathlib.Path("/opt/journal"), pathlib.Path("/opt/arguments")
    journal.write_bytes(b"".join((
        entry(1795255200, "systemd", "Started adagentd.service."),
        entry(1795255201, "AD_DAEMON", "CADAgentd.cpp: Start(120) >  [Start:120] [Thread Id:[7]] Working"),
        entry(1795255202, "adagentd", "\x1b[31m [(Thread Id:7): m_Update(9)] [CADAgentd] x = [1]."),
        entry(1795255203, "adagentd", "ad-agent: update: \x1b[2Jdone"),
        entry(1795255204, "adagentd", "ad-mounter: --mount: failed to open /dev: no"),
        entry(1795255205, "adagentd-guard", "adagentd-guard: gave up"),
        entry(1795255206, "adagentd", "[(Thread Id:7): m(9)] done !!\n"), entry(1795255207, "adagentd", ""))))
    script = pathlib.Path("/opt/journalctl")
    script.write_text(f"#!/bin/sh\necho \"$@\" >{arguments}\ncat {journal}\nexit $FAIL\n")
    script.chmod(0o755)
    path = {"PATH": f"/opt:{os.environ['PATH']}", "FAIL": "0"}
    done = box.run("log", "--since", "today", "--lines", "5", "--follow", env=path)
    assert done.returncode == 0 and done.stdout.splitlines() == [
        "2026-11-21T10:00:00Z systemd     Started adagentd.service.",
        "2026-11-21T10:00:01Z adagentd    Working",
        "2026-11-21T10:00:02Z adagentd    [CADAgentd] x = [1].",
        r"2026-11-21T10:00:03Z ad-agent    update: \x1b[2Jdone",
        "2026-11-21T10:00:04Z ad-mounter  --mount: failed to open /dev: no",
        "2026-11-21T10:00:05Z guard       gave up",
        "2026-11-21T10:00:06Z adagentd    done !!"], done
    assert arguments.read_text().endswith(
        "--unit=adagentd.service --unit=adagentd-confirm.service --since=today --lines=5 --follow\n")
    assert box.run("log", env={**path, "FAIL": "1"}).returncode == 69
    done = box.run("log", env={"PATH": "/nonexistent"})
    assert done.returncode == 69 and "failed to run journalctl: No such file" in done.stderr


def test_rejects_wrong_usage(box):
    for words in ((), ("stat",), ("status", "--xml"), ("status", "--json", "1"), ("check", "1"),
                  ("log", "--lines"), ("log", "1"), ("--help", "1")):
        assert box.run(*words).returncode == 64
    assert box.run("--help").returncode == box.run("--version").returncode == 0
    with open("/dev/full", "w", encoding="utf-8") as full:
        assert subprocess.run([CTL, "status"], check=False, stdout=full,
                              stderr=subprocess.DEVNULL).returncode == 74
