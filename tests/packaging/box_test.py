"""A box from bare to its first update and beyond, by the commands of docs/box.md."""

import re
import shutil

import pytest
from box import BUILD, SOURCE, Box, Publisher, sh

BLOCKS = re.findall(r"^```sh (\S+)\n(.*?)^```", (SOURCE / "docs/box.md").read_text(), re.M | re.S)
DEBS = f"{BUILD}/packages/*.deb"


class Document:
    """The commands of the page, in its order."""

    def __init__(self):
        self.blocks = list(BLOCKS)

    def next(self, where):
        label, script = self.blocks.pop(0)
        assert label == where
        return script


@pytest.fixture(scope="module", name="setting")
def bare_box():
    box, publisher = Box(BUILD / "box/box"), Publisher(BUILD / "box/publisher")
    box.boot()
    for root in (box.home(), publisher.home):
        sh(f"cp {DEBS} {root}")
    yield box, publisher, Document()
    print(box.journal("-b -n 150"))
    box.cut_power()


def test_installs_from_packages(setting):
    box, publisher, document = setting
    assert "tools/package" in document.next("build")
    box.run(document.next("box"))
    assert box.property("ActiveState") == "active"
    box.wait_logged("Please check network")
    assert box.run("stat -c '%a %U %G' /usr/bin/ad-mounter") == "4750 root adagent\n"
    assert box.run("ps -o user= -C adagentd") == "adagent\n"
    publisher.run(document.next("publisher"))
    shutil.copy(publisher.home / "maker.pub", box.home())
    shutil.copy(publisher.home / "index.pub", box.home())
    box.run(document.next("box"))


def test_updates_with_read_only_usr(setting):
    box, publisher, document = setting
    box.cut_power()
    box.boot("ro")
    publisher.serve()
    box.run(document.next("box"))
    box.wait_logged("CONNECTION_TYPE_ETHERNET")
    box.run(document.next("box"))
    box.wait_logged("defaultdisclaimeragree, value = 1(int)")
    publisher.run(document.next("publisher"))
    box.run(document.next("box"))
    box.wait_logged("xx")
