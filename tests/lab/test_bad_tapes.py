"""Tapes and drives that fail, are not there, are full, or belong to somebody else. After each the tape goes on."""
import fcntl
import os
import struct
import threading
from concurrent.futures import ThreadPoolExecutor

import pytest

from jobs import CARTRIDGE, backup, define, nothing_left, progress
from lab import image_of, make_tree, tape_summary, tapewalk

DRIVE = ("var", "vtape", "vtape0")


@pytest.fixture
def one_host(make_lab):
    """h1 with a small tree, its tape and its job 7."""
    lab = make_lab(1)
    (h1,) = lab.hosts
    make_tree(h1.tree, 1, files=20, big=(300000,))
    h1.start()
    define(h1, lab.hosts, [h1.tree])
    return h1


def faults(host, text):
    with open(host.path(*DRIVE, "faults"), "w") as out:
        out.write(text + "\n")


def volumes(host, tape=0):
    """What the catalog has."""
    listed = host.request(f"TAPE get vols 0 {tape}", check=False)
    return [line for line in listed.splitlines() if not line.startswith("ERROR")]


def volume_is_whole(host, number, cartridge=CARTRIDGE):
    tapewalk(image_of(host, cartridge), "--allow-torn", "--volume", number, "--host", "h1", "--compare", host.tree)


def agree(host):
    """Catalog and tape count the same volumes."""
    on_tape = [volume["volume"] for volume in tape_summary(image_of(host, CARTRIDGE))["volumes"]]
    assert on_tape == [2 * at + 1 for at in range(len(volumes(host)))]


@pytest.mark.parametrize("fault", [
    "write 1 EIO", "write 5 EIO", "write 9 ENOSPC", "write 10 EIO", "write 11 EIO", "write 60 EIO", "write 60+ EIO",
    "mark 1 EIO", "mark 2 EIO", "mark 1+ EIO", "space 1 EIO", "space 1+ EIO", "rewind 1 EIO", "rewind 3 EIO",
    "rewind 1+ EIO", "read 1 EIO", "read 1+ EIO", "eom-after 200000", "write 40 EINTR"])
def test_a_drive_that_fails_costs_one_job(one_host, fault):
    h1 = one_host
    backup(h1)
    faults(h1, fault)
    record = backup(h1, fails=None)
    failed, number = record["state"] == "failed", record["volume"]
    if failed:
        assert record["error"] and "ERROR:" in h1.read("var", "tape", "jobids", "7.status")
        assert h1.request("TAPE get hhist h1").splitlines()[-1].split(",")[3] in ("0", "1")
    nothing_left([h1])
    os.unlink(h1.path(*DRIVE, "faults"))
    # A job that says it is done has put everything on the tape; later ones find their place behind it.
    if not failed:
        volume_is_whole(h1, number)
    after = backup(h1)["volume"]
    volume_is_whole(h1, 1)
    volume_is_whole(h1, after)
    agree(h1)


def test_a_busy_drive_is_waited_for_and_given_up(one_host):
    h1 = one_host
    with open(h1.path(*DRIVE, "lock"), "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        threading.Timer(1, fcntl.flock, (lock, fcntl.LOCK_UN)).start()
        assert backup(h1)["volume"] == 1
        h1.settings("pause.drive-busy-tries = 2")
        fcntl.flock(lock, fcntl.LOCK_EX)
        record = backup(h1, fails=True)
    assert "drive 0" in record["error"]
    assert "8306" in h1.read("var", "tape", "jobids", "7.status")
    nothing_left([h1])
    assert backup(h1)["volume"] == 3
    agree(h1)


def test_two_jobs_for_one_drive_write_one_behind_the_other(one_host):
    h1 = one_host
    h1.request("TAPE add jobids 8:1:2592000:0:0:0:other")
    h1.request(f"TAPE add backuplist 8 {h1.tree}/")
    for turn in range(3):
        with ThreadPoolExecutor() as both:
            list(both.map(lambda job: backup(h1, job), (7, 8)))
        assert sorted(progress(h1, job)["volume"] for job in (7, 8)) == [4 * turn + 1, 4 * turn + 3]
    agree(h1)
    tapewalk(image_of(h1, CARTRIDGE))
    for number in range(1, 13, 2):
        volume_is_whole(h1, number)
    nothing_left([h1])


def test_a_tape_without_a_label_or_of_another_drive_is_not_written(one_host):
    h1 = one_host
    backup(h1)
    h1.zul("vtape", "drive", "vtape1")
    h1.request("TAPE add drive 1:other:/dev/vtape/vtape1:0:0")
    h1.zul("vtape", "make", "foreign", "--drive", "vtape1")
    h1.request("TAPE add tape 1:0:0:0:foreign")
    h1.zul("vtape", "unload", "--drive", "vtape1")
    h1.zul("vtape", "make", "blank")
    before = os.path.getsize(image_of(h1, "foreign"))
    for cartridge in ("foreign", "blank", None):
        h1.zul("vtape", "unload", "--drive", "vtape0")
        if cartridge:
            h1.zul("vtape", "load", cartridge, "--drive", "vtape0")
        record = backup(h1, fails=True)
        assert record["error"], cartridge
        assert "ERROR:  8306" in h1.read("var", "tape", "jobids", "7.status"), cartridge
    assert os.path.getsize(image_of(h1, "foreign")) == before and os.path.getsize(image_of(h1, "blank")) == 0
    h1.zul("vtape", "load", CARTRIDGE, "--drive", "vtape0")
    nothing_left([h1])
    assert backup(h1)["volume"] == 3
    agree(h1)


def test_a_protected_tape_is_not_written(one_host):
    h1 = one_host
    h1.zul("vtape", "protect", CARTRIDGE)
    assert backup(h1, fails=True)["error"]
    h1.zul("vtape", "protect", CARTRIDGE, "--off")
    assert backup(h1)["volume"] == 1
    agree(h1)


def test_a_catalog_at_its_limit_takes_no_more_volumes(one_host):
    h1 = one_host
    backup(h1)
    catalog = h1.path("var", "tape", "drive.0", "tape.0", "catalog")
    with open(catalog, "rb") as file:
        record = file.read()
    with open(catalog, "wb") as file:
        file.write(record * 128)
    size = os.path.getsize(image_of(h1, CARTRIDGE))
    backup(h1, fails=True)
    assert "Tape 0 of drive 0 is full: it holds 128 volumes" in h1.read("var", "tape", "jobids", "7.status")
    assert os.path.getsize(image_of(h1, CARTRIDGE)) == size and os.path.getsize(catalog) == len(record) * 128
    nothing_left([h1])


@pytest.mark.parametrize("damage", ["empty", "cut", "noise", "record of another kind"])
def test_a_damaged_catalog_never_costs_a_volume_that_is_there(one_host, damage):
    h1 = one_host
    backup(h1)
    backup(h1)
    catalog = h1.path("var", "tape", "drive.0", "tape.0", "catalog")
    with open(catalog, "rb") as file:
        whole = file.read()
    spoilt = {"empty": b"", "cut": whole[:-1000], "noise": os.urandom(len(whole)),
              "record of another kind": struct.pack("<I", 1) + whole[4:]}[damage]
    with open(catalog, "wb") as file:
        file.write(spoilt)
    backup(h1, fails=True)
    volume_is_whole(h1, 1)
    volume_is_whole(h1, 3)
    nothing_left([h1])
