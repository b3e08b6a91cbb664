"""The guard around the real daemon, played by a service manager that boots in no time, on a
device of its own: private /opt and /run."""

import configparser
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import time
import uuid

import pytest

BUILD = pathlib.Path(os.environ["BUILD_DIR"])
GUARD = BUILD / "bin/adagentd-guard"
DATA = pathlib.Path("/opt/usr/apps/adagent")
LIBRARY = pathlib.Path("/opt/usr/lib/libad-agent-fwk.so")
STORED = pathlib.Path("/opt/down/zels/zelADAgent_img/zelADAgent.img")
FIRMWARE = pathlib.Path("/opt/media/Documents/adagentversion.txt")
RECORD, BAD = DATA / "guard.ini", DATA / "guard-bad.ini"
BOOT_ID = "/proc/sys/kernel/random/boot_id"
READY = "Please check network"
INSTALLED, IMAGE = "a" * 64, b"the stored image"


def mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True)


def read(file):
    parser = configparser.ConfigParser(interpolation=None)
    parser.read(file)
    return {name: dict(group) for name, group in parser.items() if name != "DEFAULT"}


class Box:
    """A device, and the service manager's part."""

    def __init__(self, boot_file):
        self.boot_file, self.log, self.path = boot_file, "", f"{BUILD}/bin:{os.environ['PATH']}"
        for path in (DATA, LIBRARY.parent, STORED.parent, FIRMWARE.parent):
            path.mkdir(parents=True)
        STORED.write_bytes(IMAGE)
        FIRMWARE.write_text("T-1200.1")
        self.record_image(INSTALLED)
        self.boot()

    def boot(self):
        self.boot_file.write_text(f"{uuid.uuid4()}\n")

    def install(self, kind="good", suffix=b""):
        """Installs a library; any suffix makes it another one."""
        LIBRARY.unlink(missing_ok=True)
        LIBRARY.write_bytes((BUILD / f"lib/libguard-{kind}.so").read_bytes() + suffix)

    def update(self):
        suffix = os.urandom(8)
        self.record_image(suffix.hex() * 4)
        self.install(suffix=suffix)

    def record_image(self, sha256):
        self.image = sha256
        (DATA / "state.ini").write_text(f"[installed]\nsha256={sha256}\nversion=1.06\n"
                                        "[offered]\nversion=1.07\n")

    def guard(self, command, **environment):
        """Runs the guard, which never fails. Returns what it logs."""
        done = subprocess.run([GUARD, command], check=False, text=True, stderr=subprocess.PIPE,
                              env={**os.environ, "PATH": self.path, **environment})
        assert done.returncode == 0 and re.fullmatch("((adagentd-guard|ad-mounter): .*\n)*",
                                                     done.stderr), done
        self.log += done.stderr
        return done.stderr

    def after(self, result, code=None, status=None):
        names = ("SERVICE_RESULT", "EXIT_CODE", "EXIT_STATUS")
        return self.guard("after", **{name: value for name, value in
                                      zip(names, (result, code, status)) if value is not None})

    def edit_record(self, pattern, replacement):
        text, count = re.subn(pattern, replacement, RECORD.read_text())
        assert count == 1, text
        RECORD.write_text(text)

    def age_start(self, seconds):
        start = int(read(RECORD)["start"]["monotonic"])
        self.edit_record("monotonic=.*", f"monotonic={start - seconds}")

    def run_daemon(self, timeout=30.0):
        """Starts the daemon with the guard. Returns whether it is ready, in time, and stays up."""
        self.guard("before")
        deadline, log = time.monotonic() + timeout, pathlib.Path("/opt/daemon.log")
        with open(log, "w", encoding="utf-8") as output:
            daemon = subprocess.Popen([BUILD / "bin/adagentd"], stdout=output, stderr=output)
        while daemon.poll() is None and READY not in log.read_text(errors="replace"):
            if time.monotonic() > deadline:
                daemon.kill()
                daemon.wait()
                self.after("timeout", "killed", "KILL")
                return False
            time.sleep(0.01)
        try:
            status = daemon.wait(0.8)
        except subprocess.TimeoutExpired:
            daemon.kill()
            daemon.wait()
            return True
        if status < 0:
            self.after("signal", "killed", {-6: "ABRT", -11: "SEGV"}[status])
        else:
            self.after("exit-code" if status else "success", "exited", str(status))
        return False

    def play(self, event):
        """Plays one start of the daemon, or something that happens in between."""
        if event in BETWEEN:
            BETWEEN[event](self)
            return
        self.guard("before")
        if LIBRARY.exists():
            DURING[event](self)


def stop(box, seconds=10, shut_down=False, ending=("success", "exited", "0")):
    box.age_start(seconds)
    box.guard("stop", MAINPID=str(os.getpid()))
    box.after(*ending)
    if shut_down:
        box.boot()


def good(box, then=lambda box: None):
    """Five minutes, and a stop some time later."""
    box.age_start(300)
    box.guard("confirm")
    then(box)
    box.guard("stop", MAINPID=str(os.getpid()))


def replace(box):
    """An update, and a crash of what was running."""
    box.update()
    box.age_start(300)
    assert box.guard("confirm") == ""
    assert box.after("signal", "killed", "SEGV") == ""


def stale(box):
    """A start that could not be recorded."""
    box.boot()
    box.after("signal", "killed", "SEGV")


def reinstall(box):
    LIBRARY.unlink()
    box.guard("before")
    box.install()
    box.image = hashlib.sha256(IMAGE).hexdigest()


def crash(box, seconds=0):
    box.age_start(seconds)
    box.after("core-dump", "dumped", "SEGV")


def self_exit(box):
    box.guard("stop")
    box.guard("stop", MAINPID="999999999")
    box.after("success", "exited", "0")


DURING = {
    "crash": crash,
    "exit": self_exit,
    "watchdog": lambda box: box.after("watchdog", "killed", "ABRT"),
    "lost": lambda box: None,
    "cut": Box.boot,
    "early": lambda box: (box.age_start(290), box.guard("confirm"), box.boot()),
    "no-daemon": lambda box: box.after("exit-code", "exited", "203"),
    "skipped": lambda box: box.after("exit-code"),
    "killed-stop": lambda box: box.after("success", "killed", "TERM"),
    "stop": stop,
    # As during a download, which blocks the daemon for longer than systemd waits.
    "slow-stop": lambda box: stop(box, ending=("timeout", "killed", "KILL")),
    "shutdown": lambda box: stop(box, 50, True),
    "later-shutdown": lambda box: stop(box, 70, True),
    "good": good,
    "good-crash": lambda box: good(box, crash),
    "good-cut": lambda box: good(box, Box.boot),
    "late-crash": lambda box: crash(box, 300),  # before the timer
    "replace": replace,
    "stale": stale,
}
BETWEEN = {
    "update": Box.update,
    "reinstall": reinstall,
    "firmware": lambda box: FIRMWARE.write_text(f"T-{time.time()}"),
    "tear": lambda box: RECORD.write_text(RECORD.read_text()[:90]),
    "lose": RECORD.unlink,
    "day": lambda box: RECORD.write_text(re.sub(r"\d{4}-\d\d-\d\dT", "2001-01-01T",
                                                RECORD.read_text())),
    "clock-back": lambda box: box.edit_record("latest=.*", "latest=2100-01-01T00:00:00Z"),
    "unknown-boot": lambda box: box.boot_file.write_text(""),
}
REASONS = {"watchdog": "library hung", **dict.fromkeys(
    ("cut", "shutdown", "no-daemon", "killed-stop"), "were interrupted")}
# What a copy gets through, and what more makes it be given up.
HISTORIES = [
    ("crash crash", "crash"), ("exit exit", "exit"), ("lost lost", "lost"),
    ("crash crash", "watchdog"), ("stale " * 5, "cut"), ("crash crash reinstall crash crash", "crash"),
    ("cut cut cut cut cut", "cut"), ("cut crash cut", "crash"), ("crash crash cut", "cut"),
    ("shutdown " * 5, "shutdown"), ("no-daemon " * 5, "no-daemon"), ("early " * 5, "cut"),
    ("killed-stop " * 5, "killed-stop"), ("unknown-boot " + "lost " * 5, "lost"),
    ("stop " * 20, None), ("slow-stop " * 20, None), ("later-shutdown " * 20, None), ("skipped " * 20, None),
    ("replace " * 10, None), ("good-cut " * 30, None), ("good " * 3, None),
    ("crash crash update crash crash", "crash"), ("crash crash firmware crash crash", "crash"),
    ("crash crash lose crash crash", "crash"), ("crash crash tear crash crash", "crash"),
    ("crash crash stop", "crash"),
    ("crash crash good" + 7 * " crash", "crash"), ("good" + 9 * " crash", "crash"),
    ("late-crash " * 9, "late-crash"), ("good-crash " * 9, "good-crash"),
    ("good " + "cut " * 19, "cut"), ("cut " * 5 + "good day" + 9 * " crash", "crash"), ("good-crash " * 9 + "day " + "good-crash " * 9, "good-crash"),
    ("good clock-back " + "good-crash " * 20, None),
    ("good clock-back " + "crash " * 9, "crash"),
]


@pytest.fixture
def box(tmp_path):
    boot_file = tmp_path / "boot"
    boot_file.touch()
    for path in ("/opt", "/run"):
        mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", path)
    mount("--bind", boot_file, BOOT_ID)
    yield Box(boot_file)
    subprocess.run(["umount", "--lazy", "--quiet", BOOT_ID, "/run", "/opt"], check=False)


@pytest.mark.parametrize("history, last", HISTORIES, ids=lambda text: text and text[:40])
def test_gives_up_a_copy_after_as_many_failures_as_it_is_granted(box, history, last):
    box.install()
    for event in history.split():
        box.play(event)
    box.guard("before")
    assert LIBRARY.exists() and not BAD.exists(), box.log
    if not last:
        return
    # The start of the check above has not happened.
    box.edit_record("state=.*", "state=none")
    box.play(last)
    message = box.guard("before")
    assert not LIBRARY.exists(), box.log
    assert message.count("gave up") == 1 and list(read(BAD)) == [box.image], box.log
    assert REASONS.get(last, "its library") in read(BAD)[box.image]["reason"]
    box.install()
    assert box.guard("before") == ""  # anew


@pytest.mark.parametrize("kind, reason", [
    ("constructor", "its library crashed"), ("init", "its library crashed"),
    ("immediate_exit", "its library ended the daemon"), ("exit", "its library ended the daemon"),
    ("later", "its library crashed"), ("hang", "its library hung")])
def test_daemon_recovers_from_a_bad_library(box, kind, reason):
    pathlib.Path("/opt/platform").mkdir()
    pathlib.Path("/opt/platform/state.ini").write_text(
        "[network]\ntype=disconnected\n[system]\nfirmware=T-1200.1\n", encoding="utf-8")
    box.install(kind)
    for _ in range(3):
        assert not box.run_daemon(1 if kind == "hang" else 30) and LIBRARY.exists()
    assert box.run_daemon() and not LIBRARY.exists(), box.log
    bad = read(BAD)[INSTALLED]
    assert (bad["version"], bad["reason"], bad["time"][:2]) == ("1.06", reason, "20")
    assert re.fullmatch("(.* start with .* failed: .*\n){3}.* gave up .* of version 1.06 after 3 "
                        f"failed .*; not installing its image {INSTALLED} again; .*\n", box.log)
    # A newer one is loaded and stays.
    box.install("good")
    assert box.run_daemon() and LIBRARY.exists()


def give_up(box):
    for _ in range(3):
        box.guard("before")
        box.after("signal", "killed", "SEGV")
    return box.guard("before")


def test_blames_the_image_that_the_copy_came_from(box):
    stored = hashlib.sha256(IMAGE).hexdigest()
    for suffix, installed, image, version in (
            (b"1", "a" * 64, "a" * 64, "1.06"),
            (b"2", "b" * 64, "b" * 64, "1.06"),
            # Its installation was interrupted before it was recorded, or the record is lost.
            (b"3", "b" * 64, stored, "1.07"),
            (b"4", "", stored, "1.07"),
            (b"5", "d" * 64, None, None),  # runs well
            (b"6", "d" * 64, stored, "1.07")):
        box.record_image(installed)
        box.install(suffix=suffix)
        BAD.unlink(missing_ok=True)
        if not image:
            box.guard("before")
            continue
        assert "gave up" in give_up(box)
        assert {name: group["version"] for name, group in read(BAD).items()} == {image: version}
    STORED.unlink()
    box.install()
    assert "its image is not known" in give_up(box)
    # The latest 32 are kept.
    box.record_image("c" * 64)
    BAD.write_text("".join(f"[{i}]\nversion=1\n" for i in range(32)))
    box.install()
    assert "gave up" in give_up(box) and list(read(BAD)) == [str(i) for i in range(1, 32)] + ["c" * 64]


def test_is_harmless_when_it_cannot_work(box):
    def fill():
        with pytest.raises(OSError), open("/opt/usr/apps/filler", "wb") as file:
            while True:
                file.write(bytes(4096))
                file.flush()

    box.install()
    assert box.guard("before") == "" and read(RECORD)["start"]["state"] == "running"
    for limit, free in ((lambda: mount("-o", "remount,ro", "/opt"),
                         lambda: mount("-o", "remount,rw", "/opt")),
                        (lambda: (mount("-o", "remount,size=1M", "/opt"), fill()),
                         pathlib.Path("/opt/usr/apps/filler").unlink)):
        record = RECORD.read_bytes()
        limit()
        for _ in range(5):
            assert "this start does not count\n" in box.guard("before")
            assert "this failure does not count\n" in box.after("signal", "killed", "SEGV")
        assert LIBRARY.exists() and RECORD.read_bytes() == record
        free()

    # Without the tool the copy stays, and is given up as soon as there is one.
    box.install(suffix=b"2")
    path, box.path = box.path, "/opt"
    for problem in ("failed to run ad-mounter: No such file", "ad-mounter exited with status 1"):
        assert problem in give_up(box) and LIBRARY.exists()
        shutil.copy("/bin/false", "/opt/ad-mounter")
    box.path = path
    assert "gave up" in box.guard("before") and not LIBRARY.exists()

    # Where there is no copy, nothing is counted, created or said.
    record = RECORD.read_bytes()
    for command in ("before", "stop", "after", "confirm"):
        assert box.guard(command, SERVICE_RESULT="signal", EXIT_CODE="killed", MAINPID="1") == ""
    assert RECORD.read_bytes() == record
    shutil.rmtree(DATA)
    assert box.guard("before") == "" and not DATA.exists()
    box.install()
    assert box.guard("before") == "" and read(RECORD)["copy"]["starts"] == "1"
    LIBRARY.unlink()
    LIBRARY.mkdir()
    assert "failed to read" in box.guard("before")
    assert subprocess.run([GUARD], check=False, stderr=subprocess.DEVNULL).returncode == 64


def test_counts_a_start_durably(box):
    box.install()
    subprocess.run(["umount", BOOT_ID], check=True)
    trace = pathlib.Path("/opt/trace")
    subprocess.run(["strace", "-y", "-o", trace, "-e", "trace=fsync,renameat,renameat2",
                    GUARD, "before"], check=True,
                   env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})  # it cannot be traced
    assert re.search(f"fsync.*/guard.ini.part>.* = 0\n.*rename.*guard.ini.* = 0\n.*fsync.*{DATA}>.* = 0\n",
                     trace.read_text())
    assert read(RECORD)["start"]["boot"] == pathlib.Path(BOOT_ID).read_text().strip()
