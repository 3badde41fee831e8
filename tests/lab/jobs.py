"""Backup jobs as an operator defines and watches them; what the scenarios share."""
import json
import os

from lab import eventually

CARTRIDGE = "night1"


def define(tape_host, members, trees, job=7, size="256M"):
    """Drive, tape, group, backup list and job."""
    tape_host.zul("vtape", "make", CARTRIDGE, "--size", size)
    tape_host.zul("vtape", "unload", "--drive", "vtape0")
    tape_host.zul("vtape", "load", CARTRIDGE, "--drive", "vtape0")
    tape_host.request("TAPE add tape 0:0:0:0:night-one")
    tape_host.request(f"TAPE add group 1:{','.join(host.name for host in members)}:all hosts")
    tape_host.request(f"TAPE add jobids {job}:1:2592000:0:0:0:nightly")
    for tree in trees:
        tape_host.request(f"TAPE add backuplist {job} {tree}/")


def slow_tape(host, delay="2ms", what="write"):
    """Jobs that begin from now on wait this long for every block they write or read: there is time to meet them midway."""
    with open(host.path("var", "vtape", "vtape0", "faults"), "w") as out:
        out.write(f"{what} 1+ delay {delay}\n")


def fast_tape(host):
    os.unlink(host.path("var", "vtape", "vtape0", "faults"))


def follow(tape_host, job=7, check=True, timeout=120):
    # A record whose process is gone may be followed by a new one; no lab host takes long for that.
    return tape_host.zul("follow", str(job), "--wait", "2", check=check, timeout=timeout)


def progress(tape_host, job=7):
    """The progress record; empty before the job has one."""
    path = tape_host.path("var", "tape", "jobids", f"{job}.status.progress")
    if not os.path.exists(path):
        return {}
    with open(path, "rb") as record:
        return json.loads(record.read().decode())  # strictly text, whatever the names are


def states(tape_host, job=7):
    return {each["host"]: each["state"] for each in progress(tape_host, job).get("hosts", [])}


def backup(tape_host, job=7, level=0, fails=False, timeout=120):
    """Runs the job to its end, which is a failure, is none, or (None) may be either; the progress record."""
    # In one command: a record of the last run is not taken for this one's.
    done = tape_host.zul("request", "--follow", f"TAPE backup {job} {level}", check=False, timeout=timeout)
    record = progress(tape_host, job)
    assert done.returncode == (1 if record["state"] == "failed" else 0), f"{done.stdout}{done.stderr}{record}"
    assert fails in (None, done.returncode != 0), f"{done.stdout}{done.stderr}{record}"
    return record


def nothing_left(hosts, seconds=30, but=()):
    """No process but the daemon, no mailbox, data port, shared segment or held lock; "but" are words of what may be."""
    def all_clean():
        found = {host.name: [each for each in host.left_over() if not any(word in each for word in but)]
                 for host in hosts}
        nothing_left.last = {name: what for name, what in found.items() if what}
        return not nothing_left.last
    try:
        eventually(all_clean, seconds)
    except AssertionError:
        raise AssertionError(f"left over after {seconds} s: {nothing_left.last}") from None


# Logs in at an agent as a node and asks for one thing: jobs.py SECRETFILE HOST REQUEST
ASK_AGENT = """
import hashlib, hmac, secrets, socket, sys
key = bytes.fromhex(open(sys.argv[1]).read().strip())
console = socket.create_connection((sys.argv[2], 2345), 10)
reader = console.makefile("rb", buffering=0)
server, client = bytes.fromhex(reader.readline()[5:69].decode()), secrets.token_bytes(32)
proof = hmac.new(key, b"zul1-c\\0NODE\\0h1\\0" + server + client, hashlib.sha256).hexdigest()
console.sendall(f"NODE h1 {client.hex()} {proof}\\n".encode())
assert reader.readline().startswith(b"OK ")
console.sendall(sys.argv[3].encode() + b"\\n")
"""


def ask_agent(asking, asked, request):
    """A request from one host's agent to another's, whose answer nobody waits for."""
    asking.run("/usr/bin/python3", "-c", ASK_AGENT, asking.path("etc", "ZULsecret"), asked.address, request)
