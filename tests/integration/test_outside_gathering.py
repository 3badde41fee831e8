"""The gatherer's dialogue and the gathering child, called through the built module's exported functions. The other side
is played here: by one end of a socket pair, or on the fixed ports of the run's own network."""
import os
import socket
import struct
import threading
import time

import pytest

from home import eventually
from outside import Buffer, Reading
from outsidehosts import agent, fresh_network, pair  # noqa: F401 (fixtures)
from outsidehosts import (CHILD_FLAGS, CONSUMED, DATA, ITEMS, KILOBYTES, MIB, PARENT_FLAGS, PRODUCED, SEQUENCE,
                          Gatherer, Segment, ask, assert_heard, connect, framed, listen, read_all, take)
from outsidetapes import NODE, header


# --- the gatherer ---

def start_dialogue(outside, pair, names, policy=None):
    """servHandshak on a connection it is given, as a replication uses it."""
    listed = outside.write("tmp/list", "".join(f"{at} {name}\n" for at, name in enumerate(names)))
    fd = pair[1].fileno()
    lines = [["int permctrl", 1, Buffer(policy)]] if policy else []
    nothing = Buffer(outside.write("tmp/none", bytes(16)))
    started = outside.start(lines + [["int servHandshak", 1, fd, listed, nothing]], fds=(fd,))
    pair[1].close()
    return started


def test_files_are_offered_and_sent(outside, pair):
    contents = {size: bytes(at % 251 for at in range(1000)) * (size // 1000 + 1) for size in
                (0, 1, MIB - 1, MIB, 2 * MIB)}
    files = []
    for size in contents:
        contents[size] = contents[size][:size]
        files.append(outside.write(f"data/{size}", contents[size]))
    os.symlink("/tmp", outside.path("data/link"))
    files += [outside.path("data"), outside.path("data/link"), outside.path("data/gone")]
    started = start_dialogue(outside, pair, files)
    ours = pair[0]
    for size in contents:
        first = ask(ours, b"Nextfile\n")
        path = outside.path(f"data/{size}").encode()
        status = os.stat(path)
        field = {"mtime": int(status.st_mtime), "atime": int(status.st_atime), "mode": status.st_mode}
        assert first == header(path, size, host=NODE.encode(), **field)
        assert ask(ours, b"Get\n", size + (size // MIB + 1) * 520) == framed(path, contents[size], **field)
    assert ask(ours, b"Next\n")[6] == 1
    assert ask(ours, b"Get\n")[284:288] == bytes(4)
    assert ask(ours, b"Next\n")[6] == 2
    link = ask(ours, b"Get\n", 525)
    assert link[284:288] == b"\0\0\0\5" and link[520:] == b"/tmp\0"
    assert ask(ours, b"Next\n")[6] == 5
    missing = ask(ours, b"Get\n")
    assert missing[6] == 5 and missing[264:276] == struct.pack(">3I", 65535, 0xfffffffe, 0o600)
    assert ask(ours, b"Next\n")[:4] == b"St0P"
    assert ours.recv(1) == b""
    said = outside.finish(started)
    gone = outside.path("data/gone")
    assert said.result == 0
    assert said.log.endswith(f"WARNING:  3030  File {gone} appears to have been deleted befor backup, skipping.\n"
                             "Nothing more to backup/replicate\n")


def test_unknown_commands_are_said_and_quit_shows_the_last_header(outside, pair):
    path = outside.write("data/x", "12345")
    started = start_dialogue(outside, pair, [path])
    ours = pair[0]
    ours.sendall(b"next\nNext\n")
    assert take(ours, 520)[7:7 + len(path)] == path.encode()
    ours.sendall(b"Quit\n")
    assert ours.recv(1) == b""
    said = outside.finish(started)
    assert (said.result, said.log) == (0, "WARNING:  3014  Command error, continuing anyway got: next\n \n")
    assert said.out.startswith(f"Filename = {path}\nFromhost = {NODE}\nMagic = 5a754c21\n")


def test_a_replications_policy_holds_for_every_header(outside, pair):
    path = outside.write("data/x", "12345")
    job = outside.write("tmp/job", struct.pack("<9i", 0, 5, 0, 0, 10, 20, 0o700, 0o640, 0) + bytes(544))
    started = start_dialogue(outside, pair, [path], job)
    for line in (b"Next\n", b"Get\n"):
        raw = ask(pair[0], line)
        assert struct.unpack(">3I", raw[264:276]) == (10, 20, 0o640)
    assert take(pair[0], 5) == b"12345"
    pair[0].sendall(b"Quit\n")
    assert outside.finish(started).result == 0


def test_a_missing_request_list_is_named(outside, pair):
    fd = pair[1].fileno()
    path = outside.path("none")
    said = outside.call("int servHandshak", 1, fd, path, Buffer(outside.write("tmp/none", bytes(16))), fds=(fd,))
    assert (said.result, said.log) == (-1, f"WARNING: 3006  Can't open request list: {path}\n")


def test_an_unreadable_file_is_not_sent(outside, pair):
    path = outside.write("data/x", "12345")
    os.chmod(path, 0)
    fd = pair[1].fileno()
    # Root may read everything, so the call is made by nobody.
    for folder in (outside.folder, outside.home, outside.path("data")):
        os.chmod(folder, 0o755)
    said = outside.call("long sendFile", 0, fd, path, Buffer(outside.write("tmp/none", bytes(16))), fds=(fd,),
                        inside=["setpriv", "--inh-caps=-all", "--bounding-set=-all"])
    assert (said.result, said.log) == (-1, f"WARNING:  3017  Open failed: {path}, skipping.\n")
    pair[1].close()
    assert pair[0].recv(1) == b""


@pytest.mark.parametrize("kind, text", [("file", "WARNING:  3018  "), ("folder", "WARNING  3023  "),
                                        ("link", "WARNING:  3026  "), ("pipe", "WARNING:  3031  ")])
def test_a_peer_that_is_gone_has_a_message_for_every_kind(outside, pair, kind, text):
    path = outside.path("data")
    os.mkdir(path)
    if kind != "folder":
        path = outside.path("data/x")
        {"file": lambda: outside.write("data/x", ""), "link": lambda: os.symlink("/tmp", path),
         "pipe": lambda: os.mkfifo(path)}[kind]()
    fd = pair[1].fileno()
    pair[0].close()
    said = outside.call("long sendFile", 0, fd, path, Buffer(outside.write("tmp/none", bytes(16))), fds=(fd,))
    assert (said.result, said.log.splitlines()[-1]) == (
        -2, f"{text}Write to tape server failed on {path}, skipping.")


def test_entries_of_a_request_list(outside):
    path = outside.write("tmp/list", "noblank\n12 /etc/passwd\r\n13 /a b\n")
    file = Reading(path)
    assert outside.call("text getLineList", file).results == ["getLineList /etc/passwd"]
    outside.write("tmp/list", "13 /a b\n")
    assert outside.call("text getLineList", file).results == ["getLineList /a b"]
    outside.write("tmp/list", "x\n")
    assert outside.call("text getLineList", file).results == ["getLineList (null)"]


def test_the_data_port_is_taken_once(outside):
    with listen(DATA):
        said = outside.call("int mkServerSD")
    assert (said.status, said.results, said.log) == (255, [], "WARNING:  3003  Bind Failed!\n")


def test_the_list_generator_outlives_its_caller(outside):
    outside.write("var/tape/jobids/7.req", "/etc/passwd\n")
    begun = time.monotonic()
    assert outside.call("int mkFlist", 7, 0).result == 0
    assert time.monotonic() - begun < 5
    eventually(lambda: outside.exists("var/tape/jobids/request.7")
               and outside.text("var/tape/jobids/request.7") == "0 /etc/\n1 /etc/passwd\n")


@pytest.mark.parametrize("behaviour", ["classic", "sound"])
def test_a_whole_gatherer_serves_its_list_and_ends(outside, behaviour):
    path = outside.write("data/x", "12345")
    outside.write("var/tape/jobids/7.req", path + "\n")
    # The security remedies take the peer of the console, which a file cannot have.
    outside.write("etc/ZULsite", f"behaviour = {behaviour}\nbehaviour.security = classic\npause.list-grace = 300ms\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    started = outside.start([["int tapetool", "server 7 0"]])
    with connect(DATA, started[0]) as sd:
        names = []
        while not names or names[-1] != path:
            raw = ask(sd, b"Next\n")
            assert raw[:4] == b"ZuL!"
            names.append(raw[7:264].rstrip(b"\0").decode())
        assert names[0] == "/" + path.split("/")[1] + "/"
        assert ask(sd, b"Next\n")[:4] == b"St0P"
        assert sd.recv(1) == b""
    said = outside.finish(started)
    assert (said.status, said.results) == (0, [])
    assert outside.text("var/tape/jobids/tapeserv.stat") == (
        "INFO:  Building Backup list\nINFO:  Starting servHandshak\nNothing more to backup/replicate\n")


# --- the gathering child ---

@pytest.fixture
def slot(outside):
    outside.write("etc/ZULsite", "pause.gatherer-start = 50ms\npause.parent-poll = 10ms\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    segment = Segment()
    segment.view[8:18] = b"127.0.0.1\0"
    return segment


def start_child(outside, segment):
    return outside.start([["set", "tpshmid", segment.id], ["int goBackupChld", 0, "127.0.0.1", 7, 0], ["state"]])


def take_packages(segment, outside, process):
    """Takes what the child puts into the mailbox, as the tape writer does, until it is done."""
    packages = []
    while process.poll() is None and segment.get(CHILD_FLAGS) <= 1:
        if segment.get(PRODUCED) != segment.get(CONSUMED):
            packages.append((segment.get(SEQUENCE), outside.read("tmp/ipc.127.0.0.1")))
            segment.set(CONSUMED, segment.get(PRODUCED))
        time.sleep(0.002)
    return packages


def test_a_child_gathers_its_host(outside, agent, slot):
    data = [b"", b"a" * 10, b"b" * (3 * MIB)]
    gatherer = Gatherer([framed(b"/f%d" % at, each) for at, each in enumerate(data)])
    started = start_child(outside, slot)
    eventually(lambda: slot.get(CHILD_FLAGS) == 1, what="a child that is ready")
    assert_heard(agent.requests, ["TAPE server 7 0\n"])
    assert gatherer.heard == []
    outside.write("tmp/ipc.127.0.0.1", "leftover")
    slot.set(PARENT_FLAGS, 1)
    packages = take_packages(slot, outside, started[0])
    said = outside.finish(started)
    gatherer.close()
    assert (said.result_of(0), slot.get(CHILD_FLAGS), "name=zultlisten" in said.results[1]) == (0, 8, True)
    assert [sequence for sequence, _ in packages] == [0, 0, 0, 1, 2, 3]
    lengths = [520, 530] + [520 + MIB] * 3 + [520]
    assert all(content[7:9] == b"/f" for _, content in packages)
    assert packages[2][1][:lengths[2]] == header(b"/f2", 3 * MIB, host=NODE.encode()) + b"b" * MIB
    total = sum(len(framed(b"/f", each)) for each in data)
    assert (slot.get(ITEMS), slot.get(KILOBYTES, "<q")) == (3, total // 1024)
    assert_heard(gatherer.heard, ["Next\n", "Get\n"] * 3 + ["Next\n", "Quit\n"])
    log = outside.text("var/tape/jobids/127.0.0.1.stat")
    begin = ("Starting backup TCP server on client: 127.0.0.1\n"
             "Signal parent we are ready to get data from remote client: 127.0.0.1\n"
             "IPC ipc->pst.flags = 0x")
    assert log.startswith(begin)
    rest = log.split("    ipc->cst.flags = 0x")[1].split(" \n", 1)[1]
    mailbox = outside.path("tmp/ipc.127.0.0.1")
    number = rest.split("Socket Descriptor = ")[1].split("\n")[0]
    address = struct.unpack("<I", socket.inet_aton("127.0.0.1"))[0]
    assert rest.startswith(
        f"Parent says it is ready to receive data\nUsing FIFO in: {mailbox}\n"
        "Server port: 2346, Server name 127.0.0.1\nHost name: 127.0.0.1\nOfficial name: 127.0.0.1\n"
        f"Host address: {address:x}\nConnection to: 127.0.0.1\nSocket Descriptor = {number}\n"
        "INFO:  Sending:  Next\n\nINFO:  Sending:  Next\n\nINFO:  Sending:  Next\n\nINFO:  Sending:  Next\n\n"
        f"Total read = {total / 1024:f} KBytes, at an average of ")
    assert "Flag pointer = 0x" in rest and rest.endswith("Finished with 127.0.0.1\n")


def test_a_child_of_an_empty_host_asks_once(outside, agent, slot):
    gatherer = Gatherer()
    outside.write("tmp/ipc.127.0.0.1", "")
    slot.set(PARENT_FLAGS, 1)
    said = outside.finish(start_child(outside, slot))
    gatherer.close()
    assert said.result_of(0) == 0
    assert_heard(gatherer.heard, ["Next\n", "Quit\n"])
    assert ("Total read = 0.000000 KBytes, at an average of 0 KBytes/s\n"
            in outside.text("var/tape/jobids/127.0.0.1.stat"))


def test_a_child_leaves_when_its_parent_says_stop(outside, agent, slot):
    gatherer = Gatherer()
    slot.set(PARENT_FLAGS, 2)
    said = outside.finish(start_child(outside, slot))
    gatherer.close()
    assert (said.status, said.results, gatherer.heard) == (0, [], [])


class BusyGatherer(Gatherer):
    """Belongs to an earlier job: turns its first visitor away, as often as it is told."""

    def __init__(self, refusals, files):
        self.refusals = refusals
        super().__init__(files)

    def serve(self):
        for _ in range(self.refusals):
            sd, _ = self.listener.accept()
            with sd, sd.makefile("rb") as lines:
                self.heard.append(lines.readline().decode())
        super().serve()


@pytest.mark.parametrize("refusals, flags", [(1, 8), (2, 16)])
def test_a_child_that_is_turned_away_tries_once_more(outside, agent, slot, refusals, flags):
    outside.write("etc/ZULsite", "behaviour = sound\npause.parent-poll = 10ms\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    outside.write("tmp/ipc.127.0.0.1", "")
    gatherer = BusyGatherer(refusals, [framed(b"/f", b"x")])
    slot.set(PARENT_FLAGS, 1)
    started = start_child(outside, slot)
    packages = take_packages(slot, outside, started[0])
    outside.finish(started)
    gatherer.close()
    log = outside.text("var/tape/jobids/127.0.0.1.stat")
    assert log.count("NOTICE:  The gatherer has closed at once, trying once more\n") == 1
    assert (slot.get(CHILD_FLAGS), len(packages)) == (flags, 2 - refusals)
    assert gatherer.heard[:2] == ["Job 7 0\n"] * 2


@pytest.mark.parametrize("mailbox, text", [
    (False, "ERROR:  3203  Unable to open FIFO\n"),
    (True, "ERROR:  3208  Connection to socket refused!\nERROR:  3204  Unable to open socket to client\n"),
])
def test_a_child_that_cannot_begin_says_why(outside, agent, slot, mailbox, text):
    if mailbox:
        outside.write("tmp/ipc.127.0.0.1", "")
    slot.set(PARENT_FLAGS, 1)
    said = outside.finish(start_child(outside, slot))
    assert (said.status, said.results, slot.get(CHILD_FLAGS)) == (255, [], 2)
    assert outside.text("var/tape/jobids/127.0.0.1.stat").endswith(text)


def test_a_child_without_its_host_or_its_log_comes_back(outside, slot):
    said = outside.finish(start_child(outside, slot))
    assert (said.result_of(0), slot.get(CHILD_FLAGS)) == (-1, 2)
    assert outside.text("var/tape/jobids/127.0.0.1.stat").endswith(
        "ERROR:  3201  Failed to start backup TCP server on client: 127.0.0.1\n")
    path = outside.path("var/tape/jobids/127.0.0.1.stat")
    os.unlink(path)
    os.mkdir(path)
    said = outside.finish(start_child(outside, slot))
    assert said.result_of(0) == -2
    assert said.err == f"ERROR:  3200  Fatal error.  Cannot open status log file: {path}.  errno = 21\n"


@pytest.mark.parametrize("answer, flags, text", [
    # A header that is none counts as the end of the list.
    (header(magic=b"JUNK"), 8, "ERROR:  3223  Package header is corrupt!\n"),
    (b"cut", 16, "ERROR:  3212  Can't read servers response to Next.  Retval=-4 Errno=0\n"),
    (header(b"/f", 10), 16, "ERROR:  3214  Socket read error.  retval = -4\n"),
    (header(b"/f", 10) * 2 + b"12345", 16,
     "ERROR:  3218  Socket read error  tread = 10, bread = 0, retval = -4\n"),
    (header(b"/f", 9000) * 2 + b"12345", 16,
     "ERROR:  3217  Socket read error  tread= 9000, bread= 0, retval=-4\n"),
], ids=["corrupt", "cut header", "no file", "cut last piece", "cut piece"])
def test_a_stream_that_breaks_off_is_reported_where_it_does(outside, agent, slot, answer, flags, text):
    listener = listen(DATA)

    def play():
        sd, _ = listener.accept()
        with sd:
            take(sd, 5)
            sd.sendall(answer)
            sd.shutdown(socket.SHUT_WR)
            read_all(sd)
    threading.Thread(target=play, daemon=True).start()
    outside.write("tmp/ipc.127.0.0.1", "")
    slot.set(PARENT_FLAGS, 1)
    said = outside.finish(start_child(outside, slot))
    listener.close()
    log = outside.text("var/tape/jobids/127.0.0.1.stat")
    assert text in log and slot.get(CHILD_FLAGS) == flags
    if flags == 8:
        assert said.result_of(0) == 0 and "Magic = 4a554e4b\n" in said.out and "Total read" not in log
    else:
        assert said.status == 255
        code = -2 if "3212" in text else -4
        assert log.endswith(f"{text}ERROR:  3205  Client handshaking error {code}, errno = 0\n")
