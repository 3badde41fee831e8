"""Replications to groups of hosts, judged by comparing what each target has with what the sending host has.

Every target has a disk of its own mounted at one and the same folder, the job's destination.
"""
import json
import os
import signal
import time

import pytest

from jobs import nothing_left
from lab import eventually, make_tree, run
from trees import same, snapshot

JOB = 5
# Classic pauses. Behind the last two nobody looks whether list and receiver are there: they leave a busy machine room.
QUICK = "\n".join(f"pause.{name} = {length}" for name, length in
                  (("receiver-ready", "20ms"), ("replicate-start", "20ms"), ("replicate-poll", "20ms"),
                   ("list-grace", "2s"), ("receiver-start", "2s")))


class Site:
    """h1 sends, the others are the targets of job 5."""

    def __init__(self, make_lab, targets, behaviour="sound", sizes=None, settings=""):
        self.lab = make_lab(targets + 1, behaviour)
        self.source, self.targets = self.lab[1], self.lab.hosts[1:]
        self.destination = os.path.join(self.lab.folder, "copy")
        os.makedirs(self.destination)
        for host in self.targets:
            size = (sizes or {}).get(host.name, "256m")
            host.run("mount", "-t", "tmpfs", "-o", f"size={size},mode=755", "none", self.destination)
        make_tree(self.source.tree, 5, files=60, big=(3 << 20, 1 << 20, (2 << 20) + 1))
        for host in self.lab.hosts:
            if settings:
                host.settings(settings)

    def start(self, *absent):
        for host in self.lab.hosts:
            if host.name not in absent:
                host.start()

    def define(self, *words, paths=None, conflict="if-different"):
        self.source.request(f"TAPE add group 3:{','.join(host.name for host in self.targets)}:all")
        self.source.zul("repjob", "add", JOB, "--group", 3, "--to", self.destination, "--name", "copies", "--conflict",
                        conflict, "--setuid", *words, *(paths or [self.source.tree]))

    def replicate(self, *words, status=0, timeout=120):
        done = self.source.zul("replicate", JOB, "--follow", *words, check=False, timeout=timeout)
        assert done.returncode == status, done.stdout + done.stderr + self.log()
        return done.stdout

    def log(self):
        return self.source.read("var", "tape", "jobids", f"replicate.{JOB}.stat")

    def results(self):
        lines = self.source.read("var", "tape", "jobids", f"replicate.{JOB}.result").splitlines()
        return {each["host"]: each for each in map(json.loads, lines)}

    def record(self):
        path = self.source.path("var", "tape", "jobids", f"replicate.{JOB}.stat.progress")
        if not os.path.exists(path):
            return {"hosts": []}
        with open(path) as record:
            return json.load(record)

    def states(self):
        return {each["host"]: each["state"] for each in self.record()["hosts"]}

    def seen(self, host, path=""):
        """A path below the destination as the target sees it."""
        return host.inside(self.destination + path)

    def equal(self, host):
        same(snapshot(self.source.tree), snapshot(self.seen(host, self.source.tree)))


def receivers(host):
    """Processes at work for a request on this host."""
    return [pid for pid in host.processes() if host.daemon and pid != host.daemon.pid and "repclnt" in command(pid)]


def command(pid):
    try:
        with open(f"/proc/{pid}/cmdline", "rb") as line:
            return line.read().decode(errors="replace")
    except OSError:
        return ""


def shape(site):
    """Gives the job an owner, permissions and a transform."""
    site.source.zul("repjob", "change", JOB, "--owner", 1234, "--owner-group", 4321, "--dir-mode", "750",
                    "--file-mode", "640")
    site.source.zul("transform", "add", JOB, site.source.tree, "/srv/mirror")


def shaped(site, host):
    """The host has the tree under its other name, and everything in it belongs to whom the job says."""
    there, here = snapshot(site.seen(host, "/srv/mirror")), snapshot(site.source.tree)
    assert set(there) == set(here)
    for path, (kind, mode, owner, group, mtime, content) in there.items():
        assert (kind, mtime, content) == (here[path][0],) + here[path][4:], path
        if kind != 0o12:
            assert (owner, group) == (1234, 4321) and mode == (0o750 if kind == 0o4 else 0o640), path


def test_twenty_targets_of_which_six_have_a_bad_day(make_lab):
    site = Site(make_lab, 20, sizes={"h6": "2m"}, settings="replication.silence = 6s")
    by_name = {host.name: host for host in site.lab.hosts}
    dying, stalling, breaking = by_name["h4"], by_name["h5"], by_name["h7"]
    site.start("h3", "h9", "h7")  # two are down
    breaking.start("prlimit", f"--fsize={10 << 20}")  # the kernel ends its receiver in the middle of the large file
    with open(os.path.join(site.source.tree, "zz-large"), "wb") as large:
        large.write(os.urandom(24 << 20))
    site.define()
    # These two wait until we have found them.
    dying.settings("pause.receiver-ready = 60m")
    stalling.settings("pause.receiver-ready = 60m")
    site.source.zul("replicate", JOB)
    most = 0
    eventually(lambda: receivers(dying), 20, "the receiver on h4")
    dying.cut_power()
    eventually(lambda: receivers(stalling), 20, "the receiver on h5")
    for pid in receivers(stalling):
        os.kill(pid, signal.SIGSTOP)
    end = time.monotonic() + 60
    while site.record().get("state") == "running" and time.monotonic() < end:
        most = max(most, list(site.states().values()).count("running"))
        time.sleep(0.02)
    assert site.record()["state"] == "failed", site.log()
    assert 3 <= most <= 8, "at most eight at once"
    unlucky = {"h3", "h4", "h5", "h6", "h7", "h9"}
    results = site.results()
    assert {host for host, result in results.items() if result["state"] != "done"} == unlucky, results
    assert len(results) == 20
    assert results["h3"]["reason"] == "no connection to its agent"
    assert "broke off" in results["h4"]["reason"] and "too long" in results["h5"]["reason"]
    assert "broke off" in results["h7"]["reason"], results["h7"]
    assert any(name.startswith(".zulpart.") for name in os.listdir(site.seen(breaking, site.source.tree)))
    assert "No space left on device" in results["h6"]["reason"] and results["h6"]["files"] > 50
    for host in site.targets:
        if host.name not in unlucky:
            site.equal(host)
    # What is mended is repeated, and nothing else is.
    for pid in receivers(stalling):
        os.kill(pid, signal.SIGKILL)
    by_name["h6"].run("mount", "-o", "remount,size=256m", site.destination)
    for host in (dying, stalling):
        host.settings("pause.receiver-ready = 0s")
    breaking.stop()
    for name in ("h3", "h4", "h7", "h9"):
        by_name[name].start()
    shown = site.replicate("--retry-failed")
    assert set(site.results()) == unlucky and "6 hosts done, 0 failed" in shown, shown
    # What the broken receiver had begun on h7 is gone with that.
    for host in site.targets:
        site.equal(host)
    os.unlink(os.path.join(site.source.tree, "zz-large"))
    for host in site.targets:
        os.unlink(site.seen(host, site.source.tree + "/zz-large"))
    # The same to all of them, encrypted, over what is there.
    site.source.zul("key", "new")
    for host in site.targets:
        run("cp", "-p", site.source.path("etc", "ZULkey"), host.path("etc", "ZULkey"))
        run("rm", "-rf", site.seen(host, site.source.tree + "/a"))
    site.source.zul("repjob", "change", JOB, "--encrypt", "--conflict", "always")
    site.replicate()
    assert site.log().count("INFO:  Using Encryption\n") == 20
    for host in site.targets:
        site.equal(host)
    # All of them get what the job makes of it, encrypted and in clear.
    shape(site)
    for word, said in (("--encrypt", "INFO:  Using Encryption\n"), ("--no-encrypt", "INFO:  NO Encryption\n")):
        site.source.zul("repjob", "change", JOB, word)
        site.replicate()
        assert site.log().count(said) == 20
        for host in site.targets:
            shaped(site, host)
            run("rm", "-rf", site.seen(host, "/srv/mirror"))
    nothing_left(site.lab.hosts)


def test_a_second_run_sends_what_has_changed_and_nothing_else(make_lab):
    site = Site(make_lab, 3)
    site.start()
    site.define()
    planned = site.source.zul("replicate", JOB, "--dry-run").stdout.splitlines()[-1]
    shown = site.replicate()
    for host in site.targets:
        site.equal(host)
    first = site.results()["h2"]
    # What was planned is what was sent, in the same words.
    amount, to = planned.split(", to each of ")
    assert to == "3 hosts: h2 h3 h4" and amount.startswith(f"{first['files']} files, {first['folders']} folders, ")
    assert f"host h2: done, {amount}\n" in shown, (planned, shown)
    with open(os.path.join(site.source.tree, "a", "b", "new"), "w") as new:
        new.write("new")
    os.unlink(os.path.join(site.source.tree, "link"))
    os.symlink("elsewhere", os.path.join(site.source.tree, "link"))
    # Files are told apart by the second, and all of this may have happened within one.
    for moment, path in enumerate(("a/b/new", "a/b", "link", ""), 5):
        os.utime(os.path.join(site.source.tree, path), (moment, moment), follow_symlinks=False)
    site.replicate()
    second = site.results()["h2"]
    # The new file and the link, and the folders they are in. The folders above the tree belong to a list too, and to others
    # who may have changed them meanwhile.
    above = site.source.tree.count("/")
    assert second["files"] == 2 and second["bytes"] == 3 and 2 <= second["folders"] <= 2 + above, (first, second)
    entries = [each["files"] + each["folders"] + each["kept"] for each in (first, second)]
    assert entries[1] == entries[0] + 1, (first, second)
    for host in site.targets:
        site.equal(host)
    # Nothing has changed: nothing is sent.
    site.replicate()
    third = site.results()["h3"]
    assert third["files"] == third["bytes"] == 0 and third["folders"] <= above, third
    nothing_left(site.lab.hosts)


def test_transforms_and_policy_shape_what_arrives(make_lab):
    site = Site(make_lab, 2)
    site.start()
    site.define()
    shape(site)
    plan = json.loads(site.source.zul("replicate", JOB, "--dry-run", "--json").stdout)
    assert plan["hosts"] == ["h2", "h3"]
    assert not os.path.exists(site.seen(site.targets[0], "/srv")), "a dry run sends nothing"
    site.replicate()
    for host in site.targets:
        shaped(site, host)
        # The plan told the truth.
        for planned in plan["entries"]:
            # Bytes that are no text have no way into JSON.
            if planned["type"] in "fd" and "/srv/mirror" in planned["target"] and "\ufffd" not in planned["target"]:
                status = os.lstat(host.inside(planned["target"]))
                assert oct(status.st_mode & 0o7777) == f"0o{planned['mode']}" and str(status.st_uid) == planned["owner"]


def test_what_cannot_be_run_is_said_at_once(make_lab):
    site = Site(make_lab, 1)
    site.start()

    def refused(*words):
        done = site.source.zul("replicate", *words, check=False, timeout=60)
        assert done.returncode == 1, done.stdout + done.stderr
        return done.stdout + done.stderr

    for words in ((), ("--follow",), ("--retry-failed",), ("--dry-run",)):
        assert "there is no replication job 5" in refused(JOB, *words)
    site.source.zul("repjob", "add", JOB, "--group", 3, "--to", site.destination, site.source.tree)
    assert "there are no hosts in group 3" in refused(JOB, "--follow")
    site.source.request("TAPE add group 3:h2:all")
    for number in range(16):
        site.source.zul("transform", "add", JOB, f"/from{number}", "/to")
    for words in (("--dry-run",), ("--follow",)):
        assert "more transforms than are used" in refused(JOB, *words)
    assert not os.listdir(site.seen(site.targets[0]))
    site.source.zul("transform", "remove", JOB, "/from0")
    # A list with nothing in it is served, and everybody has all of it.
    with open(site.source.path("var", "tape", "jobids", str(JOB)), "w"):
        pass
    assert "1 host done, 0 failed" in site.replicate()
    assert not os.listdir(site.seen(site.targets[0]))


def test_conflict_modes_meet_what_is_there(make_lab):
    site = Site(make_lab, 1)
    site.start()
    (host,) = site.targets
    names = ("older", "newer", "equal", "folder", "link")
    folder = os.path.join(site.lab.folder, "files")
    os.makedirs(folder)
    for name in names:
        with open(os.path.join(folder, name), "w") as out:
            out.write(f"new {name}")
        os.utime(os.path.join(folder, name), (1000000000, 1000000000))

    def prepare():
        there = site.seen(host, folder)
        run("rm", "-rf", there)
        os.makedirs(there)
        for name, moment in (("older", 900000000), ("newer", 1100000000), ("equal", 1000000000)):
            with open(os.path.join(there, name), "w") as out:
                out.write("old")
            os.utime(os.path.join(there, name), (moment, moment))
        os.makedirs(os.path.join(there, "folder", "full"))
        os.symlink("/etc/passwd", os.path.join(there, "link"))
        return there

    def content(path):
        if os.path.islink(path):
            return "link"
        if os.path.isdir(path):
            return "folder"
        with open(path) as text:
            return text.read()

    before = open("/etc/passwd").read()
    site.define(paths=[folder])
    for mode, replaced, status in (("always", {"older", "newer", "equal", "link"}, 1),
                                   ("if-different", {"older", "newer", "link"}, 1),
                                   ("if-newer", {"older"}, 0), ("never", set(), 0), ("keep-both", set(), 0)):
        there = prepare()
        site.source.zul("repjob", "change", JOB, "--conflict", mode)
        site.replicate(status=status)
        for name in names:
            found = content(os.path.join(there, name))
            assert (found == f"new {name}") == (name in replaced), (mode, name, found)
            copied = os.path.join(there, f"{name}.0")
            assert os.path.exists(copied) == (mode == "keep-both"), (mode, name)
        assert open("/etc/passwd").read() == before, "nothing is written through a link"
    # A file does not take the place of a folder that holds something; that, and nothing else, had failed.
    assert content(os.path.join(there, "folder")) == "folder"


def test_encryption_hides_what_travels(make_lab):
    site = Site(make_lab, 2)
    site.start()
    secret = b"plain words that nobody is to read on the wire " * 40
    with open(os.path.join(site.source.tree, "secret"), "wb") as out:
        out.write(secret)
    site.define("--encrypt")
    # Asked for and not there: nothing goes in clear.
    site.replicate(status=1)
    assert all("encryption" in result["reason"] for result in site.results().values())
    site.source.zul("key", "new")
    key = site.source.path("etc", "ZULkey")
    site.replicate(status=1)
    assert "encryption" in site.results()["h2"]["reason"]
    for host in site.targets:
        run("cp", "-p", key, host.path("etc", "ZULkey"))

    def captured(*words):
        """What passes the bridge meanwhile."""
        sniffer = Sniffer(site.lab)
        try:
            site.replicate(*words)
        finally:
            frames = sniffer.stop()
        assert len(frames) > 100000, "the capture has seen the files"
        return frames

    assert secret[:40] not in captured()
    assert "INFO:  Using Encryption\n" in site.log()
    for host in site.targets:
        site.equal(host)
    site.source.zul("repjob", "change", JOB, "--no-encrypt", "--conflict", "always")
    assert secret[:40] in captured(), "the capture sees what is in clear"
    assert "INFO:  NO Encryption\n" in site.log()
    # Another key is no key.
    site.targets[0].zul("key", "new", "--force")
    site.source.zul("repjob", "change", JOB, "--encrypt")
    site.replicate(status=1)
    results = site.results()
    assert results["h2"]["state"] == "failed" and results["h3"]["state"] == "done", results


class Sniffer:
    """Takes every frame that passes the bridge, from a raw socket in its namespace."""

    # Told to stop, it takes what is still waiting: on a busy machine that is a good part of it.
    CODE = ("import select,socket,sys\n"
            "s=socket.socket(socket.AF_PACKET,socket.SOCK_RAW,socket.htons(3)); s.bind(('br0',0))\n"
            "s.setsockopt(socket.SOL_SOCKET,33,64<<20)\n"
            "print('up',flush=True); s.settimeout(0.2)\n"
            "out=open(sys.argv[1],'wb')\n"
            "while True:\n"
            "  try: out.write(s.recv(65600)[66:])\n"
            "  except TimeoutError:\n"
            "    if select.select([sys.stdin],[],[],0)[0]: break\n"
            "out.close()\n")

    def __init__(self, lab):
        import subprocess
        import sys
        self.path = os.path.join(lab.folder, "frames")
        # The bridge forwards without handing frames to its own host, unless it listens to all.
        run("ip", "-n", lab.switch, "link", "set", "br0", "promisc", "on")
        self.process = subprocess.Popen(["ip", "netns", "exec", lab.switch, sys.executable, "-c", self.CODE, self.path],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "up\n"

    def stop(self):
        self.process.communicate("\n", timeout=20)
        with open(self.path, "rb") as frames:
            return frames.read()


def test_a_classic_site_replicates_too(make_lab):
    site = Site(make_lab, 2, behaviour="classic", settings=QUICK)
    site.start()
    # The targets have no key: it is said, and goes on in clear.
    site.source.zul("key", "new")
    site.define("--encrypt", conflict="always")
    site.replicate()
    assert site.log().count("INFO:  NO Encryption\n") == 2
    for host in site.targets:
        there, here = snapshot(site.seen(host, site.source.tree)), snapshot(site.source.tree)
        assert set(there) == set(here)
        for path, what in here.items():
            # Times of folders change with what comes into them; links have the times of their making.
            same_file = there[path] == what
            assert same_file or what[0] != 0o10, path


@pytest.mark.parametrize("classic", ["source", "targets"])
def test_classic_and_sound_hosts_understand_each_other(make_lab, classic):
    site = Site(make_lab, 2)
    for host in [site.source] if classic == "source" else site.targets:
        host.settings("behaviour = classic\n" + QUICK)
    site.start()
    site.define(conflict="always")
    site.replicate()
    for host in site.targets:
        there, here = snapshot(site.seen(host, site.source.tree)), snapshot(site.source.tree)
        assert set(there) == set(here)
        assert all(there[path][5] == here[path][5] for path in here)
