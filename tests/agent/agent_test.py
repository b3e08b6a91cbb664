"""Configuration documents, and content servers that misbehave."""

import os
import re
import socket
import stat
import subprocess

import pytest
from conftest import IMAGE, Server

PATH = "/TileAd/v2"
OLD = b"an old download"


def test_stores_documents_and_keeps_the_last_valid_one(device, server):
    stored = device.data / "TileAd-v2.json"
    for content in (b"{" + b" " * (2**20 - 2) + b"}", b'{"tiles": 4}'):
        server.serve(PATH, content)
        device.write("data/TileAd-v2.json.part", "left by a process that was killed")
        assert device.fetch() == (True, f"ad-agent: configuration document {PATH}: stored as "
                                        f"{stored}, {len(content)} bytes\n")
    for content in (b"", b"{", b"[]", b"{\xff}", b"<html></html>"):
        server.serve(PATH, content)
        assert "not a JSON object" in device.fetch().log
    server.serve(PATH, b"{" + b" " * (2**20 - 1) + b"}")
    assert "exceeds the expected size" in device.fetch().log
    server.misbehave("* cut 5")
    assert "bytes remaining" in device.fetch().log
    server.requests()
    assert "document /../\\x1b[31m: not a URL path" in device.fetch("/../\x1b[31m").log
    for path in ("", "/", "TileAd/v2", "/TileAd/", "/a?b"):
        assert f"{path}: not a URL path" in device.fetch(path).log
    assert server.requests() == []

    assert stored.read_bytes() == b'{"tiles": 4}' and stat.S_IMODE(stored.stat().st_mode) == 0o644
    assert device.names() == {"TileAd-v2.json", "TileAd-v2.json.validator"}


def test_requests_a_document_only_if_it_has_changed(device, server):
    def expect(text, request):
        assert text in device.fetch().log and server.requests() == [request]

    for content, request in ((b"{}", PATH), (b"{ }", f"{PATH} modified")):
        server.serve(PATH, content)
        expect(f"{len(content)} bytes", request)
        expect("not modified", f"{PATH} 304")
    # One that is lost or damaged here, or came from elsewhere, is requested as a whole.
    document, validator = device.data / "TileAd-v2.json", device.data / "TileAd-v2.json.validator"
    url, etag = validator.read_text().splitlines()
    for damaged in ("", url, f"{url}\n", f"x{url[1:]}\n{etag}\n", f"{url}\n{etag[1:]}\n",
                    f'{url}\n"{"a" * 300}"\n', f'{url}\n"\t{etag[1:]}\n'):
        validator.write_text(damaged)
        expect("3 bytes", PATH)
    document.write_text("{ ")
    expect("3 bytes", PATH)
    document.unlink()
    document.symlink_to(device.root / "server/content" / PATH[1:])
    expect("3 bytes", PATH)

    server.misbehave("* noetag")
    expect("3 bytes", f"{PATH} modified")
    expect("3 bytes", PATH)
    server.misbehave("* status 304")
    expect("unexpected HTTP status 304", PATH)


def test_etag_never_stays_beside_another_document(device, server):
    obstacle = device.data / "TileAd-v2.json.validator.part"
    for content, expected in ((b"{}", "2 bytes"), (b"{ }", "failed to create"), (b"{}", "2 bytes")):
        server.serve(PATH, content)
        assert expected in device.fetch().log
        # As if power failed between the second document and its ETag.
        (obstacle.rmdir if obstacle.exists() else obstacle.mkdir)()


def test_files_are_replaced_durably_and_through_no_link(device, server):
    server.serve(PATH, b"{}")
    name = "TileAd-v2.json"
    for link in (name, f"{name}.part"):
        (device.data / link).symlink_to(device.root / "agent.conf")
    trace = device.trace("-y", "-s200", "-e", "trace=fsync,renameat,renameat2,write")
    assert device.fetch().ok and "url=" in (device.root / "agent.conf").read_text()
    assert re.search(f"fsync.*/{name}.part>.* = 0\n.*rename.*{name}.* = 0\n.*fsync.*/data>.* = 0\n",
                     trace.read_text())
    assert re.search(r'write\(2<.*"ad-agent: .* bytes\\n"', trace.read_text())  # at once


@pytest.mark.parametrize("fault, reason", [
    ("/update.ini status 404", "update.ini: The requested URL returned"),
    ("/update.ini status 200", "not a key-value pair"),
    ("/images/* status 204", "unexpected HTTP status 204"),
    ("/images/* status 206", "unexpected HTTP status 206"),
    ("/images/* endless", "response exceeds the expected size"),
    ("/images/* cut 0", "400000 bytes remaining"),
    ("/images/* declare 300000", "Content-Length is 300000, expected 400000"),
    ("sha256", "1.06 refused: SHA-256 is ")])
def test_bad_server_costs_one_line_and_nothing_else(device, server, fault, reason):
    device.image.write_bytes(OLD)
    server.misbehave(fault)
    if fault == "sha256":
        server.offer("1.06", IMAGE, sha256="a" * 64)
    log = device.expect_no_update(reason)
    assert re.fullmatch("(.*: index not authenticated: no key in .*, and anyone .*\n)"
                        "(.* downloading .*\n)?(.* downloaded .*\n)*ad-agent: update: .*\n", log)
    # None of these is worth resuming.
    assert device.names("zelADAgent.img*") == {"zelADAgent.img"} and device.names("*.part") == set()
    assert device.image.read_bytes() == OLD


def test_waits_for_a_server_no_longer_than_configured(device, server):
    for fault, timeout, reason in (("/update.ini stall 10", "stall=1", "no data received for 1 s"),
                                   ("/images/* stall 0", "image=1", "timed out")):
        server.misbehave(fault)
        device.configure(server.url, "[timeouts]", timeout)
        device.expect_no_update(reason)


def test_connection_has_a_time_out_of_its_own(device):
    listener = socket.create_server(("127.0.0.1", 0), backlog=0)
    # These fill its queue: the kernel answers no further connection.
    clients = [socket.socket() for _ in range(3)]
    for client in clients:
        client.setblocking(False)
        client.connect_ex(listener.getsockname())
    device.configure(f"http://127.0.0.1:{listener.getsockname()[1]}", "[timeouts]", "connect=1")
    device.expect_no_update("Failed to connect")


def test_process_that_hangs_is_killed(device):
    os.mkfifo(device.root / "update.ini")
    device.configure(f"file://{device.root}", "[timeouts]", "document=1")
    device.expect_no_update("/update.ini: no result within 3 seconds")


@pytest.fixture
def secure(tmp_path):
    subprocess.run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
                   " -subj /CN=test -addext subjectAltName=IP:127.0.0.1 -keyout key -out cert"
                   " && cat key cert >both", shell=True, cwd=tmp_path, check=True,
                   stderr=subprocess.DEVNULL)
    return Server(tmp_path / "secure", tmp_path / "both")


def test_verifies_https_servers(device, secure):
    authorities = f"authorities={device.root}/cert"
    other_name = secure.url.replace("127.0.0.1", "localhost")
    for url, line, reason in ((secure.url, "", "certificate"), (secure.url, authorities, ""),
                              (other_name, authorities, "no alternative certificate subject"),
                              (other_name, "verify=false", "")):
        device.configure(url, line)
        device.expect_no_update(reason) if reason else device.expect_update()
        assert bool(secure.requests()) == (not reason)


def test_redirects_are_limited_and_keep_https(device, server, secure):
    def redirect(source, target):
        source.misbehave(f"/update.ini redirect {target}")
        device.configure(source.url, "verify=false")

    redirect(server, "/update.ini")
    device.expect_no_update("redirected more than 5 times")
    assert len(server.requests()) == 6
    redirect(server, f"{secure.url}/update.ini")
    device.expect_update()
    server.requests()

    device.write("update.ini", (server.content / "update.ini").read_bytes())
    redirect(server, f"file://{device.root}/update.ini")
    device.expect_no_update("disabled in libcurl")
    server.misbehave()
    for target in (server.url, f"file://{device.root}"):
        redirect(secure, f"{target}/update.ini")
        device.expect_no_update("disabled in libcurl")
    assert server.requests() == ["/update.ini"]


def test_ignores_proxies_and_credentials_of_the_environment(device, server):
    device.write(".netrc", "machine 127.0.0.1 login somebody password secret\n")
    device.expect_update(HOME=str(device.root), http_proxy="http://127.0.0.1:1",
                         ALL_PROXY="http://127.0.0.1:1")
    assert server.requests() == ["/update.ini", "/images/zelADAgent-1.06.img"]


def test_creates_its_directory_and_names_what_is_missing(device, server):
    server.serve(PATH, b"{}")
    device.data.rmdir()
    assert device.run("load", "updatable.so", False).log == "" and not device.data.exists()
    assert device.fetch().ok and stat.S_IMODE(device.data.stat().st_mode) == 0o755

    def expect_failures(reason):
        server.requests()
        assert device.run("update", "0.00").log == f"ad-agent: update: {reason}\n"
        assert device.fetch().log == f"ad-agent: configuration document {PATH}: {reason}\n"
        assert server.requests() == []

    device.data.rename(device.root / "moved")
    device.data.write_text("in the way")
    expect_failures(f"failed to create data directory {device.data}: Not a directory")
    assert not device.run("install", "1.05").ok
    device.data.unlink()
    (device.root / "agent.conf").rename(device.root / "other.conf")
    expect_failures(f"failed to read configuration {device.root}/agent.conf: "
                    "No such file or directory")


def test_library_exports_its_entry_points_and_nothing_else():
    library = os.path.join(os.environ["BUILD_DIR"], "lib/libad-agent-fwk.so")
    names = subprocess.check_output(["nm", "-D", "--defined-only", "-j", library], text=True)
    header = os.path.join(os.environ["SOURCE_DIR"], "ad-agent/include/ad_agent.h")
    with open(header, encoding="utf-8") as file:
        assert names.split() == sorted(re.findall(r"int (ad_agent_\w+)\(", file.read()))


def test_names_what_is_wrong_in_the_configuration(device):
    for lines, key in (("url=", "[server] url"), ("url=http:///", "[server] url"),
                       ("url=ftp://host", "[server] url"), ("url=file://host/a", "[server] url"),
                       ("url=http://a/?b=c", "[server] url"), ("verify=maybe", "[server] verify"),
                       ("[timeouts]\nstall=0", "[timeouts] stall"),
                       ("[timeouts]\nconnect=soon", "[timeouts] connect"),
                       ("[timeouts]\nimage=86401", "[timeouts] image")):
        device.configure("http://a", lines)  # the last value of a key counts
        assert f"invalid configuration {device.root}/agent.conf: {key} must" in device.fetch().log


def test_keeps_what_it_has_on_a_full_or_read_only_file_system(device, server):
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=128k", "none", device.data],
                      stderr=subprocess.DEVNULL, check=False).returncode != 0:
        pytest.skip("not permitted to mount")
    try:
        device.image.write_bytes(OLD)
        device.expect_no_update(f"not enough space in {device.data}: 400000 bytes needed, ")
        assert server.requests() == ["/update.ini"] and device.image.read_bytes() == OLD
        assert device.names("zelADAgent.img*") == {"zelADAgent.img"}
        device.write("store/image", IMAGE)
        assert "not enough space" in device.run("update", "1.06").log

        device.write("data/filler", bytes(60000))
        server.serve(PATH, b"{" + b" " * 65536 + b"}")
        assert "No space left on device" in device.fetch().log
        subprocess.run(["mount", "-o", "remount,ro", device.data], check=True)
        assert f"failed to create {device.data}/TileAd-v2.json.part: Read" in device.fetch().log
    finally:
        subprocess.run(["umount", "-l", device.data], check=True)
