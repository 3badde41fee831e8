#!/usr/bin/python3
"""seeds.py FOLDER: writes the inputs that each fuzz driver starts from, FOLDER/DRIVER/0, 1, ...

They are what the drivers' subjects meet every day, put together from docs/formats and docs/protocols, so that a few
seconds are spent behind the magic numbers and not in front of them.
"""
import os
import struct
import sys

MIB = 1 << 20
BOTH = (b"\0", b"\1")  # the first byte of several drivers: classic, sound


def package(name, size=0, kind=0, sequence=0, magic=b"ZuL!"):
    fixed = struct.pack(">9I", 0, 0, 0o100644, 10 ** 9, 10 ** 9, size, sequence, 0xa5a5a5a5, 0xa5a5a5a5)
    return (magic + b"\0\0" + bytes([kind]) + name.ljust(257, b"\0") + fixed + struct.pack("<Iiii", 0, sequence, 0, 0) +
            b"alpha".ljust(64, b"\0") + bytes(140))


def stream(*files):
    """What a gatherer sends: every header twice, and the end of the list."""
    whole = b"".join(package(name, len(data), kind) * 2 + data for name, data, kind in files)
    return whole + package(b"", magic=b"St0P")


def padded(data):
    return data + bytes(-len(data) % 512)


def tape_file(*files):
    return b"".join(package(name, len(data), kind) + padded(data) for name, data, kind in files)


def block(data):
    length = struct.pack("<I", len(data))
    return length + data + bytes(len(data) & 1) + length


def label(name=b"week-1", drive=0, tape=0):
    return (b"HeAd" + bytes(4) + struct.pack("<qi", 10 ** 9, 0) + name.ljust(256, b"\0") +
            b"/dev/vtape/v0".ljust(256, b"\0") + b"h1".ljust(48, b"\0") + struct.pack("<4i", drive, tape, 0, 0) +
            bytes(1460))


def record(job=5, group=1, level=1):
    return (b"CaT*" + bytes(4) + struct.pack("<3q", 10 ** 9, 86400, 0) + b"alpha,beta".ljust(4096, b"\0") +
            struct.pack("<2i", job, group) + b"nightly".ljust(256, b"\0") + struct.pack("<2i", 0, level) +
            b"\xff" * 20 + bytes(3780) + b"/etc/\0/home/\0" + bytes(126))


def run(job=7, status=1, level=0):
    return (b"!LuZ" + struct.pack("<Iii", 0, job, 1) + struct.pack("<3q", 10 ** 9, 86400, 5) +
            struct.pack("<5i", status, 0, 0, 1, level) + bytes(124))


def job(number=7, name=b"nightly"):
    return struct.pack("<6i", 0, number, 1, 86400, 0, 0) + b"\0" + name.ljust(256, b"\0") + bytes(235)


def replication(number=5):
    return (struct.pack("<9i", 0, number, 1, 4, 0, 0, 0o755, 0o644, 0) + b"mirror".ljust(256, b"\0") +
            b"/srv/copy".ljust(256, b"\0") + struct.pack("<i", 2) + bytes(28))


def segment(number, payload, control=0):
    """As segments_fuzz takes it: how far ahead, how it is marked (0x40: then files are put together), the payload."""
    words = (len(payload) + 3) // 4
    return struct.pack("<HBB", number, control, words) + payload.ljust(words * 4, b"\0")


def multicast_head(name, kind, size=0, content=b""):
    return (b"dEhF" + name.ljust(256, b"\0") + bytes(3) + bytes([kind]) + struct.pack(">10I", 0, 0, 0o640, 0, 1, 0, 2, 0, size, 0) +
            bytes(32)).ljust(336, b"\0") + content


FILES = ((b"/etc", b"", 1), (b"/etc/motd", b"welcome" * 100, 0), (b"/etc/link", b"motd\0", 2), (b"/dev/null", b"", 3))
REQUEST_LIST = b"0 /etc/\n1 /etc/motd\n2 /home/a file\nno-entry\n3 " + b"/x" * 128 + b"\n"
VOLUME_LIST = b"0:alpha:0:/d\n1:alpha:0:/d/one\n1:alpha:1:/d/one\n2:beta:0:/d/two:three\n"
STORES = (b"0:lto:/dev/nst0:a:b:\n# comment\n1:v0:/dev/vtape/v0:0:0\n", b"1:alpha,beta,gamma:web servers\n# c\n2:h:n\n",
          job() + job(8, b"x" * 256), replication() + replication(6), b"/etc/\n/home/\n/srv/file\n", b"/a>/b\n/c>/d\n")
NONCE = b"0123456789abcdef" * 4

SEEDS = {
    "answers": [bytes([flags]) + text for flags in (0, 3, 7) for text in
                (b"TRANSFER OK\n" * 2, b"some text\nZuL_DoNe. 0\nZuL_DoNe. 1\n", b"ZuL>ERROR:  1\nTRANSFER O", b"a\0b\n" * 9,
                 b"x" * 3000 + b"ZuL_DoNe. 3\n", b"y" * 1022 + b"TRANSFER OK\n")],
    "backuplist": [first + text for first in (b"\0", b"\1", b"\2", b"\3")
                   for text in (b"a/\nfile\n\n", b"a/b/\r\nlink", b"/\n", b"x" * 260 + b"\n")],
    "catalog": [b"\0" + record(), b"\2" + record() + record(6), b"\1" + record()[:9000], b"\xfe" + record()],
    "dialogue": [first + text for first in (b"\0", b"\1", b"\x55", b"\xfd")
                 for text in (b"Next\nGet\nNext\nGet\nNext\nQuit\n", b"Get\nIdl\nNext\nNext\nGarbage\n")],
    "gather": [first + text for first in BOTH
               for text in (stream(*FILES), stream(), stream(*FILES)[:700],
                            package(b"/big", 70000) * 2 + bytes(70000) + stream(),
                            package(b"/a", 5) + package(b"/b", 9) + bytes(9))],
    "history": [run() + run(7, 0, 1) + run(8, 2, 9), run()[:100], b""],
    "hostlogin": [b"ZUL1 " + NONCE, b"NODE alpha " + NONCE + b" " + NONCE, b"USER anna " + NONCE + b" " + NONCE,
                  b"OK " + NONCE, NONCE, b"NO"],
    "hostwords": [b"HOST status json", b"HOST ps", b"HOST jobs json", b"HOST get var/tape/jobids/7.status", b"status json",
                  b"get etc/ZULsite", b"tail var/tape/jobids/7.status 5", b"put var/tape/x 3", b"kill 1 TERM",
                  b"TAPE server 7 0", b"MREPL mrepclnt 1234567890", b"get ../../etc/passwd"],
    "image": [b"\x05\0\1\2\x0c\x0d" + block(b"hello") + block(b"tape") + bytes(4),
              b"\x33\0\x0e\x08" + block(label()) + bytes(4) + block(b"x" * 512) + bytes(4) + block(b"y" * 700),
              b"\x43\x0c\x0e\x08" + block(b"hello") + b"\n# faults\nwrite 1 EIO\nread 2+ EIO\neom-after 100\n",
              b"\x04\1\x17\1\x0c" + bytes(4) + block(b"z" * 9) + b"\xff" * 4 + b"\xfe\xff\xff\xff"],
    "label": [b"\0" + label(), b"\xff" + label() + record(), b"\x20" + label(b"n" * 256), b"\x20" + label(drive=9),
              b"\x7f" + bytes(3000) + label()],
    "mrepjob": [b"# a job\nHost: h1\nHost:\nRequest: /etc/\nExclude: /etc/keys\nLast: /x\nXform: /etc  /new\nXform: /a \n"
                b"Prefix: /staging\nDescription: all of it \r\nSpeed: 800\nFilePerms: 28672\nProtocol: 7\nUserID:\n",
                b"Xform: /etc/hosts \nDescription:\nPrefix:\n", b"Description: " + b"x" * 2100 + b"\nHost: a"],
    "mrequests": [first + struct.pack(">4I", 0, high, low, count) * 2 for first in BOTH
                  for high, low, count in ((0, 0xfffffff1, 3), (1, 0x20, 0xffffffff), (1, 0x40, 1), (1, 9, 0x10000))],
    "receive": [bytes([first]) + text for first in (2, 18, 34) for text in
                (stream(*FILES), package(b"/big", MIB) * 2 + bytes(9000), stream((b"/../../x", b"y", 0), (b"/l/x", b"z", 0)),
                 stream((b"/l", b"/etc\0", 2), (b"/l/x", b"z", 0), (b"/l/", b"", 1)))] +
               [first + package(b"/f", size, kind) + data for first in BOTH
                for size, kind, data in ((5, 0, b"hello"), (0, 1, b""), (5, 2, b"/tmp\0"), (9, 2, b"/t\0"), (1 << 30, 0, b"x" * 999))],
    "requestlist": [REQUEST_LIST + b"end\n", REQUEST_LIST, b"0 \n", b"end\n0 /behind\n"],
    "segments": [first + segment(1, multicast_head(b"/d", 2), 12) + segment(1, multicast_head(b"/d/f", 1, 1500), 12) +
                 segment(2, b"x" * 400, 4) + segment(1, b"y" * 1000, 4) + segment(1, multicast_head(b"/l", 3, 5, b"over"), 12) +
                 segment(1, multicast_head(b"/s", 1, 4, b"tiny"), 12) + segment(1, multicast_head(b"", 8), 0x4c) +
                 segment(9, multicast_head(b"/c", 6), 0x8c) + segment(1, b"", 0x44) for first in BOTH],
    "site": [b"# sound here\nbehaviour = sound\nbehaviour.pace=classic\nmulticast.sender = 10.1.0.5\n"
             b"pause.list-grace = 10s\npause.idle=5ms\n", b"behaviour=odd\nno such line\npause.idle = 99999999999m\n"],
    "stores": [bytes([at | sound]) + text for at, text in enumerate(STORES) for sound in (0, 0x80)],
    "stream": [package(b"/etc/motd", 700), package(b"", magic=b"St0P"), package(b"f" * 257, 1 << 31, 2)],
    "tapestream": [first + text for first in BOTH
                   for text in (tape_file(*FILES), b"junk" * 300 + tape_file(*FILES), VOLUME_LIST)],
}


def main():
    for driver, inputs in SEEDS.items():
        folder = os.path.join(sys.argv[1], driver + "_fuzz")
        os.makedirs(folder, exist_ok=True)
        for number, data in enumerate(inputs):
            with open(os.path.join(folder, str(number)), "wb") as out:
                out.write(data)


if __name__ == "__main__":
    main()
