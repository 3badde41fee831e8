"""Processes killed with -9 at any moment: job, children, gatherers, daemons, whole hosts. Nothing stays behind, and the
next job works."""
import json
import os
import random
import signal
import time

import pytest

from jobs import CARTRIDGE, ask_agent, backup, define, fast_tape, follow, nothing_left, progress, slow_tape, states
from lab import eventually, image_of, tape_summary, tapewalk

ROUNDS = int(os.environ.get("ZUL_KILLS", "8"))


@pytest.fixture
def two_hosts(make_lab):
    """h1 with a tape that takes its time, h2 with files; job 7 of both."""
    lab = make_lab(2)
    for number, host in enumerate(lab.hosts, 1):
        host.own_tree(number, files=15, big=(12 << 20,) if host.name == "h2" else (3 << 19,))
        host.start()
    define(lab[1], lab.hosts, [host.tree for host in lab.hosts], size="2G")
    return lab


def jobs_of(host):
    """Pids of everything that works for job 7 on a host: requests, the job, its children, gatherers."""
    return [each["pid"] for each in json.loads(host.request("HOST ps json")) if " 7" in each["request"]]


def check_tape(lab, done):
    """Every volume that a job has reported as done is whole, and the catalog counts what is on the tape."""
    h1 = lab[1]
    image = image_of(h1, CARTRIDGE)
    on_tape = [volume["volume"] for volume in tape_summary(image)["volumes"]]
    listed = len(h1.request("TAPE get vols 0 0", check=False).splitlines())
    assert on_tape == [2 * at + 1 for at in range(listed)]
    for number in done:
        for host in lab.hosts:
            tapewalk(image, "--allow-torn", "--volume", number, "--host", host.name, "--compare", host.tree, on=host)


def test_a_job_killed_at_any_moment_leaves_a_tape_that_goes_on(two_hosts):
    h1, h2 = two_hosts.hosts
    dice = random.Random(20)
    done = [backup(h1)["volume"]]
    for turn in range(ROUNDS):
        slow_tape(h1)
        h1.request("TAPE backup 7 0")
        time.sleep(dice.choice((0, dice.uniform(0, 0.05), dice.uniform(0, 0.3), dice.uniform(0, 1.5))))
        victims = jobs_of(h1)
        if turn % 3 == 0 and victims:
            victims = [min(victims, key=lambda pid: (pid != progress(h1).get("pid"), pid))]  # the job alone
        elif turn % 3 == 1 and victims:
            victims = [dice.choice(victims)]
        if victims:
            h1.kill(*victims)
        if turn % 3 == 1:  # a child: the job itself goes on, and ends
            follow(h1, check=False)
        # Where nobody was left to remove the mailboxes, the next job does; a gatherer to which the killed job did
        # not come yet waits for it a while, and is not in the way.
        nothing_left([h1, h2], 15, but=("console of h1", "TAPE server", "port", *(["mailbox"] if turn % 3 == 2 else [])))
        fast_tape(h1)
        done.append(backup(h1)["volume"])
    nothing_left([h1, h2], 70)
    check_tape(two_hosts, done)


def test_a_tape_host_that_loses_power_goes_on_where_it_was(two_hosts):
    h1, h2 = two_hosts.hosts
    dice = random.Random(21)
    done = [backup(h1)["volume"]]
    for _ in range(max(2, ROUNDS // 3)):
        slow_tape(h1)
        h1.request("TAPE backup 7 0")
        time.sleep(dice.uniform(0.05, 1.2))
        h1.cut_power()
        h1.start()
        fast_tape(h1)
        done.append(backup(h1)["volume"])
    nothing_left([h1, h2], 70)
    check_tape(two_hosts, done)


def test_daemons_killed_on_both_sides_do_not_disturb_the_job(two_hosts):
    h1, h2 = two_hosts.hosts
    slow_tape(h1)
    h1.request("TAPE backup 7 0")
    eventually(lambda: "running" in states(h1).values(), what="files on tape")
    job = progress(h1)["pid"]
    for host in (h1, h2):
        host.kill(host.daemon.pid)
    os.kill(job, 0)
    for host in (h1, h2):
        host.start()
    assert [each["alive"] for each in json.loads(h1.request("HOST jobs json"))] == [True]
    follow(h1)
    check_tape(two_hosts, [1])
    nothing_left([h1, h2])


def test_a_gatherer_or_its_session_killed_fails_its_host_only(two_hosts):
    h1, h2 = two_hosts.hosts
    for victim in ("TAPE server", "console of"):
        slow_tape(h1)
        h1.request("TAPE backup 7 0")
        eventually(lambda: states(h1).get("h2") == "running", what="files of h2")
        pids = h2.processes_named(victim)
        h2.kill(*pids)
        follow(h1, check=False)
        nothing_left([h1, h2])
        assert states(h1)["h1"] == "done"
        if victim == "TAPE server":
            assert states(h1)["h2"] == "failed"
        fast_tape(h1)
        backup(h1)


def test_a_job_told_to_stop_ends_in_order(two_hosts):
    h1, h2 = two_hosts.hosts
    slow_tape(h1, "5ms")
    h1.request("TAPE backup 7 0")
    eventually(lambda: states(h1).get("h2") == "running", what="files of h2")
    h1.request(f"HOST kill {progress(h1)['pid']}")
    assert follow(h1, check=False).returncode == 1
    assert "told to stop" in progress(h1)["error"]
    nothing_left([h1, h2])
    fast_tape(h1)
    check_tape(two_hosts, [backup(h1)["volume"]])


def test_a_member_that_stands_still_does_not_hold_up_the_others(two_hosts):
    h1, h2 = two_hosts.hosts
    slow_tape(h1)
    h1.request("TAPE backup 7 0")
    pid = eventually(lambda: h2.processes_named("TAPE server"), what="the gatherer")[0]
    os.kill(pid, signal.SIGSTOP)
    eventually(lambda: states(h1).get("h1") == "done", what="h1 to be done while h2 stands still")
    assert states(h1)["h2"] != "done"
    os.kill(pid, signal.SIGCONT)
    follow(h1)
    check_tape(two_hosts, [1])
    nothing_left([h1, h2])


def test_a_gatherer_that_was_left_waiting_gives_way_to_another_job(two_hosts):
    h1, h2 = two_hosts.hosts
    # What a job leaves that is stopped between asking for a gatherer and connecting to it.
    ask_agent(h1, h2, "TAPE server 9 0")
    eventually(lambda: any("port" in each for each in h2.left_over()), what="the gatherer of job 9")
    record = backup(h1)
    assert {each["state"] for each in record["hosts"]} == {"done"}
    check_tape(two_hosts, [1])
    nothing_left([h1, h2])
