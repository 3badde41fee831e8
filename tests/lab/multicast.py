"""Multicast runs as an operator defines and starts them; what the scenarios share.

The file system is shared, and every receiver is sent to the same paths: so each host has a folder of its own mounted
at the prefix of the job.
"""
import filecmp
import json
import os
import random
import subprocess

from lab import ZUL, eventually, run

KEEP_ALL = 4096 + 8192 + 16384
EXTRA_SEGMENTS = 2 + 1 + 9  # of what make_files adds: two links, a file of nine blocks


class Site:
    """h1 sends to all others."""

    def __init__(self, lab):
        self.lab, self.sender, self.receivers = lab, lab[1], lab.hosts[1:]
        self.prefix = os.path.join(lab.folder, "inbox")
        os.makedirs(self.prefix)
        for host in self.receivers:
            host.inbox = os.path.join(lab.folder, host.name, "inbox")
            os.makedirs(host.inbox)
            host.run("mount", "--bind", host.inbox, self.prefix)

    def start(self):
        for host in self.lab.hosts:
            host.start()

    def define(self, job, requests, hosts=None, lines=(), sender=None):
        text = [f"Prefix: {self.prefix}", f"FilePerms: {KEEP_ALL + 32768}", f"DirPerms: {KEEP_ALL}",
                *(f"Request: {path}" for path in requests),
                *(f"Host: {host.name}" for host in (self.receivers if hosts is None else hosts)), *lines]
        with open((sender or self.sender).path("var", "tape", "mrepljobs", f"mrepjob.{job}"), "w") as out:
            out.write("\n".join(text) + "\n")

    def cut(self):
        """What the sender's kernel hands on in one piece crosses the links as single datagrams, as between machines."""
        for number, host in enumerate(self.lab.hosts, 1):
            run("ip", "-n", host.namespace, "link", "set", "eth0", "gso_max_segs", "1")
            run("ip", "-n", self.lab.switch, "link", "set", f"p{number}", "gso_max_segs", "1")

    def lose(self, percent):
        """Every host drops datagrams that reach it, each on its own; 0 stops that."""
        self.cut()
        self.drop(f"numgen random mod 10000 < {int(percent * 100)}" if percent else "")

    def drop(self, which):
        """Every host drops the datagrams that nft's words describe."""
        for host in self.lab.hosts:
            host.run("nft", "flush", "ruleset")
            if which:
                rules = ("table inet loss {\nchain in {\ntype filter hook input priority 0; policy accept;\n"
                         f'iifname "eth0" meta l4proto udp {which} counter drop\n}}\n}}\n')
                host.run("nft", "-f", "-", input=rules)

    def run(self, job, timeout=300):
        """The whole run in the foreground; what the operator sees."""
        return self.sender.zul("request", f"MREPL replicate {job}", check=False, timeout=timeout)

    def begin(self, job, sender=None):
        """The run in the background."""
        host = sender or self.sender
        return subprocess.Popen(host.command(ZUL, "--home", host.home, "request", f"MREPL replicate {job}"),
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def arrived(self, host, path):
        return host.inbox + path

    def record(self, host):
        path = host.path("var", "tape", "mrepljobs", "received.json")
        if not os.path.exists(path):
            return {}
        with open(path) as record:
            return json.load(record)

    def ended(self, host):
        return self.record(host).get("state") in ("complete", "incomplete")

    def wait_for_receivers(self, seconds=30):
        for host in self.receivers:
            eventually(lambda: not receivers_on(host), seconds, f"the receiver on {host.name} ends")


def receivers_on(host):
    """Pids of requests that run on a host: everything but the daemon."""
    return [pid for pid in host.processes() if not host.daemon or pid != host.daemon.pid]


def make_files(folder, seed, count, biggest=3000, big=()):
    """count small files, most of them below the size that fits into a header's segment."""
    dice = random.Random(seed)
    edges = (0, 1, 335, 336, 337, 687, 688, 689, 1023, 1024, 1025, 4095, 4096, 4097)
    os.makedirs(folder)
    for number in range(count):
        sub = os.path.join(folder, f"d{number % 7}")
        os.makedirs(sub, exist_ok=True)
        size = edges[number] if number < len(edges) else dice.randrange(700 if dice.random() < 0.7 else biggest)
        with open(os.path.join(sub, f"f{number}"), "wb") as out:
            out.write(dice.randbytes(size))
    for number, size in enumerate(big):
        with open(os.path.join(folder, f"big{number}"), "wb") as out:
            for start in range(0, size, 1 << 20):
                out.write(dice.randbytes(min(1 << 20, size - start)))
    os.symlink("d0/f0", os.path.join(folder, "link"))
    os.symlink("nowhere at all", os.path.join(folder, "dangling"))
    # Content that looks like a header of another file is content.
    with open(os.path.join(folder, "trap"), "wb") as out:
        out.write((b"dEhF" + b"/etc/zul-trap".ljust(256, b"\0") + b"\0\0\0\x01").ljust(1024, b"\0") * 9)
    if count > 7:
        os.chmod(os.path.join(folder, "d0", "f0"), 0o4751)
        os.chmod(os.path.join(folder, "d1"), 0o700)


def difference(one, two):
    """What differs between two trees: names, types, contents, permissions, times of files; empty when they agree."""
    found = []
    for top, folders, files in os.walk(one):
        there = top.replace(one, two, 1)
        if not os.path.isdir(there):
            found.append(f"{there} is missing")
            continue
        if sorted(os.listdir(top)) != sorted(os.listdir(there)):
            found.append(f"{there}: {set(os.listdir(top)) ^ set(os.listdir(there))}")
        for name in folders + files:
            left, right = os.path.join(top, name), os.path.join(there, name)
            if not os.path.lexists(right):
                continue
            a, b = os.lstat(left), os.lstat(right)
            if (a.st_mode, a.st_uid, a.st_gid) != (b.st_mode, b.st_uid, b.st_gid):
                found.append(f"{right}: {oct(b.st_mode)}, not {oct(a.st_mode)}")
            if os.path.islink(left):
                if os.readlink(left) != os.readlink(right):
                    found.append(f"{right}: leads elsewhere")
            elif os.path.isfile(left):
                if not filecmp.cmp(left, right, shallow=False):
                    found.append(f"{right}: other content")
                if int(a.st_mtime) != int(b.st_mtime):
                    found.append(f"{right}: other time")
    return found[:10]
