"""Requests on many hosts at once: a hundred of them, forty dead."""
import json
import time

import pytest

from lab import ZUL, eventually


def addresses(count, first=1):
    return [f"10.77.1.{number}" for number in range(first, first + count)]


@pytest.fixture
def crowd(make_lab):
    """h1 asks; h2 is many hosts: its agent answers at 60 addresses, 20 more swallow everything, 20 are not there."""
    lab = make_lab(2)
    h1, h2 = lab.hosts
    for host in lab.hosts:
        host.start()
    for address in addresses(80):
        h2.run("ip", "addr", "add", f"{address}/16", "dev", "eth0")
    h1.run("ip", "addr", "add", "10.77.200.1/16", "dev", "eth0")
    h2.run("nft", "-f", "-", input="table ip t {\n chain in {\n type filter hook input priority 0;\n"
           "ip daddr 10.77.1.61-10.77.1.80 drop\n }\n}\n")
    return lab


def fanout(host, hosts, *words):
    begun = time.monotonic()
    done = host.zul("fanout", "--json", hosts, *words, check=False)
    records = [json.loads(line) for line in done.stdout.splitlines()]
    return done, records[:-1], records[-1], time.monotonic() - begun


def test_of_a_hundred_hosts_forty_are_dead(crowd):
    h1 = crowd[1]
    # The dead stand between the living.
    everyone = sum((list(trio) for trio in zip(addresses(20), addresses(20, 61), addresses(20, 81))), []) + addresses(40, 21)
    done, records, summary, seconds = fanout(h1, ",".join(everyone), "--", "TAPE", "version")
    assert seconds < 100  # one after the other the dead alone take twice that
    assert done.returncode == 1
    results = {record["host"]: record for record in records}
    assert len(records) == 100 and set(results) == set(everyone)
    for address in addresses(60):
        assert results[address]["result"] == "ok" and results[address]["text"] == "0.34\n"
    assert {results[address]["result"] for address in addresses(20, 61)} == {"timeout"}
    assert {results[address]["result"] for address in addresses(20, 81)} <= {"unreachable", "timeout"}
    assert results["10.77.1.81"]["result"] == "unreachable", results["10.77.1.81"]
    assert summary["hosts"] == 100 and summary["ok"] == 60
    assert summary["timeout"] + summary["unreachable"] == 40
    # Nothing is left of the logins.
    eventually(lambda: h1.left_over() == [], 10, "the request's processes end")


def test_sixty_hosts_answer_within_seconds_and_in_words(crowd):
    h1 = crowd[1]
    done = h1.zul("fanout", "10.77.1.[1-60]", "--", "TAPE version")
    assert sorted(done.stdout.splitlines()) == sorted(f"{address}: 0.34" for address in addresses(60))
    assert done.stderr == "60 hosts: 60 ok\n"
    done, records, summary, seconds = fanout(h1, "10.77.1.[1-60]", "--", "HOST status json")
    assert seconds < 30 and summary["ok"] == 60
    assert {json.loads(record["text"])["host"] for record in records} == {"h2"}


def test_agents_keep_to_their_work_where_nothing_else_is_allowed(make_lab):
    lab = make_lab(2)
    # A new home lets the fan-out look; later lines win.
    lab[2].settings("fanout.nodes-may = nothing")
    for host in lab.hosts:
        host.start()
    done = lab[1].zul("fanout", "h2", "--", "TAPE version", check=False)
    assert done.returncode == 1
    assert done.stdout == "h2: ERROR:  Not permitted\n"
    assert "h2: failed: status 1\n1 host: 1 failed\n" in done.stderr and "fanout.nodes-may" in done.stderr


def test_a_tape_group_is_a_list_of_hosts(crowd):
    h1 = crowd[1]
    h1.request("TAPE add group 3:10.77.1.1,10.77.1.2:web")
    done = h1.zul("fanout", "@3", "--", "TAPE version")
    assert sorted(done.stdout.splitlines()) == ["10.77.1.1: 0.34", "10.77.1.2: 0.34"]
    done = h1.zul("fanout", "@4", "--", "TAPE version", check=False)
    assert done.returncode == 1 and "no tape group 4" in done.stderr


def test_multicast_jobs_are_stored_listed_and_removed(make_lab, tmp_path):
    h1 = make_lab(1)[1]
    h1.start()
    job = tmp_path / "job"
    job.write_text("# a comment\nDescription: web pages\nHost: h2\nRequest: /srv/www/\nFilePerms: 28672\nDirPerms: 28672\n")
    assert h1.zul("multicast", "job", "put", "5", job).stdout == "Job 5 stored\n"
    assert h1.zul("multicast", "job", "list").stdout == "5\n"
    assert h1.zul("multicast", "job", "list", "--json").stdout == "[5]\n"
    printed = h1.zul("multicast", "job", "get", "5").stdout
    assert "Description: web pages\n" in printed and "Request: /srv/www/\nHost: h2\n" in printed
    again = h1.run(ZUL, "--home", h1.home, "multicast", "job", "put", "6", "-", input=printed)
    assert again.stdout == "Job 6 stored\n"
    assert h1.zul("multicast", "job", "get", "6").stdout == printed
    assert h1.zul("multicast", "job", "remove", "5").stdout == "Job 5 removed\n"
    assert h1.zul("multicast", "job", "list").stdout == "6\n"
    for words in (["get", "5"], ["remove", "5"]):
        done = h1.zul("multicast", "job", *words, check=False)
        assert done.returncode == 1 and "ERROR:  86" in done.stderr


def test_a_job_file_with_mistakes_is_not_stored(make_lab, tmp_path):
    h1 = make_lab(1)[1]
    h1.start()
    job = tmp_path / "job"
    job.write_text("Hosts: h2\nRequest: /x/\nFilePerms: 0644\nSpeed: fast\nXform: /a\nProtocol: 7\n")
    done = h1.zul("multicast", "job", "put", "5", job, check=False)
    assert done.returncode == 2
    for words in ("line 1: begins with no keyword", "line 3: FilePerms: is read as decimal", "line 4: Speed: wants a",
                  "line 5: Xform: wants two", "line 6: Protocol: is 0 to 3", "there is no Host:"):
        assert words in done.stderr
    assert h1.zul("multicast", "job", "list").stdout == ""
