"""Fixtures of the tool's tests."""

import pytest

from device import TOOL, Device, missing_rights


@pytest.fixture(scope="session")
def tool():
    """The tool, read before anything is mounted over it."""
    bytes_of_tool = TOOL.read_bytes()
    reason = missing_rights()
    if reason:
        pytest.skip(reason)
    return bytes_of_tool


@pytest.fixture
def empty_device(tool):
    """A device with nothing that the tool works on."""
    device = Device(tool)
    yield device
    device.destroy()


@pytest.fixture
def device(empty_device):
    """A device with all directories that the tool works in."""
    empty_device.make_layout()
    return empty_device
