"""Which image an update offers, after whatever has happened to the device."""

import hashlib
import os
import shutil

import pytest
from conftest import IMAGE, NOW


@pytest.fixture
def device(device):
    device.is_installed = False
    device.environment["NOW"] = str(NOW)
    return device


def store(device, image, recorded=None):
    """Puts an image in the store as the host does, with what has been installed so far."""
    device.write("store/image", image)
    device.image.unlink(missing_ok=True)
    if recorded is not None:
        device.record(recorded)


def install(device):
    """What the host does with an image that it was offered, up to the recorded version."""
    device.expect_update("0.00")
    store(device, IMAGE)
    device.write("updatable.so", "a library")
    assert device.run("install", "1.06").ok


def test_stored_image_after_an_interrupted_installation(device, server):
    server.serve("update.ini", b"#" * (2**16 + 1))
    for recorded in ("1.05", "", "1.060", "1.07"):
        shutil.rmtree(device.data)
        for name in ("zelADAgent.img.part", "zelADAgent.img.validator"):
            device.write(f"data/{name}", "of a download")
        store(device, IMAGE, recorded)
        assert "1.06 was interrupted; offering the stored image" in device.expect_update("1.06")
        assert device.names("zelADAgent.img*") == {"zelADAgent.img"} and server.requests() == []
    for stored, recorded in (("1.06", "1.06"), ("0.00", "1.05"), ("1.06 beta", "1.05")):
        store(device, IMAGE, recorded)
        device.expect_no_update("update.ini: response exceeds the expected size", stored)

    # That needs no configuration, but an image.
    store(device, IMAGE, "1.05")
    (device.root / "agent.conf").unlink()
    device.expect_update("1.06")
    device.trace("-e", "trace=copy_file_range", "-e", "inject=copy_file_range:retval=0")
    device.expect_no_update("zelADAgent.img.part: Input/output error", "1.06")
    image = device.root / "store/image"
    image.unlink()
    device.expect_no_update(f"failed to open {image}: No such file", "1.06")
    os.mkfifo(image)
    device.expect_no_update(f"{image} exists but is not a regular file", "1.06")
    image.unlink()
    image.symlink_to(device.image)
    device.expect_no_update(f"failed to open {image}: Too many levels of symbolic links", "1.06")


def test_server_after_repairs_in_vain(device, server):
    device.environment = {"FIRMWARE": " T=1;[x]\n\\"}  # the state keeps any
    for stored, image in (("1.06", IMAGE), ("1.07", b"another")):
        store(device, image, "1.05")
        for attempt in range(5):
            server.requests()
            device.expect_update(stored, image=image)
            assert bool(server.requests()) == (attempt >= 3)
    device.expect_update("1.07", image=server.publish("1.08"))


def test_stored_image_not_after_a_firmware_change(device, server):
    device.expect_update("0.00")
    store(device, IMAGE, "1.05")
    for firmware in ({"FIRMWARE": "T-1300.1"}, {}):
        device.environment = firmware
        device.expect_no_update("1.06 is not newer than the stored version 1.06", "1.06")
    newer = server.publish("1.07")
    device.expect_update("1.06", image=newer)
    # An interrupted installation under the new firmware is completed again.
    store(device, newer, "1.06")
    device.expect_update("1.07", image=newer)


def test_image_is_newer_than_every_copy_and_for_the_firmware(device, server):
    device.write("zel.xml", "<Zel><Version>1.06</Version></Zel>")
    device.expect_no_update("not newer than the firmware's version 1.06", "0.00")
    store(device, IMAGE, "1.04")
    device.expect_no_update("not newer than the firmware's version 1.06", "1.05")

    device.write("zel.xml", "<Zel><Version>1.00</Version></Zel>")
    (device.root / "store/image").unlink()
    assert device.run("install", "1.06").ok
    device.write("updatable.so", "a library")
    device.expect_no_update("1.06 is not newer than the installed version 1.06", "0.00")
    (device.root / "updatable.so").unlink()
    device.write("store/floor", "1.061\n")
    device.expect_no_update("1.06 is older than 1.061, the highest version ever stored", "0.00")
    device.write("store/floor", "1.060\n")
    device.expect_update("0.00")

    newer = server.publish("1.07", words="min-firmware:T-1200.2", min_firmware="T-1200.2")
    device.expect_no_update("version 1.07 refused: it requires firmware T-1200.2", "0.00")
    device.environment = {"FIRMWARE": "T-1200.10"}
    device.expect_update("0.00", image=newer)
    # The platform reports none, or there is no platform.
    device.environment = {}
    for command in (device.command, [f"{device.command[0]}-without-platform"]):
        device.command = command
        device.expect_no_update("and the version of this one is unknown", "0.00")


def test_installed_version_is_one_of_a_whole_manifest(device):
    device.write("updatable.so", "a library")
    whole = "<Cache><SoVersion>1.06</SoVersion></Cache>"
    for manifest in ("", whole[:22], whole[:-1], whole.replace("Cache", "Zel"), "<a>" * 200000):
        device.write("data/zelADAgentCache.xml", manifest)
        device.expect_update("0.00")
    device.write("data/zelADAgentCache.xml", f'<?xml version="1.0"?>\n{whole}\n')
    device.expect_no_update("not newer than the installed version 1.06", "0.00")
    for version in ('a<b>&"c"', "1234567890.1234567890123"):
        assert device.run("install", version).ok


@pytest.mark.parametrize("finder, found", [("library", "its library failed to load"),
                                           ("guard", "its library crashed")])
def test_bad_image_is_never_offered_again(device, server, finder, found):
    install(device)
    if finder == "library":
        assert "failed to load; its image" in device.run("load", "builtin.so", True).log
    else:
        device.write("data/guard-bad.ini", f"""[{'a' * 64}]\n[{hashlib.sha256(IMAGE).hexdigest()}]
version=1.06\ntime=2026-11-21T10:00:00Z\nreason={found}\n""")
    (device.root / "updatable.so").unlink()
    for stored in ("0.00", "1.06"):  # the reason stays the same at each start
        device.expect_no_update(f"version 1.06 refused: {found} here on 2026-11-21", stored)
    store(device, IMAGE, "1.05")
    device.expect_no_update(f"stored image refused: {found} here on 2026-11-21", "1.06")
    if finder == "library":  # as older ones recorded it
        device.write("data/state.ini", f"[bad]\nsha256={hashlib.sha256(IMAGE).hexdigest()};\n")
        device.expect_no_update("version 1.06 refused: its library failed to load here\n", "0.00")
    device.expect_update("1.06", image=server.publish("1.07"))


def test_image_is_bad_only_if_its_library_never_loaded(device):
    install(device)
    file = device.data / "state.ini"
    installed = file.read_text()
    for starts, is_bad in (
            (("updatable.so True", "builtin.so True"), False),   # loads, and fails later
            (("builtin.so False", "builtin.so True"), False),    # removed by new firmware
            (("other.so True",), False),                         # loaded by another program
            (("other.so True", "builtin.so True"), True)):
        file.write_text(installed)
        for start in starts:
            device.run("load", *start.split())
        assert ("failed to load" in file.read_text()) == is_bad, starts

    # Installed again by a repair, it keeps its record.
    file.write_text(installed.replace("repairs=0", "repairs=2"))
    device.run("load", "updatable.so", True)
    assert device.run("install", "1.06").ok
    assert "loaded=true" in file.read_text() and "repairs=0" in file.read_text()
    store(device, b"another image")
    assert device.run("install", "1.07").ok
    assert "loaded=false" in file.read_text()

    # The latest 32 bad images are kept, each once. What is torn reads as nothing known.
    file.write_text("[installed]\nsha256=new\nversion=1.07\n"  # as older libraries write it
                    "[bad]\nsha256=" + "".join(f"{i};" for i in range(32)))
    for _ in range(2):
        device.run("load", "builtin.so", True)
        assert device.state()["bad"] == {
            "sha256": "".join(f"{i};" for i in range(1, 32)) + "new;",
            "version": 31 * ";" + "1.07;", "count": 32 * "1;",
            "time": 31 * ";" + "2026-11-21T10:00:00Z;",
            "reason": 31 * ";" + "its library failed to load;"}
        file.write_text(file.read_text().replace("sha256=\n", "sha256=new\n", 1))
    file.write_text("torn")
    device.run("load", "builtin.so", True)
    assert file.read_text() == "torn"
