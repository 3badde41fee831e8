"""Sends forged segments to the group and forged requests to a sender, until it is killed: forger.py SENDER."""
import itertools
import random
import socket
import struct
import sys
import time

GROUP, DATA, REQUESTS = "239.240.240.240", 2345, 2346


def head(name, kind):
    return (b"dEhF" + name.encode().ljust(256, b"\0") + b"\0\0\0" + bytes([kind])).ljust(1024, b"\0")


def segment(number, payload, control=0, magic=b"PaCk"):
    return magic + struct.pack(">IIIII", 0, number >> 32, number & 0xffffffff, 48, control) + b"PfInSeNd" + payload


def main(sender):
    dice = random.Random(1)
    out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    for turn in itertools.count():
        number = dice.choice((turn % 5000, dice.randrange(1 << 14), dice.randrange(1 << 33), 0xffffffff))
        kind = dice.choice((1, 2, 8))
        payload = head("/tmp/zul-forged", kind)
        whole = segment(number, payload, dice.choice((0, 4, 12, 12 | dice.randrange(1 << 16) << 16)))
        cut = dice.choice((whole, whole, whole[:dice.randrange(1056)], whole + b"x", b"PaCK" + whole[4:]))
        out.sendto(cut, (GROUP, DATA))
        count = dice.choice((0, 1, 4096, 0xffffffff, dice.randrange(1 << 32)))
        request = struct.pack(">IIII", dice.randrange(1 << 32), dice.choice((0, 0, 1, 0xffffffff)), number & 0xffffffff, count)
        out.sendto(dice.choice((request, request, request[:dice.randrange(16)], request + b"x")), (sender, REQUESTS))
        if turn % 50 == 49:
            # Not a flood: the point is what the datagrams say.
            time.sleep(0.01)


main(*sys.argv[1:])
