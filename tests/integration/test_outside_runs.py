"""Sockets, segments and whole runs of multicast replication, called through the built module's exported functions. The
other side of a run is played here, on an interface of the run's own network."""
import contextlib
import os
import select
import socket
import stat
import struct
import subprocess
import threading
import time

import pytest

from home import eventually
from outside import MODULE, Memory
from ownnetwork import enter_own_network
from test_outside_multicast import (END_RECORD, FILE, FOLDER, HEAD, INLINE, KEEP_ALL, LINK, OTHER, PAYLOAD, RECV_AREA,
                                    RECV_CTRL, SEGMENT, SEND_AREA, SEND_CTRL, SLOT, ancestors, head, pattern, put_job,
                                    segment)

GROUP, DATA_PORT, REQUEST_PORT = "239.240.240.240", 2345, 2346
HERE = "10.9.0.1"
PATIENCE = 200  # seconds: every pass of a sender is a sleep, from which a busy machine wakes it late


def ip(*words):
    subprocess.run(["ip", *words], check=True)


@pytest.fixture(autouse=True)
def fresh_network():
    """Its ports are free and nobody else's datagrams arrive."""
    enter_own_network()


@pytest.fixture
def wire():
    """An interface that carries multicast, and its route."""
    ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    ip("addr", "add", HERE + "/24", "dev", "v0")
    for name in ("v0", "v1"):
        ip("link", "set", name, "up")
    ip("route", "add", "224.0.0.0/4", "dev", "v0")


@pytest.fixture
def logs(outside, tmp_path):
    """Words to run a host behind, with a /tmp and shared areas of its own: logs of runs have fixed names in /tmp."""
    private = tmp_path / "private"
    private.mkdir()
    binds = set()
    for path in (str(tmp_path), outside.program, MODULE):
        if path.startswith("/tmp/"):
            binds.add(path.split("/")[2])
    script = "".join(f"mkdir -p {private}/{name} && mount --bind /tmp/{name} {private}/{name} && "
                     for name in sorted(binds))
    script += f'mount --rbind {private} /tmp; set +e; "$@"; end=$?; cat /proc/sysvipc/shm >/tmp/areas; exit $end'

    class Logs:
        # When a test fails in the middle nothing of a run may stay: classic receivers never end by themselves.
        words = ["unshare", "-mip", "--fork", "--kill-child", "sh", "-ec", script, "sh"]
        started = []

        @classmethod
        def start(cls, host, lines, **how):
            cls.started.append(host.start(lines, inside=cls.words, **how))
            return cls.started[-1]

        @staticmethod
        def read(name):
            return (private / name).read_text("latin-1")

        @classmethod
        def areas(cls):
            """The shared areas that the last host has left behind."""
            return cls.read("areas").splitlines()[1:]
    yield Logs()
    for process, _ in Logs.started:
        process.kill()


@contextlib.contextmanager
def udp(address="0.0.0.0", port=0, group=None):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as made:
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.bind((address, port))
        if group:
            made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(group) + socket.inet_aton(HERE))
        made.settimeout(20)
        yield made


def waiting(sock):
    """All datagrams that have arrived."""
    found = []
    sock.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        while True:
            found.append(sock.recv(4096))
    sock.settimeout(20)
    return found


@contextlib.contextmanager
def hearing(sock):
    """Everything that arrives meanwhile, in a list that grows: the kernel's room for it is small."""
    heard, over = [], threading.Event()

    def hear():
        while not over.is_set():
            if select.select([sock], [], [], 0.1)[0]:
                heard.extend(waiting(sock))
    thread = threading.Thread(target=hear)
    thread.start()
    try:
        yield heard
    finally:
        over.set()
        thread.join()


def to(port, host="127.0.0.1"):
    """A socket address as a block of memory holds it."""
    return struct.pack("<H", socket.AF_INET) + struct.pack(">H", port) + socket.inet_aton(host) + bytes(8)


# --- byte order, areas, sockets, logs ---

def test_numbers_and_modes_travel_in_one_form(outside):
    said = outside.run([["memory", "four", 4], ["void packul", Memory("four"), 0x01020304],
                        ["dump", "four", 0, 4, outside.path("tmp/four")], ["long unpackul", Memory("four")],
                        ["int host2netmode", 0o104755], ["int net2hostmode", 0x9ED], ["int net2hostmode", 0o177777]])
    assert outside.read("tmp/four") == b"\1\2\3\4"
    assert said.results == ["packul", f"unpackul {0x01020304}", f"host2netmode {0o4755}", f"net2hostmode {0o4755}",
                            f"net2hostmode {0o7777}"]


@pytest.mark.parametrize("size, ahead", [(SEND_AREA, SEND_CTRL), (RECV_AREA, RECV_CTRL)])
def test_an_area_is_made_attached_once_and_removed(outside, logs, size, ahead):
    said = outside.run([["int mkShMem", size], ["keep", "id"], ["long getCtrlPtr", Memory("id")],
                        ["long getCtrlPtr", Memory("id")],
                        ["long getDataPtr", Memory("id")], ["long getCtrlPtr", -1], ["long getCtrlPtr", Memory("id")],
                        ["int rmShMem", Memory("id")], ["long getCtrlPtr", -1], ["long getDataPtr", -1],
                        ["int rmShMem", Memory("id")], ["long getCtrlPtr", Memory("id")], ["int mkShMem", -1]],
                       inside=logs.words)
    first, again, ring = (said.result_of(at) for at in (1, 2, 3))
    assert first == again != 0 and ring != 0
    assert said.result_of(4) == 0 and said.result_of(5) != 0
    assert [said.result_of(at) for at in (6, 9, 10)] == [1, 0, 0] and said.result < 0
    assert said.hostlog == ("ERROR:  Function shmctl failed!  Unable to free shared memory\n"
                            "ERROR:  Function shmat failed!  Unable to get pointer to shared memory.  errno = 22 \n"
                            "ERROR:  Function shmget failed!  errno = 22\n")
    assert logs.areas() == []
    # The ring lies behind the control block of its side.
    said = outside.run([["int mkShMem", size], ["keep", "id"], ["long getCtrlPtr", Memory("id")], ["keep", "ctrl"],
                        ["poke", "ctrl", ahead, outside.write("tmp/mark", b"mark")], ["long getDataPtr", Memory("id")],
                        ["keep", "ring"], ["dump", "ring", 0, 4, outside.path("tmp/seen")],
                        ["int rmShMem", Memory("id")]])
    assert outside.read("tmp/seen") == b"mark"


def test_sockets_are_made_and_what_goes_wrong_has_a_number(outside):
    said = outside.run([["memory", "a", 16], ["int mkUDPSenderSocket", 4711, "127.0.0.2", Memory("a")],
                        ["dump", "a", 0, 16, outside.path("tmp/a")],
                        ["int mkUDPSenderSocket", 1, "no.address", Memory("a")],
                        ["int mkUDPListenerSocket", 4711, Memory("a")], ["dump", "a", 0, 16, outside.path("tmp/b")],
                        ["int mkUDPListenerSocket", 4711, Memory("a")], ["set", "dlvl", 4],
                        ["int mkUDPListenerSocket", 4711, Memory("a")], ["set", "dlvl", 5],
                        ["int mkUDPListenerSocket", 4711, Memory("a")], ["set", "dlvl", 0],
                        ["int mkMulticListener", 4712, "nonsense", Memory("a")],
                        ["int mkMulticListener", 4712, GROUP, Memory("a")],
                        ["set", "dlvl", 1911], ["int mkMulticListener", 4712, GROUP, Memory("a")]])
    results = [said.result_of(at) for at in range(len(said.results))]
    assert results[0] >= 0 and results[2] >= 0
    assert results[1:2] + results[3:] == [-1, -2, -2, -2, -1, -5, -5]
    assert said.err == "WARNING:  Failed to resolve: no.address\n"
    assert outside.read("tmp/a") == to(4711, "127.0.0.2") and outside.read("tmp/b") == to(4711, "0.0.0.0")
    lines = said.hostlog.splitlines()
    assert lines[:2] == ["ERROR:  mkUDPListenerSocket:  UDP Bind Failed!  errno=98",
                         "ERROR: mkMulticListener: Failed to resolve: nonsense"]
    assert len(lines) == 3 and lines[2].startswith("ERROR: getIfName:  Failed to get interfaces!  errno=")
    assert lines[2].endswith(", retval = 1")


def test_interfaces_are_found_by_the_front_of_their_name(outside, wire):
    def ask(name):
        said = outside.run([["memory", "n", 32], ["poke", "n", 0, outside.write("tmp/n", name)],
                            ["int getIfName", Memory("n")],
                            ["dump", "n", 0, 32, outside.path("tmp/n")]])
        return said.result, outside.read("tmp/n").rstrip(b"\0").decode()
    assert ask("") == (0, "v0")
    assert ask("l") == (0, "lo")
    assert ask("v") == (0, "v0")
    assert ask("eth7") == (1, "eth7")


def test_an_interface_without_an_address_cannot_join(outside, wire):
    ip("link", "add", "lowest", "type", "veth", "peer", "name", "other")
    said = outside.run([["memory", "a", 16], ["set", "dlvl", 5], ["int mkMulticListener", 4712, GROUP, Memory("a")],
                        ["int mkMulticListener", 4712, "10.9.0.7", Memory("a")]])
    assert said.result_of(0) >= 0
    assert said.result == -7
    assert said.hostlog.endswith("ERROR: mkMulticListener:  Failed to join multicast group!  errno=22\n")


def test_a_run_has_a_log_that_begins_anew(outside, logs):
    for server, name in ((1, "repServ.log"), (0, "repClnt.log")):
        for _ in range(2):
            said = outside.run([["void openLog", server]], inside=logs.words)
            assert (said.status, logs.read(name)) == (0, "Replication processes starting\n")
    said = outside.run([["void openLog", 1], ["memory", "h", HEAD], ["void logError", Memory("h"), -10]],
                       inside=logs.words)
    assert logs.read("repServ.log") == ("Replication processes starting\n"
                                        "NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n")
    assert said.hostlog == ""


def test_without_its_log_a_run_ends(outside, logs):
    inside = [*logs.words, "sh", "-ec", 'ln -s /no/such/place /tmp/repServ.log; exec "$@"', "sh"]
    said = outside.run([["void openLog", 1], ["int unpackul", None]], inside=inside)
    assert (said.status, said.err) == (255, "ERROR:  Cannot open ZULd log file\n")


def test_without_descriptors_no_socket_is_made(outside):
    """The first free descriptor is taken, and then no more are allowed."""
    free = outside.run([["int dup", 0]]).result
    limit = outside.write("tmp/limit", struct.pack("<2Q", free + 1, free + 1))
    said = outside.run([["memory", "a", 16], ["memory", "limit", 16], ["poke", "limit", 0, limit], ["memory", "n", 16],
                        ["set", "dlvl", 5], ["int dup", 0], ["int setrlimit", 7, Memory("limit")],
                        ["int mkUDPSenderSocket", 1, "127.0.0.1", Memory("a")],
                        ["int mkUDPListenerSocket", 0, Memory("a")],
                        ["int mkMulticListener", 1, GROUP, Memory("a")], ["int getIfName", Memory("n")]])
    assert [said.result_of(at) for at in range(6)] == [free, 0, -2, -1, -1, -1]
    assert said.err == "WARNING:  Unable to open socket!\n"
    assert said.hostlog == "ERROR:  mkUDPListenerSocket:  Unable to open socket!\n"


def test_a_segment_and_a_request_go_out_as_they_are(outside):
    slot = os.urandom(12) + segment(1 << 32 | 2, b"abc")
    with udp("127.0.0.1") as ear, udp() as out:
        said = outside.run([["memory", "slot", SLOT], ["poke", "slot", 0, outside.write("tmp/slot", slot)],
                            ["memory", "to", 16],
                            ["poke", "to", 0, outside.write("tmp/to", to(ear.getsockname()[1]))],
                            ["int sendSeg", Memory("slot"), Memory("to"), out.fileno()],
                            ["int reqresend", 0x01020304, 5, 0xFFFFFFFE, 3, out.fileno(), Memory("to")],
                            ["int sendSeg", Memory("slot"), Memory("to"), -1],
                            ["int reqresend", 1, 2, 3, 4, -1, Memory("to")]], fds=(out.fileno(),))
        assert said.results == ["sendSeg 0", "reqresend 0", "sendSeg -1", "reqresend -1"]
        assert waiting(ear) == [slot[12:], struct.pack(">4I", 0x01020304, 5, 0xFFFFFFFE, 3)]


# --- the sender's single steps ---

def sender_area(outside, **field):
    """Script lines that make a sender's area with this control block: blocks "ctrl" and "ring"."""
    get = {"lastSent": 0, "freeTill": 0, "smoothed": 200, "filled": 0, **field}.get
    (sent_high, sent), (free_high, free), (filled_high, filled) = (
        divmod(get(name), 1 << 32) for name in ("lastSent", "freeTill", "filled"))
    block = struct.pack("<7Iiq3i4Ii", 1, sent_high, sent, 1024, 16384, free_high, free, 0, 50, 1000000, get("smoothed"),
                        0, 1, filled_high, filled, 0, 0)
    return [["memory", "ctrl", SEND_AREA], ["poke", "ctrl", 0, outside.write("tmp/ctrl", block)]]


RING = Memory("ctrl", SEND_CTRL)
CTRL = Memory("ctrl")


@pytest.mark.parametrize("speed, wait", [(100000, 48), (20833, 48), (1000, 1000), (3, 333333), (-5, 48)])
def test_the_first_speed_decides_the_shortest_wait(outside, speed, wait):
    said = outside.run([["int getMinWait", 0], ["int getMinWait", speed], ["int getMinWait", 7], ["int getMinWait", 0]])
    assert [said.result_of(at) for at in range(4)] == [-1, wait, wait, wait]


def clock():
    """The clock of the segments."""
    now = time.time()
    return int(now) % 256 * 1000000 + int(now % 1 * 1000000)


def since(then, now):
    """One second is lost whenever that clock turns over."""
    return now - then if now >= then else now - then + 255000000


def trip(outside, smoothed, ago, speed=0):
    """What a request makes of the send time of the segment behind the missing one: (last, smoothed, most, wait)."""
    while True:
        begun = clock()
        sent = (begun - ago) % 256000000
        slot = outside.write("tmp/slot", struct.pack(">I", sent))
        said = outside.run([*sender_area(outside, smoothed=smoothed), ["int getMinWait", speed],
                            ["poke", "ctrl", SEND_CTRL + 8 * SLOT + 16, slot], ["int newWaitTime", RING, CTRL, 7],
                            *[["number", "ctrl", at] for at in (40, 44, 48, 32)]])
        ended = clock()
        if begun < ended and (begun < sent) == (ended < sent):  # it has not turned over meanwhile
            last, *others = [int(line) for line in said.results[2:]]
            assert since(sent, begun) <= last <= since(sent, ended)
            return last, *others


def test_the_wait_follows_the_round_trip(outside):
    last, *others = trip(outside, 200, 4000000)
    assert others == [last, last, last // 2048], "it rises at once"
    last, *others = trip(outside, 100000000, 4000000)
    smoothed = 100000000 - ((100000000 - last) >> 4)
    assert others == [smoothed, last, smoothed // 2048], "and falls slowly"
    assert trip(outside, 200, 4000000, speed=100)[3] == 10000
    trip(outside, 200, -3000000)  # a send time that lies ahead


@pytest.mark.parametrize("numbers, age, result", [
    (dict(filled=9000, lastSent=8191), 16384 * 50 + 1, 1),
    (dict(filled=9000, lastSent=8192), 16384 * 50 + 1, 0),
    (dict(filled=9000, lastSent=9000), 16384 * 50, 1),
    (dict(filled=9000, lastSent=9000), 16384 * 50 + 1, 0),
    (dict(filled=0x100000010, lastSent=0xFFFFFFFF, freeTill=0xFFFF0000), 16384 * 50 + 1, 1),
    (dict(filled=0x100009000, lastSent=0x100008000, freeTill=0xFFFFFFFF), 16384 * 50 + 1, 0),
])
def test_a_segment_is_freed_when_it_is_far_enough_and_old_enough(outside, numbers, age, result):
    now, number = 200000000, numbers.get("freeTill", 0) + 1 & 0xFFFFFFFF
    slot = number % 16384
    said = outside.run([*sender_area(outside, **numbers),
                        ["poke", "ctrl", SEND_CTRL + slot * SLOT + 16,
                         outside.write("tmp/sent", struct.pack(">I", now - age))],
                        ["int expireOldSegs", RING, CTRL, number, now], ["number", "ctrl", 20], ["number", "ctrl", 24],
                        ["number", "ctrl", SEND_CTRL + slot * SLOT + 16]])
    assert said.result_of(0) == result
    if result == 0:
        freed = numbers.get("freeTill", 0) + 1
        assert said.results[1:] == [str(freed >> 32), str(freed & 0xFFFFFFFF), "0"]
        assert said.hostlog == f"DEBUG:  >>>> Segment has expired seg={number},  \n"


def laid(number, payload):
    """A slot as the packer lays it."""
    image = segment(number, payload, wait=0, marks=b"PfInErR!")
    return struct.pack("<IIBBH", number & 0xFFFFFFFF, number >> 32, 0, 0, 0) + image


def test_segments_are_sent_first_again_and_ahead_of_the_packer(outside):
    ring = b"".join(laid(at, b"segment %d" % at) for at in range(3))
    ring = ring[:2 * SLOT + 8] + b"\1\1" + ring[2 * SLOT + 10:]  # the third is flagged
    with udp("127.0.0.1") as ear, udp() as out:
        def send(choice, fd=out.fileno()):
            return ["int sendData", RING, CTRL, Memory("to"), fd, choice, Memory("now")]
        said = outside.run([*sender_area(outside, filled=3),
                            ["poke", "ctrl", SEND_CTRL, outside.write("tmp/ring", ring)],
                            ["memory", "to", 16], ["poke", "to", 0, outside.write("tmp/to", to(ear.getsockname()[1]))],
                            ["memory", "now", 16],
                            ["poke", "now", 0, outside.write("tmp/now", struct.pack("<qq", 1000, 123))],
                            send(0), send(1, -1), send(1), send(1, -1), send(1),
                            ["number", "ctrl", SEND_CTRL + SLOT + 8], send(2), send(3), ["number", "ctrl", 8],
                            ["dump", "ctrl", SEND_CTRL + 2 * SLOT, 12, outside.path("tmp/flags")]], fds=(out.fileno(),))
        calls = [line for line in said.results if line.startswith("sendData")]
        assert calls == ["sendData 0", "sendData -1", "sendData 0", "sendData -1", "sendData 0", "sendData 0",
                         "sendData 0"]
        when = 1000 % 256 * 1000000 + 123
        first, second, again, unfilled = waiting(ear)
        assert first == segment(1, b"segment 1", when), "segment 0 is never sent"
        assert second == segment(2, b"segment 2", when)
        assert again == segment(1, b"segment 1", when, marks=bytes(8))
        assert unfilled[:4] == bytes(4) and unfilled[12:16] == struct.pack(">I", 3), "receivers drop it"
        assert said.results[-1] == "3"
        assert outside.read("tmp/flags")[8:10] == b"\1\0", "what was asked for stays asked for"
        assert said.hostlog == (f"DEBUG:  Sent segment 0:1, usecs={when}, waittime=50\n"
                                "NOTICE: Failed to send segment. errno = 9\n"
                                f"DEBUG:  Sent segment 0:2, usecs={when}, waittime=50\n"
                                "ERROR: Failed to send segment. errno = 9\n"
                                f"DEBUG:  Sent segment 0:3, usecs={when}, waittime=50\n"
                                "DEBUG:  No data available.\n")


# --- a whole sender ---

def start_sender(outside, logs, job):
    put_job(outside, -99, job)
    return logs.start(outside, [["int mreplicate", "replicate -99"]])


def test_a_sender_sends_from_segment_1_answers_requests_and_ends(outside, logs, wire):
    content = pattern(4 << 20)
    large = outside.write("tree/large", content)
    with udp(GROUP, DATA_PORT, GROUP) as ear, hearing(ear) as heard, udp() as asker:
        started = start_sender(outside, logs, f"Request: {large}\nSpeed: 2000\n" + KEEP_ALL)
        count = len(ancestors(large)) + 1 + 4096 + 2
        # The segment behind the one that is asked for tells the round trip: it must have been sent.
        eventually(lambda: len(heard) > 2, 60)
        # The speed holds from the first request on: from here there is time to play.
        asker.sendto(struct.pack(">4I", 7, 0, 1, 1), (HERE, REQUEST_PORT))
        eventually(lambda: len(heard) > count, PATIENCE)
        for request in ((0, count - 4, 2), (0, count, 1), (1, 0, 1), (0, 0, 0)):
            asker.sendto(struct.pack(">4I", 7, *request), (HERE, REQUEST_PORT))
        asker.sendto(b"x" * 15, (HERE, REQUEST_PORT))
        said = outside.finish(started, PATIENCE)
    assert said.result == 0
    # All new ones and the first again; behind them the end is repeated.
    got, rest = heard[:count + 1], heard[count + 1:]
    assert said.err == "Starting Multicast replication clients\nStarting Multicast replication server\n"
    again = [each for each in got if each[28:32] != b"SeNd"]
    assert [(each[12:16], each[24:32]) for each in again] == [(struct.pack(">I", 1), bytes(8))]
    new = [each for each in got if each[28:32] == b"SeNd"]
    assert [struct.unpack(">2I", each[8:16]) for each in new] == [(0, number) for number in range(1, count + 1)]
    assert {each[:4] + each[20:28] for each in new[:-1]} == {b"PaCk" + bytes(4) + b"PfIn"}
    assert new[-1][:4] == bytes(4), "the packer has not filled the last one"
    waits = [struct.unpack(">I", each[16:20])[0] for each in new]
    assert (waits[0], set(waits)) == (50, {50, 500}), "the speed holds from the first request on"
    payloads = [each[32:] for each in new]
    at = len(ancestors(large))
    names = [payload[4:260].rstrip(b"\0").decode("latin-1") for payload in payloads[:at]]
    assert names == [*ancestors(large)[1:], large], "the first path is never sent"
    assert b"".join(payloads[at:at + 4096]) == content
    assert payloads[-3:-1] == [END_RECORD.ljust(PAYLOAD, b"\0")] * 2
    repeated = [struct.unpack(">I", each[12:16])[0] for each in rest]
    assert all(each[24:32] == bytes(8) and len(each) == SEGMENT for each in rest)
    assert len(rest) == 1023 and set(repeated) == {count - 1, count - 4, count - 3}
    assert repeated.count(count - 4) == repeated.count(count - 3) == 1
    log = logs.read("repServ.log")
    assert log.startswith("Replication processes starting\n")
    pace = "DEBUG:  speed = 2000.000000 KBytes/sec\n"
    assert f"DEBUG:  Got retransmit request. reqseg=0:1 num=1 New wait=500\n{pace}" in log
    assert f"DEBUG:  Got retransmit request. reqseg=0:{count - 4} num=2 New wait=" in log
    assert f"DEBUG:  Resending seg={count - 4}\n" in log
    for high, low in ((0, count), (1, 0)):
        assert f"ERROR:  Flow-control request out of buffer!  FileID={high}:{low}  Packed=0:{count}\n" in log
    assert f"DEBUG:  Shutdown?  filled=0:{count}, lastSent=0:{count}, shutdownFlag=" in log
    assert "NOTICE:  recvfrom:  Read error!  errno=" in log and " n=15 len=" in log
    assert logs.areas() == []


def test_requests_of_any_count_neither_hang_nor_crash_a_sender(outside, logs, wire):
    path = outside.write("tree/f", pattern(3000))
    with udp(GROUP, DATA_PORT, GROUP) as ear, udp() as asker:
        started = start_sender(outside, logs, f"Request: {path}\nSpeed: 20000\n" + KEEP_ALL)
        for _ in range(3):  # the one behind the first tells the round trip
            assert len(ear.recv(4096)) == SEGMENT
        for count in (0, 0xFFFFFFFF, 0x80000000, 16385):
            asker.sendto(struct.pack(">4I", 0, 0, 1, count), (HERE, REQUEST_PORT))
        assert outside.finish(started, PATIENCE).result == 0
    assert "num=-1 New wait=" in logs.read("repServ.log")


def test_a_busy_request_port_ends_the_start_of_a_sender(outside, logs, wire):
    put_job(outside, 5, "Request: /etc\n")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(("0.0.0.0", REQUEST_PORT))
        said = outside.run([["memory", "job", 144], ["int readMreplJobData", Memory("job"), 5],
                            ["int repServStart", Memory("job")], ["get", "dlvl"]], inside=logs.words)
    assert said.results[1:] == ["repServStart -2", "dlvl 1911"]
    assert said.err == "ERROR: Failed to get listener socket. retval = -2, errno = 98\n"
    assert logs.areas() == []


def test_a_sender_without_a_second_socket_does_not_start(outside, logs):
    job = [["memory", "job", 144], ["int readMreplJobData", Memory("job"), 5]]
    put_job(outside, 5, "Request: /etc\n")
    free = outside.run([*job, ["int dup", 0], ["int dup", 0]], inside=logs.words).result
    # Room for the log and for the first socket.
    limit = outside.write("tmp/limit", struct.pack("<2Q", free + 2, free + 2))
    said = outside.run([*job, ["memory", "limit", 16], ["poke", "limit", 0, limit], ["int dup", 0],
                        ["int setrlimit", 7, Memory("limit")], ["int repServStart", Memory("job")]], inside=logs.words)
    assert said.result == -3
    assert said.err == ("WARNING:  Unable to open socket!\n"
                        "ERROR: Failed to get sender socket. retval = -2, errno = 24\n")
    assert logs.areas() == []


def test_without_memory_to_share_neither_side_starts(outside, logs):
    put_job(outside, 5, "Request: /etc\n")
    inside = [*logs.words, "sh", "-ec", 'echo 1000 >/proc/sys/kernel/shmmax; exec "$@"', "sh"]
    said = outside.run([["memory", "job", 144], ["int readMreplJobData", Memory("job"), 5],
                        ["int repServStart", Memory("job")], ["int repClientStart"]], inside=inside)
    assert said.results[1:] == ["repServStart -1", "repClientStart -1"]
    failed = "ERROR: Failed to allocate shared memory buffer.  errno = 22\n"
    assert said.err == failed
    assert logs.read("repClnt.log").endswith(failed)


def test_without_an_area_no_process_of_a_run_works(outside):
    said = outside.run([["memory", "job", 144], ["memory", "a", 16], ["int dataPacker", Memory("job")],
                        ["int dataSender", Memory("a"), -1, Memory("a"), -1], ["int extracter"],
                        ["int getter", -1, Memory("a"), -1, Memory("a")]])
    assert [line.split()[1] for line in said.results] == ["-1"] * 4


def test_a_host_may_lend_no_log(outside):
    record = outside.write("tmp/h", head("/n", LINK, 9))
    said = outside.run([["null", "fplog"], ["memory", "h", HEAD], ["poke", "h", 0, record], ["int mkShMem", -1],
                        ["void logError", Memory("h"), -3], ["int readXformList", outside.path("etc/ZULsite")],
                        ["memory", "slot", SLOT], ["int fileExtractor", Memory("slot")], ["int mreplgetjobids"]])
    assert said.status == 0 and said.results[-2:] == ["fileExtractor -10", "mreplgetjobids 0"]


# --- a receiver's single steps ---

RECEIVER = [["memory", "ctrl", RECV_AREA], ["memory", "to", 16]]
RECV_RING = Memory("ctrl", RECV_CTRL)


def test_segments_are_taken_in_and_the_fifth_unexpected_one_asks(outside):
    order = [1, 2, 2, 5, 6, 8, 9, 10, 3, 4, 11]
    with udp("127.0.0.1") as ear, udp() as out:
        lines = [*RECEIVER, ["poke", "to", 0, outside.write("tmp/to", to(ear.getsockname()[1]))],
                 ["memory", "seg", SEGMENT]]
        for number in order:
            data = outside.write(f"tmp/s{number}",
                                 segment(number, b"%d" % number, send_time=number * 10, wait=77, control=1))
            lines += [["poke", "seg", 0, data],
                      ["int processNewSeg", out.fileno(), Memory("to"), Memory("ctrl"), RECV_RING, Memory("seg")],
                      ["number", "ctrl", 16]]
        lines += [["dump", "ctrl", 0, RECV_CTRL + 12 * SLOT, outside.path("tmp/area")]]
        said = outside.run(lines, fds=(out.fileno(),))
        asked = waiting(ear)
    results = [int(line.split()[-1]) for line in said.results]
    assert results[::2] == [0, 0, 0, 2, 2, 2, 2, 2, 0, 0, 0 + 1]
    assert results[1::2] == [1, 2, 2, 2, 2, 2, 2, 2, 3, 4, 6], "held ones are passed when the next unexpected one comes"
    assert asked == [struct.pack(">4I", 100, 0, 3, 2)]
    area = outside.read("tmp/area")
    received, contiguous, extract_to = (struct.unpack_from("<2I", area, at) for at in (4, 12, 20))
    assert (received, contiguous, extract_to) == ((0, 11), (0, 6), (0, 6))
    assert struct.unpack_from("<qI", area, 32) == (77, 110)
    slot = area[RECV_CTRL + 5 * SLOT:RECV_CTRL + 6 * SLOT]
    assert slot[8:10] == b"\0\1"
    assert slot[12:] == b"PaCk" + struct.pack("<5I", 50, 0, 5, 77, 1) + bytes(8) + b"5".ljust(PAYLOAD, b"\0")
    flags = [area[RECV_CTRL + at * SLOT + 8] for at in range(12)]
    assert flags[7] == 1 and sum(flags) == 1, "the one that is missing"
    assert "DEBUG: >>>> Received segment 0:1. waittime=77, usec=10\n" in said.hostlog
    assert said.hostlog.count("DEBUG:  Have segment already\n") == 1
    assert said.hostlog.count("DEBUG: <<<< Requesting missing 0:3, num=2\n") == 1


def test_numbers_share_slots_carry_and_an_overrun_ends(outside):
    block = bytearray(RECV_CTRL)
    struct.pack_into("<4I", block, 12, 0, 0xFFFFFFFF, 0, 0xFFFFFFFF)
    with udp() as out:
        lines = [*RECEIVER, ["poke", "ctrl", 0, outside.write("tmp/block", bytes(block))], ["memory", "seg", SEGMENT],
                 ["poke", "ctrl", RECV_CTRL + 7 * SLOT + 9, outside.write("tmp/two", b"\2")]]
        for number in (1 << 32, 3 << 32 | 7):
            lines += [["poke", "seg", 0, outside.write(f"tmp/s{number}", segment(number, b"x"))],
                      ["int processNewSeg", out.fileno(), Memory("to"), Memory("ctrl"), RECV_RING, Memory("seg")]]
        said = outside.run([*lines, ["number", "ctrl", 12], ["number", "ctrl", 16]], fds=(out.fileno(),))
    assert said.results == ["processNewSeg 0", "processNewSeg -2", "1", "0"]
    assert said.hostlog.endswith("ERROR: Buffer overflow. segment=3:7\n")


def fed(outside, *payloads, before=()):
    """What fileExtractor makes of payloads, one slot each."""
    lines = list(before) + [["memory", "slot", SLOT + 64]]
    for at, payload in enumerate(payloads):
        control = 0
        if isinstance(payload, tuple):
            payload, control = payload
        slot = bytes(8) + b"\0\1" + bytes(2) + b"PaCk" + struct.pack("<5I", 0, 0, at, 0, control) + bytes(8)
        lines += [["poke", "slot", 0, outside.write(f"tmp/slot{at}", slot + payload.ljust(PAYLOAD, b"\0"))],
                  ["int fileExtractor", Memory("slot")]]
    said = outside.run(lines)
    return said, [int(line.split()[1]) for line in said.results]


def own(kind, name, size=0, mode=0o640, **field):
    return head(name, kind, size, os.getuid(), os.getgid(), mode, 1700000000, 1700000001, **field)


def test_a_file_is_rebuilt_from_its_header_and_its_segments(outside):
    for length in (689, 1024, 1025, 5000):
        path = outside.path(f"new/folder{length}/file")
        blocks = [pattern(length)[at:at + 1024] for at in range(0, length, 1024)]
        said, results = fed(outside, own(FILE, path, length, 0o4751), *blocks, END_RECORD)
        assert results == [0] * (1 + len(blocks)) + [-11]
        status = os.stat(path)
        assert (status.st_size, stat.S_IMODE(status.st_mode), status.st_mtime) == (length, 0o4751, 1700000000)
        with open(path, "rb") as handle:
            assert handle.read() == pattern(length)
        assert stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode) == 0o755
        assert said.hostlog == ""


def test_small_files_are_read_behind_the_place_where_they_lie(outside):
    path = outside.path("small")
    assert fed(outside, own(FILE, path, 5) + bytes(INLINE - HEAD) + b"right")[1] == [0]
    assert outside.read("small") == b"right"
    assert fed(outside, own(FILE, path, 400) + b"c" * INLINE)[1] == [0]
    assert outside.read("small") == b"c" * 336 + bytes(64), "what would lie behind the segment is zero"
    assert os.stat(path).st_mtime != 1700000000
    assert fed(outside, own(FILE, path, 688) + b"c" * INLINE, b"n" * 1024)[1] == [0, 0]
    assert outside.read("small") == b"n" * 688
    os.chmod(path, 0o600)
    assert fed(outside, own(FILE, path, 0, 0o644))[1] == [0]
    assert (outside.read("small"), stat.S_IMODE(os.stat(path).st_mode)) == (b"", 0o644)


def test_folders_links_and_others_are_made_in_their_ways(outside):
    folder, link = outside.path("folder"), outside.path("sub/link")
    outside.write("folder", "in the way")
    said, results = fed(outside, own(FOLDER, folder, mode=0o710), own(FOLDER, folder, mode=0o755),
                        own(LINK, link, 6) + b"there", own(LINK, link, 5) + b"here", own(LINK, outside.path("none")),
                        own(OTHER, outside.path("other")), own(4, outside.path("other")),
                        own(ord("Q"), outside.path("other")),
                        own(FOLDER, link + "/x/y"))
    assert results == [0, 0, 0, -9, -9, 0, 0, 0, -4]
    assert stat.S_IMODE(os.stat(folder).st_mode) == 0o755 and os.stat(folder).st_mtime == 1700000000
    assert os.readlink(link) == "there" and not outside.exists("other")
    log = said.hostlog
    assert log.count("ERROR:  The symlink size is: 6\n") == log.count("ERROR:  The symlink size is: 5\n") == 1
    assert "ERROR:  The symlink size is 0\n" in log and "ERROR:  The symlink size is: 0\n" in log
    assert f"NOTICE:  Failed to replicate >{link}< could not make symbolic link!\n" in log
    assert "INFO:  Unknown file type: >Q<\n" in log
    assert log.count("INFO:  Cannot set access and modification time\n") == 4
    assert log.count("DEBUG:  DUMP: ") == 17 * 3
    assert f"NOTICE:  Failed to replicate >{link}/x/y< could not create directory for it!\n" in log


def test_devices_are_made_and_another_number_is_told(outside):
    null = outside.path("null")
    said, results = fed(outside, own(6, null, mode=0o666, rdev=0x103), own(6, null, rdev=0x105),
                        own(5, outside.path("loop"),
                                                                                                   rdev=0x700))
    if not outside.exists("null"):  # as for everybody but root
        assert results == [-7, -7, -7]
        assert said.hostlog.count(f"NOTICE:  Failed to replicate >{null}< could not make device!\n") == 2
        return
    assert results == [0, -8, 0]
    assert stat.S_ISCHR(os.stat(null).st_mode) and os.stat(null).st_rdev == 0x103
    assert stat.S_ISBLK(os.stat(outside.path("loop")).st_mode)
    text = f"NOTICE:  Failed to replicate >{null}< device file already exists with different major/minor!\n"
    assert text in said.hostlog


def test_what_cannot_be_made_has_its_code(outside):
    folder, device = outside.path("tmp"), outside.path("none/device")
    said, results = fed(outside, own(FILE, folder, 1000), own(FILE, folder, 0), own(6, device, rdev=0x103),
                        own(FOLDER, "/proc/sys"), own(FOLDER, "/proc/self/task"), own(FOLDER, "/proc/version"))
    assert results == [-6, -6, -7, -1, -2, -3]
    failed = "NOTICE:  Failed to replicate "
    texts = [line for line in said.hostlog.splitlines() if line.startswith("NOTICE")]
    assert texts == [f"{failed}>{folder}< could not open file!"] * 2 + [
        f"{failed}>{device}< could not make device!",
        "NOTICE:  File >/proc/sys< replicated, but failed to set ownership.",
        "NOTICE:  File >/proc/self/task< replicated, but failed to set permissions.",
        f"{failed}>/proc/version< a file with that name already exists!"]
    limit = outside.write("tmp/limit", struct.pack("<2Q", 4096, 4096))
    small = [["memory", "limit", 16], ["poke", "limit", 0, limit], ["int signal", 25, 1],
             ["int setrlimit", 1, Memory("limit")]]
    said, results = fed(outside, own(FILE, outside.path("big"), 9000), b"A" * 1024, before=small)
    assert results[-2:] == [-5, -10]
    assert f"{failed}>{outside.path('big')}< could not mmap file!\n" in said.hostlog


def test_a_damaged_header_is_dumped_and_the_stream_finds_the_next(outside):
    row = "DEBUG:  DUMP: " + " 41" * 16 + "  " + "A" * 16 + "\n"
    path = outside.path("file")
    outside.write("plain", "x")
    said, results = fed(outside, b"A" * 1024, own(FILE, outside.path("plain/below"), 2000), b"A" * 1024, b"A" * 1024,
                        own(FILE, path, 1000), pattern(1000))
    assert results == [-10, -4, -10, -10, 0, 0]
    assert said.hostlog.count(row) == 17 * 3
    assert said.hostlog.count("NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n") == 3
    text = f"NOTICE:  Failed to replicate >{outside.path('plain/below')}< could not create directory for it!\n"
    assert text in said.hostlog
    assert outside.read("file") == pattern(1000)


def test_a_header_alone_is_created_by_its_function(outside):
    """createNewFile leaves content to others: it says whether it is awaited."""
    def create(payload):
        slot = bytes(44) + payload.ljust(PAYLOAD, b"\0")
        said = outside.run([["memory", "slot", SLOT], ["poke", "slot", 0, outside.write("tmp/slot", slot)],
                            ["memory", "copy", HEAD], ["memory", "pending", 4],
                            ["poke", "pending", 0, outside.write("tmp/seven", b"\7\0\0\0")],
                            ["int createNewFile", Memory("slot"), Memory("copy"), Memory("pending")],
                            ["number", "pending", 0],
                            ["dump", "copy", 0, HEAD, outside.path("tmp/copy")]])
        return said.result_of(0), int(said.results[1]), struct.unpack_from("<I", outside.read("tmp/copy"))[0]
    assert create(own(FILE, outside.path("f"), 5000)) == (0, 1, 0x64456846)
    assert os.stat(outside.path("f")).st_size == 5000
    assert create(own(FILE, outside.path("f"), 5)) == (0, 0, 0x64456846)
    assert create(END_RECORD) == (-11, 0, 0)
    assert create(b"junk") == (-10, 0, 0)


def test_headers_are_turned_and_failures_have_their_texts(outside):
    record = head("/n", LINK, 9, 1, 2, 3, 4, 5, 6)
    outside.run([["memory", "h", HEAD], ["poke", "h", 0, outside.write("tmp/h", record)],
                 ["void convertFileEndian", Memory("h")],
                 ["dump", "h", 0, HEAD, outside.path("tmp/h")]])
    made = outside.read("tmp/h")
    assert struct.unpack_from("<I", made)[0] == 0x64456846 and made[4:264] == record[4:264]
    assert [struct.unpack_from("<I", made, at)[0] for at in (264, 268, 272, 280, 288, 296, 304)] == [1, 2, 3, 4, 5, 9,
                                                                                                     6]
    lines = [["memory", "h", HEAD], ["memory", "e", HEAD], ["poke", "h", 0, outside.write("tmp/h", record)]]
    said = outside.run([*lines, *[["void logError", Memory("h"), code] for code in (*range(-1, -11, -1), -77)],
                        ["void logError", Memory("e"), -78], ["int decryptHeader", Memory("h")],
                        ["int decryptBlock", Memory("h"), 8]])
    failed = "NOTICE:  Failed to replicate >/n< "
    assert said.hostlog == (
        "NOTICE:  File >/n< replicated, but failed to set ownership.\n"
        "NOTICE:  File >/n< replicated, but failed to set permissions.\n"
        f"{failed}a file with that name already exists!\n{failed}could not create directory for it!\n"
        f"{failed}could not mmap file!\n{failed}could not open file!\n{failed}could not make device!\n"
        f"{failed}device file already exists with different major/minor!\n{failed}could not make symbolic link!\n"
        "NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n"
        f"{failed}unknown error number -77!\n")


# --- a whole receiver ---

def start_receiver(outside, logs, sender=HERE, **how):
    if sender:
        outside.write("etc/mreplsender", sender + "\n")
    started = logs.start(outside, [["int mreplicate", "mrepclnt 1234567890"]], **how)
    eventually(lambda: outside_err(started) == "TRANSFER OK\n", 20, "a receiver that is ready")
    eventually(lambda: "DEBUG:  Getter running!\n" in logs.read("repClnt.log"), 20, "both processes run")
    return started


def outside_err(started):
    with open(os.path.join(started[1], "stderr"), encoding="latin-1") as handle:
        return handle.read()


def test_a_receiver_takes_a_run_and_asks_for_what_it_misses(outside, logs, wire):
    path, folder = outside.path("in/file"), outside.path("in")
    with udp(group=GROUP) as out, udp(HERE, REQUEST_PORT) as requests:
        started = start_receiver(outside, logs)

        def put(number, payload, **how):
            out.sendto(segment(number, payload, send_time=number * 10, wait=1000, **how), (GROUP, DATA_PORT))
        put(1, own(FOLDER, folder, mode=0o750))
        # Of other lengths and magics nothing is taken.
        for junk in (segment(2, b"short")[:1055], segment(2, b"long") + b"x", b"pAcK" + segment(2, b"magic")[4:], b""):
            out.sendto(junk, (GROUP, DATA_PORT))
        put(2, own(FILE, path, 2000))
        put(4, pattern(2000)[1024:])
        asked = [requests.recv(100) for _ in range(3)]
        assert set(asked) == {struct.pack(">4I", 40, 0, 3, 1)}, "again and again while nothing comes"
        put(5, END_RECORD)
        put(3, pattern(2000)[:1024], marks=bytes(8))
        put(6, END_RECORD)
        assert started[0].poll() is None
        put(7, b"one more, which lets the last end record be taken")
        said = outside.finish(started, PATIENCE)
    assert (said.result, said.err) == (0, "TRANSFER OK\n")
    with open(path, "rb") as handle:
        assert handle.read() == pattern(2000)
    assert stat.S_IMODE(os.stat(folder).st_mode) == 0o750
    log = logs.read("repClnt.log")
    for line in ("Replication processes starting\n", f"DEBUG:  Allocated {RECV_AREA} bytes\n",
                 "INFO:  Starting the extracter\n",
                 "INFO:  Starting the getter\n", "DEBUG:  *+* Requesting missing 0:3, num=1\n",
                 "DEBUG:  extracter:  Extracting 0:1\n"):
        assert line in log, line
    assert log.count("Data stream error!") == 1, "the slot of segment 0, which is never sent"
    assert logs.areas() == []


def test_without_loss_the_second_end_record_ends_a_receiver(outside, logs, wire):
    path = outside.path("file")
    with udp(group=GROUP) as out:
        started = start_receiver(outside, logs)
        for number, payload in enumerate((own(FILE, path, 1500), pattern(1500)[:1024], pattern(1500)[1024:],
                                          END_RECORD), 1):
            out.sendto(segment(number, payload), (GROUP, DATA_PORT))
        eventually(lambda: "Extracting 0:3\n" in logs.read("repClnt.log"), 20, "all but the end")
        assert started[0].poll() is None, "it stops one short of what has come"
        out.sendto(segment(5, END_RECORD), (GROUP, DATA_PORT))
        assert outside.finish(started, PATIENCE).result == 0
    assert outside.read("file") == pattern(1500)
    assert "Extracting 0:5" not in logs.read("repClnt.log")


@pytest.mark.parametrize("known_by, address", [
    ("a file", "127.0.0.7"), ("its console", "127.0.0.8"), ("segments", HERE),
])
def test_requests_go_to_the_sender_that_is_known(outside, logs, wire, known_by, address):
    listener = socket.create_server(("127.0.0.1", 2345))
    caller = socket.create_connection(("127.0.0.1", 2345), source_address=("127.0.0.8", 0))
    console, _ = listener.accept()
    with listener, caller, console, udp(group=GROUP) as out, udp(address, REQUEST_PORT) as requests:
        how = {} if known_by == "segments" else {"stdin": console}
        start_receiver(outside, logs, "127.0.0.7" if known_by == "a file" else None, **how)
        for number in (1, 3):
            out.sendto(segment(number, b"x", send_time=number, wait=1000), (GROUP, DATA_PORT))
        assert requests.recv(100) == struct.pack(">4I", 3, 0, 2, 1)


def test_a_receiver_without_an_interface_says_so_in_its_log(outside, logs):
    said = outside.run([["int repClientStart"], ["int mrepclntstart"]], inside=logs.words)
    assert (said.results, said.err) == (["repClientStart -2", "mrepclntstart 0"], "")
    assert "ERROR: Failed to get listener socket. retval = -5, errno = " in logs.read("repClnt.log")


def test_a_sender_and_a_receiver_of_this_module_understand_each_other(outside, logs, wire):
    """Everything but the first path and files of up to 688 bytes, which a classic run does not carry."""
    source = outside.path("source")
    outside.write("source/a/large", pattern(20000))
    outside.write("source/b", pattern(689))
    os.symlink("../b", outside.path("source/a/link"))
    os.chmod(outside.path("source/b"), 0o751)
    receiver = start_receiver(outside, logs)
    put_job(outside, -99, f"Request: {source}/\nPrefix: {outside.path('copy')}\nSpeed: 2000\n" + KEEP_ALL)
    sender = logs.start(outside, [["int mreplstart", -99]])
    assert outside.finish(sender, PATIENCE).result == 0
    assert outside.finish(receiver, PATIENCE).result == 0
    copy = outside.path("copy") + "/" + source
    for name in ("a/large", "b"):
        with open(f"{source}/{name}", "rb") as one, open(f"{copy}/{name}", "rb") as two:
            assert one.read() == two.read(), name
        assert os.stat(f"{source}/{name}").st_mode == os.stat(f"{copy}/{name}").st_mode
        assert int(os.stat(f"{source}/{name}").st_mtime) == int(os.stat(f"{copy}/{name}").st_mtime)
    assert os.readlink(f"{copy}/a/link") == "../b"


SIZES = (0, 1, 335, 336, 337, 687, 688, 689, 1023, 1024, 1025, 4095, 4096, 4097, 20000)


def test_a_sound_sender_and_receiver_carry_all_of_a_tree(outside, logs, wire):
    outside.write("etc/ZULsite", "behaviour = sound\n")
    outside.write("etc/mreplsender", HERE + "\n")
    source, kept = outside.path("source"), outside.path("source/kept")
    for size in SIZES:
        outside.write(f"source/f{size}", pattern(size))
    outside.write("source/kept", "secret")
    os.symlink("t" * 300, outside.path("source/link"))
    put_job(outside, -99, f"Host: {HERE}\nRequest: {source}/\nExclude: {kept}\nXform: {source} /moved\n"
            f"Prefix: {outside.path('copy')}\n" + KEEP_ALL)
    receiver = logs.start(outside, [["int mreplicate", "mrepclnt 1234567890"]])
    eventually(lambda: outside_err(receiver) == "TRANSFER OK\n", 20, "a receiver that is ready")
    sender = outside.finish(logs.start(outside, [["int mreplicate", "replicate -99"]]), PATIENCE)
    assert outside.finish(receiver, PATIENCE).result == 0
    assert sender.result == 0 and f"INFO:  Receiver {HERE}: complete\n" in sender.err
    copy = outside.path("copy/moved")
    assert sorted(os.listdir(copy)) == sorted(["link", *(f"f{size}" for size in SIZES)])
    for size in SIZES:
        assert outside.read(f"copy/moved/f{size}") == pattern(size), size
        one, two = os.stat(f"{source}/f{size}"), os.stat(f"{copy}/f{size}")
        assert (one.st_mode, int(one.st_mtime)) == (two.st_mode, int(two.st_mtime)), size
    assert os.readlink(f"{copy}/link") == "t" * 300
