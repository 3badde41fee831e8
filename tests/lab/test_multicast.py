"""Multicast runs from one host to several."""
import contextlib
import glob
import json
import os
import re
import signal
import subprocess
import sys
import time

import pytest

from jobs import nothing_left
from lab import ZUL, eventually, run
from multicast import EXTRA_SEGMENTS, Site, difference, make_files, receivers_on


# Segments a second at which a run lasts long enough for something to happen in it: 8 MB/s.
SLOWLY = "Speed: 8000"


def prepared(make_lab, receivers, behaviour="sound", patience="3s", lines=(), **files):
    site = Site(make_lab(receivers + 1, behaviour))
    site.tree = site.sender.tree
    make_files(site.tree, 5, **files)
    site.sender.settings(f"multicast.patience = {patience}")
    site.start()
    site.define(3, [site.tree + "/"], lines=lines)
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


@pytest.mark.slow
@pytest.mark.parametrize("loss", [0, 1, 5, 20])
@pytest.mark.parametrize("receivers", [4, 16])
def test_a_large_tree_reaches_many_receivers_over_a_bad_network(make_lab, receivers, loss):
    site = prepared(make_lab, receivers, count=4000, big=(300 << 20,))
    site.lose(loss)
    done = site.run(3, timeout=1500)
    assert "incomplete" not in done.stdout + done.stderr
    everything_arrived(site)
    nothing_left(site.lab.hosts)
    for host in site.receivers:
        host.run("sh", "-c", f"rm -rf {site.prefix}/*")


# Counted from the first segment that is sent, and to the end: the loss of their first transmission.
@pytest.mark.parametrize("lost", ["the first", "the last sixteen", "the end records", "every third"])
def test_segments_lost_where_it_hurts_come_again(make_lab, lost):
    site = prepared(make_lab, 2, count=0, big=(100 << 10,))
    # Segment 0, the directories down to the tree, the tree, 100 blocks behind a header, what make_files adds, the end.
    count = 1 + site.tree.count("/") + 101 + EXTRA_SEGMENTS + 2
    which = {"the first": "== 1", "the last sixteen": f">= {count - 16}", "the end records": f">= {count - 2}",
             "every third": "and 3 == 2"}[lost]
    number, first = "@th,160,32", "@th,288,32 0x53654e64"
    site.cut()
    site.drop(f"udp dport 2345 {first} {number} {which}")
    done = site.run(3)
    assert "incomplete" not in done.stdout + done.stderr and "never" not in done.stdout + done.stderr
    everything_arrived(site)
    dropped = int(re.search(r"packets (\d+)", site.receivers[0].run("nft", "list", "ruleset").stdout)[1])
    assert dropped == {"the first": 1, "the last sixteen": 16, "the end records": 2}.get(lost, dropped) > 0
    nothing_left(site.lab.hosts)


def test_bursts_of_loss_are_repaired(make_lab):
    site = prepared(make_lab, 3, count=200, big=(16 << 20,))
    site.cut()
    # A thousand datagrams pass, the next hundred do not: an interface that is gone for a moment.
    site.drop("numgen inc mod 1100 < 100")
    done = site.run(3)
    assert "incomplete" not in done.stdout + done.stderr
    everything_arrived(site)
    nothing_left(site.lab.hosts)


def sent_bytes(host):
    link = json.loads(host.run("ip", "-j", "-s", "link", "show", "eth0").stdout)
    return link[0]["stats64"]["tx"]["bytes"]


def test_a_receiver_behind_a_narrow_link_sets_the_pace(make_lab):
    site = prepared(make_lab, 3, count=50, big=(10 << 20,))
    site.cut()
    # Its link carries 5 MB/s and holds 60 datagrams; what is more is lost on the way, and the sender's own link is free.
    run("ip", "netns", "exec", site.lab.switch, "tc", "qdisc", "add", "dev", "p2", "root", "tbf", "rate", "40mbit",
        "burst", "8k", "limit", "65536")
    before = sent_bytes(site.sender)
    done = site.run(3, timeout=60)
    assert "incomplete" not in done.stdout + done.stderr
    everything_arrived(site)
    # A sender that does not listen sends everything ten times over.
    assert sent_bytes(site.sender) - before < 2.5 * (10 << 20)
    nothing_left(site.lab.hosts)


def in_the_midst(folder):
    """Whether a large file is being put together there, under the name that it has until then."""
    with contextlib.suppress(FileNotFoundError):
        return any(os.path.getsize(part) > 100000 for part in glob.glob(folder + "/.zulpart*"))
    return False


def started(site, job=3):
    """A run in the background whose receivers have begun to write the large file."""
    run = site.begin(job)
    for host in site.receivers:
        eventually(lambda: in_the_midst(site.arrived(host, site.tree)), 20, f"{host.name} receives")
    return run


def test_a_receiver_killed_midway_is_named_and_holds_up_nobody(make_lab):
    site = prepared(make_lab, 3, count=100, lines=[SLOWLY], big=(30 << 20,))
    run = started(site)
    victim, *others = site.receivers
    victim.kill(*receivers_on(victim))
    output = run.communicate(timeout=60)[0]
    assert f"Receiver {victim.name}: incomplete" in output
    for host in others:
        assert f"Receiver {host.name}: complete" in output
    everything_arrived(site, others)
    assert site.record(victim)["state"] == "running", "a killed receiver says nothing"


@pytest.mark.parametrize("process", ["getter", "extracter"])
def test_when_one_process_of_a_receiver_is_killed_the_other_ends(make_lab, process):
    site = prepared(make_lab, 1, count=100, lines=[SLOWLY], big=(30 << 20,))
    run = started(site)
    victim = site.receivers[0]
    # The getter is the request's own process, the extracter its child.
    pids = sorted(receivers_on(victim))
    victim.kill(pids[-1] if process == "extracter" else pids[-2])
    assert f"Receiver {victim.name}: incomplete" in run.communicate(timeout=60)[0]
    nothing_left(site.lab.hosts, 30)
    part = [name for top, _, names in os.walk(victim.inbox) for name in names if ".zulpart" in name]
    assert process == "extracter" or part == []


def test_receivers_end_by_themselves_when_the_sender_is_killed(make_lab):
    site = prepared(make_lab, 2, count=100, lines=[SLOWLY], big=(30 << 20,))
    for host in site.receivers:
        host.settings("multicast.idle-limit = 2s")
    run = started(site)
    site.sender.kill(*receivers_on(site.sender))
    run.communicate(timeout=30)
    for host in site.receivers:
        eventually(lambda: site.ended(host), 30, f"{host.name} gives up")
        assert site.record(host)["state"] == "incomplete"
        assert any(failure["name"].endswith("big0") for failure in site.record(host)["failures"])
        assert not os.path.exists(site.arrived(host, os.path.join(site.tree, "big0")))
    nothing_left(site.lab.hosts, 30)


def test_the_packer_killed_ends_the_run(make_lab):
    site = prepared(make_lab, 2, count=100, lines=[SLOWLY], big=(30 << 20,))
    run = started(site)
    # The request's process is the data sender, its child the packer.
    site.sender.kill(max(receivers_on(site.sender)))
    run.communicate(timeout=60)
    for host in site.receivers:
        eventually(lambda: site.ended(host), 30, f"{host.name} ends")
        assert site.record(host)["failures"][0]["name"].endswith("big0")
    nothing_left(site.lab.hosts, 30)


def test_a_receiver_that_stands_still_for_seconds_completes(make_lab):
    site = prepared(make_lab, 3, patience="30s", count=100, lines=[SLOWLY], big=(20 << 20,))
    site.lose(1)
    run = started(site)
    sleeper = site.receivers[0]
    pids = receivers_on(sleeper)
    for pid in pids:
        os.kill(pid, signal.SIGSTOP)
    # For a while nothing changes there: that is what is tested, so this waits by the clock.
    size = lambda: sum(os.path.getsize(os.path.join(top, name)) for top, _, names in os.walk(sleeper.inbox) for name in names)
    before, until = size(), time.monotonic() + 4
    eventually(lambda: time.monotonic() > until, 10)
    assert size() == before
    for pid in pids:
        os.kill(pid, signal.SIGCONT)
    assert "incomplete" not in run.communicate(timeout=60)[0]
    everything_arrived(site)


def test_a_receiver_that_starts_late_gets_everything(make_lab):
    # Too little for anything to be freed, so slow that it is not over before the second one is there.
    site = prepared(make_lab, 2, patience="30s", count=300, big=(6 << 20,))
    site.define(-99, [site.tree + "/"], lines=["Speed: 1000"])
    early, late = site.receivers
    first = begin_receiver(early)
    run = site.begin(-99)
    eventually(lambda: site.record(early).get("state") == "running", 20)
    eventually(lambda: os.path.isdir(site.arrived(early, site.tree)), 20)
    second = begin_receiver(late)
    output = run.communicate(timeout=60)[0]
    assert "incomplete" not in output and "never joined" not in output, output
    everything_arrived(site)
    for request in (first, second):
        request.communicate(timeout=30)


def test_a_host_that_never_joins_is_named_and_the_others_complete(make_lab):
    site = prepared(make_lab, 3, count=50, big=(20 << 20,))
    dead, *others = site.receivers
    dead.stop()
    output = site.run(3)
    assert f"Receiver {dead.name}: never joined" in output.stdout + output.stderr
    everything_arrived(site, others)
    nothing_left([site.sender, *others])


def test_a_full_disk_costs_the_files_that_do_not_fit(make_lab):
    site = prepared(make_lab, 2, count=100, big=(30 << 20,))
    small, other = site.receivers
    small.run("mount", "-t", "tmpfs", "-o", "size=8m", "none", site.prefix)
    output = site.run(3)
    assert output.returncode == 0
    everything_arrived(site, [other])
    record = site.record(small)
    assert record["state"] == "incomplete"
    assert [os.path.basename(failure["name"]) for failure in record["failures"]] == ["big0"]
    assert "No space left" in record["failures"][0]["error"]
    assert small.run("ls", os.path.join(site.prefix + site.tree, "d0", "f0"))
    nothing_left(site.lab.hosts)


@pytest.mark.parametrize("receivers", ["each its own", "both the same"])
def test_two_senders_at_once_do_not_disturb_each_other(make_lab, receivers):
    site = Site(make_lab(4))
    first, second = site.lab[1], site.lab[2]
    site.receivers = hosts = site.lab.hosts[2:]
    site.start()
    shares = {"each its own": (hosts[:1], hosts[1:]), "both the same": (hosts, hosts)}[receivers]
    runs = []
    for number, (sender, share) in enumerate(zip((first, second), shares)):
        make_files(sender.tree, 20 + number, 100, big=(10 << 20,))
        site.define(3, [sender.tree + "/"], hosts=share, lines=[SLOWLY], sender=sender)
        runs.append(site.begin(3, sender))
    for one, sender, share in zip(runs, (first, second), shares):
        output = one.communicate(timeout=60)[0]
        for host in share:
            assert f"Receiver {host.name}: complete" in output
    site.wait_for_receivers()
    for sender, share in zip((first, second), shares):
        for host in share:
            assert difference(sender.tree, site.arrived(host, sender.tree)) == [], (sender.name, host.name)
    nothing_left(site.lab.hosts)


@pytest.mark.parametrize("change", ["truncated", "deleted"])
def test_a_file_that_changes_while_it_is_packed_costs_itself_only(make_lab, change):
    site = prepared(make_lab, 2, count=60, big=(30 << 20,))
    victim = os.path.join(site.tree, "big0")
    later = site.tree + "-later"
    make_files(later, 8, 30)
    site.define(3, [victim, later + "/"], lines=[SLOWLY])
    run = site.begin(3)
    for host in site.receivers:
        eventually(lambda: in_the_midst(os.path.dirname(site.arrived(host, victim))), 20, f"{host.name} receives")
    if change == "truncated":
        os.truncate(victim, 1 << 20)
    else:
        # One that is being read stays whole; one that has not been opened yet is no longer there.
        os.unlink(victim)
        os.unlink(os.path.join(later, "d0", "f7"))
    output = run.communicate(timeout=60)[0]
    site.wait_for_receivers()
    for host in site.receivers:
        assert difference(later, site.arrived(host, later)) == []
        record, there = site.record(host), site.arrived(host, victim)
        if change == "truncated":
            assert record["state"] == "incomplete" and not os.path.exists(there), output
            assert [os.path.normpath(failure["name"]) for failure in record["failures"]] == [site.prefix + victim]
        else:
            assert record["state"] == "complete", record
            assert os.path.getsize(there) == 30 << 20
    nothing_left(site.lab.hosts)


def test_requests_for_everything_all_the_time_do_not_stop_a_run(make_lab):
    site = prepared(make_lab, 2, count=200, big=(4 << 20,))
    # A host of the job, whose requests are listened to: counts of 0 and 0xFFFFFFFF, any number and any length.
    noise = subprocess.Popen(site.receivers[1].command(
        sys.executable, os.path.join(os.path.dirname(__file__), "forger.py"), site.sender.address))
    output = site.run(3, timeout=90)
    assert noise.poll() is None, "it was there all the time"
    noise.kill()
    noise.wait()
    for host in site.receivers:
        assert f"Receiver {host.name}: complete" in output.stdout + output.stderr
    everything_arrived(site)
    assert not os.path.exists(site.prefix + "/tmp/zul-forged") and not os.path.exists("/tmp/zul-forged")


def test_strangers_neither_add_to_a_run_nor_disturb_it(make_lab):
    lab = make_lab(4)
    site = Site(lab)
    stranger = site.receivers.pop()
    site.tree = site.sender.tree
    make_files(site.tree, 6, 200, big=(20 << 20,))
    site.start()
    site.define(3, [site.tree + "/"])
    noise = subprocess.Popen(stranger.command(sys.executable, os.path.join(os.path.dirname(__file__), "forger.py"),
                                              site.sender.address))
    output = site.run(3)
    assert noise.poll() is None, "the stranger was there all the time"
    noise.kill()
    noise.wait()
    assert "incomplete" not in output.stdout + output.stderr
    everything_arrived(site)
    assert not os.path.exists(site.prefix + "/forged") and not os.path.exists("/tmp/zul-forged")


def test_a_second_run_on_the_same_host_is_refused(make_lab):
    site = prepared(make_lab, 1, count=20, lines=[SLOWLY], big=(16 << 20,))
    site.define(-99, [site.tree + "/"])
    run = started(site)
    again = site.run(-99)
    assert "ERROR: Failed to get listener socket. retval = -2" in again.stdout + again.stderr
    assert "incomplete" not in run.communicate(timeout=60)[0]
    everything_arrived(site)


def test_a_refused_run_starts_no_receivers(make_lab):
    site = prepared(make_lab, 2, count=20, big=(16 << 20,))
    served, other = site.receivers
    site.define(3, [site.tree + "/"], hosts=[served], lines=[SLOWLY])
    site.define(4, [site.tree + "/"], hosts=[other])
    run = site.begin(3)
    eventually(lambda: in_the_midst(site.arrived(served, site.tree)), 20)
    again = site.run(4)
    assert "ERROR: Failed to get listener socket. retval = -2" in again.stdout + again.stderr
    assert receivers_on(other) == [] and site.record(other) == {}
    assert "incomplete" not in run.communicate(timeout=60)[0]
    everything_arrived(site, [served])


def test_an_earlier_run_does_not_disturb_the_next(make_lab):
    site = prepared(make_lab, 2, count=50, lines=[SLOWLY], big=(16 << 20,))
    run = started(site)
    site.sender.kill(*receivers_on(site.sender))
    run.communicate(timeout=30)
    # Its receivers wait for it still; new ones are started beside them.
    assert all(receivers_on(host) for host in site.receivers)
    site.tree += "2"
    make_files(site.tree, 9, 50, big=(20 << 20,))
    site.define(3, [site.tree + "/"])
    output = site.run(3)
    for host in site.receivers:
        assert f"Receiver {host.name}: complete" in output.stdout + output.stderr
        assert difference(site.tree, site.arrived(host, site.tree)) == []
        host.kill(*receivers_on(host))


def undisturbed_classic_run(site):
    """The logs of both sides of a run in which nobody asked for anything.

    On a busy machine the packer may fall behind: the sender then sends a slot before it is filled, the receiver asks
    for it, and when that happens near the end it never ends. Such a run is stopped, and another one made.
    """
    logs = ["/tmp/repServ.log", "/tmp/repClnt.log"]
    for _ in range(10):
        forget(logs)
        try:
            assert site.run(3).returncode == 0
            with open(logs[0], errors="replace") as log:
                sent = log.read()
            if "Got retransmit request" not in sent:
                site.wait_for_receivers()
                with open(logs[1], errors="replace") as log:
                    return sent, log.read()
        finally:
            forget(logs)
            for host in site.receivers:
                for pid in receivers_on(host):
                    host.kill(pid)
    raise AssertionError("no run in ten was undisturbed")


def forget(paths):
    for path in paths:
        if os.path.exists(path):
            os.unlink(path)


def begin_receiver(host):
    return subprocess.Popen(host.command(ZUL, "--home", host.home, "request", "MREPL mrepclnt 1234567890"),
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def test_a_classic_run_without_loss_goes_segment_by_segment_as_it_always_did(make_lab):
    site = Site(make_lab(2, "classic"))
    site.tree = site.sender.tree
    os.makedirs(site.tree)
    for number, size in enumerate((1000, 5000, 20000)):
        with open(os.path.join(site.tree, f"f{number}"), "wb") as out:
            out.write(bytes((at * (number + 3)) % 251 for at in range(size)))
    site.start()
    site.define(3, [site.tree + "/"], lines=["Speed: 2000"])
    sent, received = undisturbed_classic_run(site)
    # Directories down to the tree, the tree itself, three files with 1, 5 and 20 blocks, two end records.
    count = site.tree.count("/") + 3 + 26 + 2
    new = [int(number) for number in re.findall(r"Sent segment 0:(\d+),", sent)]
    assert new == list(range(1, count + 1)), "from 1 to the slot that is never filled"
    assert sent.count("DEBUG:  Shutdown?") == 1024
    extracted = [int(number) for number in re.findall(r"Extracting 0:(\d+)\n", received)]
    assert extracted == list(range(count - 1)), "the first end record ends it, the second is never looked at"
    assert received.count("Data stream error!") == 1, "the slot of segment 0, which is never sent"
    # The first path is lost with segment 0; it is a directory, which the next one makes.
    assert difference(site.tree, site.arrived(site.receivers[0], site.tree)) == []
    nothing_left(site.lab.hosts)
