"""Whole backups of several hosts onto one tape, judged by tapewalk."""
import json
import os
import signal
import subprocess

import pytest

from jobs import CARTRIDGE, define, follow, nothing_left, progress, slow_tape, states
from lab import eventually, image_of, make_tree, tape_summary, tapewalk


def is_directory(path):
    return os.path.isdir(path) and not os.path.islink(path)


def test_three_hosts_interleave_on_one_tape_and_every_listing_agrees(make_lab):
    lab = make_lab(3)
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number, files=150, big=(3 << 20, (1 << 20), (1 << 20) + 1, (2 << 20) - 1))
        host.start()
    h1 = lab[1]
    define(h1, lab.hosts, [host.tree for host in lab.hosts])
    h1.request("TAPE backup 7 0")
    follow(h1)
    image = image_of(h1, CARTRIDGE)
    tapewalk(image, "--zero-padding")
    summary = tape_summary(image)
    (volume,) = summary["volumes"]
    # The file system is shared, so every host sent all three trees.
    for host in lab.hosts:
        words = [word for each in lab.hosts for word in ("--compare", each.tree)]
        tapewalk(image, "--host", host.name, *words)
    assert volume["interleaves"] > 10, "packages of the hosts are interleaved"

    assert h1.request("TAPE get tapes 0") == "0:night-one\n"
    header = h1.request("TAPE get header 0")
    assert "TapeName=night-one\n" in header and "TapeNum#=0\n" in header and "TapeHost=h1\n" in header
    volumes = h1.request("TAPE get vols 0 0")
    assert volumes.startswith("0:") and volumes.endswith(":0:nightly\n")
    history = h1.request("TAPE get hhist h2").split(",")
    kilobytes = sum(host["bytes"] for host in volume["hosts_on_tape"].values()) // 1024
    assert history[:8] == ["7", "1", "0", "1", "1", "0", "0", "1"]
    assert kilobytes <= int(history[8]) <= kilobytes * 1.2 + 1000
    listing = [line.split(":", 1) for line in h1.request(f"TAPE get cat 0 0 1 h3 {lab[3].tree}/").splitlines()]
    tree = os.fsencode(lab[3].tree)
    wanted = {os.fsdecode(name) + ("/" if is_directory(os.path.join(tree, name)) else "") for name in os.listdir(tree)}
    assert {name for _, name in listing} == wanted | {"."}
    assert len({number for number, _ in listing}) == len(listing), "every file has a number of its own"
    # The volume list names exactly the packages on tape, in their order.
    lines = h1.read("var", "tape", "drive.0", "tape.0", "vol.1").splitlines()
    assert len(lines) == len(set(lines))
    assert len(lines) == sum(1 for line in tapewalk(image, "--headers").stdout.splitlines()
                             if line.startswith("{'type'"))
    nothing_left(lab.hosts)


def test_a_second_volume_goes_behind_the_first(make_lab):
    lab = make_lab(2)
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number)
        host.start()
    h1 = lab[1]
    define(h1, lab.hosts, [lab[1].tree, lab[2].tree])
    for _ in range(2):
        # Within the same minute: the ports of the first job must not stand in the way.
        h1.request("TAPE backup 7 0")
        follow(h1)
    summary = tape_summary(image_of(h1, CARTRIDGE))
    assert [volume["volume"] for volume in summary["volumes"]] == [1, 3]
    for volume in ("1", "3"):
        tapewalk(image_of(h1, CARTRIDGE), "--volume", volume, "--host", "h2", "--compare", lab[2].tree)
    assert len(h1.request("TAPE get vols 0 0").splitlines()) == 2


def test_ten_hosts_with_one_down_and_one_killed_midway(make_lab):
    lab = make_lab(10)
    for number, host in enumerate(lab.hosts, 1):
        if host.name == "h4":
            host.own_tree(number, files=30, big=(24 << 20,))
        else:
            make_tree(host.tree, number, files=3)
        if host.name != "h6":
            host.start()
    h1, h4 = lab[1], lab[4]
    define(h1, lab.hosts, [host.tree for host in lab.hosts], size="2G")
    slow_tape(h1, "1ms")
    h1.request("TAPE backup 7 0")

    def h4_is_under_way():
        return any(each["host"] == "h4" and each["files"] > 3 for each in progress(h1).get("hosts", []))
    eventually(h4_is_under_way, 60, "files of h4")
    h4.cut_power()
    done = follow(h1, check=False)
    assert done.returncode == 1, done.stdout + done.stderr
    ended = progress(h1)
    ends = states(h1)
    assert ends.pop("h4") == "failed" and ends.pop("h6") == "failed"
    assert set(ends.values()) == {"done"}
    assert all(each["error"] for each in ended["hosts"] if each["state"] == "failed")
    image = image_of(h1, CARTRIDGE)
    tapewalk(image, "--allow-torn")
    for host in lab.hosts:
        if host.name not in ("h4", "h6"):
            tapewalk(image, "--allow-torn", "--host", host.name, "--compare", host.tree)
    assert h1.request("TAPE get hhist h2").split(",")[3] == "2", "the history says that hosts failed"
    status = h1.read("var", "tape", "jobids", "7.status")
    assert "ERROR:  Backup of h4 failed: " in status and "ERROR:  Backup of h6 failed: " in status
    nothing_left([host for host in lab.hosts if host.name != "h4"])
    # The tape goes on: a later job of the hosts that live finds its place.
    h1.request("TAPE mod group 1 1:h1,h2:two")
    h1.request("TAPE backup 7 0")
    follow(h1)
    tapewalk(image, "--allow-torn", "--volume", "3", "--host", "h2", "--compare", lab[2].tree)


def test_a_gathering_child_killed_with_9_fails_its_host_only(make_lab):
    lab = make_lab(2)
    h1, h2 = lab.hosts
    make_tree(h1.tree, 1, files=20)
    h2.own_tree(2, files=20, big=(24 << 20,))
    for host in lab.hosts:
        host.start()
    define(h1, lab.hosts, [h1.tree, h2.tree], size="1G")
    slow_tape(h1, "1ms")
    h1.request("TAPE backup 7 0")
    eventually(lambda: states(h1).get("h2") == "running", 60, "files of h2")
    child, = set(h1.processes_with("ipc.h2")) - {progress(h1)["pid"]}
    h1.kill(child)
    assert follow(h1, check=False).returncode == 1
    assert states(h1) == {"h1": "done", "h2": "failed"}
    tapewalk(image_of(h1, CARTRIDGE), "--allow-torn", "--host", "h1", "--compare", h1.tree)


def test_a_full_tape_ends_the_job_as_failed_and_keeps_what_was_written(make_lab):
    lab = make_lab(2)
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number, files=10, big=(20 << 20,))
        host.start()
    h1 = lab[1]
    define(h1, lab.hosts, [lab[1].tree], size="12M")
    h1.request("TAPE backup 7 0")
    assert follow(h1, check=False).returncode == 1
    assert progress(h1)["result"] == -994
    assert h1.request("TAPE get hhist h1").split(",")[3] == "0", "never completed"
    tapewalk(image_of(h1, CARTRIDGE), "--allow-torn")


def test_the_daemon_restarted_while_a_job_runs_finds_it_again(make_lab):
    lab = make_lab(2)
    make_tree(lab[2].tree, 2, files=20, big=(24 << 20,))
    for host in lab.hosts:
        host.start()
    h1 = lab[1]
    define(h1, [lab[2]], [lab[2].tree], size="1G")
    slow_tape(h1, "1ms")
    h1.request("TAPE backup 7 0")
    eventually(lambda: os.path.exists(h1.path("var/tape/jobids/7.status.progress")))
    h1.stop()
    h1.start()
    jobs = json.loads(h1.request("HOST jobs json"))
    assert [job["job"] for job in jobs] == [7]
    follow(h1)
    tapewalk(image_of(h1, CARTRIDGE), "--host", "h2", "--compare", lab[2].tree)


def test_a_login_with_another_sites_secret_is_refused(make_lab):
    lab = make_lab(2)
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number)
        host.start()
    h1, h2 = lab.hosts
    h2.stop()
    with open(h2.path("etc", "ZULsecret"), "w") as secret:
        secret.write("00" * 32 + "\n")
    h2.start()
    define(h1, lab.hosts, [h1.tree])
    h1.request("TAPE backup 7 0")
    assert follow(h1, check=False).returncode == 1
    assert states(h1) == {"h1": "done", "h2": "failed"}
    assert "ERROR:  3224  Cannot start restore agent on remote host\n" in h1.read("var", "tape", "jobids", "h2.stat")


def test_a_host_that_stalls_for_a_while_is_waited_for(make_lab):
    lab = make_lab(2)
    h1, h2 = lab.hosts
    h2.own_tree(2, files=20, big=(24 << 20,))
    for host in lab.hosts:
        host.start()
    define(h1, lab.hosts, [h2.tree], size="1G")
    slow_tape(h1, "1ms")
    h1.request("TAPE backup 7 0")
    pid = eventually(lambda: h2.processes_named("TAPE server"), 30, "the gatherer of h2")[0]
    os.kill(pid, signal.SIGSTOP)
    with pytest.raises(subprocess.TimeoutExpired):
        follow(h1, timeout=4)
    os.kill(pid, signal.SIGCONT)
    follow(h1)
    tapewalk(image_of(h1, CARTRIDGE), "--host", "h2", "--compare", h2.tree, on=h2)


def test_a_group_of_103_members_ends_with_every_host_named(make_lab):
    lab = make_lab(1)
    (h1,) = lab.hosts
    make_tree(h1.tree, 1)
    h1.start()
    define(h1, lab.hosts, [h1.tree])
    # 102 names that resolve to nothing, and the one that lives, last.
    members = ",".join([f"ghost{number}" for number in range(102)] + ["h1"])
    h1.request(f"TAPE mod group 1 1:{members}:many")
    h1.request("TAPE backup 7 0")
    assert follow(h1, check=False, timeout=170).returncode == 1
    assert list(states(h1).values()) == ["failed"] * 102 + ["done"]
    tapewalk(image_of(h1, CARTRIDGE), "--host", "h1", "--compare", h1.tree)


@pytest.mark.slow
def test_classic_hosts_with_the_stated_pauses(make_lab):
    lab = make_lab(3, behaviour="classic")
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number, files=60, big=(2 << 20,))
        # What only sound hosts can carry stays out of this tree.
        os.unlink(os.path.join(host.tree, "long-link"))
        host.start()
    h1 = lab[1]
    define(h1, lab.hosts, [host.tree for host in lab.hosts])
    h1.request("TAPE backup 7 0")
    follow(h1, timeout=300)
    image = image_of(h1, CARTRIDGE)
    for host in lab.hosts:
        tapewalk(image, "--host", host.name, *[word for each in lab.hosts for word in ("--compare", each.tree)])
    assert "Completed backup job# 7 at " in h1.read("var", "tape", "jobids", "7.status")
