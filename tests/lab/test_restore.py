"""Restores between hosts, judged by comparing what came back with what was there: content, owner, mode, times, links."""
import filecmp
import json
import os
import random
import shutil
import subprocess

import pytest

from jobs import backup, define, fast_tape, nothing_left, slow_tape
from lab import ZUL, eventually, make_tree, run
from trees import entry, same, snapshot

# A classic host does not ask whether the other one is ready: these head starts are what a busy machine needs.
CLASSIC = "\n".join(f"pause.{name}" for name in (
    "gather-child = 10ms", "receiver-ready = 10ms", "label-settle = 10ms", "drive-busy = 10ms", "list-grace = 1s",
    "gatherer-start = 3s", "receiver-start = 3s"))


def restore(tape_host, *words, job=7, status=0, timeout=120):
    """zul restore to its end; what it tells a program."""
    done = tape_host.zul("restore", "--job", job, "--yes", "--json", *words, check=False, timeout=timeout)
    assert done.returncode == status, done.stdout + done.stderr
    return json.loads(done.stdout) if done.stdout else {}


def site(make_lab, count, members=None, big=(3 << 20, 1 << 20, (2 << 20) + 1), **options):
    """Hosts with trees of their own, backed up together."""
    lab = make_lab(count, **options)
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number, files=60, big=big)
        os.chown(os.path.join(host.tree, "a", "b"), 4711, 4712)
        os.utime(os.path.join(host.tree, "a"), (1000000000, 1100000000))
        host.start()
    members = members or lab.hosts
    define(lab[1], members, [host.tree for host in lab.hosts], size="1G")
    backup(lab[1])
    return lab


def test_a_wiped_tree_comes_back_onto_its_host_and_onto_another(make_lab):
    lab = site(make_lab, 3)
    h1, h2, h3 = lab.hosts
    before = snapshot(h2.tree)
    shutil.rmtree(h2.tree)
    told = restore(h1, f"h2:{h2.tree}/")
    same(before, snapshot(h2.tree))
    assert told["whole"] and {file["result"] for file in told["files"]} == {"restored"}
    assert {os.fsencode(file["path"]).rstrip(b"/") for file in told["files"] if "\ufffd" not in file["path"]} == {
        os.path.join(os.fsencode(h2.tree), path).rstrip(b"/") for path in before if b"bytes-" not in path}

    into = os.path.join(lab.folder, "h3", "back")
    restore(h1, "--to", "h3", "--into", into, f"h2:{h2.tree}")
    same(before, snapshot(into + h2.tree))
    # The same paths lie on the volume three times over, once from every host: here they come from another one.
    restore(h1, "--from", "h3", "--into", into + ".h3", "--all")
    for host in lab.hosts:
        same(snapshot(host.tree), snapshot(into + ".h3" + host.tree))
    nothing_left(lab.hosts)


def test_what_is_there_is_treated_as_asked(make_lab):
    lab = site(make_lab, 2, big=())
    h1, h2 = lab.hosts
    names = sorted(name for name in os.listdir(h2.tree) if name.startswith("f"))[:3]
    one = os.path.join(h2.tree, names[0])
    content = open(one, "rb").read()

    def change():
        with open(one, "wb") as handle:
            handle.write(b"changed")

    change()
    told = restore(h1, "--conflict", "never", f"h2:{one}")
    assert [file["result"] for file in told["files"]] == ["kept"] and open(one, "rb").read() == b"changed"
    os.utime(one, (2000000000, 2000000000))
    restore(h1, "--conflict", "if-newer", f"h2:{one}")
    assert open(one, "rb").read() == b"changed"
    restore(h1, "--conflict", "if-different", f"h2:{one}")
    assert open(one, "rb").read() == content
    change()
    restore(h1, "--conflict", "keep-both", f"h2:{one}")
    assert open(one, "rb").read() == b"changed" and open(one + ".0", "rb").read() == content
    restore(h1, "--conflict", "always", f"h2:{one}")
    assert open(one, "rb").read() == content
    # A file that cannot be made costs itself, and is told.
    os.unlink(one)
    os.mkdir(one)
    other = os.path.join(h2.tree, names[1])
    os.unlink(other)
    told = restore(h1, "--conflict", "always", f"h2:{one}", f"h2:{other}", status=1)
    assert {file["path"]: file["result"] for file in told["files"]} == {one: "failed", other: "restored"}
    told = restore(h1, f"h2:{other}", "/no/such/file", "--conflict", "never", status=1)
    assert told["unmatched"] == ["/no/such/file"]


def receiver(host):
    """The process that makes the restored files on a host."""
    return next(iter(host.processes_with("restore.clnt")), None)


def begin_large_restore(lab, into):
    """A restore of a file that takes a while, under way; the next goes at full speed."""
    slow_tape(lab[1], "1ms", "read")
    started = subprocess.Popen(lab[1].command(
        ZUL, "--home", lab[1].home, "restore", "--job", "7", "--yes", "--from", "h2", "--into", into, "--conflict",
        "always", lab[2].tree + "/"), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    folder = into + lab[2].tree

    def half_there():
        names = os.listdir(folder) if os.path.isdir(folder) else []
        return any(name.startswith(".zulpart") and os.path.getsize(os.path.join(folder, name)) > 8 << 20
                   for name in names)
    eventually(half_there, 60, "a part of the large file")
    fast_tape(lab[1])
    return started


def large_site(make_lab):
    lab = make_lab(2)
    os.makedirs(lab[2].tree)
    with open(os.path.join(lab[2].tree, "large"), "wb") as out:
        out.write(random.Random(6).randbytes(64 << 20))
    for host in lab.hosts:
        host.start()
    define(lab[1], [lab[2]], [lab[2].tree], size="2G")
    backup(lab[1])
    return lab


def test_a_killed_receiver_leaves_the_old_file_and_the_next_restore_works(make_lab):
    lab = large_site(make_lab)
    into = os.path.join(lab.folder, "h2", "back")
    old = into + os.path.join(lab[2].tree, "large")
    os.makedirs(os.path.dirname(old))
    with open(old, "w") as out:
        out.write("precious")
    started = begin_large_restore(lab, into)
    lab[2].kill(receiver(lab[2]))
    # A stream that has ended is the end: nobody waits for the half minute that silence is given.
    text, _ = started.communicate(timeout=20)
    assert started.returncode == 1 and "broke off" in text, text
    assert open(old).read() == "precious"
    nothing_left(lab.hosts)
    restore(lab[1], "--into", into, "--conflict", "always", "--all")
    assert filecmp.cmp(old, os.path.join(lab[2].tree, "large"), shallow=False)


def test_a_killed_tape_host_leaves_the_receiver_clean(make_lab):
    lab = large_site(make_lab)
    into = os.path.join(lab.folder, "h2", "back")
    started = begin_large_restore(lab, into)
    lab[1].cut_power()
    assert started.wait(60) != 0
    nothing_left([lab[2]], 20)
    folder = into + lab[2].tree
    assert os.listdir(folder) == [], "neither the file nor a part of it"
    lab[1].start()
    restore(lab[1], "--into", into, "--all")
    assert filecmp.cmp(os.path.join(folder, "large"), os.path.join(lab[2].tree, "large"), shallow=False)


def as_classic(tree):
    """Links have no times of their own then, and a folder's go with what is put into it."""
    return {path: each[:4] + (each[4] if each[0] == 8 else 0, each[5]) for path, each in snapshot(tree).items()}


@pytest.mark.parametrize("behaviour, seed, count", [("classic", 1, 2), ("classic", 2, 2), ("sound", 2, 4)])
def test_entry_list_0_restores_the_whole_volume_of_its_first_host(make_lab, behaviour, seed, count):
    dice = random.Random(seed)
    lab = make_lab(count + 1, behaviour=behaviour)
    h1, last, gathered = lab[1], lab.hosts[-1], lab.hosts[:-1]
    edges = (1, 1 << 20, (1 << 20) + 1, (2 << 20) + 7, 3 << 20)
    for number, host in enumerate(gathered, 1):
        make_tree(host.tree, seed * 100 + number, files=dice.randrange(5, 60), big=dice.sample(edges, 2))
        # What only sound hosts can carry stays out of these trees.
        os.unlink(os.path.join(host.tree, "long-link"))
        shutil.rmtree(os.path.join(host.tree, "colon:name"))
    for host in lab.hosts:
        if behaviour == "classic":
            host.settings(CLASSIC)
        # A classic restore goes by name alone: what two hosts have under one name is mixed. So each has its own; and
        # two of them, because files of h1 and h3, an even distance apart, would come back together.
        for other in gathered:
            if host not in (other, last):
                host.run("mount", "-t", "tmpfs", "-o", "mode=755", "none", other.tree)
        host.start()
    define(h1, gathered, [host.tree for host in gathered])
    backup(h1)
    with open(h1.path("var", "tape", "drive.0", "tape.0", "vol.1"), errors="surrogateescape") as volume:
        first = volume.readline().split(":")[1]
    into = os.path.join(lab.folder, last.name, "back")
    # The last host has gathered nothing, so its data port is free in the classic way too.
    h1.request(f"TAPE restore 0 0 1 {last.name} {into} 4 0")
    h1.zul("follow", "restore", timeout=60)
    for host in gathered:
        if host.name == first:
            same(as_classic(host.tree), as_classic(into + host.tree))
        else:
            assert os.listdir(into + host.tree) == [], "the other hosts' files stay on the tape"
    assert "NOTE:   Positioning tape to volume 2\n" in h1.read("var", "tape", "restore.serv")
    if behaviour == "classic":
        done = h1.zul("restore", "--job", "7", "--from", "h1", "--yes", "/etc/passwd", check=False)
        assert done.returncode == 1 and "classic" in done.stderr


@pytest.mark.slow
def test_a_file_of_more_than_four_gigabytes_comes_back(make_lab):
    lab = make_lab(2)
    large = os.path.join(lab[2].tree, "large")
    os.makedirs(lab[2].tree)
    dice = random.Random(4)
    with open(large, "wb") as out:
        # Something else on both sides of every border that a number of 32 bits has.
        for place in (0, (1 << 31) - 9, (1 << 32) - 9, (1 << 32) + (1 << 20) + 5):
            out.seek(place)
            out.write(dice.randbytes(1 << 16))
    for host in lab.hosts:
        host.start()
    define(lab[1], [lab[2]], [lab[2].tree], size="6G")
    backup(lab[1], timeout=600)
    into = os.path.join(lab.folder, "h2", "back")
    told = restore(lab[1], "--into", into, "--all", timeout=600)
    assert told["whole"]
    run("cmp", large, into + large)
    assert json.loads(lab[1].zul("verify", "--job", "7", "--json", timeout=600).stdout)["whole"]


def test_verify_finds_a_volume_whole_and_a_flipped_byte(make_lab):
    lab = site(make_lab, 2)
    h1 = lab[1]
    told = json.loads(h1.zul("verify", "--job", "7", "--json").stdout)
    assert told["whole"] and told["problems"] == []
    assert os.path.exists(h1.path("var", "tape", "drive.0", "tape.0", "vol.1.verified"))
    victim = os.path.join(lab[2].tree, "big0")
    with open(victim, "rb") as handle:
        piece = handle.read(4096)[2048:2080]
    image = h1.path("var", "vtape", "shelf", "night1.tap")
    with open(image, "r+b") as tape:
        content = tape.read()
        tape.seek(content.index(piece) + 3)
        tape.write(bytes([piece[3] ^ 1]))
    done = h1.zul("verify", "--job", "7", "--json", check=False)
    told = json.loads(done.stdout)
    assert done.returncode == 1 and len(told["problems"]) == 1
    assert victim in told["problems"][0] and "is not what was backed up" in told["problems"][0]
    assert not os.path.exists(h1.path("var", "tape", "drive.0", "tape.0", "vol.1.verified"))


def random_words(dice, paths):
    """Words of an operator, and what they mean."""
    words, wanted = [], set()
    # A word that is no text cannot be asked for, but a pattern may match it.
    texts = [path for path in paths if "bytes-" not in path]
    for _ in range(dice.randrange(1, 5)):
        path = dice.choice(texts)
        folder, name = os.path.split(path)
        kind = dice.randrange(3)
        if kind == 0:
            words.append(path)
            tops = {path}
        elif kind == 1:
            words.append(os.path.join(folder, name[0] + "*"))
            tops = {each for each in paths
                    if os.path.dirname(each) == folder and os.path.basename(each).startswith(name[0])}
        else:
            words.append(folder + "/")
            tops = {folder}
        wanted |= {each for each in paths for top in tops if each == top or each.startswith(top + "/")}
    return words, wanted


def ancestors(path):
    while path != "/":
        path = os.path.dirname(path)
        yield path


def all_below(folder):
    return {os.path.join(at, name) for at, folders, files in os.walk(folder) for name in folders + files}


@pytest.mark.parametrize("seed, count", [(1, 8), (2, 1), (3, 5)])
def test_random_selections_bring_back_exactly_what_they_name(make_lab, seed, count):
    dice = random.Random(seed)
    lab = site(make_lab, count, big=tuple(dice.choice((1, 1 << 20, (1 << 20) + 1, 3 << 20)) for _ in range(2)))
    for turn in range(6):
        source, target, owner = (dice.choice(lab.hosts) for _ in range(3))
        words, wanted = random_words(dice, sorted({owner.tree} | all_below(owner.tree)))
        into = os.path.join(lab.folder, f"back{turn}")
        told = restore(lab[1], "--from", source.name, "--to", target.name, "--into", into, *words)
        assert told["unmatched"] == []
        got = {path[len(into):] for path in all_below(into)}
        parents = {parent for path in wanted for parent in ancestors(path)}
        # The folder above the tree belongs to nobody's backup list but to all: where it is named, all trees are.
        wanted |= {path for path in got if os.path.dirname(owner.tree) + "/" in words}
        assert got - parents == wanted - parents and got >= wanted, (words, got ^ wanted)
        for path in wanted & all_below(owner.tree):
            assert entry(into + path) == entry(path), path
    nothing_left(lab.hosts)
