"""What every run of multicast replication stands on, called through the built module's exported functions: byte order,
shared areas, sockets, interfaces, logs."""
import os
import struct

import pytest

from outside import Memory
from outsidemulticast import fresh_network, logs, wire  # noqa: F401 (fixtures)
from outsidemulticast import (GROUP, HEAD, LINK, RECV_AREA, RECV_CTRL, SEND_AREA, SEND_CTRL, SLOT, head, ip, segment,
                              to, udp, waiting)


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


def test_a_host_may_lend_no_log(outside):
    record = outside.write("tmp/h", head("/n", LINK, 9))
    said = outside.run([["null", "fplog"], ["memory", "h", HEAD], ["poke", "h", 0, record], ["int mkShMem", -1],
                        ["void logError", Memory("h"), -3], ["int readXformList", outside.path("etc/ZULsite")],
                        ["memory", "slot", SLOT], ["int fileExtractor", Memory("slot")], ["int mreplgetjobids"]])
    assert said.status == 0 and said.results[-2:] == ["fileExtractor -10", "mreplgetjobids 0"]
