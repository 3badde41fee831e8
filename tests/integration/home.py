"""A home with its daemon, for tests that drive the built programs from outside.

    home = Home(folder)                 # the tree of an installation, made by hand; the built module in it
    home.start()                        # ZULd in the foreground, its log in home.log
    console = home.local()              # an operator's session on the local socket
    text, status = console.ask("TAPE version")
    agent = home.node("alpha")          # an agent's session over TCP, logged in
    home.stop()

The login is written out here a second time, from docs/protocols/console.md, so that the page is proved too.
"""
import ctypes
import hashlib
import hmac
import os
import secrets
import shutil
import signal
import socket
import subprocess
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("ZUL_BUILD", os.path.join(ROOT, "build", "dev"))
ZULD = os.path.join(BUILD, "bin", "ZULd")
MODULE = os.path.join(BUILD, "bin", "libtape.so")
PORT = 2345
PROMPT = b"ZuL>"


def eventually(condition, seconds=30, what="a condition"):
    """The first true value of condition(); an error when there is none in time."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= end:
            raise AssertionError(f"{what}: not within {seconds} s")
        time.sleep(0.01)


def derive(name, password):
    """The key of an operator: argon2id, 3 passes over 64 MiB, salted with a hash of the name."""
    sodium = ctypes.CDLL("libsodium.so.23")
    sodium.sodium_init()
    key = ctypes.create_string_buffer(32)
    salt = hashlib.sha256(b"zul1-salt\0" + name.encode()).digest()[:16]
    failed = sodium.crypto_pwhash_argon2id(key, ctypes.c_ulonglong(32), password.encode(),
                                           ctypes.c_ulonglong(len(password.encode())), salt, ctypes.c_ulonglong(3),
                                           ctypes.c_size_t(64 << 20), 2)
    assert failed == 0
    return key.raw


def claim(kind, name, key, server, client):
    """A client's line."""
    text = b"zul1-c\0" + kind.encode() + b"\0" + name.encode() + b"\0" + server + client
    return f"{kind} {name} {client.hex()} {hmac.new(key, text, hashlib.sha256).hexdigest()}\n".encode()


def acceptance(name, key, server, client):
    """The answer of a host that knows the key."""
    text = b"zul1-s\0" + name.encode() + b"\0" + client + server
    return f"OK {hmac.new(key, text, hashlib.sha256).hexdigest()}\n".encode()


class Console:
    """One console connection."""

    def __init__(self, sock, limit=30):
        self.sock = sock
        sock.settimeout(limit)

    def say(self, data):
        self.sock.sendall(data if isinstance(data, bytes) else data.encode())

    def line(self):
        """One line, or what came before the end of the stream."""
        return self.until(b"\n")

    def until(self, ending):
        data = b""
        while not data.endswith(ending):
            byte = self.sock.recv(1)
            if not byte:
                break
            data += byte
        return data

    def rest(self):
        """Everything until the host closes."""
        data = b""
        while True:
            more = self.sock.recv(65536)
            if not more:
                return data
            data += more

    def read(self, count):
        data = b""
        while len(data) < count:
            more = self.sock.recv(count - len(data))
            assert more, f"the stream ended after {len(data)} of {count} bytes"
            data += more
        return data

    def login(self, kind, name, key):
        """True when both sides have proved themselves."""
        greeting = self.line()
        assert greeting.startswith(b"ZUL1 ") and len(greeting) == 70, greeting
        server, client = bytes.fromhex(greeting[5:69].decode()), secrets.token_bytes(32)
        self.say(claim(kind, name, key, server, client))
        answer = self.line()
        if answer == b"NO\n":
            return False
        assert answer == acceptance(name, key, server, client)
        return True

    def answer(self):
        """What a request answers, and its status, up to the end-of-command line."""
        text = b""
        while True:
            line = self.line()
            assert line, f"the stream ended after {text}"
            # A text without a line feed at its end may stand in front of the end-of-command line.
            at = line.rfind(b"ZuL_DoNe. ")
            if at >= 0:
                return (text + line[:at]).decode(errors="surrogateescape"), int(line[at + 10:])
            text += line

    def ask(self, line):
        """Runs a request in an operator's session that stands at its prompt."""
        self.say(line + "\n")
        result = self.answer()
        assert self.until(PROMPT) == PROMPT
        return result

    def close(self):
        self.sock.close()

    def reset(self):
        """Closes as a peer that has crashed does."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Home:
    """One installation, and the daemon that serves it."""

    def __init__(self, folder, module=MODULE, behaviour="classic"):
        self.path = str(folder)
        for name in ("etc", "bin", "tmp", "var/tape/jobids", "var/tape/mrepljobs"):
            os.makedirs(self.at(name), mode=0o700, exist_ok=True)
        self.secret = secrets.token_bytes(32)
        self.write("etc/ZULsecret", self.secret.hex() + "\n")
        self.write("etc/ZULsite", f"behaviour = {behaviour}\n")
        if module:
            shutil.copy(module, self.at("bin/libtape.so"))
            os.chmod(self.at("bin/libtape.so"), 0o755)
        self.log = self.path + ".log"
        self.daemon = None

    def at(self, relative):
        return os.path.join(self.path, relative)

    def write(self, relative, text, mode=0o600):
        data = text if isinstance(text, bytes) else text.encode()
        with open(os.open(self.at(relative), os.O_WRONLY | os.O_CREAT | os.O_TRUNC, mode), "wb") as handle:
            handle.write(data)
        os.chmod(self.at(relative), mode)

    def read(self, relative):
        with open(self.at(relative), errors="surrogateescape") as handle:
            return handle.read()

    def logged(self):
        with open(self.log, errors="surrogateescape") as handle:
            return handle.read()

    def add_user(self, name, password, role="operator"):
        """Adds an operator; his key."""
        key = derive(name, password)
        users = self.at("etc/ZULusers")
        before = self.read("etc/ZULusers") if os.path.exists(users) else ""
        self.write("etc/ZULusers", before + f"{name}:{key.hex()}:{role}\n")
        return key

    # --- the daemon ---

    def start(self, *options, **settings):
        assert self.daemon is None
        with open(self.log, "a") as log:
            self.daemon = subprocess.Popen([ZULD, "--home", self.path, *options], stdin=subprocess.DEVNULL,
                                           stdout=log, stderr=log, **settings)
        self.await_ready()
        return self

    def await_ready(self):
        def ready():
            if self.daemon and self.daemon.poll() is not None:
                raise AssertionError(f"ZULd ended with {self.daemon.returncode}: {self.logged()}")
            try:
                self.local().close()
                return True
            except OSError:
                return False
        eventually(ready, 20, "ZULd")

    def stop(self):
        """Asks the daemon to end; its exit status."""
        if self.daemon is None:
            return None
        self.daemon.terminate()
        status = self.daemon.wait(20)
        self.daemon = None
        return status

    def kill(self):
        self.daemon.kill()
        self.daemon.wait(20)
        self.daemon = None

    def pid(self):
        return int(self.read("var/ZULd.pid"))

    def clean_up(self):
        """Ends the daemon and everything that still works for the home."""
        self.stop()
        for pid in self.workers():
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass

    def workers(self):
        """Pids of ZULd processes that stand in the home: requests and jobs."""
        found = []
        for name in os.listdir("/proc"):
            try:
                if (name.isdigit() and os.path.basename(os.readlink(f"/proc/{name}/exe")) == "ZULd"
                        and os.path.samefile(f"/proc/{name}/cwd", self.path)):
                    found.append(int(name))
            except OSError:
                continue
        return found

    # --- connections ---

    def local(self):
        """An operator's session at its first prompt."""
        sock = socket.socket(socket.AF_UNIX)
        # Homes of tests may lie deeper than the kernel takes a socket's path.
        folder = os.open(self.at("var"), os.O_PATH)
        try:
            sock.connect(f"/proc/self/fd/{folder}/console")
        except OSError:
            sock.close()
            raise
        finally:
            os.close(folder)
        console = Console(sock)
        assert console.line() == b"OK local operator\n"
        assert console.until(PROMPT) == PROMPT
        return console

    def connect(self, address="127.0.0.1"):
        return Console(socket.create_connection((address, PORT), 10))

    def node(self, name="alpha"):
        console = self.connect()
        assert console.login("NODE", name, self.secret)
        return console

    def user(self, name, key):
        console = self.connect()
        assert console.login("USER", name, key)
        assert console.until(PROMPT) == PROMPT
        return console

    def ask(self, line):
        """One request of a local operator: its text and status."""
        with self.local() as console:
            return console.ask(line)
