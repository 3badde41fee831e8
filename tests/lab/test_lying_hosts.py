"""Members that log in well and then do anything but what they should. The honest ones lose nothing by it."""
import subprocess
import sys

import liar
from jobs import CARTRIDGE, backup, define, nothing_left, progress, states
from lab import ROOT, image_of, make_tree, tape_summary, tapewalk

# What becomes of a host that plays each of them.
DONE = ("nothing_but_the_truth", "no_file_at_all", "names_that_are_no_names", "a_host_name_that_is_none", "no_host_name")
FAILED = ("another_magic", "another_name_in_the_second_header", "another_size_in_the_second_header",
          "a_package_out_of_turn", "a_size_beyond_all_files", "a_size_that_never_comes", "an_unknown_kind",
          "a_directory_with_contents",
          "a_name_without_an_end", "a_host_without_an_end", "nothing_but_noise", "a_connection_closed_at_once", "a_file_broken_off",
          "a_file_reset", "half_a_header", "the_name_of_another_host", "another_name_after_the_first_file", "refuses_the_list", *(lie.__name__ for lie in liar.AGENT_LIES))


def let_lie(host, lie):
    script = [sys.executable, f"{ROOT}/tests/lab/liar.py", host.path("etc", "ZULsecret"), lie]
    host.daemon = subprocess.Popen(host.command(*script), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert host.daemon.stdout.readline() == "ready\n", host.daemon.stderr.read()


def test_lying_hosts_fail_alone_and_spoil_nothing(make_lab):
    lies = DONE + FAILED
    lab = make_lab(2 + len(lies))
    honest, liars = (lab[1], lab[2 + len(lies)]), lab.hosts[1:-1]
    for number, host in enumerate(honest):
        make_tree(host.tree, number, files=30, big=(3 << 20,))
        host.start()
    for host, lie in zip(liars, lies):
        let_lie(host, lie)
    h1 = lab[1]
    define(h1, lab.hosts, [host.tree for host in honest])
    record = backup(h1, fails=True)
    expected = {host.name: "done" for host in honest}
    expected.update({host.name: "done" if lie in DONE else "failed" for host, lie in zip(liars, lies)})
    names = {host.name: lie for host, lie in zip(liars, lies)}
    wrong = {f"{name} {names.get(name)}": state for name, state in states(h1).items() if state != expected[name]}
    assert not wrong
    assert all(host["error"] for host in record["hosts"] if host["state"] == "failed")
    status = h1.read("var", "tape", "jobids", "7.status")
    for name, state in expected.items():
        assert (f"ERROR:  Backup of {name} failed: " in status) == (state == "failed"), name

    # Every package on the tape is whole and well formed but for the ends of what was broken off.
    image = image_of(h1, CARTRIDGE)
    tapewalk(image, "--allow-torn")
    for host in honest:
        tapewalk(image, "--allow-torn", "--host", host.name, "--compare", honest[0].tree, "--compare", honest[1].tree)
    torn = {problem.split(":")[1].strip() for problem in tape_summary(image)["volumes"][0]["problems"]}
    assert torn <= {name for name, state in expected.items() if state == "failed"}

    # One line a package: no name of a liar makes a second one.
    lines = h1.read("var", "tape", "drive.0", "tape.0", "vol.1").splitlines()
    packages = [line for line in tapewalk(image, "--headers", check=False).stdout.splitlines()
                if line.startswith("{'type'")]
    assert len(lines) == len(packages)
    assert not any(line.endswith(":/etc/shadow") for line in lines), "nothing in the name of another"
    assert all(line.count(":") >= 3 and line.split(":")[0].isdigit() for line in lines)
    nothing_left(honest)

    # And the next job goes its way.
    h1.request(f"TAPE mod group 1 1:{','.join(host.name for host in honest)}:honest")
    backup(h1)
    assert states(h1) == {host.name: "done" for host in honest} and progress(h1)["volume"] == 3
