"""The receiver of multicast replication, from single segments to whole runs, called through the built module's exported
functions. The sender is played here, on an interface of the run's own network, until both sides meet."""
import os
import socket
import stat
import struct

import pytest

from home import eventually
from outside import Memory
from outsidemulticast import fresh_network, logs, wire  # noqa: F401 (fixtures)
from outsidemulticast import (DATA_PORT, END_RECORD, FILE, FOLDER, GROUP, HERE, KEEP_ALL, PATIENCE, PAYLOAD, RECV_AREA,
                              RECV_CTRL, REQUEST_PORT, SEGMENT, SLOT, own, pattern, put_job, segment, to, udp,
                              waiting)


# --- single segments ---

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
