#!/usr/bin/python3
"""An agent that logs in well and then does not keep to the dialogue: the peer of tests/lab/test_lying_hosts.py.

    liar.py SECRETFILE LIE

It plays ZULd on port 2345 and the gatherer on port 2346 of the host it runs on; docs/protocols has both dialogues.
LIE names one of the functions below.
"""
import hashlib
import hmac
import os
import random
import secrets
import socket
import struct
import sys
import threading

MAGIC, END = b"ZuL!", b"St0P"
FILE, DIRECTORY, LINK = 0, 1, 2
MIB = 1 << 20
WHO = os.uname().nodename.encode()


def header(name, size=0, kind=FILE, sequence=0, magic=MAGIC, host=WHO):
    """The stream form of a package header."""
    fixed = struct.pack(">9I", 0, 0, 0o100644, 1000000000, 1000000000, size & 0xFFFFFFFF, sequence, 0, 0)
    record = struct.pack("<Iiii", size >> 32, sequence, 0, 0)
    return (magic + b"\0\0" + bytes([kind]) + name.ljust(257, b"\0")[:257] + fixed + record +
            host.ljust(64, b"\0")[:64] + bytes(140))


class Peer:
    """The data connection, from the gatherer's side."""

    def __init__(self, connection):
        self.connection, self.reader = connection, connection.makefile("rb")

    def expect(self, word):
        line = self.reader.readline()
        if line.startswith(b"Job "):  # which request the peer came for
            line = self.reader.readline()
        if not line.startswith(word):
            raise ConnectionError(f"{word} expected, got {line}")

    def send(self, data):
        self.connection.sendall(data)

    def offer(self, name, size=0, **more):
        """Answers "Next" and waits for "Get"."""
        self.expect(b"Next")
        self.send(header(name, size, **more))
        self.expect(b"Get")

    def file(self, name, data=b"", **more):
        """One file, as it should be."""
        self.offer(name, len(data), **more)
        for sequence in range(len(data) // MIB + 1):
            self.send(header(name, len(data), sequence=sequence, **more) +
                      data[sequence * MIB:(sequence + 1) * MIB])

    def end(self):
        self.expect(b"Next")
        self.send(header(b"", magic=END))
        self.reader.readline()  # "Quit"

    def reset(self):
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")


# --- lies about files ---

def nothing_but_the_truth(peer):
    peer.file(b"/one", b"1" * 1000)
    peer.file(b"/three", b"3" * (3 * MIB))
    peer.end()


def no_file_at_all(peer):
    peer.end()


def another_magic(peer):
    peer.file(b"/one", b"1" * 1000)
    peer.expect(b"Next")
    peer.send(header(b"/two", 100, magic=b"LuZ!"))


def another_name_in_the_second_header(peer):
    peer.offer(b"/one", 1000)
    peer.send(header(b"/other", 1000) + bytes(1000))
    peer.end()


def another_size_in_the_second_header(peer):
    peer.offer(b"/one", 1000)
    peer.send(header(b"/one", 100000) + bytes(100000))
    peer.end()


def a_package_out_of_turn(peer):
    peer.offer(b"/one", 2 * MIB)
    peer.send(header(b"/one", 2 * MIB) + bytes(MIB) + header(b"/one", 2 * MIB, sequence=2) + bytes(MIB))


def a_size_beyond_all_files(peer):
    peer.offer(b"/one", (1 << 63) + 5)


def a_size_that_never_comes(peer):
    peer.offer(b"/one", 1 << 50)
    peer.send(header(b"/one", 1 << 50) + bytes(5000))


def an_unknown_kind(peer):
    peer.file(b"/one", kind=200)
    peer.end()


def a_directory_with_contents(peer):
    peer.file(b"/folder", b"x" * 3000, kind=DIRECTORY)
    peer.end()


def a_name_without_an_end(peer):
    peer.file(b"x" * 257, b"y")
    peer.end()


def a_host_without_an_end(peer):
    peer.file(b"/one", b"y", host=b"h" * 64)
    peer.end()


def nothing_but_noise(peer):
    dice = random.Random(7)
    while True:
        peer.send(dice.randbytes(65536))


def a_connection_closed_at_once(_):
    pass


def a_file_broken_off(peer):
    peer.offer(b"/one", 3 * MIB)
    peer.send(header(b"/one", 3 * MIB) + bytes(MIB) + header(b"/one", 3 * MIB, sequence=1) + bytes(1000))


def a_file_reset(peer):
    a_file_broken_off(peer)
    peer.reset()


def half_a_header(peer):
    peer.expect(b"Next")
    peer.send(header(b"/one", 10)[:300])


def names_that_are_no_names(peer):
    """Strange, but well formed: they are stored, and spoil nothing for others."""
    for name in (b"/line\nfeed", b"/7:h1:0:/colons", b"/tab\tand\rreturn", b"x" * 256, b"", b"../../../etc/passwd",
                 b"/\xff\xfe\x01\x7f", b"/quote\"and\\slash", b"relative"):
        peer.file(name, b"?" * 700)
    peer.end()


def a_host_name_that_is_none(peer):
    for name in (b"/forged", b"/forged2"):
        peer.file(name, b"!" * 10, host=b"h1\n9:h1:0:/forged")
    peer.end()


def no_host_name(peer):
    for name in (b"/nobody", b"/nobody2"):
        peer.file(name, b"!" * 10, host=b"")
    peer.end()


def the_name_of_another_host(peer):
    peer.file(b"/etc/shadow", b"!" * 3000, host=b"h1")
    peer.end()


def another_name_after_the_first_file(peer):
    peer.file(b"/one", b"!" * 3000)
    peer.file(b"/etc/shadow", b"!" * 3000, host=b"h1")
    peer.end()


# --- lies of the agent ---

def greeting_of_another_protocol(connection):
    connection.sendall(b"220 mail.example.org ESMTP\r\n")
    connection.recv(1)


def greeting_without_an_end(connection):
    while True:
        connection.sendall(b"x" * 4096)


def greeting_and_silence(connection):
    connection.recv(1)


def wrong_proof(connection):
    connection.sendall(f"ZUL1 {secrets.token_hex(32)}\n".encode())
    connection.makefile("rb").readline()
    connection.sendall(f"OK {secrets.token_hex(32)}\n".encode())
    connection.recv(1)


AGENT_LIES = (greeting_of_another_protocol, greeting_without_an_end, greeting_and_silence, wrong_proof)


# --- the agent ---

def login(connection, key):
    reader = connection.makefile("rb", buffering=0)
    server = secrets.token_bytes(32)
    connection.sendall(f"ZUL1 {server.hex()}\n".encode())
    _, name, client, _ = reader.readline().split()
    text = b"zul1-s\0" + name + b"\0" + bytes.fromhex(client.decode()) + server
    connection.sendall(f"OK {hmac.new(key, text, hashlib.sha256).hexdigest()}\n".encode())
    return reader


def play(lie):
    listener = socket.create_server(("", 2346), reuse_port=False)
    connection, _ = listener.accept()
    listener.close()
    try:
        lie(Peer(connection))
    finally:
        connection.close()


def serve(connection, key, lie):
    try:
        if lie in AGENT_LIES:
            lie(connection)
            return
        reader = login(connection, key)
        request = reader.readline()
        if request.startswith(b"TAPE rsync"):
            while not reader.readline().startswith(b"TRANSFER OK"):
                pass
            if lie is refuses_the_list:
                connection.sendall(b"ERROR:  8202 no room\nZuL_DoNe. 255\n")
            else:
                connection.sendall(b"ZuL_DoNe. 0\n")
        elif request.startswith(b"TAPE server"):
            play(lie)
    except OSError:
        pass  # the other side had enough
    finally:
        connection.close()


def refuses_the_list(peer):
    nothing_but_the_truth(peer)


def main():
    key = bytes.fromhex(open(sys.argv[1]).read().strip())
    lie = globals()[sys.argv[2]]
    console = socket.create_server(("", 2345))
    print("ready", flush=True)
    while True:
        connection, _ = console.accept()
        threading.Thread(target=serve, args=(connection, key, lie), daemon=True).start()


if __name__ == "__main__":
    main()
