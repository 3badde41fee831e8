"""Several hosts on one machine.

    h1 ---+
    h2 ---+--- bridge (a namespace of its own)      addresses 10.77.0.1, .2, ... ; names h1, h2, ...
    h3 ---+

Every host is a network namespace with its own node name, its own /etc/hosts, its own shared segments, its own home and
its own ZULd; the file system is shared, so each host's source tree is a folder of its own. Nothing touches the machine's
network.
"""
import contextlib
import fcntl
import json
import os
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("ZUL_BUILD", os.path.join(ROOT, "build", "release"))
ZUL = os.path.join(BUILD, "bin", "zul")
ZULD = os.path.join(BUILD, "bin", "ZULd")
TAPEWALK = os.path.join(ROOT, "tests", "tools", "tapewalk")


def run(*words, check=True, **options):
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True, errors="surrogateescape",
                          **options)
    if check and done.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, words))}: exit {done.returncode}\n{done.stdout}{done.stderr}")
    return done


def eventually(condition, seconds=60, what="a condition"):
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= end:
            raise AssertionError(f"{what}: not within {seconds} s")
        time.sleep(0.02)


def opened(pid):
    """What a process has open, as the texts of its links; nothing once it has ended."""
    texts = []
    with contextlib.suppress(OSError):
        for fd in os.listdir(f"/proc/{pid}/fd"):
            with contextlib.suppress(OSError):
                texts.append(os.readlink(f"/proc/{pid}/fd/{fd}"))
    return texts


class Host:
    """One machine of the lab."""

    def __init__(self, lab, number):
        self.lab, self.name, self.address = lab, f"h{number}", f"10.77.0.{number}"
        self.namespace = f"{lab.prefix}{self.name}"
        self.home = os.path.join(lab.folder, self.name, "home")
        self.tree = os.path.join(lab.folder, self.name, "tree")
        self.daemon = self.holder = None

    def boot(self):
        """A process that does nothing keeps the namespaces that "ip" does not: node name, segments, /etc/hosts."""
        self.holder = subprocess.Popen(
            ["ip", "netns", "exec", self.namespace, "unshare", "--uts", "--ipc", "--", "sh", "-c",
             f"hostname {self.name} && echo up && exec sleep infinity"], stdout=subprocess.PIPE, text=True)
        if self.holder.stdout.readline() != "up\n":
            raise AssertionError(f"{self.name} does not come up")

    def command(self, *words):
        """The words, run on this host: its network, its node name, its segments."""
        return ["nsenter", "-t", str(self.holder.pid), "--net", "--uts", "--ipc", "--mount", "--", *map(str, words)]

    def run(self, *words, check=True, **options):
        return run(*self.command(*words), check=check, **options)

    def zul(self, *words, check=True, **options):
        return self.run(ZUL, "--home", self.home, *words, check=check, **options)

    def request(self, line, check=True):
        return self.zul("request", line, check=check).stdout

    def install(self, behaviour="sound"):
        os.makedirs(os.path.dirname(self.home), exist_ok=True)
        self.run(ZUL, "--home", self.home, "init", *(["--classic"] if behaviour == "classic" else []))
        # One site, one secret.
        secret = os.path.join(self.lab.folder, "ZULsecret")
        if os.path.exists(secret):
            shutil.copy2(secret, os.path.join(self.home, "etc", "ZULsecret"))
        else:
            shutil.copy2(os.path.join(self.home, "etc", "ZULsecret"), secret)

    def start(self, *before):
        """Starts the daemon; "before" are words in front of its command, "setpriv ..." for one."""
        with open(os.path.join(self.lab.folder, self.name, "ZULd.log"), "a") as log:
            self.daemon = subprocess.Popen(self.command(*before, ZULD, "--home", self.home), stdin=subprocess.DEVNULL,
                                           stdout=log, stderr=log)
        eventually(lambda: self.zul("status", check=False).returncode == 0, 20, f"ZULd on {self.name}")

    def stop(self):
        if self.daemon and self.daemon.poll() is None:
            self.daemon.terminate()
            self.daemon.wait(20)
        self.daemon = None

    def kill(self, *pids):
        """kill -9 of some of this host's processes: one at least, so that a test does not pass for having found none."""
        assert pids, f"nothing to kill on {self.name}"
        for pid in pids:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        if self.daemon and self.daemon.pid in pids:
            self.daemon.wait(20)
            self.daemon = None

    def cut_power(self):
        """kill -9 of everything that runs on this host."""
        pids = self.processes()
        if pids:
            self.kill(*pids)

    def settings(self, text):
        """Adds lines to the site file; daemons read it when a request starts."""
        with open(os.path.join(self.home, "etc", "ZULsite"), "a") as site:
            site.write(text + "\n")

    def path(self, *parts):
        return os.path.join(self.home, *parts)

    def inside(self, path):
        """A path as this host sees it, with what is mounted there only."""
        return f"/proc/{self.holder.pid}/root{path}"

    def own_tree(self, seed, **what):
        """make_tree where only this host sees it: the others find an empty folder. Before the daemon is started."""
        os.makedirs(self.tree)
        self.run("mount", "-t", "tmpfs", "-o", "mode=755", "none", self.tree)
        make_tree(self.inside(self.tree), seed, **what)

    def read(self, *parts):
        with open(self.path(*parts), errors="surrogateescape") as handle:
            return handle.read()

    def processes(self):
        """Pids of everything that runs on this host."""
        listed = run("ip", "netns", "pids", self.namespace).stdout.split()
        return [int(pid) for pid in listed if not self.holder or int(pid) != self.holder.pid]

    def left_over(self):
        """What a job has left on this host, as texts: processes, mailboxes, ports, segments, locks."""
        found = []
        for pid in self.processes():
            if not self.daemon or pid != self.daemon.pid:
                with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", "rb") as line:
                    found.append(f"process {pid}: {line.read()}")
        for name in os.listdir(self.path("tmp")):
            if name.endswith(".lock"):
                with open(self.path("tmp", name), "r+") as lock:
                    try:
                        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                        fcntl.lockf(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    except BlockingIOError:
                        found.append(f"a lock on {name}")
            elif name.startswith("ipc."):
                found.append(f"the mailbox {name}")
        found += [f"a port: {line}" for line in self.run("ss", "-Hltn", "sport = :2346").stdout.splitlines()]
        segments = self.run("cat", "/proc/sysvipc/shm").stdout.splitlines()[1:]
        return found + [f"a segment: {line}" for line in segments]

    def processes_with(self, tag):
        """Processes of this host that have a file open whose path has the tag in it."""
        return [pid for pid in self.processes() if any(tag in path for path in opened(pid))]

    def processes_named(self, tag):
        found = []
        for pid in self.processes():
            with contextlib.suppress(OSError), open(f"/proc/{pid}/cmdline", "rb") as handle:
                if tag.encode() in handle.read():
                    found.append(pid)
        return found


class Lab:
    """Makes the hosts, and takes everything down again whatever happened."""

    def __init__(self, count, folder, behaviour="sound", small=None):
        """small: a size such as "8m" for the disk of h1, which is large otherwise."""
        self.prefix = f"zl{os.getpid() % 100000}"
        self.folder = str(folder)
        self.switch = f"{self.prefix}sw"
        self.hosts = [Host(self, number) for number in range(1, count + 1)]
        self.behaviour, self.small = behaviour, small

    def __enter__(self):
        try:
            self.up()
        except BaseException:
            self.down()
            raise
        return self

    def __exit__(self, *_):
        self.down()

    def up(self):
        if self.small:
            # Before the hosts are made: they see what was mounted then.
            disk = os.path.join(self.folder, "h1")
            os.makedirs(disk)
            run("mount", "-t", "tmpfs", "-o", f"size={self.small}", "none", disk)
        run("ip", "netns", "add", self.switch)
        run("ip", "-n", self.switch, "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        run("ip", "-n", self.switch, "link", "set", "br0", "up")
        names = "127.0.0.1 localhost\n" + "".join(f"{host.address} {host.name}\n" for host in self.hosts)
        for number, host in enumerate(self.hosts, 1):
            folder = f"/etc/netns/{host.namespace}"
            os.makedirs(folder, exist_ok=True)
            with open(f"{folder}/hosts", "w") as hosts:
                hosts.write(names)
            run("ip", "netns", "add", host.namespace)
            run("ip", "link", "add", "eth0", "netns", host.namespace, "type", "veth", "peer", "name", f"p{number}",
                "netns", self.switch)
            run("ip", "-n", self.switch, "link", "set", f"p{number}", "master", "br0", "up")
            run("ip", "-n", host.namespace, "link", "set", "lo", "up")
            run("ip", "-n", host.namespace, "addr", "add", f"{host.address}/24", "brd", "10.77.0.255", "dev", "eth0")
            run("ip", "-n", host.namespace, "link", "set", "eth0", "up")
            run("ip", "-n", host.namespace, "route", "add", "224.0.0.0/4", "dev", "eth0")
            host.boot()
        for host in self.hosts:
            host.install(self.behaviour)

    def down(self):
        for host in self.hosts:
            with contextlib.suppress(Exception):
                host.stop()
            with contextlib.suppress(Exception):
                host.cut_power()
            if host.holder:
                host.holder.kill()
                host.holder.communicate()
            run("ip", "netns", "del", host.namespace, check=False)
            shutil.rmtree(f"/etc/netns/{host.namespace}", ignore_errors=True)
        run("ip", "netns", "del", self.switch, check=False)
        if self.small:
            run("umount", "-l", os.path.join(self.folder, "h1"), check=False)

    def __getitem__(self, number):
        """lab[1] is h1."""
        return self.hosts[number - 1]


def make_tree(folder, seed, files=40, big=()):
    """A small tree with every kind of entry that can be made here; big: sizes of further files."""
    import random
    dice = random.Random(seed)
    os.makedirs(folder, exist_ok=True)
    for sub in ("a", "a/b", "empty", "name with blanks", "colon:name", "\u00e4\u00f6\u00fc"):
        os.makedirs(os.path.join(folder, sub))
    for number in range(files):
        sub = dice.choice(("", "a", "a/b", "name with blanks", "colon:name"))
        with open(os.path.join(folder, sub, f"f{number}"), "wb") as out:
            out.write(dice.randbytes(dice.choice((0, 1, 511, 512, 513, 8191, 8192, 8193, dice.randrange(60000)))))
    for number, size in enumerate(big):
        with open(os.path.join(folder, f"big{number}"), "wb") as out:
            out.write(dice.randbytes(size))
    os.symlink("a/f1", os.path.join(folder, "link"))
    os.symlink("nowhere at all", os.path.join(folder, "dangling"))
    os.symlink("x" * 300, os.path.join(folder, "long-link"))
    with open(os.path.join(folder, "bytes-\udcff\udcfe"), "wb") as out:
        out.write(b"a name that is no text")
    os.chmod(os.path.join(folder, "a"), 0o750)
    os.utime(os.path.join(folder, "f-old") if os.path.exists(os.path.join(folder, "f-old")) else folder, (1, 1000000000))


def image_of(host, cartridge):
    return host.path("var", "vtape", "shelf", f"{cartridge}.tap")


def tapewalk(image, *words, check=True, on=None):
    """on: the host whose files the tape's are compared with; without, those that all hosts see."""
    return (on.run if on else run)(sys.executable, TAPEWALK, image, *words, check=check)


def tape_summary(image, *words):
    return json.loads(run(sys.executable, TAPEWALK, image, "--json", *words, check=False).stdout)
