"""Fixtures of the tests of whole devices."""

import pytest
from device import BUILD, SOURCE, Device, run


def pytest_sessionstart():
    check = run(SOURCE / "tools/check-machine", BUILD, check=False)
    if check.returncode != 0:
        pytest.exit(check.stdout, returncode=check.returncode)


@pytest.fixture
def device(request):
    """A new device; on the simulated platform unless the test is parametrized otherwise."""
    made = Device(request.node.name, getattr(request, "param", "simulated"))
    yield made
    print("--- the daemon's last boot ---", made.log(), sep="\n")
    made.do("stop")
    leftovers = made.leftovers()
    status = made.status()
    made.do("destroy")
    assert status in ("", "0")
    assert leftovers == []

