"""The sender of multicast replication, in single steps and whole, called through the built module's exported functions.
The receivers are played here, on an interface of the run's own network."""
import socket
import struct
import time

import pytest

from home import eventually
from outside import Memory
from outsidemulticast import fresh_network, logs, wire  # noqa: F401 (fixtures)
from outsidemulticast import (DATA_PORT, END_RECORD, GROUP, HERE, KEEP_ALL, PATIENCE, PAYLOAD, REQUEST_PORT, SEGMENT,
                              SEND_AREA, SEND_CTRL, SLOT, ancestors, hearing, pattern, put_job, segment, to, udp,
                              waiting)


# --- single steps ---

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
