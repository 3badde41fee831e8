"""What the tests of tapes share: package headers and volume records by hand, a virtual drive, and an eye of our own for
its image."""
import os
import platform
import struct

import pytest

from zulsupport import zul

NODE = platform.node()


def header(name=b"/f", size=0, sequence=0, kind=0, host=b"alpha", magic=b"ZuL!", **field):
    """The stream form of a package header."""
    numbers = struct.pack(">9I", field.get("uid", 0), field.get("gid", 0), field.get("mode", 0o100600),
                          field.get("mtime", 0), field.get("atime", 0), size & 0xffffffff, sequence, 0xa5a5a5a5,
                          0xa5a5a5a5)
    native = struct.pack("<IiII", size >> 32, sequence, 0xa5a5a5a5, 0xa5a5a5a5)
    return magic + bytes([0, 0, kind]) + name.ljust(257, b"\0") + numbers + native + host.ljust(64, b"\0") + bytes(140)


def record(name=b"/f", size=0, sequence=0, kind=0, host=b"alpha"):
    """The same as it stands in memory."""
    return (struct.pack("<IBBB", 0x5A754C21, 0, 0, kind) + name.ljust(257, b"\0")
            + struct.pack("<3I4x3QiII", 0, 0, 0o100600, 0, 0, size, sequence, 0xa5a5a5a5, 0xa5a5a5a5)
            + host.ljust(64, b"\0") + bytes(140))


def tape_files(path):
    """A cartridge's blocks, file by file; its format is four bytes of length, the data, the length again."""
    files, at = [[]], 0
    with open(path, "rb") as handle:
        image = handle.read()
    while at + 4 <= len(image):
        length = struct.unpack_from("<I", image, at)[0]
        at += 4
        if length == 0:
            files.append([])
        elif length == 0xffffffff:
            break
        else:
            files[-1].append(image[at:at + length])
            at += length + length % 2 + 4
    return [each for each in files if each]


@pytest.fixture
def drive(outside):
    """Drive 0 with an empty cartridge in it; .image is its file."""
    outside.write("etc/ZULsecret", "")
    assert zul("--home", outside.home, "vtape", "make", "c1", "--size", "64M", "--drive", "d").returncode == 0
    outside.write("etc/tapedevs", "0:virtual:/dev/vtape/d:a:b:\n")
    os.makedirs(outside.path("var/tape/drive.0"), exist_ok=True)
    outside.image = outside.path("var/vtape/shelf/c1.tap")
    outside.write("etc/ZULsite", "pause.label-settle = 1ms\npause.tape-retry = 10ms\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    return outside


def volume_record(label=b"daily", created=1000, retention=100, texts=(), magic=b"CaT*"):
    fixed = magic + struct.pack("<I3q", 0, created, retention, 0) + b"alpha".ljust(4096, b"\0")
    fixed += struct.pack("<2i", 7, 3) + label.ljust(256, b"\0") + struct.pack("<2i", 0, 0) + b"\xff" * 20
    fixed = fixed.ljust(8200, b"\0")
    return fixed + b"".join(text + b"\0" for text in texts) + b"\0" * (128 - len(texts))
