"""Building, signing and publishing images with tools/ad-image."""

import datetime
import fcntl
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
                            env={**os.environ, "PYTHONUNBUFFERED": "",
                                 "PATH": f"{TOOLS}:{os.environ['PATH']}"})
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


def sign_by_hand(image, comment, output):
    """Signs an image with minisign alone."""
    sh(f"minisign -S -s maker.key -m {image} -x signature -t '{comment}'")
    pathlib.Path(output).write_bytes(read(image) + trailer(read("signature")))


def index_values():
    lines = pathlib.Path("web/update.ini").read_text().splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line and line[0] != "#")


@pytest.fixture(autouse=True)
def directory(tmp_path, monkeypatch):
    """Runs each test in a directory with keys, libraries and resources."""
    monkeypatch.chdir(tmp_path)
    sh("for name in maker other; do"
       " ad-image keygen --no-password --key $name.key --public $name.pub; done;"
       "ad-image keygen --index --no-password --key index.key --public index.pub;"
       f"for name in agent player; do strip -g {LIBRARIES}/libad-$name-fwk.so -o $name.so; done;"
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
    sh(f"{PACK} old.img --version 1.04 --format {image_format};"
       "ad-image sign --key maker.key old.img;"
       "ad-image repack --version 1.05 --output again old.img")
    assert read("again") == read("one.img")

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
       "for name in agent player; do cp $name.so arm-$name.so;"
       r" printf '\050' | dd of=arm-$name.so bs=1 seek=18 conv=notrunc status=none; done;"
       "ln -s old.img link.img; echo 'void nothing(void); void f(void) { nothing(); }' >lacks.c;"
       "echo '#include <stdlib.h>\n__attribute__((constructor)) void f(void) { abort(); }' >dies.c;"
       "echo 'void f(void) {} asm(\".globl f\");' >needs.c; cc -shared -fPIC needs.c -o libno.so;"
       "for name in lacks dies needs; do cc -shared -fPIC -Wl,--no-as-needed $name.c -o $name.so"
       " $([ $name = needs ] && echo ./libno.so); done; rm libno.so")
    before = files(".")
    for options, reason in [
            ("--version 1.0.5", "is not a decimal fraction"),
            ("--version 12345678901234567890", "is not a decimal fraction"),
            ("--agent none.so", "none.so is not a readable file"),
            ("--agent res/a.ini", "is not a shared library"),
            ("--agent player.so", "player.so does not export ad_agent_init ad_agent"),
            ("--player arm-player.so", "arm-player.so is for arm, not for"),
            ("--player lacks.so", "player library lacks.so cannot be loaded: undefined symbol: no"),
            ("--player needs.so", "needs.so cannot be loaded: ./libno.so: cannot open shared"),
            ("--player dies.so", "player library dies.so cannot be loaded: killed by signal 6"),
            ("--architecture arm", ", not for arm"),
            ("--resources old.img", "are not a directory"),
            ("--resources fifo", "res/x is not a file, directory or link"),
            ("--resources up", "res/x is a link that leads out of the resources, to ../x"),
            ("--resources root", "res/x is a link that leads out of the resources, to /etc"),
            ("--resources climb", "res/sub/x is a link that leads out of the resources, to x/.."),
            ("--output directory", "directory exists but is not a regular file"),
            ("--output /dev/full", "/dev/full exists but is not a regular file"),
            ("--output link.img", "link.img exists but is not a regular file")]:
        expect_failure(f"{PACK} old.img {options}", reason)
    assert files(".") == before and read("old.img") == b"old"
    for options in ("--player lacks.so --no-load",
                    "--player arm-player.so --agent arm-agent.so"):
        assert "loading the libraries was not tried" in sh(f"{PACK} new.img {options}")


def test_names_a_full_file_system():
    sh(f"head -c 400000 /dev/urandom >big; {PACK} plain.img; {PACK} fits.img; {PACK} erofs.img "
       "--format erofs; ad-image sign --key maker.key fits.img; mkdir small large; cp big large")
    room = os.path.getsize("plain.img") + 30000
    if subprocess.run(f"mount -t tmpfs -o size={room} none small", shell=True,
                      check=False).returncode:
        pytest.skip("not permitted to mount")
    try:
        sh("cp plain.img small")
        for line in (f"{PACK} small/a.img --resources large", f"{PACK} small/b.img",
                     "ad-image sign --key maker.key small/plain.img",
                     "ad-image keygen --no-password --key small/key --public small/public",
                     "TMPDIR=small ad-image show plain.img",
                     "TMPDIR=small ad-image verify --key maker.pub fits.img",
                     "TMPDIR=small ad-image show erofs.img",
                     "ad-image publish fits.img small/web", "ad-image show fits.img >small/out",
                     "ad-image repack --version 1.06 --output small/c.img plain.img"):
            if "keygen" in line or ">" in line:
                sh("touch small/out; cat /dev/zero >small/filler", status=1)
            expect_failure(line, "No space left on device")
            sh("rm -f small/filler small/out; rmdir small/web 2>/dev/null || true")
            assert os.listdir("small") == ["plain.img"]
    finally:
        sh("umount small")


def test_clears_what_killed_runs_left():
    sh("mkdir -p .ad-image.deadbeef/tree .ad-image.inuse123; touch .ad-image.deadbeef/tree/file")
    in_use = os.open(".ad-image.inuse123", os.O_RDONLY)
    fcntl.flock(in_use, fcntl.LOCK_EX)
    sh(f"{PACK} new.img")
    assert [name for name in os.listdir() if name.startswith(".ad-")] == [".ad-image.inuse123"]
    os.close(in_use)


def test_wrong_command_lines_exit_with_2():
    for line in ("", "frobnicate", "pack --version 1.05", "publish agent.so", "show agent.so more",
                 "verify --key", "verify --ke maker.pub agent.so", "keygen --key '' --public new",
                 "publish --expires 0 agent.so web", "publish --expires 1e3 agent.so web"):
        assert "; see 'ad-image --help'" in sh(f"ad-image {line}", status=2)


def test_signature_is_one_that_minisign_verifies():
    sh(f"{PACK} plain.img --format erofs; cp plain.img signed.img;"
       "ad-image sign --key maker.key --max-firmware -2 --min-firmware -1.9 --product demo-box"
       " --released 2026-11-21T10:00:00Z signed.img")
    comment = ("version:1.05 product:demo-box min-firmware:-1.9 max-firmware:-2 "
               "released:2026-11-21T10:00:00Z\n")
    plain = read("plain.img")
    pathlib.Path("signature").write_bytes(read("signed.img")[len(plain):-16])
    assert read("signed.img") == plain + trailer(read("signature"))
    assert sh("minisign -VHQm plain.img -p maker.pub -x signature") == comment
    sh("ad-image verify --key maker.pub signed.img")
    number = sh("sed -n '1s/.* //p' maker.pub").strip()  # minisign's, without leading zeros
    assert (f"file system  {len(plain)} bytes\nsignature    of key {number}, not verified\n"
            f"             trusted comment: {comment}") in sh("ad-image show signed.img")
    assert os.stat("maker.key").st_mode & 0o777 == 0o600
    expect_failure("ad-image keygen --key maker.key --public new.pub", "maker.key already exists")

    before = datetime.datetime.utcnow().replace(microsecond=0)
    sh("cp plain.img new.img; ad-image sign --key maker.key new.img")
    released = re.search("comment: version:1.05 released:(.*)Z\n", sh("ad-image show new.img"))[1]
    assert before <= datetime.datetime.fromisoformat(released) <= datetime.datetime.utcnow()


def test_sign_rejects_words_that_devices_reject():
    sh(f"{PACK} plain.img")
    for options, reason in [
            ("--product 'two words'", '"two words" is not a product'),
            ("--product " + 64 * "p", "is not a product"),
            ("--min-firmware 'a b'", '"a b" is not a firmware version'),
            ("--max-firmware 'a\\b'", "is not a firmware version"),
            ("--max-firmware " + 256 * "f", "is not a firmware version"),
            # As numbers: 10 is after 9.
            ("--min-firmware T-1.10 --max-firmware T-1.9", "the first firmware, T-1.10, is later"),
            ("--released 2026-02-30T10:00:00Z", "is not a time in UTC such as"),
            ("--released 2026-2-20T10:00:00Z", "is not a time in UTC such as"),
            ("--key index.key", "index.key is an index key")]:
        expect_failure(f"ad-image sign --key maker.key plain.img {options}", reason)


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
    # The right key, but words that devices reject.
    for comment, reason in [
            ("version:1.05", "has version 1.06, but was signed as 1.05"),
            ("something", "its trusted comment states no version"),
            ("version:1.06 version:1.06", "its trusted comment has two words version"),
            ("version:1.06 product:a product:a", "its trusted comment has two words product"),
            ("version:1.06 product:a/b", 'its trusted comment: "a/b" is not a product'),
            ("version:1.06 product:", "is not a product"),
            ("version:1.06 min-firmware:b max-firmware:a", "the first firmware, b, is later"),
            ("version:1.06 min-firmware:" + 256 * "f", "is not a firmware version"),
            ("version:1.06\treleased:today", '"today" is not a time')]:
        sign_by_hand("plain.img", comment, "bad.img")
        expect_failure("ad-image verify --key maker.pub bad.img", reason)
        expect_failure("ad-image publish bad.img web", reason)
    assert os.listdir("web") == []


def test_publish_lays_out_what_devices_fetch():
    # Any of the names may begin with a dash.
    sh(f"{PACK} -5.img; ad-image sign --key maker.key -5.img; ad-image show -5.img;"
       f"{PACK} 6.img --version 1.06; echo '<html>' >page; printf '{{\"tiles\": 1}}' >tile.json;"
       "printf '{\"\\344\"}' >latin; printf '{\\0}' >null;"
       "(echo {; head -c 1M /dev/zero; echo }) >big; truncate -s 513M huge;"
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
                              ("--apps-ad latin -5.img", "latin is not UTF-8 at byte 2"),
                              ("--apps-ad null -5.img", "null contains a null byte"),
                              ("--tile-ad big -5.img", "big has 1048580 bytes: devices accept"),
                              ("--index-key maker.key -5.img", "maker.key is not an index key"),
                              ("huge", "huge has 537919488 bytes: devices accept at most"),
                              ("page", "page is not signed")]:
        expect_failure(f"ad-image publish {arguments} web", reason)
    assert read("web/update.ini") == index
    sh("ad-image sign --key maker.key --product box --min-firmware T-1 --max-firmware T-2 6.img;"
       "ad-image publish 6.img web")
    assert read("web/update.ini").endswith(b"product=box\nmin_firmware=T-1\nmax_firmware=T-2\n")
    assert read("web/TileAd/v2") == b'{"tiles": 1}'

    # The same image can be published again, unless the published file was altered.
    sh("ad-image publish --force -5.img web; ad-image publish -5.img web")
    assert read("web/update.ini") == index and len(os.listdir("web/images")) == 2
    sh(f"echo altered >>web/images/{image}")
    expect_failure("ad-image publish -5.img web", "has other contents")
    # After "--" also those that look like options.
    sh("cp 6.img ./--force; ad-image show -- --force; ad-image publish -- --force --web")


def test_publish_rejects_what_is_not_newer_to_a_device():
    sh("mkdir web")
    for published, version, reason in [
            ("1.9", "1.10", "version 1.10 is not greater than the published 1.9"),
            ("1.5", "1.50", "is not greater than the published 1.5"),
            ("1.06", "1.05", "is not greater than the published 1.06"),
            ("16777216", "16777217", "are the same number in single precision"),
            ("0.0", "0.00", "is not greater than the published 0.0")]:
        sh(f"{PACK} {version}.img --version {version}; ad-image sign --key maker.key {version}.img;"
           f"printf '[image]\nversion={published}\n' >web/update.ini")
        expect_failure(f"ad-image publish {version}.img web", reason)
        sh(f"ad-image publish --force {version}.img web")
    for index in ("no group", "[index]\nserial=-1", "[image]\nversion=new", "[index]\nserial="):
        pathlib.Path("web/update.ini").write_text(index)
        expect_failure("ad-image publish --force 1.05.img web", "web/update.ini is not an index: ")


def test_signed_index_is_one_that_minisign_verifies():
    sh(f"{PACK} 5.img; ad-image sign --key maker.key 5.img; mkdir web;"
       "printf '[index]\nserial=41\n' >web/update.ini")
    check = ("sed -n '/^# untrusted comment:/,$s/^# //p' web/update.ini >sig;"
             "sed '/^# untrusted comment:/,$d' web/update.ini >text;"
             "minisign -VQ -p index.pub -m text -x sig; ad-image verify-index --key index.pub "
             "web/update.ini")
    for serial, days in ((42, 30), (43, 7)):
        sh(f"ad-image publish --index-key index.key --expires {days} 5.img web")
        values = index_values()
        issued, expires = (datetime.datetime.strptime(values[key], "%Y-%m-%dT%H:%M:%SZ")
                           for key in ("issued", "expires"))
        assert (values["serial"], expires - issued) == (str(serial), datetime.timedelta(days=days))
        assert abs(datetime.datetime.utcnow() - issued) < datetime.timedelta(minutes=5)
        assert sh(check) == (f"update index serial:{serial}\nweb/update.ini: valid signature, "
                             f"serial {serial}, expires {values['expires']}\n")
    assert read("index.pub").startswith(b"untrusted comment: ad-agent index public key ")
    assert read("index.key").startswith(b"untrusted comment: ad-agent index secret key\n")

    expect_failure("ad-image publish 5.img web", "web/update.ini is signed: specify --index-key")
    verify = "ad-image verify-index --key "
    expect_failure(f"{verify} other.pub web/update.ini", "not signed with the key of other.pub")
    sh("sed s/^serial=43/serial=44/ web/update.ini >altered;"
       "sed s/^expires=.*/expires=2026-01-01T00:00:00Z/ text >old; cp old expired;"
       "minisign -S -s index.key -m old -x sig; sed 's/^/# /' sig >>expired")
    for file, reason in (("altered", "altered was altered"), ("text", "text is not signed"),
                         ("expired", "expired expired at 2026-01-01T00:00:00Z: publish again")):
        expect_failure(f"{verify} index.pub {file}", reason)
    sh("ad-image publish --force 5.img web")
    assert "serial" not in index_values()
