"""What tests share that play other hosts: connections, an agent, a gatherer, and the tape writer's part in the segment
of a backup job."""
import contextlib
import ctypes
import socket
import struct
import threading

import pytest

from home import eventually
from outsidetapes import NODE, header
from ownnetwork import enter_own_network

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


def assert_heard(heard, expected, seconds=20):
    """What a process said last may reach the host that is played a moment after that process has ended."""
    with contextlib.suppress(AssertionError):
        eventually(lambda: heard == expected, seconds)
    assert heard == expected


class Agent:
    """The agent of a client host, played: keeps the request lines of its consoles, one after the other."""

    def __init__(self):
        self.listener, self.requests = listen(CONSOLE), []
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                console, _ = self.listener.accept()
            except OSError:
                return
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


def ask(sd, line, count=520):
    sd.sendall(line)
    return take(sd, count)


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
