"""What the tests of multicast replication share: records as they travel and lie in memory, jobs, and for whole runs a
network and a /tmp of their own."""
import contextlib
import os
import select
import socket
import struct
import subprocess
import threading

import pytest

from outside import MODULE
from ownnetwork import enter_own_network

SLOT, SEGMENT, PAYLOAD, HEAD, INLINE = 1068, 1056, 1024, 336, 688
SEND_AREA, RECV_AREA, SEND_CTRL, RECV_CTRL = 17498188, 4374596, 72, 64
FILE, FOLDER, LINK, OTHER, END = 1, 2, 3, 7, 8
JOBS = "var/tape/mrepljobs"
GROUP, DATA_PORT, REQUEST_PORT = "239.240.240.240", 2345, 2346
HERE = "10.9.0.1"
PATIENCE = 200  # seconds: every pass of a sender is a sleep, from which a busy machine wakes it late
SO_RCVBUFFORCE = 33
KEEP_ALL = "FilePerms: 61440\nDirPerms: 28672\n"


def head(name, kind, size=0, owner=0, group=0, mode=0, mtime=0, atime=0, rdev=0):
    """A file header as it travels."""
    return (b"dEhF" + name.encode("latin-1").ljust(256, b"\0") + bytes(3) + bytes([kind])
            + struct.pack(">18I", owner, group & 0xFFFFFFFF, mode, 0, mtime, 0, atime, 0, size, 0, rdev, *[0] * 7))


def own(kind, name, size=0, mode=0o640, **field):
    """A header that this process can obey: its own owner and group, times that are not now."""
    return head(name, kind, size, os.getuid(), os.getgid(), mode, 1700000000, 1700000001, **field)


def segment(number, payload, send_time=0, wait=50, control=0, marks=b"PfInSeNd"):
    return (b"PaCk" + struct.pack(">5I", send_time, number >> 32, number & 0xFFFFFFFF, wait, control) + marks
            + payload.ljust(PAYLOAD, b"\0"))


END_RECORD = head("EnD_Of_TrAnSmIsSiOn", END, owner=65535, group=-2)


def put_job(outside, number, text):
    outside.write(f"{JOBS}/mrepjob.{number}", text)


def pattern(length):
    return bytes((at * 31 >> 3) & 0xFF for at in range(length))


def ancestors(path):
    parts = path.strip("/").split("/")
    return ["/" + "/".join(parts[:at]) for at in range(1, len(parts))]


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
        # Room for a whole run: the usual one holds what comes in a twentieth of a second.
        made.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        made.bind((address, port))
        if group:
            made.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(group) + socket.inet_aton(HERE))
        made.settimeout(60)
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
    """Everything that arrives meanwhile, in a list that grows."""
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
