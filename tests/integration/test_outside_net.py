"""Streams, connections and the gatherer's dialogue, called through the built module's exported functions. The other
side is played here: by one end of a socket pair, or on the fixed ports of the run's own network."""
import ctypes
import os
import socket
import struct
import threading
import time

import pytest

from home import eventually
from outside import Buffer, Reading
from ownnetwork import enter_own_network
from test_outside_tapes import NODE, header, record

MIB = 1 << 20
CONSOLE, DATA = 2345, 2346


def framed(name, data, host=NODE.encode(), **field):
    """A file as it stands on a stream: a header before every megabyte, and one behind the last full one."""
    pieces = [header(name, len(data), at // MIB, host=host, **field) + data[at:at + MIB]
              for at in range(0, len(data) + 1, MIB)]
    return b"".join(pieces)


def listen(port, backlog=8):
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", port))
    listener.listen(backlog)
    listener.settimeout(20)
    return listener


def connect(port, process, seconds=20):
    """A connection as soon as somebody listens."""
    def attempt():
        assert process.poll() is None
        try:
            return socket.create_connection(("127.0.0.1", port), 20)
        except ConnectionRefusedError:
            return None
    return eventually(attempt, seconds, "a listener")


def take(sd, count):
    """Exactly count bytes, or what there is before the end."""
    data = b""
    while len(data) < count:
        part = sd.recv(min(count - len(data), 1 << 20))
        if not part:
            break
        data += part
    return data


def read_all(sd):
    data = b""
    while part := sd.recv(1 << 16):
        data += part
    return data


@pytest.fixture(autouse=True)
def fresh_network():
    """A gatherer that closes first keeps its port busy for a minute; the next test has its own."""
    enter_own_network()


@pytest.fixture
def pair():
    ours, theirs = socket.socketpair()
    ours.settimeout(20)
    yield ours, theirs
    ours.close()
    theirs.close()


# --- streams ---

def test_all_bytes_are_written_or_none_counted(outside, pair):
    ours, theirs = pair
    data = Buffer(outside.write("tmp/data", b"x" * 5000))
    fd = theirs.fileno()
    said = outside.run([["long writen", fd, data, 5000], ["long writen", fd, data, 0], ["long writen", -1, data, 1],
                        ["long writef", fd, data, 10], ["long writef", -1, data, 10], ["long writef", -1, data, 0]],
                       fds=(fd,))
    assert said.results == ["writen 5000", "writen 0", "writen -1", "writef 10", "writef -1", "writef 0"]
    assert take(ours, 5010) == b"x" * 5010
    ours.close()
    said = outside.call("long writen", fd, data, 10, fds=(fd,))
    assert (said.status, said.result) == (0, -1)


def test_a_peer_that_is_gone_does_not_end_the_process(outside):
    reader, writer = os.pipe()
    os.close(reader)
    said = outside.call("long writen", writer, Buffer(outside.write("tmp/data", b"x")), 1, fds=(writer,))
    assert (said.status, said.result) == (0, -1)


@pytest.mark.parametrize("errno, result", [(0, -4), (2, -3), (4, -4), (104, -4)])
def test_a_part_is_never_read_for_the_whole(outside, pair, errno, result):
    ours, theirs = pair
    ours.sendall(b"abc")
    ours.shutdown(socket.SHUT_WR)
    fd = theirs.fileno()
    buffer = Buffer(outside.write("tmp/data", bytes(8)))
    said = outside.run([["errno", errno], ["long readn", fd, buffer, 0], ["long readn", fd, buffer, 2],
                        ["long readn", fd, buffer, 8]], fds=(fd,))
    assert [line.split()[1] for line in said.results] == ["0", "2", str(result)]
    if errno == 2:
        assert said.err.startswith("ERROR:  No Socket.  Connection closed from other end. nread=0, nleft= 7, "
                                   f"fd={fd}, ptr=0x") and said.err.endswith(", errno = 2\n")
    else:
        assert said.err == ""
    assert outside.call("long readn", -1, buffer, 8).result == -1


@pytest.mark.parametrize("sent, size, result, stored, left", [
    (b"Next\nrest", 512, 5, b"Next\n\0", b"rest"), (b"y" * 600, 512, 512, b"y" * 511 + b"\0", b"y" * 89),
    (b"z" * 511 + b"\n", 512, 512, b"z" * 511 + b"\0", b"\n"), (b"Ab", 512, 3, b"Ab\0", b""), (b"", 512, 0, b"\0", b""),
    (b"abc", 1, 1, b"\0", b"abc"),
], ids=["line", "cut", "just too long", "ended", "empty", "no room"])
def test_a_line_is_read_and_nothing_behind_it(outside, pair, sent, size, result, stored, left):
    ours, theirs = pair
    ours.sendall(sent)
    ours.shutdown(socket.SHUT_WR)
    fd = theirs.fileno()
    path = outside.write("tmp/line", b"\xee" * 600)
    said = outside.call("long readnline", fd, Buffer(path), size, fds=(fd,))
    assert said.result == result
    assert outside.read("tmp/line").startswith(stored)
    assert read_all(theirs) == left
    outside.write("tmp/line", b"\xee" * 600)
    file = os.open(outside.write("tmp/file", sent), os.O_RDONLY)
    said = outside.run([["long zul_getline", file, Buffer(path), size], ["long zul_getline", -1, Buffer(path), 8]],
                       fds=(file,))
    assert [int(line.split()[1]) for line in said.results] == [result, -1]


def test_a_process_is_detached(outside):
    said = outside.run([["int mkDaemon"], ["state"]])
    assert said.status == 0
    eventually(lambda: len(said.results) == 2, what="the detached process")
    assert said.results[0] == "mkDaemon 0"
    assert said.results[1].startswith(f"state leader=1 mask=033 directory={outside.home} open=0:0,1:1,2:2, ")


def test_nagles_algorithm_is_switched(outside):
    sd = socket.socket()
    assert outside.call("int nagleOnOff", sd.fileno(), 1, fds=(sd.fileno(),)).result == 0
    assert sd.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY) != 0
    assert outside.call("int nagleOnOff", -1, 1).result == -1


def test_with_encryption_and_no_library_nothing_moves(outside, pair):
    fd = pair[1].fileno()
    buffer = Buffer(outside.write("tmp/data", b"x" * 8))
    said = outside.run([["int shouldEncrypt", 2], ["long getScramPtrs", 1], ["int shouldEncrypt", 5],
                        ["int shouldEncrypt", 1], ["long writen", fd, buffer, 0], ["long readn", fd, buffer, 0],
                        ["long readnline", fd, buffer, 8], ["int shouldEncrypt", 2], ["int shouldEncrypt", 0],
                        ["long writen", fd, buffer, 3]], fds=(fd,))
    assert [int(line.split()[1]) for line in said.results] == [0, 0, 0, 1, -9, -9, -9, 1, 0, 3]
    assert said.err.count("ERROR: DLerror:  ") == 3


# --- headers ---

def test_a_header_has_its_stream_form(outside):
    raw, memory = outside.write("tmp/raw", b"\xee" * 520), outside.write("tmp/record", record(b"/x", MIB, 3, 2))
    assert outside.call("int packPackage", Buffer(raw), Buffer(memory)).result == 0
    assert outside.read("tmp/raw") == header(b"/x", MIB, 3, 2, mode=0o100600)
    uid = bytearray(record(b"/x", (1 << 32) + 1))
    uid[264:268] = struct.pack("<I", 1000)
    outside.write("tmp/record", bytes(uid))
    outside.call("int packPackage", Buffer(raw), Buffer(memory))
    packed = outside.read("tmp/raw")
    assert packed[264:268] == b"\x00\x00\x03\xe8" and packed[284:288] == b"\0\0\0\x01" and packed[300:304] == b"\1\0\0\0"
    outside.write("tmp/raw", header(b"/y", 0xffffffff))
    assert outside.call("int unpackPackage", Buffer(raw), Buffer(memory)).result == 0
    assert outside.read("tmp/record") == record(b"/y", 0xffffffff)
    outside.write("tmp/raw", b"junk" * 130)
    assert outside.call("int unpackPackage", Buffer(raw), Buffer(memory)).result == 0


# --- connections ---

def test_an_agent_is_reached_and_the_alarm_left_pending(outside):
    with listen(CONSOLE):
        said = outside.run([["int mkZULagentSD", "127.0.0.1"], ["alarm"], ["state"]])
    assert said.result_of(0) >= 0
    assert 0 < int(said.results[1].split()[1]) <= 8
    assert "alarm=default" in said.results[2]


def test_agents_that_cannot_be_reached_are_named(outside):
    said = outside.call("int mkZULagentSD", "no.such.host.invalid")
    assert (said.result, said.err) == (-1, "WARNING:  Could not resolve host name: no.such.host.invalid\n")
    said = outside.call("int mkZULagentSD", "127.0.0.1")
    assert (said.result, said.err) == (-1, "WARNING:  Connection to socket refused!\n")
    name = "no.such.host.invalid"
    said = outside.call("int mkZULagentSD_nb", name)
    assert (said.result, said.err) == (-1, f"Host[{name}]  Could not resolve host name: {name}\n")
    said = outside.call("int mkZULagentSD_nb_Real", name, 0)
    assert (said.result, said.err) == (-1, "")
    said = outside.call("int mkZULagentSD_nb_Real", "10.9.8.7", 1)  # a network without a route
    assert (said.result, said.err) == (-1, "Host[10.9.8.7]  Cannot connect\n")


def test_the_console_service_is_taken_once(outside):
    said = outside.run([["int mkZulSrvSD"], ["int mkZulSrvSD"]])
    assert (said.result_of(0) >= 0, said.result, said.err) == (True, -2, "Errno = 98\n")


class Agent:
    """The agent of a client host, played: keeps the request lines of its consoles."""

    def __init__(self):
        self.listener, self.requests = listen(CONSOLE), []
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                console, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self.hear, args=(console,), daemon=True).start()

    def hear(self, console):
        with console:
            self.requests.append(read_all(console).decode())

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


@pytest.fixture
def agent():
    made = Agent()
    yield made
    made.close()


def test_a_gatherer_is_asked_for(outside, agent):
    said = outside.run([["int startBackupServ", "127.0.0.1", 7, 0], ["alarm"], ["state"]])
    assert (said.result_of(0), said.results[1]) == (0, "alarm 0")
    assert said.trace == ["initpass", "autoLogin"]
    eventually(lambda: agent.requests == ["TAPE server 7 0\n"])
    said = outside.run([["answer 1"], ["int startBackupServ", "127.0.0.1", 7, 0]])
    assert (said.result, said.log) == (-2, "ERROR:  3224  Cannot start restore agent on remote host\n")
    assert outside.call("int startBackupServ", "127.0.0.9", 7, 0).result == -1


def test_a_backup_list_is_pushed_to_the_members_that_can_be_reached(outside, agent):
    outside.write("var/tape/jobids/index", struct.pack("<6i", 0, 7, 3, 0, 0, 0) + b"\0daily".ljust(492, b"\0"))
    outside.write("var/tape/jobids/group", "3:127.0.0.9,127.0.0.1:web\n")
    outside.write("var/tape/jobids/7", "/etc/\n" + "n" * 300 + "\n")
    said = outside.call("int tapetool", "jsync 7")
    assert said.result == 0
    assert outside.text("var/libtape.status") == ("ERROR:  8334  Cannot connect to remote host: 127.0.0.9\n"
                                                  "Synchronizing 127.0.0.1...\n")
    eventually(lambda: agent.requests == ["TAPE rsync 7\n/etc/\n" + "n" * 300 + "\nTRANSFER OK\n"])
    said = outside.run([["answer 1"], ["int syncBackupLists", 7]])
    assert said.result == 0
    assert said.log == ("ERROR:  8334  Cannot connect to remote host: 127.0.0.9\n"
                        "ERROR:  8335  Cannot start sync on remote host:  127.0.0.1\n"
                        "Synchronizing 127.0.0.1\nERROR:  8331  Failed to synchronize 127.0.0.1\n")
    os.unlink(outside.path("var/tape/jobids/7"))
    assert outside.call("int syncBackupLists", 7).result == -1


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


def ask(sd, line, count=520):
    sd.sendall(line)
    return take(sd, count)


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

class Gatherer:
    """The gatherer of a client host, played: serves the files once, in whatever order it is asked."""

    def __init__(self, files=(), play=None):
        self.listener, self.heard, self.files = listen(DATA), [], list(files)
        threading.Thread(target=play or self.serve, daemon=True).start()

    def serve(self):
        try:
            sd, _ = self.listener.accept()
        except OSError:
            return
        current, waiting = b"", iter(self.files)
        with sd, sd.makefile("rb") as lines:
            for line in lines:
                self.heard.append(line.decode())
                if line == b"Next\n":
                    current = next(waiting, None)
                    sd.sendall(current[:520] if current else header(magic=b"St0P"))
                elif line == b"Get\n":
                    sd.sendall(current)

    def close(self):
        # The thread in accept would keep a listener alive that is only closed.
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


class Segment:
    """The shared segment of a backup job, with this process in the part of its tape writer."""

    def __init__(self, size=65536):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.libc.shmat.restype = ctypes.c_void_p
        self.libc.shmat.argtypes = [ctypes.c_int, ctypes.c_void_p, ctypes.c_int]
        self.id = self.libc.shmget(0, size, 0o1600)
        self.view = (ctypes.c_char * size).from_address(self.libc.shmat(self.id, None, 0))
        # Marked for removal: it goes with the last process that has it, and can be attached by its id until then.
        self.libc.shmctl(self.id, 0, None)

    def get(self, offset, kind="<I"):
        return struct.unpack_from(kind, self.view, offset)[0]

    def set(self, offset, value):
        struct.pack_into("<I", self.view, offset, value)


CONSUMED, PARENT_FLAGS, SEQUENCE, PRODUCED, CHILD_FLAGS, KILOBYTES, ITEMS = 0, 72, 392, 608, 612, 624, 636


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
    assert agent.requests == ["TAPE server 7 0\n"] and gatherer.heard == []
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
    assert gatherer.heard == ["Next\n", "Get\n"] * 3 + ["Next\n", "Quit\n"]
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
    assert (said.result_of(0), gatherer.heard) == (0, ["Next\n", "Quit\n"])
    assert ("Total read = 0.000000 KBytes, at an average of 0 KBytes/s\n"
            in outside.text("var/tape/jobids/127.0.0.1.stat"))


def test_a_child_leaves_when_its_parent_says_stop(outside, agent, slot):
    gatherer = Gatherer()
    slot.set(PARENT_FLAGS, 2)
    said = outside.finish(start_child(outside, slot))
    gatherer.close()
    assert (said.status, said.results, gatherer.heard) == (0, [], [])


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
