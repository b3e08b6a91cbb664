"""A box: systemd on a bare Debian in namespaces of its own, at the near end of a cable."""

import os
import pathlib
import shutil
import signal
import subprocess
import time

HERE = pathlib.Path(__file__).parent
SOURCE = pathlib.Path(os.environ["SOURCE_DIR"])
BUILD = pathlib.Path(os.environ["BUILD_DIR"])
ROOT = BUILD / "box-root"
AGENT_DATA = "/opt/usr/apps/adagent"
NAMESPACES = "--mount --pid --net --uts --ipc --cgroup"


def sh(script, **options):
    """Runs a script on this side of the cable."""
    result = subprocess.run(["bash", "-euc", script], check=False, text=True, **options,
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    assert result.returncode == 0, result.stdout[-2000:]
    return result.stdout


def wait_for(condition, seconds):
    """Returns the condition's first true result, and fails after that time."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if result := condition():
            return result
        time.sleep(0.1)
    raise AssertionError(f"not within {seconds} s: {condition.__doc__ or condition}")


class Box:
    """What it changes is kept in a directory, over reboots and power cuts."""

    def __init__(self, kept):
        self.kept, self.process = kept, None
        shutil.rmtree(kept, ignore_errors=True)

    def boot(self, usr="rw", *, complete=True):
        with open(BUILD / "box.boot", "a", encoding="utf-8") as log:
            self.process = subprocess.Popen(
                ["unshare", *NAMESPACES.split(), "--fork", "--kill-child", HERE / "boot", ROOT,
                 self.kept, usr], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children")
        self.pid = int(wait_for(children.read_text, 10))
        wait_for(lambda: "systemd" in pathlib.Path(f"/proc/{self.pid}/comm").read_text(), 10)
        sh(f"""ip link add far0 type veth peer name eth0 netns {self.pid}
               ip address add 10.9.0.1/24 dev far0; ip link set far0 up""")
        wait_for(lambda: self.run("systemctl is-active basic.target || true") == "active\n", 60)
        if complete:
            self.run("systemctl is-system-running --wait || true")

    def cut_power(self):
        os.kill(self.pid, signal.SIGKILL)
        self.process.wait()
        sh("ip link delete far0 2>/dev/null || true")

    def path(self, path):
        """A file of the box, seen from here."""
        return pathlib.Path(f"/proc/{self.pid}/root{path}")

    def home(self):
        return self.path("/root")

    def list_files(self):
        """What packages may leave: all but caches, logs, and the databases of dpkg and users."""
        return set(self.run(r"""find / -xdev \( -path /var/lib/dpkg -o -path /var/cache -o -path /var/log \
            -o -path /root -o -path /tmp -o -path /home \) -prune -o -print; find /run -name '*ad*'""").split("\n"))

    def run(self, script):
        """Runs a script on the box, as root in /root. Returns its output."""
        enter = f"nsenter --target {self.pid} {NAMESPACES} --wdns=/root env -i HOME=/root "
        return sh(enter + "PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "
                  'bash -euc "$SCRIPT" 2>&1', env=os.environ | {"SCRIPT": script})

    def journal(self, *arguments):
        return self.run("journalctl --sync; journalctl --no-pager -o cat " + " ".join(arguments))

    def mark(self):
        """The end of the journal, as an argument for what comes after it."""
        cursor = self.run("journalctl --sync; journalctl -n 0 --show-cursor").split(": ", 1)[1]
        return f"--after-cursor='{cursor.strip()}'"

    def wait_logged(self, text, seconds=40, *, since="-b"):
        def logged():
            return text in self.journal(since)
        logged.__doc__ = text
        wait_for(logged, seconds)

    def property(self, name, unit="adagentd"):
        return self.run(f"systemctl show -P {name} {unit}").strip()


class Publisher:
    """The machine on which releases are made, which also serves them: another bare Debian."""

    def __init__(self, kept):
        shutil.rmtree(kept, ignore_errors=True)
        self.home = kept / "root/root"
        sh(f"""mkdir -p {kept}/upper {kept}/work {kept}/root {kept}/content
               mount -t overlay overlay -o lowerdir={ROOT},upperdir={kept}/upper,workdir={kept}/work {kept}/root
               mount -t proc proc {kept}/root/proc
               mount --bind /dev {kept}/root/dev
               ip link set lo up""")
        self.root = kept / "root"
        self.server = None

    def run(self, script):
        return sh('chroot "$ROOT" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin '
                  'DEBIAN_FRONTEND=noninteractive bash -euc "cd; $SCRIPT" 2>&1',
                  env=os.environ | {"ROOT": str(self.root), "SCRIPT": script})

    def serve(self):
        """Starts the web server, and what gives boxes their addresses."""
        self.run("mkdir -p content")
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        subprocess.Popen(["dnsmasq", "--keep-in-foreground", "--conf-file=/dev/null", "--user=root",
                          "--port=0", "--bind-dynamic", "--interface=far0", "--dhcp-option=3,10.9.0.1",
                          "--dhcp-range=10.9.0.2,10.9.0.9", "--dhcp-leasefile=/dev/null"], **quiet)
        subprocess.Popen(["chroot", self.root, "python3", "-m", "http.server", "--directory",
                          "/root/content", "8080"], **quiet)

    def publish(self, version, library):
        """Releases an image with another agent library."""
        shutil.copy(library, self.home / "library.so")
        self.run(f"""ad-image pack --version {version} --agent library.so --no-load \\
            --player release/usr/lib/libad-player-fwk.so --resources release/usr/share/ad-agent/res \\
            --output {version}.img
            ad-image sign --key maker.key --product demo-box {version}.img
            ad-image publish --key maker.pub --index-key index.key --expires 30 {version}.img content""")
