"""Multicast runs from a machine to itself, as an operator sees them."""
import filecmp
import json
import os
import shutil
import socket
import subprocess

import pytest

from ownnetwork import enter_own_network
from zulsupport import zul

ADDRESS = "10.9.8.7"


def ip(*words):
    subprocess.run(["ip", *words], check=True)


@pytest.fixture(scope="module")
def interface():
    """An interface that carries multicast, in a network that nobody else has given interfaces and routes."""
    enter_own_network()
    ip("link", "add", "many0", "type", "veth", "peer", "name", "many1")
    ip("addr", "add", f"{ADDRESS}/24", "dev", "many0")
    for name in ("many0", "many1"):
        ip("link", "set", name, "up")
    ip("route", "add", "224.0.0.0/4", "dev", "many0")
    yield "many0"
    ip("link", "del", "many0")


class Machine:
    def __init__(self, folder):
        self.home, self.tree, self.inbox = str(folder / "home"), folder / "tree", folder / "inbox"
        (self.tree / "sub").mkdir(parents=True)
        for number, size in enumerate((0, 1, 688, 689, 5000, 300000)):
            (self.tree / "sub" / f"f{number}").write_bytes(os.urandom(size))
        self.job = folder / "job"

    def zul(self, *words, status=0):
        done = zul("--home", self.home, *words)
        assert done.returncode == status, done.stdout + done.stderr
        return done

    def define(self, *lines, hosts=(ADDRESS,)):
        text = [f"Request: {self.tree}/", f"Prefix: {self.inbox}", "FilePerms: 28672", "DirPerms: 28672",
                *(f"Host: {host}" for host in hosts), *lines]
        self.job.write_text("\n".join(text) + "\n")
        self.zul("multicast", "job", "put", 5, self.job)

    def equal(self, there=None):
        there = there or str(self.inbox) + str(self.tree)
        names = sorted(os.listdir(self.tree / "sub"))
        assert sorted(os.listdir(there + "/sub")) == names
        assert filecmp.cmpfiles(self.tree / "sub", there + "/sub", names, shallow=False) == (names, [], [])


@pytest.fixture
def machine(interface, tmp_path):
    one = Machine(tmp_path)
    one.zul("init", "--no-drive")
    one.zul("up")
    one.zul("request", "TAPE version")
    yield one
    zul("--home", one.home, "down")


def test_a_run_tells_what_arrived_and_the_records_agree(machine):
    machine.define()
    done = machine.zul("multicast", "run", 5)
    assert f"{ADDRESS}  complete" in done.stdout and "1 host: 1 complete\n" in done.stdout
    assert done.stderr == "NOTE:  Replication started on 1 out of 1 hosts.\n"
    machine.equal()
    told = json.loads(machine.zul("multicast", "result", 5, "--json").stdout)
    assert told["allComplete"] and told["hosts"][0]["digest"] == told["digest"] and told["job"] == 5


def test_a_repair_treats_files_and_folders_as_the_job_does(machine):
    machine.define("FilePerms: 416", f"UserID: {os.getuid()}", f"GroupID: {os.getgid()}")
    os.chmod(machine.tree / "sub", 0o711)
    machine.zul("multicast", "run", 5)
    # As the records stand when a receiver was killed.
    for name, state in (("sent", "incomplete"), ("received", "running")):
        path = f"{machine.home}/var/tape/mrepljobs/{name}.json"
        with open(path) as record:
            text = record.read()
        with open(path, "w") as record:
            record.write(text.replace('"complete"', f'"{state}"'))
    shutil.rmtree(machine.inbox)
    told = machine.zul("multicast", "result", 5, status=1).stdout
    assert "incomplete" in told and "zul multicast run 5 --retry-failed" in told
    done = machine.zul("multicast", "run", 5, "--retry-failed", "--json")
    assert json.loads(done.stdout)["hosts"][0]["repaired"], done.stdout + done.stderr
    machine.equal()
    there = str(machine.inbox) + str(machine.tree)
    assert os.stat(there + "/sub/f4").st_mode & 0o7777 == 0o640
    assert os.stat(there + "/sub").st_mode & 0o7777 == 0o711
    assert "multicast retry" not in machine.zul("request", "TAPE get repids").stdout


def test_without_a_run_there_is_nothing_to_tell_or_to_repair(machine):
    machine.define()
    for words in (["result", 5], ["run", 5, "--retry-failed"]):
        assert "there is no record of a run" in machine.zul("multicast", *words, status=1).stderr
    machine.zul("multicast", "run", 5)
    machine.zul("multicast", "job", "put", 6, machine.job)
    assert "the last run was of job 5" in machine.zul("multicast", "result", 6, status=1).stderr
    for words in (["run", 7], ["doctor", 7]):
        assert "ERROR:  8602" in machine.zul("multicast", *words, status=1).stderr


def test_a_classic_site_keeps_no_records_and_says_so(machine):
    machine.define()
    with open(f"{machine.home}/etc/ZULsite", "a") as site:
        site.write("behaviour.multicast = classic\n")
    done = machine.zul("multicast", "run", 5, status=1)
    assert "multicast is classic on the sending host" in done.stderr and "behaviour.multicast = sound" in done.stderr
    assert not machine.inbox.exists()
    assert "multicast is classic" in machine.zul("multicast", "doctor", 5, status=1).stdout


def test_a_run_that_cannot_begin_is_not_taken_for_an_older_one(machine):
    machine.define()
    machine.zul("multicast", "run", 5)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as requests:
        requests.bind(("", 2346))
        done = machine.zul("multicast", "run", 5, status=1)
        assert "listener socket" in done.stderr
        assert "another run has UDP port 2346" in machine.zul("multicast", "doctor", 5, status=1).stdout


def test_a_file_that_cannot_be_sent_is_named_and_the_run_has_failed(machine):
    machine.define()
    name = "n" * 200
    (machine.tree / name).write_text("its name is too long under the prefix")
    done = machine.zul("multicast", "run", 5, status=1)
    assert "1 host: 1 complete" in done.stdout and "1 file could not be sent;" in done.stdout and name in done.stdout


def test_thousands_of_failures_with_long_names_come_through_whole(machine):
    machine.define()
    machine.zul("multicast", "run", 5)
    path = f"{machine.home}/var/tape/mrepljobs/received.json"
    with open(path) as record:
        told = json.load(record)
    names = [f"/{'ä' * 100}/{number}/" + "\u20ac" * 15 for number in range(5000)]
    told.update(state="incomplete", failed=len(names))
    head = json.dumps({**told, "failures": []})[:-2]
    lines = (json.dumps({"name": name, "code": -5, "error": "no room"}, ensure_ascii=False) for name in names)
    with open(path, "w") as record:
        record.write(head + "\n" + ",\n".join(lines) + "]}\n")
    found = json.loads(machine.zul("multicast", "result", 5, "--json", status=1).stdout)["hosts"][0]
    assert found["missingKnown"] and [each["name"] for each in found["missing"]] == names
    shown = machine.zul("multicast", "result", 5, status=1).stdout
    assert "5000 files missing: no room" in shown and "... and 4990 more" in shown


def test_the_doctor_finds_this_machine_healthy_and_misses_a_route(machine):
    machine.define()
    assert "BAD" not in machine.zul("multicast", "doctor", 5).stdout
    ip("route", "del", "224.0.0.0/4")
    try:
        report = machine.zul("multicast", "doctor", 5, status=1).stdout
    finally:
        ip("route", "add", "224.0.0.0/4", "dev", "many0")
    assert "(sender): interface: Network is unreachable" in report and "a route to 239.240.240.240" in report
