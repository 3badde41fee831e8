"""Multicast runs from one host to several."""
import os

import pytest

from jobs import nothing_left
from lab import eventually
from multicast import Site, difference, make_files, receivers_on


def prepared(make_lab, receivers, behaviour="sound", **files):
    site = Site(make_lab(receivers + 1, behaviour))
    site.tree = site.sender.tree
    make_files(site.tree, 5, **files)
    site.start()
    site.define(3, [site.tree + "/"])
    return site


def everything_arrived(site, receivers=None):
    for host in receivers or site.receivers:
        assert site.record(host)["state"] == "complete", site.record(host)
        assert difference(site.tree, site.arrived(host, site.tree)) == [], host.name


@pytest.mark.parametrize("loss", [0, 1, 5])
def test_a_tree_reaches_all_receivers_whatever_is_lost(make_lab, loss):
    site = prepared(make_lab, 4, count=300, big=(30 << 20,))
    site.lose(loss)
    done = site.run(3)
    assert done.returncode == 0, done.stdout + done.stderr
    for host in site.receivers:
        assert f"Receiver {host.name}: complete" in done.stdout + done.stderr
    everything_arrived(site)
    assert not os.path.exists("/etc/zul-trap")
    nothing_left(site.lab.hosts)
