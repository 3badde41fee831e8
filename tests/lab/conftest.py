"""Fixtures of the lab; "slow" tests run by name (tests/lab/run --slow)."""
import os
import signal
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

# Started in the background, by a build server say, the tests would hand on that ^C is ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)


def pytest_addoption(parser):
    parser.addoption("--slow", action="store_true", help="run the scenarios with classic pauses instead of the others")


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: takes minutes, because it keeps the classic pauses")


def pytest_collection_modifyitems(config, items):
    slow = config.getoption("--slow")
    chosen = [item for item in items if bool(item.get_closest_marker("slow")) == slow]
    config.hook.pytest_deselected(items=[item for item in items if item not in chosen])
    items[:] = chosen


@pytest.fixture
def make_lab(tmp_path_factory):
    """make_lab(count, behaviour="sound", small=None) -> a Lab that is taken down at the end of the test."""
    import lab as laboratory
    made = []

    def make(count, behaviour="sound", small=None):
        one = laboratory.Lab(count, tmp_path_factory.mktemp("lab"), behaviour, small)
        made.append(one)
        one.up()
        return one

    yield make
    for one in made:
        one.down()
