"""Streams, headers on them and connections, called through the built module's exported functions. The other side is
played here: by one end of a socket pair, or on the fixed ports of the run's own network."""
import os
import socket
import struct

import pytest

from home import eventually
from outside import Buffer
from outsidehosts import agent, fresh_network, pair  # noqa: F401 (fixtures)
from outsidehosts import CONSOLE, MIB, assert_heard, listen, read_all, take
from outsidetapes import header, record


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


def test_a_gatherer_is_asked_for(outside, agent):
    said = outside.run([["int startBackupServ", "127.0.0.1", 7, 0], ["alarm"], ["state"]])
    assert (said.result_of(0), said.results[1]) == (0, "alarm 0")
    assert said.trace == ["initpass", "autoLogin"]
    assert_heard(agent.requests, ["TAPE server 7 0\n"])
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
    assert_heard(agent.requests, ["TAPE rsync 7\n/etc/\n" + "n" * 300 + "\nTRANSFER OK\n"])
    said = outside.run([["answer 1"], ["int syncBackupLists", 7]])
    assert said.result == 0
    assert said.log == ("ERROR:  8334  Cannot connect to remote host: 127.0.0.9\n"
                        "ERROR:  8335  Cannot start sync on remote host:  127.0.0.1\n"
                        "Synchronizing 127.0.0.1\nERROR:  8331  Failed to synchronize 127.0.0.1\n")
    os.unlink(outside.path("var/tape/jobids/7"))
    assert outside.call("int syncBackupLists", 7).result == -1
