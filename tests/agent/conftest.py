"""A content server, and a device that is configured for it."""

import collections
import configparser
import hashlib
import os
import pathlib
import re
import subprocess
import threading
import time

import content_server
import pytest
from maker import Maker

NOW = 1795255200  # 2026-11-21T10:00:00Z
MAKER = Maker()


def sign(content, comment, size=0):
    """Returns an image with a trailer, and padded to a size."""
    trailer = MAKER.sign(content, comment).trailer()
    return content + bytes(max(size - len(content + trailer), 0)) + trailer


def signature_of(text, maker):
    """Returns the lines at the end of a signed index."""
    signed = maker.sign(text.encode(), "an index")
    return "".join(f"# {line}\n" for line in (signed.untrusted, signed.signature, signed.trusted,
                                              signed.comment_signature))


# Several times as much as one write to a socket takes.
IMAGE = sign(bytes(range(250)) * 1500, "version:1.06", 400000)
TENTH = len(IMAGE) // 10
Result = collections.namedtuple("Result", "ok log")


class Server:
    """tests/support/content_server.py in threads of this process."""

    def __init__(self, root, certificate=None):
        root.mkdir()
        self.content, self.log, self.faults = root / "content", root / "log", root / "faults"
        server = content_server.Server(self.content, self.log, self.faults, certificate)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.url = f"{'https' if certificate else 'http'}://127.0.0.1:{server.server_port}"
        self.offer("1.06", IMAGE)

    def serve(self, path, content):
        file = self.content / path.lstrip("/")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)

    def publish(self, version, content=b"newer", words="", **keys):
        """Offers a new image. Returns it."""
        image = sign(content, f"version:{version} {words}")
        self.offer(version, image, **keys)
        return image

    def offer(self, version, image, maker=None, index=None, **keys):
        """Writes an index, and signs it if there is a maker."""
        keys = {"version": version, "file": f"zelADAgent-{version}.img", "size": len(image),
                "sha256": hashlib.sha256(image).hexdigest(), **keys}
        lines = ["[image]", *(f"{key}={value}" for key, value in keys.items()), ""]
        self.serve(f"images/{keys['file']}", image)
        if index:
            lines[-1:] = ["[index]", *(f"{key}={value}" for key, value in index.items()), ""]
        text = "\n".join(lines)
        self.serve("update.ini", (text + (signature_of(text, maker) if maker else "")).encode())

    def misbehave(self, *faults):
        self.faults.write_text("\n".join(faults))

    def requests(self):
        """Returns the requests since the last call."""
        lines = self.log.read_text().splitlines() if self.log.exists() else []
        self.log.unlink(missing_ok=True)
        return lines


class Device:
    """The files of an agent."""

    is_installed = True  # whether the stored image of an update is what has been installed
    command = [os.path.join(os.environ["BUILD_DIR"], "bin/agent-driver")]

    def __init__(self, root, server):
        self.root, self.server, self.data = root, server, root / "data"
        self.image, self.part = self.data / "zelADAgent.img", self.data / "zelADAgent.img.part"
        self.environment = {"FIRMWARE": "T-1200.1"}
        self.data.mkdir(parents=True)
        self.configure(server.url)

    def configure(self, url, *lines):
        self.write("agent.conf", "\n".join(["[server]", f"url={url}", *lines]))

    def write(self, name, contents):
        path = self.root / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(contents if isinstance(contents, bytes) else contents.encode())

    def start(self, *arguments, **environment):
        """Starts the driver. Returns its process."""
        return subprocess.Popen([*self.command, self.root, *map(str, arguments)], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                env={**os.environ, **self.environment, **environment})

    def finish(self, process, children=0, stopped=0):
        """Waits for a driver, which must leave nothing behind."""
        output, log = process.communicate(timeout=30)
        assert process.returncode in (0, 1) and re.fullmatch("(ad-agent: .*\n)*", log), log
        assert output == (f"Left behind: 0 descriptors, {children} children, 0 libcurl, 0 blocked;"
                          f" stopped {stopped} times\n")
        return Result(process.returncode == 0, log)

    def run(self, *arguments, **environment):
        return self.finish(self.start(*arguments, **environment))

    def fetch(self, path="/TileAd/v2"):
        return self.run("fetch", path)

    def record(self, version):
        self.write("data/zelADAgentCache.xml", f"<Cache><SoVersion>{version}</SoVersion></Cache>")

    def update(self, stored="1.05", **environment):
        if self.is_installed:
            self.record(stored)
        return self.run("update", stored, **environment)

    def expect_update(self, *arguments, image=IMAGE, **options):
        """Updates. Returns the log."""
        result = self.update(*arguments, **options)
        assert result.ok and self.image.read_bytes() == image, result.log
        return result.log

    def expect_no_update(self, reason, *arguments, **options):
        result = self.update(*arguments, **options)
        assert not result.ok and reason in result.log, result.log
        return result.log

    def state(self):
        state = configparser.ConfigParser(interpolation=None)
        state.read(self.data / "state.ini")
        return state

    def names(self, pattern="*"):
        return {path.name for path in self.data.glob(pattern)}

    def await_part(self, size):
        end = time.monotonic() + 20
        while not self.part.exists() or self.part.stat().st_size < size:
            assert time.monotonic() < end, "no download"
            time.sleep(0.002)

    def children(self, process):
        children = pathlib.Path(f"/proc/{process}/task/{process}/children")
        return [int(child) for child in children.read_text().split()]

    def trace(self, *options):
        """Runs the driver in strace. Returns its output file."""
        self.command = ["strace", "-f", "-o", self.root / "trace", *options, *self.command]
        self.environment["ASAN_OPTIONS"] = "detect_leaks=0"
        return self.root / "trace"


@pytest.fixture
def server(tmp_path):
    return Server(tmp_path / "server")


@pytest.fixture
def device(tmp_path, server):
    return Device(tmp_path, server)
