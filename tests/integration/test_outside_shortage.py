"""Messages that only a shortage brings about: the built module is called, and a function of the system that it uses
fails at a chosen call. Text, result and what is left behind are judged, and that the next call works."""
import os
import subprocess
import time

import pytest

from home import eventually
from outside import Buffer, InSegment, Memory
from outsidehosts import agent, fresh_network, pair  # noqa: F401 (fixtures)
from outsidehosts import (CHILD_FLAGS, CONSOLE, CONSUMED, DATA, ITEMS, PARENT_FLAGS, PRODUCED, Gatherer, Segment, ask,
                          framed, listen, take)
from outsidemulticast import logs, put_job  # noqa: F401 (logs is a fixture)
from outsidetapes import drive  # noqa: F401 (a fixture)
from outsidetapes import header, tape_files, volume_record
from test_outside_fanout import agents  # noqa: F401 (a fixture)
from test_outside_fanout import NAMED, START, hosts_named, note
from test_outside_job import job  # noqa: F401 (a fixture)
from test_outside_multicast import packed

NO_MEMORY = 12
BEHAVIOURS = ["classic", "sound"]


def short(function, call=1, error=NO_MEMORY):
    return ["shortage", function, call, error]


def plenty(function):
    return ["shortage", function, 0, 0]


@pytest.fixture(params=BEHAVIOURS)
def site(outside, request):
    """A home in which one of the two behaviours holds."""
    return behave(outside, request.param)


def behave(host, behaviour, more=""):
    host.behaviour = behaviour
    host.write("etc/ZULsite", f"behaviour = {behaviour}\n{more}")
    os.chmod(host.path("etc/ZULsite"), 0o600)
    return host


def descriptors(said):
    """The open descriptors, each time that the script asked for the state of its process."""
    return [line.split(" open=")[1].split(" ")[0] for line in said.results if line.startswith("state ")]


def results(said):
    return [int(line.split()[1]) for line in said.results if not line.startswith("state ")]


def assert_nothing_is_left_open(said):
    before, *later = descriptors(said)
    assert later and all(each == before for each in later)


# --- the configuration stores ---

LONG = "m" * 2000
GROUPS = ("var/tape/jobids/group", ["int modTapeGroup", "4", "4:x:new"], 8066, "Modifing group: new\n",
          "# groups\n3:a,b:web\n4:c:db\n", "# groups\n3:a,b:web\n4:x:new\n")
DRIVES = ("etc/tapedevs", ["int modDrive", "4", "4:lto:/dev/y:a:b"], 8211, "Modified tape:  last\n",
          "# drives\n3:first:/dev/x:a:b:\n4:last:/dev/z:a:b:old\n", "# drives\n3:first:/dev/x:a:b:\n4:lto:/dev/y:a:b:old\n")


@pytest.mark.parametrize("store", [GROUPS, DRIVES], ids=["groups", "drives"])
@pytest.mark.parametrize("call, lines", [(1, 0), (2, 1), (3, 2)], ids=["the buffer", "a line", "the last line"])
def test_a_table_that_cannot_be_rewritten_for_want_of_memory(site, store, call, lines):
    name, change, number, done, before, after = store
    site.write(name, before)
    said = site.run([["state"], short("memory", call), change, ["state"]])
    assert results(said) == [-1]
    assert (said.err, said.hostlog) == (f"ERROR:  {number}  Out of memory!\n", "")
    assert_nothing_is_left_open(said)
    # The former table is in the copy; a classic one itself holds what was written of it until then.
    assert site.text(name + ".BAK") == before and not site.exists(name + ".tmp")
    written = "".join(before.splitlines(keepends=True)[:lines])
    assert site.text(name) == (written if site.behaviour == "classic" else before)
    site.write(name, site.text(name + ".BAK"))
    said = site.run([change])
    assert (said.result, said.err, site.text(name)) == (0, done, after)


@pytest.mark.parametrize("store", [GROUPS, DRIVES], ids=["groups", "drives"])
@pytest.mark.parametrize("call", [4, 5], ids=["its room", "its copy"])
def test_a_sound_table_with_a_long_line_is_changed_whole_or_not_at_all(outside, store, call):
    name, change, number, done, before, after = store
    behave(outside, "sound")
    more = f"9:{LONG}:x:y:z:\n" if store is DRIVES else f"9:{LONG}:x\n"
    outside.write(name, before + more)
    said = outside.run([["state"], short("memory", call), change, ["state"], plenty("memory"), change])
    assert results(said) == [-1, 0]
    assert said.err.startswith(f"ERROR:  {number}  Out of memory!\n")
    assert_nothing_is_left_open(said)
    assert outside.text(name + ".BAK") == before + more and not outside.exists(name + ".tmp")
    assert outside.text(name) == after + more


def test_the_members_of_a_group_need_memory(site):
    site.write("var/tape/jobids/group", "3:a,b:web\n")
    hosts = site.write("tmp/hosts", bytes(4096))
    said = site.run([["state"], short("memory"), ["int getGroupHosts", 3, Buffer(hosts)], ["state"]])
    assert (results(said), said.err, said.hostlog) == ([-1], "ERROR:  8070  Out of memory!\n", "")
    assert_nothing_is_left_open(said)
    assert site.read("tmp/hosts") == bytes(4096)
    said = site.run([short("memory"), ["int getGroupHosts", 3, Buffer(hosts)], ["int getGroupHosts", 3, Buffer(hosts)]])
    assert results(said) == [-1, 0]
    assert site.read("tmp/hosts").rstrip(b"\0") == b"a,b"


def test_the_groups_of_a_host_need_memory(site):
    site.write("var/tape/jobids/group", "3:a,b:web\n4:b:db\n")
    groups = site.write("tmp/groups", bytes(128))
    said = site.run([["state"], short("memory"), ["int getHostGrps", "b", Buffer(groups)], ["state"],
                     ["int getHostGrps", "b", Buffer(groups)], ["state"]])
    assert results(said) == [-1, 2]
    assert said.err == said.hostlog == "ERROR:  8073  Out of memory!\n"
    assert_nothing_is_left_open(said)
    assert site.read("tmp/groups")[:8] == b"\3\0\0\0\4\0\0\0"


@pytest.mark.parametrize("name, content, listing", [
    ("var/tape/jobids/group", "3:a:web\n", ["int getTapeGroup"]),
    ("var/tape/jobids/7", "/etc/\n", ["int getBackupList", "7"]),
    ("var/tape/drive.0/tape.0/vol.1", "0:h:0:/etc/passwd\n", ["int getVolCat", "0 0 1 h /etc"]),
], ids=["groups", "backup list", "volume"])
def test_a_listing_without_memory_is_no_empty_one(site, name, content, listing):
    site.write(name, content)
    said = site.run([["state"], short("memory"), listing, ["state"], listing])
    assert results(said) == [-1, 0]
    assert_nothing_is_left_open(said)
    assert said.err.startswith("ERROR:  Out of memory!\n") and len(said.err.splitlines()) == 2


# --- catalogs ---

def test_a_catalog_needs_memory_for_its_texts(site):
    folder = site.path("var/tape/drive.0/tape.0")
    catalog = volume_record()
    site.write("var/tape/drive.0/tape.0/catalog", catalog)
    text = "ERROR:  8079  Cannot allocate a buffer big enough!\n"
    said = site.run([["memory", "records", 128 * 9224], ["state"], short("memory"),
                     ["int getTapeCatlg", folder, Memory("records")], ["state"],
                     ["int getTapeCatlg", folder, Memory("records")], ["int getTapeCatlg", None, None], ["state"]])
    assert (results(said), said.err) == ([-2, 1, 0], text)
    assert_nothing_is_left_open(said)
    # The listings of operators come to the same end, with their own message behind it.
    for call in (1, 2):
        said = site.run([["state"], short("memory", call), ["int getTapeVols", "0 0"], ["state"], plenty("memory"),
                         ["int getTapeVols", "0 0"]])
        assert results(said) == [-2, 0]
        assert (said.err[:len(text)], said.out) == (text, f"Cannot read tape catalogs: {folder}\n")
        assert_nothing_is_left_open(said)


# --- multicast jobs ---

@pytest.mark.parametrize("call", [1, 2, 3, 4], ids=["the buffer", "a node", "a path", "the room for a long path"])
def test_a_list_of_paths_is_read_whole_or_fails(outside, call):
    path = outside.write("tmp/paths", "/a\n" + "/b" * 1000 + "\n")
    read = ["int readFileList", path, Memory("list")]
    said = outside.run([["memory", "list", 16], ["state"], short("memory", call), read, ["state"], plenty("memory"),
                        ["memory", "list", 16], read])
    assert results(said) == [-2, 0]
    assert_nothing_is_left_open(said)


@pytest.mark.parametrize("call", [1, 4], ids=["the buffer", "an exclude"])
def test_a_job_is_not_taken_without_its_excludes(site, call):
    put_job(site, 5, "Host: 127.0.0.1\nExclude: /etc/keys\nRequest: /etc/\n")
    read = ["int mreplgetjob", 5]
    said = site.run([["state"], short("memory", call), read, ["state"], read])
    # A line that could not be kept counts as one that makes no sense, and classic goes on without it.
    taken = site.behaviour == "classic" and call == 4
    assert results(said) == [0 if taken else -1, 0]
    assert ("ERROR:  8602 Cannot open multicast replication job: 5\n" in said.err) is not taken
    assert_nothing_is_left_open(said)


@pytest.mark.parametrize("call", [1, 2], ids=["from", "to"])
def test_without_memory_for_its_transforms_a_job_packs_nothing(site, call):
    path = site.write("tmp/file", "x")
    job = f"Request: {path}\nXform: {path} /moved\n"
    said, _, slots = packed(site, job, before=[short("memory@setXformDataStruct", call)])
    assert said.results[3] == "dataPacker -1" and len(slots) <= 1
    assert said.hostlog == "ERROR:  Out of memory: the transforms of the job are not known\n"
    said, _, slots = packed(site, job)
    assert said.results[3] == "dataPacker 0" and any(b"/moved\0" in slot for slot in slots)


@pytest.mark.parametrize("call", [1, 2], ids=["the block", "the ring"])
@pytest.mark.parametrize("function", ["repServStart", "repClientStart"])
def test_a_run_that_cannot_attach_its_area_leaves_none_behind(site, logs, function, call):
    put_job(site, 5, "Request: /etc/hosts\n")
    said = site.run([["memory", "job", 144], ["int readMreplJobData", Memory("job"), 5], short("shmat", call),
                     [f"int {function}", *([Memory("job")] if function == "repServStart" else [])]], inside=logs.words)
    assert said.result == -1
    failed = "ERROR: Failed to allocate shared memory buffer.  errno = 12\n"
    name = "repServ.log" if function == "repServStart" else "repClnt.log"
    log = logs.read(name) if site.behaviour == "classic" else site.text("var/" + name)
    assert failed in (said.err if function == "repServStart" else log)
    assert logs.areas() == []


# --- the fan-out ---

@pytest.mark.parametrize("call, number", [(1, 7012), (2, 7012), (3, 7013)])
def test_a_fan_out_without_memory_asks_nobody(site, agents, call, number):
    agents.at("127.0.1.1", "TRANSFER OK\n")
    monk = ["int minimonk", Memory("hosts"), Memory("commands"), -1]
    lines = [*hosts_named(site, ["127.0.1.1"]), ["texts", "commands", START], ["state"], short("memory", call), monk,
             ["state"]]
    said = site.run(lines)
    assert (results(said), said.err) == ([0, 1], f"ERROR:  {number}  Out of memory!\n")
    assert_nothing_is_left_open(said)
    assert agents.heard == [] and not site.exists("tmp/mrepl.jobresult.-1")
    said = site.run([*lines, plenty("memory"), monk])
    assert results(said) == [0, 1, 0]
    assert said.err.endswith(NAMED * 2 + note(1, 1))
    assert agents.heard == [START]


# --- the gatherer ---

@pytest.mark.parametrize("function, text", [("socket", "WARNING:  3002  Unable to open socket!\n"),
                                            ("listen", "WARNING:  3004  Listen Failed!\n")])
def test_a_gatherer_that_cannot_listen_ends(site, function, text):
    said = site.run([short(function, 1, 24), ["int mkServerSD"], ["state"]])
    assert (said.status, said.results, said.log, said.err) == (255, [], text, "")
    site.write("var/tape/jobids/7.req", "/etc/passwd\n")
    said = site.run([short(function, 1, 24), ["int tapetool", "server 7 0"]])
    assert (said.status, said.results) == (255, [])
    assert site.text("var/tape/jobids/tapeserv.stat") == "INFO:  Building Backup list\n" + text
    # Its port is free: the next one has it.
    assert site.call("int mkServerSD").result >= 0


def test_without_a_process_for_the_list_there_is_no_gatherer(site):
    site.write("var/tape/jobids/7.req", "/etc/passwd\n")
    text = "ERROR:  3033  Unable to start backup list generator.  Cannot fork process\n"
    said = site.run([["state"], short("fork", 1, 11), ["int mkFlist", 7, 0], ["state"], ["int mkFlist", 7, 0]])
    assert (results(said), said.err) == ([-1, 0], text)
    assert_nothing_is_left_open(said)
    eventually(lambda: site.exists("var/tape/jobids/request.7"))
    os.unlink(site.path("var/tape/jobids/request.7"))
    said = site.run([short("fork", 1, 11), ["int server", 7, 0]])
    assert (said.result, said.err) == (-1, text)
    assert said.log == "INFO:  Building Backup list\nWARNING:  3000  Cannot make the request list!\n"
    assert not site.exists("var/tape/jobids/request.7")


def test_a_file_that_cannot_be_described_ends_the_dialogue(site, pair):
    path = site.write("data/x", "12345")
    fd = pair[1].fileno()
    listed = site.write("tmp/list", f"0 {path}\n")
    nothing = Buffer(site.write("tmp/none", bytes(16)))
    started = site.start([["state"], short("uname", 1, 14), ["int servHandshak", 1, fd, listed, nothing], ["state"],
                          ["timer"]], fds=(fd,))
    pair[1].close()
    pair[0].sendall(b"Next\n")
    assert pair[0].recv(1) == b""
    said = site.finish(started)
    assert said.results[1] == "servHandshak -3" and said.results[-1] == "timer 0 0"
    assert said.log == f"WARNING:  3010  Can't stat file: {path}.  returned -1.  Skipping.\n"
    # The connection belongs to the dialogue and is closed; everything else is as it was.
    before, after = descriptors(said)
    assert after == before.replace(f"{fd}:2,", "")


def test_a_lost_list_generator_is_said_and_under_sound_ends_the_request(site):
    site.write("var/tape/jobids/7.req", "/etc/passwd\n")
    text = "ERROR:  3035 Unable to start backup list generator.  Cannot fork process\n"
    said = site.run([["state"], short("fork", 2, 11), ["int mkFlist", 7, 0], ["state"], plenty("fork"),
                     ["int mkFlist", 7, 0]])
    assert (results(said), said.err) == ([0 if site.behaviour == "classic" else -1, 0], text)
    assert_nothing_is_left_open(said)
    if site.behaviour == "sound":
        said = site.run([short("fork", 2, 11), ["int server", 7, 0]])
        assert (said.result, said.err) == (-1, text)
        assert said.log == "INFO:  Building Backup list\nWARNING:  3000  Cannot make the request list!\n"


def test_a_file_that_cannot_be_described_is_not_sent(site, pair):
    path = site.write("data/x", "12345")
    fd = pair[1].fileno()
    send = ["long sendFile", 0, fd, path, Buffer(site.write("tmp/none", bytes(16)))]
    said = site.run([["state"], short("uname", 1, 14), send, ["state"], send, ["state"]], fds=(fd,))
    assert (results(said), said.log) == ([-3, 525], f"WARNING:  3015  File {path} not found, skipping\n")
    assert_nothing_is_left_open(said)
    assert take(pair[0], 525)[520:] == b"12345"


def test_a_dialogue_goes_on_behind_a_file_that_cannot_be_described_again(outside, pair):
    """Where the contents are not fixed with the first look, "Get" has a second one."""
    behave(outside, "classic")
    path, other = outside.write("data/x", "12345"), outside.write("data/y", "123")
    listed = outside.write("tmp/list", f"0 {path}\n1 {other}\n")
    fd = pair[1].fileno()
    started = outside.start([short("uname", 2, 14), ["int servHandshak", 1, fd, listed,
                                                     Buffer(outside.write("tmp/none", bytes(16)))]], fds=(fd,))
    pair[1].close()
    assert ask(pair[0], b"Next\n")[284:288] == b"\0\0\0\5"
    assert ask(pair[0], b"Get\nNext\n")[7:7 + len(other)] == other.encode()
    pair[0].sendall(b"Quit\n")
    said = outside.finish(started)
    assert (said.result, said.log) == (0, f"WARNING:  3015  File {path} not found, skipping\n")


def test_a_link_that_cannot_be_read_any_more_travels_as_missing(site, pair):
    path = site.path("data")
    os.symlink("/tmp", path)
    fd = pair[1].fileno()
    send = ["long sendFile", 0, fd, path, Buffer(site.write("tmp/none", bytes(16)))]
    said = site.run([["state"], short("readlink", 2, 2), send, ["state"], send], fds=(fd,))
    assert (results(said), said.log) == ([520, 525], "WARNING:  3024  Symlink error 2\n")
    assert_nothing_is_left_open(said)
    raw = take(pair[0], 1045)
    assert (raw[6], raw[284:288]) == (5, bytes(4))
    assert (raw[526], raw[804:808], raw[1040:]) == (2, b"\0\0\0\5", b"/tmp\0")


# --- connections ---

def test_without_a_handler_for_the_alarm_no_agent_is_asked(site):
    text = "ERROR:  3209  Failed to install signal handler.\n"
    with listen(CONSOLE):
        said = site.run([["state"], short("sigaction", 1, 22), ["int mkZULagentSD", "127.0.0.1"], ["alarm"], ["state"],
                         ["int mkZULagentSD", "127.0.0.1"]])
    assert said.results[1:3] == ["mkZULagentSD -1", "alarm 0"]
    assert (said.result >= 0, said.err) == (True, text)
    assert_nothing_is_left_open(said)


def test_hosts_that_are_down_cost_a_sound_job_no_descriptors(outside):
    behave(outside, "sound")
    said = outside.run([["state"], ["int mkZULagentSD", "127.0.0.1"], ["int mkZULagentSD", "no.such.host.invalid"],
                        ["state"]])
    assert results(said) == [-1, -1]
    assert_nothing_is_left_open(said)


def test_without_a_socket_there_is_no_way_to_the_gatherer(site):
    log = "Server port: 2346, Server name 127.0.0.1\nERROR:  3206  Unable to open socket!\n"
    with listen(DATA):
        said = site.run([["state"], short("socket", 1, 24), ["int mkClientSD", "127.0.0.1"], ["state"],
                         ["int mkClientSD", "127.0.0.1"]])
    assert results(said)[0] == -1 and said.result >= 0
    assert said.log.startswith(log + "Server port: ") and said.log.endswith(f"Socket Descriptor = {said.result}\n")
    assert_nothing_is_left_open(said)


# --- the gathering child ---

@pytest.fixture
def slot(site):
    """The first slot of a segment; its host is this one and may be gathered."""
    behave(site, site.behaviour, "pause.gatherer-start = 50ms\npause.parent-poll = 10ms\n")
    segment = Segment()
    segment.view[8:18] = b"127.0.0.1\0"
    segment.set(PARENT_FLAGS, 1)
    site.write("tmp/ipc.127.0.0.1", "")
    return segment


def start_child(site, slot, *before):
    return site.start([["set", "tpshmid", slot.id], *before, ["int goBackupChld", 0, "127.0.0.1", 7, 0], ["state"]])


def log_of_child(site):
    return site.text("var/tape/jobids/127.0.0.1.stat")


def test_a_child_without_a_socket_gives_its_host_up(site, agent, slot):
    with listen(DATA):
        said = site.finish(start_child(site, slot, short("socket", 2, 24)))
    assert (said.status, said.results, slot.get(CHILD_FLAGS)) == (255, [], 2)
    assert log_of_child(site).endswith("ERROR:  3206  Unable to open socket!\n"
                                       "ERROR:  3204  Unable to open socket to client\n")


def test_a_dialogue_without_a_handler_for_the_alarm_does_not_begin(site, pair, slot):
    fd = pair[1].fileno()
    pair[0].sendall(header(magic=b"St0P"))
    gather = ["int clientHandshak", fd, InSegment(0)]
    said = site.run([["set", "tpshmid", slot.id], ["state"], short("sigaction", 1, 22), gather, ["state"], ["timer"],
                     gather], fds=(fd,))
    assert said.results[1] == "clientHandshak -1" and said.results[3:] == ["timer 0 0", "clientHandshak 0"]
    assert said.log.startswith("ERROR:  3209  Failed to install signal handler.\nINFO:  Sending:  Next\n")
    assert_nothing_is_left_open(said)
    assert take(pair[0], 5) == b"Next\n"


class SlowGatherer(Gatherer):
    """Serves one file, its contents more than a second behind its header: the timer is set once in a second."""

    def serve(self):
        sd, _ = self.listener.accept()
        with sd, sd.makefile("rb") as lines:
            for line in lines:
                self.heard.append(line)
                if line == b"Get\n":
                    sd.sendall(self.files[0][:520])
                    time.sleep(1.2)
                    sd.sendall(self.files[0][520:])
                elif self.heard.count(b"Next\n") == 1:
                    sd.sendall(self.files[0][:520])


@pytest.mark.parametrize("size, number", [(1, 3220), (0, 3222)], ids=["between pieces", "between packages"])
def test_a_timer_that_cannot_be_set_again_ends_the_dialogue(site, agent, slot, size, number):
    gatherer = SlowGatherer([framed(b"/f", b"x" * size)])
    started = start_child(site, slot, short("setitimer", 2, 22))
    if size == 0:
        eventually(lambda: slot.get(PRODUCED) == 1, 20, "a package")
        time.sleep(1.2)
        slot.set(CONSUMED, 1)
    said = site.finish(started)
    gatherer.close()
    assert (said.status, said.results, slot.get(CHILD_FLAGS)) == (255, [], 16)
    assert log_of_child(site).endswith(f"ERROR:  {number}  Failed to reset timer\n"
                                       "ERROR:  3205  Client handshaking error -1, errno = 22\n")
    assert (slot.get(PRODUCED), slot.get(ITEMS)) == (1 if size == 0 else 0, 0)
    assert gatherer.heard.count(b"Get\n") == 1


def test_a_dialogue_without_its_timer_ends_before_it_asks(site, pair, slot):
    fd = pair[1].fileno()
    said = site.run([["set", "tpshmid", slot.id], short("setitimer", 1, 22), ["int clientHandshak", fd, InSegment(0)],
                     ["timer"]], fds=(fd,))
    assert (said.results, said.log) == (["clientHandshak -1", "timer 0 0"], "")


# --- the tape ---

def test_a_catalog_copy_without_memory_for_its_texts_ends_behind_its_record(drive):
    memory = Buffer(drive.write("tmp/record", volume_record()[:8200] + bytes(1024)))
    copy = ["int writeCat2Tape", "/dev/vtape/d", memory]
    said = drive.run([["state"], short("memory@writeCat2Tape"), copy, ["state"]])
    assert (results(said), said.log) == ([-3], "ERROR:  8324  Failed to allocate a write buffer.\n")
    assert_nothing_is_left_open(said)
    assert tape_files(drive.image) == [[volume_record()[:8200]]]
    assert drive.run([["int mtRewind", "/dev/vtape/d"], copy]).result == 0
    assert tape_files(drive.image)[0] == [volume_record()[:8200]] + [bytes(4096)] * 8


def run_short(job, shortage):
    """goBackup, with the segments that its process has left behind; these are removed."""
    started = job.start([shortage, ["int goBackup", "7", "0"]])
    said = job.finish(started)
    with open("/proc/sysvipc/shm") as listed:
        made = [line.split()[1] for line in listed if line.split()[4] == str(started[0].pid)]
    for each in made:
        subprocess.run(["ipcrm", "-m", each], check=True)
    said.segments = len(made)
    return said


def test_a_job_that_cannot_write_its_catalog_copy_ends(job, agent):
    said = run_short(job, short("memory@writeCat2Tape"))
    assert said.result == -1
    assert "ERROR:  8324  Failed to allocate a write buffer.\n" in said.log
    catalog, volume = "var/tape/drive.0/tape.0/catalog", "var/tape/drive.0/tape.0/vol.1"
    if job.behaviour == "classic":
        # It stays in the catalog.
        assert job.read(catalog)[:4] == volume_record()[:4] and job.read(volume) == b""
        return
    assert said.log.endswith("ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n")
    assert job.read(catalog) == b"" and not job.exists(volume)
    assert_next_job_is_complete(job)


def test_a_job_that_cannot_have_its_shared_memory_takes_its_volume_back(job, agent):
    said = run_short(job, short("shmat@tpgetShMemPtr"))
    assert said.result == -999
    assert said.log.splitlines()[-3:] == [
        "ERROR:  8328  Function shmat failed!  Unable to get pointer to shared memory.  errno = 12 ",
        "ERROR:  8312  Fatal error.  Failed to allocate shared memory buffer.  errno = 12",
        "ERROR:  8330  Backup failed, attempting to revert to previous catalog."]
    assert job.read("var/tape/drive.0/tape.0/catalog") == b"" and not job.exists("var/tape/drive.0/tape.0/vol.1")
    # Segments outlive every process, and classic jobs never remove theirs.
    assert said.segments == (1 if job.behaviour == "classic" else 0)
    assert_next_job_is_complete(job)


def assert_next_job_is_complete(job):
    gatherer = Gatherer([framed(b"/etc/a", b"x")])
    said = run_short(job, plenty("memory"))
    gatherer.close()
    assert said.result == 0 and "Writing to tape number: 0\n" in said.log
    assert len(tape_files(job.image)) == 3
