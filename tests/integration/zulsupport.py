"""What the tests of zul share: running it, a played daemon on the local socket, a network of our own."""
import json
import os
import pty
import select
import shutil
import signal
import socket
import subprocess
import threading
import time

from home import eventually  # noqa: F401 (the tests take it from here)

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("ZUL_BUILD", os.path.join(ROOT, "build", "dev"))
ZUL = os.path.join(BUILD, "bin", "zul")
PROMPT = b"ZuL>"


def environment(**more):
    known = {name: value for name, value in os.environ.items() if name not in ("ZULHOME", "XDG_STATE_HOME")}
    return {**known, "LC_ALL": "C.UTF-8", "TZ": "UTC", **more}


def zul(*words, inside=(), limit=60, **options):
    """Runs zul to its end; stdout and stderr are text."""
    return subprocess.run([*inside, ZUL, *map(str, words)], capture_output=True, text=True, timeout=limit,
                          env=environment(), stdin=options.pop("stdin", subprocess.DEVNULL), **options)


class PlayedDaemon:
    """Listens on HOME/var/console and answers requests from a table.

    answers maps a request line, or its first words, to bytes, or to a function of (connection, line) that sends
    for itself. "requests" lists what came in.
    """

    def __init__(self, home, answers=None, greeting=b"OK local operator\n"):
        self.home, self.answers, self.greeting = str(home), dict(answers or {}), greeting
        self.requests, self.connections = [], []
        os.makedirs(os.path.join(self.home, "var"), exist_ok=True)
        os.makedirs(os.path.join(self.home, "etc"), exist_ok=True)
        self.path = os.path.join(self.home, "var", "console")
        self.open()

    def open(self):
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen(16)
        threading.Thread(target=self.accept, args=(self.listener,), daemon=True).start()

    def stop_listening(self):
        # The thread in accept would keep a socket alive that is only closed.
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def close(self):
        if self.listener.fileno() >= 0:
            self.stop_listening()
        if os.path.exists(self.path):
            os.unlink(self.path)
        for connection in self.connections:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        self.connections = []

    def accept(self, listener):
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            self.connections.append(connection)
            threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def serve(self, connection):
        try:
            connection.sendall(self.greeting)
            if not self.greeting.startswith(b"OK"):
                return
            reader = connection.makefile("rb")
            while True:
                connection.sendall(PROMPT)
                line = reader.readline()
                if not line:
                    return
                self.requests.append(line.decode().rstrip("\n"))
                self.answer(connection, reader, self.requests[-1])
        except OSError:
            pass
        finally:
            connection.close()

    def answer(self, connection, reader, line):
        for key, value in self.answers.items():
            if line == key or line.startswith(key + " "):
                if callable(value):
                    value = value(connection, reader, line)
                if value is not None:
                    connection.sendall(value)
                return
        connection.sendall(f"ERROR:  Unknown request, {line}\nZuL_DoNe. 1\n".encode())

    def record(self, job, record, alive=True):
        """Makes a progress record known, as HOST get and HOST jobs show it."""
        path = f"var/tape/jobids/{job}.status.progress"
        if record is None:
            self.answers.pop(f"HOST get {path}", None)
            return
        text = json.dumps(record).encode()
        self.answers[f"HOST get {path}"] = b"DATA %d\n" % len(text) + text + b"ZuL_DoNe. 0\n"
        listed = json.dumps([{**record, "file": path, "alive": alive}]).encode()
        self.answers["HOST jobs json"] = listed + b"\nZuL_DoNe. 0\n"


class Terminal:
    """zul on a terminal of its own."""

    def __init__(self, *words, **more):
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.execve(ZUL, [ZUL, *map(str, words)], environment(TERM="xterm", **more))
        self.seen, self.mark = b"", 0

    def type(self, text):
        os.write(self.fd, text.encode())

    def wait_for(self, text, seconds=30):
        """Waits for text behind what was waited for before."""
        end = time.monotonic() + seconds
        while text.encode() not in self.seen[self.mark:]:
            left = end - time.monotonic()
            assert left > 0 and self.read(left), f"no {text!r} in {self.seen[self.mark:]!r}"
        self.mark = self.seen.index(text.encode(), self.mark) + len(text.encode())

    def read(self, seconds):
        if not select.select([self.fd], [], [], seconds)[0]:
            return False
        try:
            piece = os.read(self.fd, 65536)
        except OSError:
            piece = b""
        self.seen += piece
        return bool(piece)

    def end(self, seconds=30):
        """Reads to the end; the exit status."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and self.read(max(0.01, end - time.monotonic())):
            pass
        for _ in range(int(seconds * 50)):
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            if pid:
                os.close(self.fd)
                return os.waitstatus_to_exitcode(status)
            time.sleep(0.02)
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        raise AssertionError(f"zul did not end: {self.seen!r}")


class OwnNetwork:
    """A network namespace with loopback, so that the fixed ports are free. inside() are words to put before a
    command; empty where namespaces are not permitted."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "-rn", "sh", "-c", "ip link set lo up && echo up && exec sleep 86400"],
                                       stdout=subprocess.PIPE, text=True)
        if self.holder.stdout.readline() != "up\n":
            self.holder.wait()
            self.holder = None

    def inside(self):
        if not self.holder:
            return []
        return ["nsenter", "-t", str(self.holder.pid), "-U", "-n", "--preserve-credentials", "--"]

    def close(self):
        if self.holder:
            self.holder.kill()
            self.holder.wait()


def remove(path):
    shutil.rmtree(path, ignore_errors=True)
