"""A device of its own for each test: a private mount namespace with a small root file system,
in which the tool runs chrooted, on its real paths."""

import ctypes
import dataclasses
import fcntl
import os
import pathlib
import shutil
import stat
import struct
import subprocess
import time

from maker import Maker

TOOL = pathlib.Path(os.environ["BUILD_DIR"], "bin/ad-mounter")
LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNS = 0x20000
UMOUNT_NOFOLLOW = 8
PR_CAP_AMBIENT = 47
CAP_NET_RAW = 13

LIB = "/opt/usr/lib"
AGENT_LIBRARY = LIB + "/libad-agent-fwk.so"
PLAYER_LIBRARY = LIB + "/libad-player-fwk.so"
DATA = "/opt/usr/apps/adagent"
CACHE_MANIFEST = DATA + "/zelADAgentCache.xml"
DOWNLOAD = DATA + "/zelADAgent.img"
POINT = "/opt/usr/apps/zelADAgent"
STORED = "/opt/down/zels/zelADAgent_img/zelADAgent.img"
FLOOR = "/opt/down/zels/zelADAgent_img/zelADAgent.floor"
KEYS = "/usr/lib/ad-mounter/keys"
PRODUCT = "/usr/lib/ad-mounter/product"
SOURCE = POINT + "/adplayer/res"
RES = "/usr/bin/zels/zelADAgent/adplayer/res"
MOUNTED_LIBRARY = POINT + "/libad-agent-fwk.so"

MOUNT = ["--mount", STORED, POINT]
UMOUNT = ["--umount", POINT]
REPLACE = ["--replaceimg", DOWNLOAD, STORED]
COPY_LIBRARY = ["--copylib", MOUNTED_LIBRARY, AGENT_LIBRARY]
COPY_TREE = ["--copy_all", SOURCE, RES]
CREATE_MANIFEST = ["--create", "create_file_apps_zeladagent_xml"]
REMOVE_IMAGE = ["--remove", "remove_zel_adagent_img_file"]
REMOVE_RESOURCES = ["--remove", "remove_player_res_path"]
CREATIONS = ["create_path_usr_lib", "create_path_apps_adagent", "create_path_apps_zeladagent",
             "create_file_apps_zeladagent_xml", "create_path_zeladagent",
             "create_path_zeladagent_img"]

# Variables of Device.sh(), with paths outside of the device.
VARIABLES = {"lib": LIB, "data": DATA, "download": DOWNLOAD, "point": POINT, "stored": STORED,
             "floor": FLOOR, "keys": KEYS, "product": PRODUCT, "source": SOURCE, "res": RES}

SET_UP = """
mount -t tmpfs -o mode=0755 device /mnt && mkdir $root && cd $root
mkdir -p opt run usr/bin usr/lib stage home proc dev tool layer/upper layer/work
mount --rbind /proc proc && mount --rbind /dev dev
# The host's libraries, below the device's keys: with sanitizers the tool is linked dynamically.
mount -t overlay -o lowerdir=/usr/lib,upperdir=layer/upper,workdir=layer/work usr-lib usr/lib
for i in lib lib64 usr/lib64; do
    if [ -L /$i ]; then cp -P /$i $i; elif [ -d /$i ]; then mkdir $i && mount --rbind /$i $i; fi
done
"""


def missing_rights():
    """Why there can be no device here; empty when there can. Unshares the mount namespace."""
    if os.geteuid() != 0 or not os.access("/dev/loop-control", os.W_OK):
        return "needs root and loop devices"
    if LIBC.unshare(CLONE_NEWNS) != 0:
        return "needs a mount namespace of its own"
    subprocess.run(["mount", "--make-rprivate", "/"], check=True)
    return ""


def status_field(pid, name):
    """A field of /proc/PID/status."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith(name + ":"):
            return line.partition("\t")[2].strip()
    return None


def pass_on_capability():
    """Makes this process pass CAP_NET_RAW on to the programs that it executes."""
    header, data = struct.pack("Ii", 0x20080522, 0), ctypes.create_string_buffer(24)
    assert LIBC.capget(header, data) == 0
    sets = list(struct.unpack("6I", data.raw))
    sets[2] = 1 << CAP_NET_RAW
    assert LIBC.capset(header, struct.pack("6I", *sets)) == 0
    assert LIBC.prctl(PR_CAP_AMBIENT, 2, CAP_NET_RAW, 0, 0) == 0


@dataclasses.dataclass
class Result:
    """How a run ended: with its exit status, or minus the number of a signal."""
    status: int
    out: str
    err: str

    def expect(self, *statuses):
        """Succeeds silently, or fails with one line."""
        assert self.status in statuses, f"{self.status}, not {statuses}: {self.err}"
        if self.status == 0:
            assert self.err == ""
        elif self.status > 0:
            assert self.err.startswith("ad-mounter: ") and self.err.find("\n") == len(self.err) - 1
        return self


class Device:
    """Paths are inside the device and start with a slash; at() gives the one outside."""

    OUTPUTS = ((1, "out"), (2, "err"))

    def __init__(self, tool):
        # The process ID keeps the loop devices of tests that run at the same time apart.
        self.root = f"/mnt/{os.getpid()}"
        self.variables = {name: self.root + path for name, path in VARIABLES.items()}
        self.variables["root"] = self.root
        self.images = {}
        self.maker = Maker()
        os.umask(0o22)
        subprocess.run(["sh", "-ec", SET_UP], check=True, env=os.environ | self.variables)
        self.write(KEYS + "/device.pub", self.maker.public_key())
        self.write("/tool/ad-mounter", tool)
        os.chmod(self.at("/tool/ad-mounter"), 0o755)

    def destroy(self):
        self.unmount_all()
        # Only a broken tool leaves any; the next test must not suffer from it.
        for loop_device in self.loop_devices():
            subprocess.run(["losetup", "-d", loop_device], check=False)
        subprocess.run(["umount", "-l", "/mnt"], check=True)

    def unmount_all(self):
        while LIBC.umount2(self.at(POINT).encode(), UMOUNT_NOFOLLOW) == 0:
            pass

    def at(self, inside):
        return self.root + inside

    def sh(self, command):
        """Runs a shell command in the device's root directory, with VARIABLES."""
        run = subprocess.run(["sh", "-c", command], cwd=self.root, check=False, text=True,
                             env=os.environ | self.variables, capture_output=True)
        assert run.returncode == 0, f"{command}: {run.stderr}"
        return run.stdout

    def write(self, inside, content):
        os.makedirs(os.path.dirname(self.at(inside)), exist_ok=True)
        with open(self.at(inside), "wb") as file:
            file.write(content.encode() if isinstance(content, str) else content)

    def read(self, inside):
        """The content of a file; None when there is none."""
        try:
            with open(self.at(inside), "rb") as file:
                return file.read()
        except FileNotFoundError:
            return None

    def exists(self, inside):
        return os.path.lexists(self.at(inside))

    def ownership(self, inside):
        status = os.lstat(self.at(inside))
        return f"{status.st_uid}:{status.st_gid} {stat.S_IMODE(status.st_mode):o}"

    def snapshot(self, inside):
        """A tree: path -> type and mode, user, group, content."""
        def entry(path):
            status = os.lstat(path)
            content = None
            if stat.S_ISLNK(status.st_mode):
                content = os.readlink(path)
            elif stat.S_ISREG(status.st_mode):
                with open(path, "rb") as file:
                    content = file.read()
            return status.st_mode, status.st_uid, status.st_gid, content
        top = self.at(inside)
        if not os.path.lexists(top):
            return {}
        tree = {"": entry(top)}
        for directory, directories, files in os.walk(top):
            for path in (os.path.join(directory, name) for name in directories + files):
                tree[os.path.relpath(path, top)] = entry(path)
        return tree

    def start_over(self):
        """Removes everything that the tool works on."""
        self.unmount_all()
        for top in ("/opt/usr", "/opt/down", "/usr/bin/zels"):
            shutil.rmtree(self.at(top), ignore_errors=True)

    def make_layout(self):
        """Creates all directories that the tool works in."""
        for path in (LIB, DATA, POINT, "/opt/down/zels/zelADAgent", os.path.dirname(STORED),
                     os.path.dirname(RES)):
            os.makedirs(self.at(path), exist_ok=True)

    def put_tree(self, inside, version):
        """Writes the libraries and resources of a version, as if an image were mounted."""
        resources = inside + "/adplayer/res"
        self.write(inside + "/libad-agent-fwk.so", f"agent {version}" + "a" * 40_000)
        self.write(inside + "/libad-player-fwk.so", f"player {version}" + "p" * 40_000)
        self.write(inside + "/zelADAgent.xml", f"<Zel><Version>{version}</Version></Zel>")
        self.write(resources + "/page.html", f"page {version}")
        self.write(resources + "/bin/player.sh", f"#!/bin/sh\n# {version}\n")
        self.write(resources + "/empty", "")
        self.write(resources + "/a/b/c/deep", version + "d" * 7_000)
        os.chmod(self.at(resources + "/bin/player.sh"), 0o775)
        os.chmod(self.at(resources + "/empty"), 0o400)
        if not self.exists(resources + "/bin/link"):
            os.symlink("../page.html", self.at(resources + "/bin/link"))

    def file_system(self, version, kind="squashfs", change="true"):
        """The bytes of an unsigned image of put_tree(), after the shell command `change`."""
        if (version, kind, change) not in self.images:
            self.sh("rm -rf stage/tree stage/made")
            self.put_tree("/stage/tree", version)
            self.sh(f"cd stage/tree; {change}")
            self.sh("mksquashfs stage/tree stage/made -quiet -no-progress"
                    if kind == "squashfs" else "mkfs.erofs stage/made stage/tree")
            self.images[version, kind, change] = self.read("/stage/made")
        return self.images[version, kind, change]

    def image(self, version, kind="squashfs", change="true", words=""):
        """The bytes of a signed image; `words` are added to its trusted comment."""
        key = version, kind, change, words
        if key not in self.images:
            self.images[key] = self.maker.signed_image(
                self.file_system(version, kind, change), version + words)
        return self.images[key]

    def mount(self, version, kind="squashfs", change="true"):
        """Stores and mounts an image."""
        self.put(STORED, self.image(version, kind, change))
        self.run(MOUNT).expect(0)

    def put(self, inside, content):
        """Writes a new file: the old one may be mounted."""
        if self.exists(inside):
            os.remove(self.at(inside))
        self.write(inside, content)

    def start(self, words, before_exec=None):
        """Starts the tool; `before_exec` is called in the child, chrooted."""
        flags, argv = os.O_RDWR | os.O_CREAT | os.O_TRUNC, ["ad-mounter", *words]
        outputs = [(fd, self.at(f"/stage/{name}"), flags, 0o600) for fd, name in self.OUTPUTS]
        if before_exec is None:
            # Several times as fast as fork(2).
            return os.posix_spawn("/usr/sbin/chroot", ["chroot", self.root, "/tool/" + argv[0],
                                                       *words], {}, file_actions=[
                (os.POSIX_SPAWN_OPEN, *output) for output in outputs])
        pid = os.fork()
        if pid != 0:
            return pid
        try:
            for fd, *output in outputs:
                os.dup2(os.open(*output), fd)
            os.chroot(self.root)
            os.chdir("/")
            before_exec()
            os.execve("/tool/ad-mounter", argv, {})
        finally:
            os._exit(126)

    def wait_for(self, pid):
        status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
        return Result(status, *(self.read(f"/stage/{name}").decode() for _, name in self.OUTPUTS))

    def run(self, words, before_exec=None):
        return self.wait_for(self.start(words, before_exec))

    def hold_lock(self):
        """Takes the lock of the tool's runs, until the file that it returns is closed."""
        self.sh("mkdir -p -m 700 run/ad-mounter")
        file = open(self.at("/run/ad-mounter/lock"), "w", encoding="ascii")
        fcntl.flock(file, fcntl.LOCK_EX)
        return file

    def mounts(self):
        """The lines of mountinfo for mounts at the mount point, and for images anywhere."""
        with open("/proc/self/mountinfo", encoding="utf-8") as file:
            return [line for line in file if f" {self.at(POINT)} " in line or
                    (f" {self.root}/" in line and (" - squashfs " in line or " - erofs " in line))]

    def loop_devices(self):
        """Loop devices over files of the device; not opened, which would keep them."""
        found = []
        for path in pathlib.Path("/sys/block").glob("loop*/loop/backing_file"):
            try:
                if path.read_text(encoding="utf-8").startswith(self.root + "/"):
                    found.append(f"/dev/{path.parts[3]}")
            except OSError:
                pass
        return found

    def expect_clean(self, most_mounts=0):
        """No temporaries are left, and no mounts or loop devices but `most_mounts`."""
        mounts = self.mounts()
        assert len(mounts) <= most_mounts, mounts
        # Another test's run that tries the same device keeps it for a moment.
        deadline = time.monotonic() + 3
        while len(self.loop_devices()) > len(mounts) and time.monotonic() < deadline:
            time.sleep(0.01)
        assert len(self.loop_devices()) <= len(mounts)
        for top in ("/opt", "/usr/bin", "/run"):
            for _, directories, files in os.walk(self.at(top)):
                left = [name for name in directories + files
                        if ".ad-mounter" in name or name.startswith("image-")]
                assert not left
