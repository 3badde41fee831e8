"""The tape host's own disk is full: mailboxes, lists, catalog, history and the image of the virtual tape all live there."""
import os

from jobs import CARTRIDGE, backup, define, nothing_left, progress
from lab import image_of, make_tree, tape_summary, tapewalk

# Kilobytes that are free when the job begins: from nothing at all to nearly enough.
FREE = (0, 4, 12, 24, 40, 100, 700, 1500, 2600, 3300)


def fill(host, free_kilobytes):
    """Fills the disk of a host but for so many kilobytes."""
    path = host.path("..", "ballast")
    if os.path.exists(path):
        os.unlink(path)
    with open(path, "wb") as ballast:
        room = os.statvfs(path)
        os.posix_fallocate(ballast.fileno(), 0, max(4096, room.f_bavail * room.f_bsize - free_kilobytes * 1024))


def test_a_full_disk_on_the_tape_host_costs_one_job(make_lab):
    lab = make_lab(2, small="64m")
    h1, h2 = lab.hosts
    make_tree(h2.tree, 1, files=20, big=(1 << 20, 300000))
    for host in lab.hosts:
        host.start()
    define(h1, lab.hosts, [h2.tree], size="1G")
    image = image_of(h1, CARTRIDGE)
    done = [backup(h1)["volume"]]
    for free in FREE:
        before = progress(h1).get("started"), progress(h1).get("pid")
        fill(h1, free)
        followed = h1.zul("request", "--follow", "TAPE backup 7 0", check=False, timeout=100)
        record = progress(h1)
        if (record.get("started"), record.get("pid")) == before:
            assert followed.returncode != 0, f"{free} KiB free: {followed.stdout}{followed.stderr}"
        elif followed.returncode == 0:
            done.append(record["volume"])
        elif followed.returncode != 4:  # gone without having been able to say why
            assert record["state"] == "failed" and record["error"], f"{free} KiB free: {record}"
        # A gatherer that was asked for and never came to its turn waits a minute.
        nothing_left(lab.hosts, but=("console of h1", "TAPE server", "port"))
        os.unlink(h1.path("..", "ballast"))
        done.append(backup(h1)["volume"])
    for number in done:
        for host in lab.hosts:
            tapewalk(image, "--allow-torn", "--volume", number, "--host", host.name, "--compare", h2.tree)
    on_tape = [volume["volume"] for volume in tape_summary(image)["volumes"]]
    assert on_tape == [2 * at + 1 for at in range(len(h1.request("TAPE get vols 0 0").splitlines()))]
    # The volume lists of what was reported as done are whole too.
    for number in done:
        lines = h1.read("var", "tape", "drive.0", "tape.0", f"vol.{number}").splitlines()
        headers = tapewalk(image, "--allow-torn", "--volume", number, "--json").stdout
        assert lines and headers


def test_a_full_disk_on_a_member_fails_that_member(make_lab):
    lab = make_lab(2, small="32m")
    small, tape_host = lab.hosts
    for number, host in enumerate(lab.hosts, 1):
        make_tree(host.tree, number, files=20)
        host.start()
    define(tape_host, lab.hosts, [tape_host.tree])
    backup(tape_host)
    fill(small, 0)
    record = backup(tape_host, fails=None)
    states = {host["host"]: host["state"] for host in record["hosts"]}
    assert states["h2"] == "done"
    if states["h1"] == "failed":
        assert record["state"] == "failed"
    else:
        # It had what it needed; then everything of it is there.
        tapewalk(image_of(tape_host, CARTRIDGE), "--volume", "3", "--host", "h1", "--compare", tape_host.tree)
    tapewalk(image_of(tape_host, CARTRIDGE), "--allow-torn", "--volume", "3", "--host", "h2", "--compare",
             tape_host.tree)
    os.unlink(small.path("..", "ballast"))
    backup(tape_host)
    nothing_left(lab.hosts)
