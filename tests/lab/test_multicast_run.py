"""What an operator sees of multicast runs: the table of a run, its repair over TCP, the check before it."""
import json
import os
import signal
import subprocess

from jobs import nothing_left
from lab import ZUL, eventually
from multicast import Site, difference, make_files, receivers_on
from trees import same, snapshot

JOB = 3


def prepared(make_lab, receivers, absent=(), settings="", lines=(), **files):
    site = Site(make_lab(receivers + 1))
    site.tree = site.sender.tree
    make_files(site.tree, 5, **files)
    site.sender.settings("multicast.patience = 2s\n" + settings)
    for host in site.lab.hosts:
        if host.name not in absent:
            host.start()
    site.define(JOB, [site.tree + "/"], lines=lines)
    return site


def table(site, *words, status=0):
    """The table of a run or of its repair, host by host."""
    done = site.sender.zul("multicast", *(words or ("run", JOB)), "--json", check=False, timeout=120)
    assert done.returncode == status, done.stdout + done.stderr
    found = json.loads(done.stdout)
    return found, {each["host"]: each for each in found["hosts"]}


def states(hosts):
    return {name: each["state"] for name, each in hosts.items()}


def equal_trees(site, *hosts):
    for host in hosts or site.receivers:
        assert difference(site.tree, site.arrived(host, site.tree)) == [], host.name


def senders_on(host):
    """Data sender and packer; the sessions of zul live on."""
    found = host.processes_named("ZULd: MREPL replicate")
    assert len(found) == 2
    return found


def nothing_temporary(site):
    """What a repair has defined is gone."""
    assert "multicast retry" not in site.sender.request("TAPE get repids", check=False)
    assert "multicast retry" not in site.sender.request("TAPE get group", check=False)
    assert site.sender.request(f"TAPE get trans {1900000000 + JOB}", check=False) == ""


def test_the_table_names_every_host_and_the_digests_are_equal(make_lab):
    site = prepared(make_lab, 4, count=300, big=(10 << 20,))
    site.lose(1)
    found, hosts = table(site)
    assert states(hosts) == {f"h{number}": "complete" for number in range(2, 6)}
    assert found["allComplete"] and found["unsent"] == 0 and len(found["digest"]) == 16
    assert {each["digest"] for each in hosts.values()} == {found["digest"]}
    assert {each["files"] for each in hosts.values()} == {found["files"]}
    equal_trees(site)
    shown = site.sender.zul("multicast", "result", JOB).stdout
    assert "4 hosts: 4 complete\n" in shown and "h5" in shown
    # Nothing to repair is no failure.
    assert "4 complete" in site.sender.zul("multicast", "run", JOB, "--retry-failed").stdout
    nothing_left(site.lab.hosts)


def test_a_receiver_killed_midway_is_named_and_repaired(make_lab):
    site = prepared(make_lab, 3, count=100, big=(40 << 20,), lines=[f"Speed: 12000"])
    victim, *others = site.receivers
    run = subprocess.Popen(site.sender.command(ZUL, "--home", site.sender.home, "multicast", "run", str(JOB)),
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    eventually(lambda: os.path.isdir(site.arrived(victim, site.tree)), 20, f"{victim.name} receives")
    victim.kill(*receivers_on(victim))
    output = run.communicate(timeout=60)[0]
    assert run.returncode == 1, output
    assert f"{victim.name}    incomplete" in output and "3 hosts: 2 complete, 1 incomplete" in output, output
    assert "--retry-failed" in output
    equal_trees(site, *others)
    found, hosts = table(site, "run", JOB, "--retry-failed")
    assert hosts[victim.name]["repaired"] and set(states(hosts).values()) == {"complete"}
    equal_trees(site)
    nothing_temporary(site)
    # It stays so: what was repaired is remembered.
    assert table(site, "result", JOB)[0]["allComplete"]
    nothing_left(site.lab.hosts)


def test_a_host_that_is_down_is_named_and_repaired_when_it_is_back(make_lab):
    site = prepared(make_lab, 2, absent=["h3"], count=60)
    down = site.lab[3]
    found, hosts = table(site, status=1)
    assert states(hosts) == {"h2": "complete", "h3": "unreachable"}
    assert "never joined" in hosts["h3"]["reason"]
    found, hosts = table(site, "run", JOB, "--retry-failed", status=1)
    assert states(hosts)["h3"] == "unreachable" and "over TCP" in hosts["h3"]["reason"]
    nothing_temporary(site)
    down.start()
    found, hosts = table(site, "result", JOB, status=1)
    assert states(hosts)["h3"] == "never joined" and hosts["h3"]["reason"] == "it has never received a run"
    table(site, "run", JOB, "--retry-failed")
    equal_trees(site)
    same(snapshot(site.tree), snapshot(site.arrived(down, site.tree)))


def test_only_the_missing_files_are_sent_again_under_the_names_of_the_job(make_lab):
    site = prepared(make_lab, 2, count=60, big=(12 << 20,))
    small, other = site.receivers
    site.define(JOB, [site.tree + "/"], lines=[f"Xform: {site.tree} /moved/tree", f"Exclude: {site.tree}/d3"])
    small.run("mount", "-t", "tmpfs", "-o", "size=8m", "none", site.prefix)
    found, hosts = table(site, status=1)
    assert states(hosts) == {"h2": "incomplete", "h3": "complete"}
    assert hosts["h2"]["missingKnown"] and [os.path.basename(each["name"]) for each in hosts["h2"]["missing"]] == ["big0"]
    assert "No space left" in hosts["h2"]["missing"][0]["error"]
    # No room yet: named again, and nothing is left behind.
    found, hosts = table(site, "run", JOB, "--retry-failed", status=1)
    assert states(hosts)["h2"] == "incomplete" and "over TCP" in hosts["h2"]["reason"]
    nothing_temporary(site)
    small.run("mount", "-o", "remount,size=64m", site.prefix)
    before = small.run("stat", "-c", "%z", site.prefix + "/moved/tree/d1/f1").stdout
    done = site.sender.zul("multicast", "run", JOB, "--retry-failed")
    assert "sending 1 file," in done.stderr and "2 hosts: 2 complete" in done.stdout, done.stdout + done.stderr
    assert small.run("stat", "-c", "%z", site.prefix + "/moved/tree/d1/f1").stdout == before, "it was not sent again"
    small.run("cmp", site.prefix + "/moved/tree/big0", os.path.join(site.tree, "big0"))
    assert not small.run("ls", site.prefix + "/moved/tree").stdout.count("d3\n")


def test_an_interrupted_repair_leaves_nothing_behind(make_lab):
    site = prepared(make_lab, 1, absent=["h2"], count=20)
    table(site, status=1)
    with open(os.path.join(site.tree, "late"), "wb") as late:
        late.truncate(300 << 20)
    site.lab[2].start()
    repair = subprocess.Popen(site.sender.command(ZUL, "--home", site.sender.home, "multicast", "run", str(JOB),
                                                  "--retry-failed"), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    record = site.sender.path("var", "tape", "jobids", f"replicate.{1900000000 + JOB}.stat.progress")
    eventually(lambda: os.path.exists(record), 20, "the replication has begun")
    os.kill(repair.pid, signal.SIGINT)
    output = repair.communicate(timeout=30)[0]
    assert repair.returncode == 1 and "interrupted" in output, output
    nothing_temporary(site)
    nothing_left(site.lab.hosts, 20)
    table(site, "run", JOB, "--retry-failed")
    equal_trees(site)


def test_a_long_repair_says_how_far_it_is(make_lab):
    site = prepared(make_lab, 1, absent=["h2"], count=3, big=(6 << 20,))
    table(site, status=1)
    site.lab[2].start()
    # At this speed it takes 5 s at least.
    site.sender.run("tc", "qdisc", "add", "dev", "eth0", "root", "tbf", "rate", "10mbit", "burst", "32k", "latency", "1s")
    done = site.sender.zul("multicast", "run", JOB, "--retry-failed", "--json")
    told = [line for line in done.stderr.splitlines() if line.startswith("over TCP: ")]
    assert told and told[0].endswith(", 0 of 1 host") and " MiB, " in told[0], done.stderr
    assert json.loads(done.stdout)["allComplete"]


def test_a_run_goes_on_when_its_watcher_is_interrupted_and_says_so(make_lab):
    site = prepared(make_lab, 1, count=5, big=(20 << 20,), lines=["Speed: 4000"])
    run = subprocess.Popen(site.sender.command(ZUL, "--home", site.sender.home, "multicast", "run", str(JOB)),
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    eventually(lambda: os.path.isdir(site.arrived(site.receivers[0], site.tree)), 20, "it receives")
    run.send_signal(signal.SIGINT)
    said = run.communicate(timeout=30)[1]
    assert run.returncode == -signal.SIGINT and f"zul multicast result {JOB}\n" in said, said
    result = ["multicast", "result", JOB]
    eventually(lambda: site.sender.zul(*result, check=False).returncode == 0, 60, "it has come to its end")
    equal_trees(site)


def test_the_doctor_finds_a_healthy_site_healthy(make_lab):
    site = prepared(make_lab, 3, count=10)
    done = site.sender.zul("multicast", "doctor", JOB)
    assert "BAD" not in done.stdout and done.stdout.count("  ok") >= 3 * 7
    assert "Sending through eth0, 10.77.0.1:" in done.stdout
    report = json.loads(site.sender.zul("multicast", "doctor", JOB, "--json").stdout)
    assert [each["host"] for each in report] == ["(sender)", "h2", "h3", "h4"] and all(each["ok"] for each in report)


def test_the_doctor_says_what_is_wrong_with_which_host(make_lab):
    site = prepared(make_lab, 5, absent=["h2"], count=10, big=(12 << 20,))
    down, deaf, classic, small, well = site.receivers
    deaf.run("nft", "-f", "-", input="table ip t {\n chain in {\n type filter hook input priority 0;\n"
             "ip daddr 239.240.240.240 drop\n }\n}\n")
    classic.settings("behaviour.receive = classic")
    small.run("mount", "-t", "tmpfs", "-o", "size=4m", "none", site.prefix)
    done = site.sender.zul("multicast", "doctor", JOB, "--json", check=False)
    assert done.returncode == 1, done.stdout + done.stderr
    bad = {each["host"]: {name: check["problem"] for name, check in each["checks"].items() if check["problem"]}
           for each in json.loads(done.stdout)}
    assert list(bad[down.name]) == ["agent"] and "unreachable" in bad[down.name]["agent"]
    assert list(bad[deaf.name]) == ["multicast"] and "does not arrive on eth0" in bad[deaf.name]["multicast"]
    assert bad[classic.name] == {"behaviour": "receive is classic there"}
    assert list(bad[small.name]) == ["space"] and "the job has 12." in bad[small.name]["space"]
    assert bad[well.name] == {} and bad["(sender)"] == {}
    text = site.sender.zul("multicast", "doctor", JOB, check=False).stdout
    assert f"{down.name}: agent: unreachable" in text and "zul up" in text


def test_a_sender_killed_midway_is_told_and_what_it_left_undone_repaired(make_lab):
    site = prepared(make_lab, 2, count=60, big=(40 << 20,), lines=["Speed: 12000"])
    for host in site.receivers:
        host.settings("multicast.idle-limit = 1s")
    run = subprocess.Popen(site.sender.command(ZUL, "--home", site.sender.home, "multicast", "run", str(JOB)),
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    for host in site.receivers:
        eventually(lambda: os.path.isdir(site.arrived(host, site.tree)), 20, f"{host.name} receives")
    site.sender.kill(*senders_on(site.sender))
    output = run.communicate(timeout=60)[0]
    assert run.returncode == 1 and "The sender did not send everything" in output, output
    assert "2 hosts: 2 incomplete" in output
    found, hosts = table(site, "run", JOB, "--retry-failed")
    assert set(states(hosts).values()) == {"complete"}
    for host in site.receivers:
        eventually(lambda: not receivers_on(host), 20, f"the receiver on {host.name} gives up")
    equal_trees(site)
