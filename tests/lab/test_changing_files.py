"""Files that change, vanish, cannot be read or have names that nothing can carry while their host is backed up."""
import os
import random
import threading

from jobs import CARTRIDGE, backup, define, nothing_left, states
from lab import eventually, image_of, make_tree, tapewalk

MIB = 1 << 20


def slow_tape(host):
    with open(host.path("var", "vtape", "vtape0", "faults"), "w") as out:
        out.write("write 1+ delay 1ms\n")


def entries(image, host):
    """Name -> (kind, size) of everything that a host has on the tape."""
    listed = tapewalk(image, "--list", "--host", host.name).stdout.splitlines()
    found = {}
    for line in listed:
        parts = line.split(":", 4)
        if parts[0].isdigit() and len(parts) == 5:
            found[parts[4]] = (parts[2], int(parts[3]))
    return found


def test_files_that_change_while_they_are_sent_spoil_nothing(make_lab):
    lab = make_lab(2)
    h1, h2 = lab.hosts
    make_tree(h1.tree, 1)
    os.makedirs(h2.tree)
    dice = random.Random(3)
    names = [f"{kind}{number}" for number in range(12) for kind in ("grows", "shrinks", "goes", "turns", "stays")]
    for name in names:
        with open(os.path.join(h2.tree, name), "wb") as out:
            out.write(dice.randbytes(MIB + 5000 if dice.random() < 0.2 else 40000))
    for host in lab.hosts:
        host.start()
    define(h1, lab.hosts, [h1.tree, h2.tree], size="1G")
    slow_tape(h1)
    stop = threading.Event()

    def change():
        """Over and over until the job has ended, so that every file is met at every moment."""
        while not stop.is_set():
            for name in names:
                path = os.path.join(h2.tree, name)
                if name.startswith("grows"):
                    with open(path, "ab") as out:
                        out.write(b"more" * 1000)
                    if os.path.getsize(path) > 3 * MIB:
                        os.truncate(path, 1000)
                elif name.startswith("shrinks"):
                    with open(path, "r+b") as out:
                        out.truncate(dice.choice((0, 1, 511, 8192, 30000, MIB)))
                elif name.startswith("goes"):
                    if os.path.exists(path):
                        os.unlink(path)
                    else:
                        with open(path, "wb") as out:
                            out.write(b"back" * dice.randrange(20000))
                elif name.startswith("turns"):
                    if os.path.isdir(path):
                        os.rmdir(path)
                        os.symlink("x" * dice.randrange(1, 1000), path)
                    elif os.path.islink(path):
                        os.unlink(path)
                        os.mkfifo(path)
                    else:
                        os.unlink(path)
                        os.mkdir(path)
    changing = threading.Thread(target=change)
    changing.start()
    try:
        record = backup(h1)
    finally:
        stop.set()
        changing.join()
    assert set(states(h1).values()) == {"done"}, record
    image = image_of(h1, CARTRIDGE)
    tapewalk(image, "--zero-padding")  # not a file is torn or out of step
    tapewalk(image, "--host", "h1", "--compare", h1.tree)
    for host in lab.hosts:
        known = entries(image, host)
        for name in names:
            path = os.path.join(h2.tree, name)
            if name.startswith("stays"):
                assert known[repr(path)] == ("file", os.path.getsize(path))
    nothing_left(lab.hosts)


def test_files_that_cannot_be_opened_are_named_and_cost_only_themselves(make_lab):
    lab = make_lab(2)
    h1, h2 = lab.hosts
    make_tree(h2.tree, 2)
    closed = [os.path.join(h2.tree, name) for name in ("a/closed1", "closed2")]
    for path in closed:
        with open(path, "w") as out:
            out.write("secret")
        os.chmod(path, 0)
    h1.start()
    # Root without the right to read everything, as on a mounted home that does not trust it.
    h2.start("setpriv", "--bounding-set", "-dac_override,-dac_read_search", "--inh-caps", "-all", "--")
    define(h1, [h2], [h2.tree])
    backup(h1)
    image = image_of(h1, CARTRIDGE)
    tapewalk(image)
    known = entries(image, h2)
    assert [known[repr(path)] for path in closed] == [("missing", 0)] * 2
    log = h2.run("sh", "-c", "cat var/ZULd.log ../ZULd.log 2>/dev/null", check=False, cwd=h2.home).stdout
    log += "".join(h2.read("var", "tape", "jobids", name) for name in os.listdir(h2.path("var", "tape", "jobids")))
    assert "3017" in log, "the host's log says why"
    differing = tapewalk(image, "--host", "h2", "--compare", h2.tree, check=False).stderr.splitlines()
    assert sorted(line.split("'")[1] for line in differing) == sorted(closed)
    nothing_left(lab.hosts)


def test_names_that_nothing_can_carry_are_left_out_and_the_others_arrive(make_lab):
    lab = make_lab(1)
    (h1,) = lab.hosts
    make_tree(h1.tree, 4)
    room = 256 - len(os.path.join(h1.tree, ""))
    os.makedirs(os.path.join(h1.tree, "deep"))
    for length in (room - 6, room - 5, room - 4, room - 3, 200):
        # On both sides of the longest path.
        name = os.path.join(h1.tree, "deep", "n" * min(length, 255))
        if len(name) < 4096:
            open(name, "w").close()
    folder = h1.tree
    for _ in range(20):  # 5,000 characters down
        folder = os.path.join(folder, "d" * 250)
        try:
            os.mkdir(folder)
        except OSError:
            break
    for name in (b"line\nfeed", b"return\rhere", b"tab\there", b"\x01\x02", b"7 \n0 etc", b"\xff\xfe\xfd", b"quote\"\\",
                 b" blank first", b"blank last ", b"per%scent", b"'$(reboot)'", b"-rf", b"end", b"*"):
        with open(os.path.join(os.fsencode(h1.tree), name), "wb") as out:
            out.write(b"x" * 600)
    h1.start()
    define(h1, lab.hosts, [h1.tree])
    # A job's name, and a member's, are texts of the operator and end up in every report.
    h1.request('TAPE mod jobids 7 7:1:2592000:0:0:0:quote" back\\slash \u00e4')
    record = backup(h1)
    assert record["name"] == 'quote" back\\slash \u00e4'
    image = image_of(h1, CARTRIDGE)
    tapewalk(image)
    # tapewalk leaves out what cannot be carried, and nothing else.
    tapewalk(image, "--host", "h1", "--compare", h1.tree)
    lines = h1.read("var", "tape", "drive.0", "tape.0", "vol.1").splitlines()
    assert len(lines) >= len(entries(image, h1)) and all(line.count(":") >= 3 for line in lines)
    nothing_left(lab.hosts)


def test_members_with_names_that_lead_elsewhere_fail_alone(make_lab):
    lab = make_lab(1)
    (h1,) = lab.hosts
    make_tree(h1.tree, 5)
    h1.start()
    define(h1, lab.hosts, [h1.tree])
    outside = os.path.join(h1.home, "..", "evil")
    members = ["../../evil", "..", ".", "a b", "x" * 200, "%s%n", "h1"]
    h1.request(f"TAPE mod group 1 1:{','.join(members)}:strange")
    backup(h1, fails=True)
    shown = list(states(h1).items())
    assert shown[-1] == ("h1", "done") and {state for _, state in shown[:-1]} == {"failed"}, shown
    assert not os.path.exists(outside)
    tapewalk(image_of(h1, CARTRIDGE), "--host", "h1", "--compare", h1.tree)
    nothing_left(lab.hosts)


def test_two_jobs_with_a_common_member_to_two_drives(make_lab):
    lab = make_lab(3)
    h1, h2, h3 = lab.hosts
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number, big=(2 * MIB,))
        host.start()
    define(h1, [h2, h3], [h2.tree])
    h1.zul("vtape", "make", "second", "--drive", "vtape1")
    h1.request("TAPE add drive 1:second:/dev/vtape/vtape1:0:0")
    h1.request("TAPE add tape 1:0:0:0:second")
    h1.request("TAPE add group 2:h1,h3:two")
    h1.request("TAPE add jobids 8:2:2592000:1:0:0:other")
    h1.request(f"TAPE add backuplist 8 {h1.tree}/")
    failures = []

    def run_job(job):
        try:
            for _ in range(3):
                backup(h1, job)
        except AssertionError as error:
            failures.append(error)
    both = [threading.Thread(target=run_job, args=(job,)) for job in (7, 8)]
    for each in both:
        each.start()
    for each in both:
        each.join()
    assert not failures, failures[0]
    for volume in (1, 3, 5):
        for host in ("h2", "h3"):
            tapewalk(image_of(h1, CARTRIDGE), "--volume", volume, "--host", host, "--compare", h2.tree)
        for host in ("h1", "h3"):
            tapewalk(image_of(h1, "second"), "--volume", volume, "--host", host, "--compare", h1.tree)
    nothing_left(lab.hosts)
    eventually(lambda: set(states(h1, 8).values()) == {"done"})
