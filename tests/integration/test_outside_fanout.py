"""One request on many hosts, called through the built module's exported functions. The agents are played here, on
addresses of the run's own network; the host's login says what it is told to."""
import contextlib
import os
import re
import socket
import stat
import struct
import threading
import time

import pytest

from home import eventually
from outside import Memory
from ownnetwork import enter_own_network
from outsidemulticast import logs, put_job, udp  # noqa: F401 (a fixture)

CONSOLE = 2345
START = "MREPL mrepclnt 1234567890\n"
HEADING = "\n---------------  Job Result on Hosts  -------------------\n"
RESULTS = "tmp/mrepl.jobresult.-1"
ENTRY, BUFFER = 56, 16384


@pytest.fixture(autouse=True)
def fresh_network():
    """Its console port is free at every address."""
    enter_own_network()


class Agents:
    """Agents of many hosts; each connection is played by a thread."""

    def __init__(self):
        self.sockets, self.heard, self.open, self.most, self.lock = [], [], 0, 0, threading.Lock()
        self.order, self.over, self.servers = [], threading.Event(), []

    def listen(self, address, backlog=64):
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind((address, CONSOLE))
        listener.listen(backlog)
        self.sockets.append(listener)
        return listener

    def at(self, address, play):
        """play(agent): a text to say after the first line and to close behind, or a function."""
        listener = self.listen(address)
        self.servers.append(threading.Thread(target=self.serve, args=(listener, address, play), daemon=True))
        self.servers[-1].start()

    def black_hole(self, address):
        """Takes no connection and refuses none: connections that nobody accepts fill the queue."""
        self.listen(address, 0)
        for _ in range(3):
            filler = socket.socket()
            filler.setblocking(False)
            filler.connect_ex((address, CONSOLE))
            self.sockets.append(filler)

    def serve(self, listener, address, play):
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=self.talk, args=(connection, address, play), daemon=True).start()

    def talk(self, connection, address, play):
        with self.lock:
            self.open += 1
            self.most = max(self.most, self.open)
            self.order.append(address)
        with connection, connection.makefile("rw", encoding="latin-1", newline="\n") as console:
            try:
                if callable(play):
                    play(self, console)
                else:
                    self.hear(console)
                    self.say(console, play)
            except (OSError, ValueError):
                pass
            with self.lock:
                self.open -= 1

    def hear(self, console):
        line = console.readline()
        with self.lock:
            self.heard.append(line)
        return line

    @staticmethod
    def say(console, text):
        console.write(text)
        console.flush()

    def close(self):
        self.over.set()
        # A thread that is about to accept would take the next test's listener, which gets the same descriptor.
        for each in self.sockets:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
        for each in self.servers:
            each.join(10)
        for each in self.sockets:
            each.close()


@pytest.fixture
def agents():
    made = Agents()
    yield made
    made.close()


def hosts_named(outside, hosts):
    """Script lines that make a list "hosts"."""
    path = outside.write("tmp/hosts", "".join(f"{host}\n" for host in hosts))
    return [["memory", "hosts", 16], ["int readFileList", path, Memory("hosts")]]


def fan_out(outside, hosts, commands=(START,), job=-1, before=(), limit=60):
    said = outside.run([*hosts_named(outside, hosts), ["texts", "commands", *commands], *before,
                        ["int minimonk", Memory("hosts"), Memory("commands"), job]], limit)
    assert said.status == 0
    return said


def note(good, hosts):
    return f"NOTE:  Replication started on {good} out of {hosts} hosts.\n"


def outcomes(outside, name=RESULTS):
    """The words of the result file, by host; every line ends with a time."""
    text = outside.text(name)
    assert text.startswith(HEADING)
    lines = text[len(HEADING):].splitlines()
    form = re.compile(r"Host (.*) ([A-Z][A-Za-z_]*): [A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}")
    return {match[1]: match[2] for match in (form.fullmatch(line) for line in lines)}


def test_without_hosts_nothing_is_asked(outside):
    said = fan_out(outside, [])
    assert (said.result, said.err, outside.exists(RESULTS)) == (0, note(0, 0), False)


NAMED = "Host[127.0.1.1]  "


@pytest.mark.parametrize("answer, text, good, outcome", [
    ("TRANSFER OK\nmore\n", "", 1, "Ok"),
    ("TRANSFER OK and more\n", "", 1, "Ok"),
    ("a\nb\nTRANSFER OK\n", f"{NAMED}a\n{NAMED}b\n", 1, "Ok"),
    ("ERROR: x\nTRANSFER OK\n", f"{NAMED}ERROR: x\n", 0, "Command_Failed"),
    ("a\nERROR:", f"{NAMED}a\n{NAMED}ERROR:", 0, "Command_Failed"),
    (" ERROR: x\n TRANSFER OK\nTRANSFER OK\n", f"{NAMED} ERROR: x\n{NAMED} TRANSFER OK\n", 1, "Ok"),
    ("", f"{NAMED}ERROR:  Connection lost.\n", 0, "Protocol_Error"),
    ("in the middle of a li", f"{NAMED}in the middle of a li{NAMED}ERROR:  Connection lost.\n", 0, "Protocol_Error"),
    ("text\nZuL_DoNe. 0\n", f"{NAMED}text\n{NAMED}ERROR:  The command ended without TRANSFER OK.\n", 0,
     "Command_Failed"),
    ("x" * 1022 * 16 + "TRANSFER OK" + "y" * 1011 + "\nTRANSFER OK\n",
     (NAMED + "x" * 1022) * 16 + f"{NAMED}TRANSFER OK" + "y" * 1011 + f"{NAMED}\n", 1, "Ok"),
    ("".join("z" * 999 + "\n" for _ in range(60)) + "TRANSFER OK\n", (NAMED + "z" * 999 + "\n") * 60, 1, "Ok"),
    ("a\0b\nTRANSFER OK\n", f"{NAMED}a?b\n", 1, "Ok"),
])
def test_an_answer_has_its_outcome(outside, agents, answer, text, good, outcome):
    agents.at("127.0.1.1", answer)
    said = fan_out(outside, ["127.0.1.1"])
    assert (said.result, said.out, said.trace) == (0, "", ["autoLogin"])
    assert said.err == NAMED * 2 + text + note(good, 1)
    assert outcomes(outside) == {"127.0.1.1": outcome}
    assert agents.heard == [START]


def test_hosts_that_cannot_be_reached_or_do_not_let_in_are_told_apart(outside, agents):
    agents.at("127.0.1.1", "TRANSFER OK\n")
    names = ["no-such-host.invalid", "n" * 255, "n" * 256, "n" * 300]
    said = fan_out(outside, [*names, "127.0.1.9"])
    for name in names:
        assert f"Host[{name}]  Could not resolve host name: {name}\n" in said.err
        assert f"Host[{name}]  ERROR:  7015  Cannot connect to remote host.\n" in said.err
    assert "Host[127.0.1.9]  ERROR:  7016  Cannot login to remote host.\n" in said.err
    assert said.err.endswith(note(0, 5))
    assert outcomes(outside) == {**{name: "Connection_Refused" for name in names}, "127.0.1.9": "Bad_Pass"}
    os.unlink(outside.path(RESULTS))
    said = fan_out(outside, ["127.0.1.1"], before=[["answer", 1]])
    assert said.err == f"{NAMED}ERROR:  7016  Cannot login to remote host.\n{note(0, 1)}"
    assert outcomes(outside) == {"127.0.1.1": "Bad_Pass"}


@pytest.mark.parametrize("behaviour", ["classic", "sound"])
def test_of_a_hundred_hosts_forty_are_dead_and_forty_are_asked_at_once(outside, agents, behaviour):
    outside.write("etc/ZULsite", f"behaviour = {behaviour}\n")
    living = [f"127.0.2.{at}" for at in range(1, 61)]
    holes = [f"127.0.3.{at}" for at in range(1, 11)]
    gone = [f"127.0.4.{at}" for at in range(1, 11)]
    unknown = [f"h{at}.invalid" for at in range(1, 11)]
    cut = [f"127.0.5.{at}" for at in range(1, 11)]

    def slow(agent, console):
        agent.hear(console)
        time.sleep(0.05)
        agent.say(console, "TRANSFER OK\n")
    for host in living:
        agents.at(host, slow)
    for host in cut:
        agents.at(host, "half a li")
    for host in holes:
        agents.black_hole(host)
    dead = [host for four in zip(holes, gone, unknown, cut) for host in four]
    begun = time.monotonic()
    said = fan_out(outside, [*dead[:20], *living, *dead[20:]])
    assert 10 <= time.monotonic() - begun < 90  # one after the other the ten holes alone take 100 s
    assert said.err.endswith(note(60, 100))
    assert outcomes(outside) == {**dict.fromkeys(living, "Ok"), **dict.fromkeys(holes, "No_Response"),
                                 **dict.fromkeys(gone, "Bad_Pass"), **dict.fromkeys(unknown, "Connection_Refused"),
                                 **dict.fromkeys(cut, "Protocol_Error")}
    assert sum(f"Host[{host}]  Host did not respond.\n" in said.err for host in holes) == 10
    assert 20 < agents.most <= 40
    # Five of the first forty are holes: they keep their places while the others go by.
    assert agents.order.index(living[50]) > 34


def test_the_next_command_waits_for_the_answer_to_the_first(outside, agents):
    early = []

    def play(agent, console):
        agent.hear(console)
        agent.say(console, "some text\n")
        time.sleep(0.1)
        early.extend(agent.heard[1:])
        agent.say(console, "ZuL>")
        agent.hear(console)
        agent.hear(console)
        agent.say(console, "TRANSFER OK\n")
    agents.at("127.0.1.1", play)
    said = fan_out(outside, ["127.0.1.1"], commands=("TAPE a\n", "TAPE b\n", "TAPE c\n"))
    assert (early, agents.heard) == ([], ["TAPE a\n", "TAPE b\n", "TAPE c\n"])
    assert said.err == f"{NAMED * 3}some text\n{note(1, 1)}"


def test_a_host_that_says_nothing_more_is_given_up(outside, agents):
    outside.write("etc/ZULsite", "fanout.answer-limit = 3s\n")

    def hang(agent, console):
        agent.hear(console)
        agent.say(console, "TRANSFER O")
        agent.over.wait(30)
    agents.at("127.0.1.1", hang)
    agents.at("127.0.1.2", lambda agent, console: agent.over.wait(30))
    agents.at("127.0.1.3", "TRANSFER OK\n")
    said = fan_out(outside, ["127.0.1.1", "127.0.1.2", "127.0.1.3"], limit=20)
    assert said.err.endswith(note(1, 3)) and said.err.count("Host did not respond.\n") == 2
    assert outcomes(outside) == {"127.0.1.1": "No_Response", "127.0.1.2": "No_Response", "127.0.1.3": "Ok"}


def test_a_thousand_hosts_are_a_thousand_lines(outside):
    hosts = [f"127.1.{at // 250}.{at % 250 + 1}" for at in range(1000)]
    said = fan_out(outside, hosts)
    assert said.err.endswith(note(0, 1000))
    assert outcomes(outside) == dict.fromkeys(hosts, "Bad_Pass")


def test_nodes_without_a_name_are_skipped(outside, agents):
    agents.at("127.0.1.1", "TRANSFER OK\n")
    said = outside.run([["memory", "first", 16], ["memory", "second", 16], ["memory", "last", 16],
                        ["point", "first", 8, "second"], ["say", "second", 0, "127.0.1.1"],
                        ["point", "second", 8, "last"],
                        ["texts", "commands", START], ["int minimonk", Memory("first"), Memory("commands"), 7],
                        ["int minimonk", None, Memory("commands"), 7]])
    assert said.err.endswith(note(1, 1) + note(0, 0))
    assert outcomes(outside, "tmp/mrepl.jobresult.7") == {"127.0.1.1": "Ok"}


def test_the_result_file_is_private_grows_and_has_a_heading_per_process(outside, agents):
    agents.at("127.0.1.1", "TRANSFER OK\n")
    lines = [*hosts_named(outside, ["127.0.1.1"]), ["texts", "commands", START]]
    monk = ["int minimonk", Memory("hosts"), Memory("commands"), -1]
    for _ in range(2):
        outside.run([*lines, monk, monk])
    text = outside.text(RESULTS)
    assert text.count(HEADING) == 2 and text.count("Host 127.0.1.1 Ok: ") == 4
    assert text.startswith(HEADING + "Host 127.0.1.1 Ok: ")
    assert stat.S_IMODE(os.stat(outside.path(RESULTS)).st_mode) == 0o600


# --- what is kept of a host ---

def entry(name="h1"):
    return [["memory", "e", ENTRY], ["say", "e", 24, name]]


@pytest.mark.parametrize("status, word", [
    (1, "Ok"), (2, "Connection_Refused"), (3, "Bad_Pass"), (4, "Protocol_Error"), (5, "Command_Failed"),
    (6, "No_Response"), (9, None), (0, None), (-1, None),
])
def test_every_status_has_its_line(outside, status, word):
    said = outside.run([*entry(), ["int logHostStatus", 3, status, Memory("e")],
                        ["int logHostStatus", 3, status, Memory("e")]])
    assert (said.results, said.err) == (["logHostStatus 0"] * 2, "")
    if word is None:
        assert outside.text("tmp/mrepl.jobresult.3") == HEADING
    else:
        line = rf"Host h1 {word}: \w{{3}} \w{{3}} [ \d]\d [\d:]{{8}} \d{{4}}\n"
        assert re.fullmatch(re.escape(HEADING) + line + line, outside.text("tmp/mrepl.jobresult.3"))


def test_a_result_file_that_cannot_be_opened_is_named(outside):
    os.mkdir(outside.path("tmp/mrepl.jobresult.3"))
    said = outside.run([*entry(), ["int logHostStatus", 3, 1, Memory("e")]])
    path = outside.path("tmp/mrepl.jobresult.3")
    assert (said.result, said.err) == (-1, f"ERROR:  7071  Cannot open the file {path}.  Check permissions\n")


def test_a_response_grows_to_its_room(outside):
    said = outside.run([*entry(), ["int saveResponse", Memory("e"), "lost"], ["memory", "buffer", BUFFER],
                        ["point", "e", 40, "buffer"], ["int saveResponse", Memory("e"), "ab"],
                        ["int saveResponse", Memory("e"), "cd\n"], ["number", "e", 48], ["show", "e", 40],
                        ["int saveResponse", Memory("e"), "x" * 20000], ["number", "e", 48],
                        ["dump", "buffer", 0, BUFFER, outside.path("tmp/buffer")]])
    assert said.results == ["saveResponse -1", "saveResponse 0", "saveResponse 0", "5", "abcd", "", "saveResponse -1",
                            str(BUFFER - 1)]
    assert outside.read("tmp/buffer") == b"abcd\n" + b"x" * (BUFFER - 6) + b"\0"


def test_a_finished_host_is_printed_and_its_buffer_goes_to_the_next_that_waits(outside):
    ours, theirs = socket.socketpair()
    entries = bytearray(5 * ENTRY)
    states = [3, 0, 0, 63, 256 | 3]
    for at, state in enumerate(states):
        struct.pack_into("<I16xi", entries, at * ENTRY, state, theirs.fileno() if at == 3 else -1)
    said = outside.run([["memory", "es", 5 * ENTRY], ["poke", "es", 0, outside.write("tmp/es", bytes(entries))],
                        ["memory", "buffer", BUFFER], ["point", "es", 3 * ENTRY + 40, "buffer"],
                        ["int saveResponse", Memory("es", 3 * ENTRY), "its words\n"],
                        ["int hostFinished", 5, 3, Memory("es")],
                        ["dump", "es", 0, 5 * ENTRY, outside.path("tmp/after")],
                        ["dump", "buffer", 0, BUFFER, outside.path("tmp/buffer")]], fds=(theirs.fileno(),))
    theirs.close()
    assert (said.result, said.err) == (0, "its words\n")
    assert ours.recv(1) == b"", "closed"
    after = outside.read("tmp/after")
    state, fd = struct.unpack_from("<I16xi", after, 3 * ENTRY)
    assert (state & 257, fd) == (257, -1)
    buffers = [struct.unpack_from("<Q", after, at * ENTRY + 40)[0] for at in range(5)]
    assert [bool(each) for each in buffers] == [False, True, False, False, False], "behind the last comes the first"
    assert outside.read("tmp/buffer") == bytes(BUFFER)


# --- the start of a run ---

def test_a_run_starts_its_receivers_and_then_its_sender(outside, agents, logs):  # noqa: F811
    agents.at("127.0.1.1", "TRANSFER OK\n")
    put_job(outside, 5, "Host: 127.0.1.1\nHost: 127.0.1.9\nRequest: /etc\n")
    with udp(port=2346):
        said = outside.run([["int mreplicate", "replicate 5"]], inside=logs.words)
    assert said.result == 0, "whatever the run came to"
    clients, server = "Starting Multicast replication clients\n", "Starting Multicast replication server\n"
    taken = "ERROR: Failed to get listener socket. retval = -2, errno = 98\n"
    assert said.err.startswith(clients) and said.err.endswith(note(1, 2) + server + taken)
    assert agents.heard == [START]
    assert outcomes(outside) == {"127.0.1.1": "Ok", "127.0.1.9": "Bad_Pass"}
    eventually(lambda: agents.open == 0)


def test_the_trial_number_starts_no_receivers(outside, agents, logs):  # noqa: F811
    agents.at("127.0.1.1", "TRANSFER OK\n")
    put_job(outside, -99, "Host: 127.0.1.1\nRequest: /etc\n")
    with udp(port=2346):
        said = outside.run([["int mreplstart", -99]], inside=logs.words)
    assert said.result == 0
    assert said.err.startswith("Starting Multicast replication clients\nStarting Multicast replication server\n")
    assert (agents.heard, outside.exists(RESULTS)) == ([], False)
