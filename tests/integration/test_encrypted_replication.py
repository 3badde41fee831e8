"""A replication from this machine to itself, watched on the wire: in clear its files can be read there, encrypted not."""
import json
import os
import socket
import threading

import pytest

from zulsupport import eventually, zul

MARK = b"these words stand in the file"
ETH_P_ALL = 3
SO_RCVBUFFORCE = 33
DATA_PORT = 2346


class Capture:
    """Everything that passes loopback to or from the data port while it is open."""

    def __init__(self):
        self.wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.wire.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        self.wire.bind(("lo", 0))
        self.wire.settimeout(0.1)
        self.packets, self.open = [], True
        self.thread = threading.Thread(target=self.listen)
        self.thread.start()

    def listen(self):
        while self.open:
            try:
                self.packets.append(self.wire.recv(1 << 17))
            except TimeoutError:
                pass

    def payload(self):
        """The data of the packets, once no more come."""
        before = -1
        while before != len(self.packets):
            before = len(self.packets)
            self.thread.join(0.3)
        self.open = False
        self.thread.join()
        self.wire.close()
        port = DATA_PORT.to_bytes(2, "big")
        ends = (packet[34:36] == port or packet[36:38] == port for packet in self.packets)
        return b"".join(packet for packet, ours in zip(self.packets, ends) if ours)


@pytest.fixture
def site(tmp_path):
    home, source = str(tmp_path / "home"), tmp_path / "source"
    source.mkdir()
    (source / "letter").write_bytes(MARK * 100)
    (source / "numbers").write_bytes(os.urandom(2500000))

    def run(*words):
        done = zul("--home", home, *words)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    run("init", "--no-drive")
    run("up")
    run("request", "TAPE add group 1:localhost:this machine")
    run("request", f"TAPE add backuplist 5 {source}/")
    yield run, home, source
    zul("--home", home, "down")


def replicate(run, home, flags, target):
    """The words about the only target, when the job has ended."""
    run("request", f"TAPE add repids 5:1:4:0:0:28672:28672:0:{flags}:reserved:{target}:copies")
    run("request", "TAPE replicate 5")
    result = f"{home}/var/tape/jobids/replicate.5.result"

    def ended():
        if os.path.exists(result):
            with open(result) as handle:
                lines = [json.loads(line) for line in handle]
            return lines and lines[0]["state"] in ("done", "failed") and lines[0]

    return eventually(ended, 40, "the end of the replication")


@pytest.mark.parametrize("encrypted", [False, True])
def test_only_an_encrypted_replication_hides_its_files(site, tmp_path, encrypted):
    run, home, source = site
    if encrypted:
        run("key", "new")
        run("key", "check")
    target = tmp_path / "target"
    capture = Capture()
    outcome = replicate(run, home, 2 if encrypted else 0, target)
    seen = capture.payload()
    assert outcome["state"] == "done", outcome
    for name in ("letter", "numbers"):
        assert (target / str(source)[1:] / name).read_bytes() == (source / name).read_bytes()
    assert len(seen) > 2500000
    # Neither contents nor names nor commands. Shorter words would turn up in random bytes now and then.
    for word in (MARK, b"letter", b"Next\n"):
        assert (word in seen) == (not encrypted), word


def test_a_key_that_others_may_read_ends_the_replication_before_a_byte_of_it(site, tmp_path):
    run, home, source = site
    run("key", "new")
    os.chmod(f"{home}/etc/ZULkey", 0o644)
    capture = Capture()
    outcome = replicate(run, home, 2, tmp_path / "target")
    seen = capture.payload()
    assert outcome["state"] == "failed", outcome
    assert MARK not in seen and b"letter" not in seen
    assert not (tmp_path / "target" / str(source)[1:]).exists()
