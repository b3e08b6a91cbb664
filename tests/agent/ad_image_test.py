"""Building, signing and publishing images with tools/ad-image."""

import hashlib
import os
import pathlib
import re
import struct
import subprocess

import pytest

TOOLS = pathlib.Path(os.environ["SOURCE_DIR"]) / "tools"
LIBRARIES = pathlib.Path(os.environ["BUILD_DIR"]) / "lib"
# Of an option that is repeated, the last one counts.
PACK = "ad-image pack --resources res --agent agent.so --player player.so --version 1.05 --output "


def sh(line, status=0):
    """Runs a command line that must end with a status. Returns its output."""
    result = subprocess.run(line, shell=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            stdin=subprocess.DEVNULL, text=True, check=False,
                            env={**os.environ, "PATH": f"{TOOLS}:{os.environ['PATH']}"})
    assert result.returncode == status, line + result.stdout
    return result.stdout


def expect_failure(line, reason):
    output = sh(line, status=1)
    assert reason in output and re.fullmatch("ad-image: .*\n", output), output


def read(path):
    return pathlib.Path(path).read_bytes()


def files(root):
    return {str(path) for path in pathlib.Path(root).rglob("*") if not path.is_dir()}


def trailer(signature):
    return signature + struct.pack("<8sII", b"ADIMGSIG", len(signature), 1)


@pytest.fixture(autouse=True)
def directory(tmp_path, monkeypatch):
    """Runs each test in a directory with keys, libraries and resources."""
    monkeypatch.chdir(tmp_path)
    sh("for name in maker other; do"
       " ad-image keygen --no-password --key $name.key --public $name.pub; done;"
       f"cp {LIBRARIES}/libad-agent-fwk.so agent.so; cp {LIBRARIES}/libad-player-fwk.so player.so;"
       "mkdir -p res/sub; printf a >res/a.ini; printf b >res/sub/b.ini;"
       "ln -s ./sub//b.ini res/down; ln -s ../a.ini res/sub/up")


@pytest.mark.parametrize("image_format", ["squashfs", "erofs"])
def test_same_input_yields_same_bytes(image_format):
    sh(f"{PACK} one.img --format {image_format}")
    # Another order, other modes and times, another environment.
    sh("mv res old; mkdir -m 700 res; cp -r old/sub old/down res; cp old/a.ini res;"
       "chmod 777 agent.so; touch -d @1000 res/a.ini; umask 077; export SOURCE_DATE_EPOCH=5;"
       f"{PACK} two.img --format {image_format}")
    assert read("one.img") == read("two.img") and os.stat("two.img").st_mode & 0o777 == 0o644

    shown = sh("ad-image show one.img").splitlines()
    assert shown[:2] == ["version      1.05", f"format       {image_format}"]
    assert shown[3] == "signature    none" and shown[4].startswith("contents     5 files, ")
    assert shown[5:9] == ["         1  adplayer/res/a.ini", "        12  adplayer/res/down",
                          "         1  adplayer/res/sub/b.ini", "         8  adplayer/res/sub/up"]
    if image_format == "squashfs":
        assert "1970-01-01 00:00 squashfs-root/libad" in sh("TZ=UTC unsquashfs -lln one.img")
        assert "<Zel><Version>1.05</Version></Zel>" in sh("unsquashfs -cat one.img zelADAgent.xml")


def test_pack_rejects_what_no_device_could_use():
    # The byte that is changed is the machine in the header.
    sh("for name in fifo up root climb; do cp -r res $name; done; mkfifo fifo/x; mkdir directory;"
       "ln -s ../x up/x; ln -s /etc/passwd root/x; ln -s x/../b climb/sub/x; printf old >old.img;"
       r"cp player.so arm.so; printf '\050' | dd of=arm.so bs=1 seek=18 conv=notrunc status=none")
    before = files(".")
    for options, reason in [
            ("--version 1.0.5", "is not a decimal fraction"),
            ("--version 12345678901234567890", "is not a decimal fraction"),
            ("--agent none.so", "none.so is not a readable file"),
            ("--agent res/a.ini", "is not a shared library"),
            ("--agent player.so", "player.so does not export ad_agent_init ad_agent"),
            ("--player arm.so", "arm.so is for arm, not for"),
            ("--architecture arm", ", not for arm"),
            ("--resources old.img", "are not a directory"),
            ("--resources fifo", "res/x is not a file, directory or link"),
            ("--resources up", "res/x is a link that leads out of the resources, to ../x"),
            ("--resources root", "res/x is a link that leads out of the resources, to /etc"),
            ("--resources climb", "res/sub/x is a link that leads out of the resources, to x/.."),
            ("--output directory", "directory exists but is not a regular file")]:
        expect_failure(f"{PACK} old.img {options}", reason)
    assert files(".") == before and read("old.img") == b"old"


def test_wrong_command_lines_exit_with_2():
    for line in ("", "frobnicate", "pack --version 1.05", "publish agent.so", "show agent.so more",
                 "verify --key", "verify --ke maker.pub agent.so", "keygen --key '' --public new"):
        assert "; see 'ad-image --help'" in sh(f"ad-image {line}", status=2)


def test_signature_is_one_that_minisign_verifies():
    sh(f"{PACK} plain.img --format erofs; cp plain.img signed.img;"
       "ad-image sign --key maker.key signed.img")
    plain = read("plain.img")
    pathlib.Path("signature").write_bytes(read("signed.img")[len(plain):-16])
    assert read("signed.img") == plain + trailer(read("signature"))
    assert sh("minisign -VHQm plain.img -p maker.pub -x signature") == "version:1.05\n"
    sh("ad-image verify --key maker.pub signed.img")
    number = sh("sed -n '1s/.* //p' maker.pub").strip()  # minisign's, without leading zeros
    assert (f"file system  {len(plain)} bytes\nsignature    of key {number}, not verified\n"
            "             trusted comment: version:1.05\n") in sh("ad-image show signed.img")
    assert os.stat("maker.key").st_mode & 0o777 == 0o600
    expect_failure("ad-image keygen --key maker.key --public new.pub", "maker.key already exists")


def test_verify_rejects_altered_and_foreign_signatures():
    sh(f"{PACK} good.img; ad-image sign --key maker.key good.img; {PACK} plain.img --version 1.06;"
       "ln -s a.ini res/zelADAgent.xml; mksquashfs res bare.img -quiet -no-progress")
    good = read("good.img")
    expect_failure("ad-image verify --key other.pub good.img", "not signed with the key")
    expect_failure("ad-image sign --key maker.key good.img", "good.img is already signed")
    expect_failure("ad-image sign --key maker.key bare.img", "bare.img is not an update image")

    def expect_bad(contents, reason):
        pathlib.Path("bad.img").write_bytes(contents)
        expect_failure("ad-image verify --key maker.pub bad.img", reason)

    expect_bad(good[1:], "bad.img was altered, or not signed with the key of maker.pub")
    for unsigned in (good[:-1], b"ADIMGSIG" + bytes(8)):
        expect_bad(unsigned, "bad.img is not signed")
    for length in (0, 4097, len(good) - 16):
        expect_bad(good[:-8] + struct.pack("<II", length, 1), "cannot hold a signature of")
    expect_bad(trailer(b"the whole image"), "cannot hold a signature of 15 bytes")
    expect_bad(good[:-4] + struct.pack("<I", 2), "unknown trailer layout 2")
    # The right key, but for another version or for none.
    for comment, reason in [("version:1.05", "has version 1.06, but was signed as 1.05"),
                            ("something", "has 0 versions, expected 1"),
                            ("version:1.06 version:1.05", "has 2 versions, expected 1")]:
        sh(f"minisign -S -s maker.key -m plain.img -x signature -t '{comment}'")
        expect_bad(read("plain.img") + trailer(read("signature")), reason)
        expect_failure("ad-image publish bad.img web", reason)
    assert os.listdir("web") == []


def test_publish_lays_out_what_devices_fetch():
    # Any of the names may begin with a dash.
    sh(f"{PACK} -5.img; ad-image sign --key maker.key -5.img; ad-image show -5.img;"
       f"{PACK} 6.img --version 1.06; echo '<html>' >page; printf '{{\"tiles\": 1}}' >tile.json;"
       "ad-image publish --key maker.pub --tile-ad tile.json -5.img web")
    sha256 = hashlib.sha256(read("-5.img")).hexdigest()
    image = f"zelADAgent-1.05-{sha256[:12]}.img"
    index = (f"[image]\nversion=1.05\nsize={os.path.getsize('-5.img')}\nsha256={sha256}\n"
             f"file={image}\n").encode()
    assert {name: read(name) for name in files("web")} == {
        "web/AppsAd/v2": b"{}\n", "web/TileAd/v2": b'{"tiles": 1}', "web/update.ini": index,
        f"web/images/{image}": read("-5.img")}
    assert {os.stat(name).st_mode & 0o777 for name in files("web")} == {0o644}

    for arguments, reason in [("6.img", "6.img is not signed: sign it with"),
                              ("--key other.pub -5.img", "not signed with the key"),
                              ("--apps-ad page -5.img", "page is not a JSON object"),
                              ("--min-firmware 'a b' -5.img", "is not a firmware version"),
                              ("--max-firmware 'a\\b' -5.img", "is not a firmware version"),
                              ("--unsigned page", "is not an update image")]:
        expect_failure(f"ad-image publish {arguments} web", reason)
    assert read("web/update.ini") == index
    sh("ad-image publish --unsigned --min-firmware T-1 --max-firmware -2 6.img web")
    assert read("web/update.ini").endswith(b"min_firmware=T-1\nmax_firmware=-2\n")
    assert read("web/TileAd/v2") == b'{"tiles": 1}'

    # The same image can be published again, unless the published file was altered.
    sh("ad-image publish -5.img web")
    assert read("web/update.ini") == index and len(os.listdir("web/images")) == 2
    sh(f"echo altered >>web/images/{image}")
    expect_failure("ad-image publish -5.img web", "has other contents")
