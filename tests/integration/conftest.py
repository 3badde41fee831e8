"""Fixtures of the tests that drive the built programs.

The console's ports are fixed, so the whole run moves into a network namespace of its own, where they are free
whatever else the machine does. No privilege is needed for that.
"""
import os
import signal
import subprocess
import sys

import pytest

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, FOLDER)

from ownnetwork import enter_own_network  # noqa: E402 (found by the line above)

# Started in the background, by a build server say, the tests would hand on that ^C is ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture(scope="session", autouse=True)
def own_network():
    enter_own_network()


@pytest.fixture(scope="session")
def fake_module(tmp_path_factory):
    """The module that does what a test asks of it."""
    library = str(tmp_path_factory.mktemp("fake") / "libtape.so")
    subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library, os.path.join(FOLDER, "fakemodule.c")], check=True)
    return library


@pytest.fixture
def make_home(tmp_path):
    """make_home(**settings) -> a Home; its daemon and jobs are gone at the end of the test."""
    from home import Home
    made = []

    def make(**settings):
        made.append(Home(tmp_path / f"home{len(made)}", **settings))
        return made[-1]

    yield make
    for home in made:
        home.clean_up()


@pytest.fixture
def fake_home(make_home, fake_module):
    """A home with the fake module, its daemon running."""
    return make_home(module=fake_module).start()


@pytest.fixture(scope="session")
def call_host(tmp_path_factory):
    """The host that calls the module's functions one by one."""
    from outside import build_host
    return build_host(tmp_path_factory.mktemp("callhost") / "callhost")


@pytest.fixture
def outside(call_host, tmp_path):
    """A home of its own, and the built module to be called on it."""
    from outside import Host
    return Host(tmp_path, call_host)
