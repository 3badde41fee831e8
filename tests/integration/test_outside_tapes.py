"""Catalogs and tapes, called through the built module's exported functions; the drive is a virtual one, whose image is
read with an eye of our own."""
import os
import socket
import struct
import time

import pytest

from outside import Buffer, Descriptor
from outsidetapes import drive  # noqa: F401 (fixtures)
from outsidetapes import header, record, tape_files, volume_record


# --- catalogs ---

def test_a_volume_record_is_built_stored_printed_and_listed(outside):
    outside.write("var/tape/jobids/index", struct.pack("<6i", 0, 7, 3, -86400, 0, 0) + b"\0daily".ljust(492, b"\0"))
    outside.write("var/tape/jobids/group", "3:alpha,beta:web\n")
    memory = outside.write("tmp/record", b"\xee" * 9224)
    assert outside.call("int fillCatlgstru", 7, Buffer(memory), 0).result == 1  # no backup list
    os.mkdir(outside.path("var/tape/jobids/7"))
    assert outside.call("int fillCatlgstru", 7, Buffer(memory), 0).result == 0
    assert outside.read("tmp/record") == bytes(9224)
    os.rmdir(outside.path("var/tape/jobids/7"))
    outside.write("var/tape/jobids/7", "/etc/\n/home\n")
    os.makedirs(outside.path("var/tape/drive.0/tape.1"))
    begun = int(time.time())
    said = outside.run([["int fillCatlgstru", 7, Buffer(memory), 5]])
    raw = outside.read("tmp/record")
    assert said.result == 0 and raw[:4] == b"CaT*"
    created, retention, newer = struct.unpack_from("<3q", raw, 8)
    assert begun <= created <= begun + 5 and (retention, newer) == (-86400, 0)
    assert raw[32:44] == b"alpha,beta\0\0" and struct.unpack_from("<2i", raw, 4128) == (7, 3)
    assert raw[4136:4142] == b"daily\0" and struct.unpack_from("<2i", raw, 4392) == (0, 5)
    assert raw[4400:4420] == b"\xff" * 20 and raw[4420:8200] == bytes(3780)
    # Its texts live in the process that filled it, so it is stored there; a buffer cannot be handed on.
    with open(outside.path("var/tape/drive.0/tape.1/catalog"), "wb") as handle:
        handle.write(volume_record(texts=[b"/etc/", b"/home"]) + volume_record(b"old", created=int(time.time())))
    said = outside.run([["int tapetool", "get vols 0 1"]])
    today = time.gmtime()
    assert said.err == ("0:1/1/70:1:daily\n"
                        f"1:{today.tm_mday}/{today.tm_mon}/{today.tm_year - 1900}:0:old\n")
    said = outside.call("int getTapeVols", "0")
    assert (said.result, said.err) == (1, "ERROR:  8085 Insufficient arguments.\n")
    records = outside.write("tmp/records", bytes(9224 * 128))
    said = outside.run([["int getTapeCatlg", outside.path("var/tape/drive.0/tape.1"), Buffer(records)],
                        ["int getTapeCatlg", None, None]])
    assert said.results == ["getTapeCatlg 2", "getTapeCatlg 0"]


def test_what_is_stored_of_a_record_without_texts_is_empty_ones(outside):
    os.makedirs(outside.path("var/tape/drive.0/tape.1"))
    memory = outside.write("tmp/record", volume_record()[:8200] + bytes(1024))
    assert outside.call("int storCatalg", 0, 1, Buffer(memory)).result == 0
    assert outside.read("var/tape/drive.0/tape.1/catalog") == volume_record()
    said = outside.call("void prntCatlgstru", Buffer(memory))
    assert said.err == ("Magic = 2a546143\nCreated = 1000\nRetention = 100\nNewer than = 0\nHosts = alpha\n"
                        "Job number = 7\nGroup number = 3\nVol Label = daily\nVersion = 0\nLevel = 0\n"
                        "Unused1 = 0\nUnused2 = 0\n")
    path = outside.path("var/tape/drive.9/tape.1/catalog")
    said = outside.call("int storCatalg", 9, 1, Buffer(memory))
    assert (said.result, said.hostlog, said.err) == (
        -1, *[f"ERROR:  8081  Cannot make update tape catalog: {path}\n"] * 2)
    path = outside.path("var/tape/drive.0/tape.1/catalog")
    os.unlink(path)
    os.symlink("/dev/full", path)
    said = outside.call("int storCatalg", 0, 1, Buffer(memory))
    assert said.hostlog == f"ERROR:  8082  Cannot make tape catalog header: {path}\n"
    assert (said.result, said.err) == (-1, f"ERROR:  8082  Cannot write tape catalog header: {path}\n")


@pytest.mark.parametrize("content, result", [
    (None, 0), (b"", 0), (b"x" * 8199, 0), (volume_record(), 1), (volume_record() * 130, 128),
    (volume_record() + volume_record(magic=b"JUNK"), -5),
], ids=["missing", "empty", "partial", "one", "more than the limit", "spoilt"])
def test_a_catalog_is_loaded(outside, content, result):
    os.makedirs(outside.path("var/tape/drive.0/tape.1"))
    if content is not None:
        outside.write("var/tape/drive.0/tape.1/catalog", content)
    records = outside.write("tmp/records", bytes(9224 * 128))
    said = outside.call("int getTapeCatlg", outside.path("var/tape/drive.0/tape.1"), Buffer(records))
    assert said.result == result


def test_one_level_of_a_volume_is_listed(outside):
    outside.write("var/tape/drive.0/tape.1/vol.3", "0:h:0:/home/\n0:h:0:/home/a\n0:h:0:/home/d/x\nbad:line\n"
                  "0:h:0:/home/d/y\n0:h:1:/home/a\n0:g:0:/home/b\n0:h:0:/home/c:o lon\n")
    said = outside.call("int getVolCat", "0 1 3 h /home/")
    path = outside.path("var/tape/drive.0/tape.1/vol.3")
    assert (said.result, said.err) == (
        0, f"0:.\n0:a\n0:d/\nERROR:  8088  Line malformed in {path}.  Got 2 vals, lastarg = line\n0:c:o lon\n")
    said = outside.call("int getVolCat", "0 1 3 h")
    assert (said.result, said.err) == (1, "ERROR:  8086 Insufficient arguments.\n")
    said = outside.call("int getVolCat", "0 1 5 h /")
    path = outside.path("var/tape/drive.0/tape.1/vol.5")
    assert (said.result, said.hostlog, said.err) == (-1, *[f"ERROR:  8087  Cannot read volume catalog: {path}\n"] * 2)


# --- tapes ---

@pytest.mark.parametrize("present, free", [
    ([], 0), ([0, 1, 3], 2), ([3, 4], 5), (["x"], 1), ([31999], -1), ([0, "7 file"], 1),
])
def test_tape_numbers_are_given_out(outside, present, free):
    os.makedirs(outside.path("var/tape/drive.0"))
    for number in present:
        if str(number).endswith(" file"):
            outside.write(f"var/tape/drive.0/tape.{number.split()[0]}", "")
        else:
            os.mkdir(outside.path(f"var/tape/drive.0/tape.{number}"))
    assert outside.call("int getNextTapeID", 0).result == free


def test_a_drive_folder_that_is_none_is_named(outside):
    path = outside.path("var/tape/drive.0")
    said = outside.call("int getNextTapeID", 0)
    assert (said.result, said.err) == (-1, f"ERROR:  8026  Cannot stat file: >{path}<, errno = 2\n")
    said = outside.call("int getTapes", "0")
    assert (said.result, said.err) == (-1, f"ERROR:  8031  Cannot stat file: >{path}<, errno = 2\n")
    os.mkdir(path, 0)
    nobody = ["setpriv", "--inh-caps=-all", "--bounding-set=-all"]
    said = outside.call("int getNextTapeID", 0, inside=nobody)
    assert (said.result, said.err) == (-1, f"ERROR:  8028  Cannot read directory: {path}\n")
    said = outside.call("int getTapes", "0", inside=nobody)
    assert (said.result, said.err) == (-1, f"ERROR:  8033  Cannot read directory: {path}\n")
    os.rmdir(path)
    outside.write("var/tape/drive.0", "")
    said = outside.run([["errno", 0], ["int getNextTapeID", 0]])
    assert (said.result, said.err) == (-1, f"ERROR:  8027  Path is not a directory:  >{path}<, errno = 0\\n")
    said = outside.run([["errno", 0], ["int getTapes", "0"]])
    assert (said.result, said.err) == (-1, f"ERROR:  8032  Path is not a directory:  >{path}<, errno = 0\\n")


def test_an_ordinary_file_gets_a_catalog_and_no_label(outside):
    target = outside.write("tmp/target", "as it was")
    outside.write("etc/tapedevs", f"# none\n0:a:b\n0:file:{target}:a:b:\n")
    os.makedirs(outside.path("var/tape/drive.0"))
    said = outside.call("int addTape", "0:11:22:33:lab")
    assert said.result == 0
    assert said.err == ("Drive num = 0\nERROR:  8024  Data Error, splits = 3\n"
                        f"Drive path = {target}\nRegular file backup to {target}\n")
    assert said.hostlog == "ERROR:  8024  Data Error\n"
    raw = outside.read("var/tape/drive.0/tape.0/header")
    assert len(raw) == 2056 and raw[:4] == b"HeAd" and raw[20:24] == b"lab\0"
    assert raw[276:532].rstrip(b"\0").decode() == target
    assert raw[532:580].rstrip(b"\0").decode() == socket.gethostname()
    assert struct.unpack_from("<4i", raw, 580) == (0, 0, 11, 22) and raw[596:] == bytes(1460)
    assert outside.read("var/tape/drive.0/tape.0/catalog") == b""
    assert os.stat(outside.path("var/tape/drive.0/tape.0")).st_mode & 0o777 == 0o700
    assert outside.text("tmp/target") == "as it was"
    assert outside.call("int getTapes", "0").err == "0:lab\n"
    os.unlink(outside.path("var/tape/drive.0/tape.0/catalog"))
    assert outside.call("int getTapeInfo", outside.path("var/tape/drive.0/tape.0")).err == "0:lab\n"
    outside.write("var/tape/drive.0/tape.0/catalog", b"x" * 9000)
    said = outside.call("int getTapeInfo", outside.path("var/tape/drive.0/tape.0"))
    assert (said.result, said.out) == (-2, f"Cannot read tape catalogs: {outside.path('var/tape/drive.0/tape.0')}\n")
    outside.write("var/tape/drive.0/tape.0/header", b"HeAd")
    said = outside.call("int getTapeInfo", outside.path("var/tape/drive.0/tape.0"))
    assert (said.result, said.out) == (-1, f"Cannot read tape header: {outside.path('var/tape/drive.0/tape.0')}\n")


def test_what_goes_wrong_with_tapes_is_said(outside):
    for text, count in (("0:1:2:x", 4), ("0:1:2:3:a:b", 6)):
        said = outside.call("int addTape", text)
        assert (said.result, said.err) == (-1, f"ERROR:  8012  Insufficient arguements ({count})\n")
    said = outside.call("int addTape", "0:1:2:3:lab")
    assert said.hostlog == "ERROR:  8023  Cannot read tapedevs\n"
    assert (said.result, said.err) == (-1, "Drive num = 0\nERROR:  8023  No Tape drives defined\n")
    outside.write("etc/tapedevs", "1:file:/x:a:b:\n")
    said = outside.call("int addTape", "0:1:2:3:lab")
    assert said.hostlog == "ERROR:  8025  Cannot find tape path\n"
    assert (said.result, said.err) == (-1, "Drive num = 0\nERROR:  8025  Cannot find tape path\n")
    said = outside.call("int addTape", "1:1:2:3:lab")
    assert said.err.endswith("errno = 2\nERROR:  8014  Cannot get a free tape Id number\n")
    assert said.hostlog == "ERROR:  8014  Cannot get a free tape Id number\n"
    said = outside.call("int getTapeDrives")
    assert (said.err, said.hostlog) == (
        "1:file:/x:a:b:\n", f"Getting tape drive list: {outside.path('etc/tapedevs')}\n")
    os.unlink(outside.path("etc/tapedevs"))
    said = outside.call("int getTapeDrives")
    assert (said.result, said.err) == (-1, "ERROR:  8030  No Tape drives defined\n")
    assert said.hostlog.endswith("WARNING:  No tape devices available\n")


def named(name):
    """Runs a host under another name, of its own UTS namespace."""
    return ["unshare", "-u", "sh", "-c", f"hostname {name} && exec \"$@\"", "sh"]


def test_the_name_of_this_host_has_its_room(outside):
    outside.write("etc/tapedevs", "0:file:/srv/x:a:b:\n")
    os.makedirs(outside.path("var/tape/drive.0"))
    said = outside.call("int addTape", "0:1:2:3:lab", inside=named("n" * 60))
    assert (said.result, said.hostlog) == (-1, "ERROR:  8013  Cannot get hostname\n")
    assert said.err == "Drive num = 0\nDrive path = /srv/x\nERROR:  8013  Cannot get hostname\n"
    assert not outside.exists("var/tape/drive.0/tape.0")
    header_file = outside.write("tmp/header", bytes(520))
    said = outside.call("int getFileData", "/", Buffer(header_file), None, inside=named("m" * 64))
    assert (said.result, outside.read("tmp/header")[316:380]) == (0, b"m" * 63 + b"\0")


@pytest.mark.parametrize("limit, text", [
    # Folders that nobody may enter, and files of 512 bytes at most.
    (["setpriv", "--inh-caps=-all", "--bounding-set=-all", "sh", "-c", "umask 777; exec \"$@\"", "sh"],
     "8016  Cannot make tape catalog header: {}"),
    (["sh", "-c", "trap '' XFSZ; ulimit -f 1; exec \"$@\"", "sh"], "8017  Cannot write tape catalog header: {}"),
], ids=["closed", "full"])
def test_a_header_that_cannot_be_written_is_named(outside, limit, text):
    outside.write("etc/tapedevs", "0:file:/srv/x:a:b:\n")
    os.makedirs(outside.path("var/tape/drive.0"))
    said = outside.call("int addTape", "0:1:2:3:lab", inside=limit)
    text = "ERROR:  " + text.format(outside.path("var/tape/drive.0/tape.0/header")) + "\n"
    assert (said.result, said.hostlog, said.err.splitlines(keepends=True)[-1]) == (-1, text, text)


def test_a_tape_is_deleted_by_the_host(outside):
    said = outside.call("int delTape", "0 3")
    assert (said.result, said.trace) == (0, [f"-rf {outside.path('var/tape/drive.0/tape.3')} 1"])
    said = outside.run([["answer 1"], ["int delTape", "0 3"]])
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8022  Cannot delete tape\n"] * 2)
    said = outside.call("int delTape", "0")
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8021  Insufficient arguments\n"] * 2)
    said = outside.call("int delTape", "0 ../../x")
    assert (said.result, said.trace) == (-1, [])


def test_a_tape_is_labelled_and_its_label_read(drive):
    said = drive.call("int addTape", "0:11:22:33:lab")
    assert (said.result, said.hostlog) == (0, "")
    assert said.err == "Drive num = 0\nDrive path = /dev/vtape/d\nDevice file backup to /dev/vtape/d\n"
    label = drive.read("var/tape/drive.0/tape.0/header")
    assert tape_files(drive.image) == [[label]]
    said = drive.call("int prtTapeHead", "0")
    created = time.asctime(time.gmtime(struct.unpack_from("<q", label, 8)[0]))
    assert said.err == (f"TapeName=lab\nTapeDate={created}\nTapeDrive=/dev/vtape/d\nTapeHost={socket.gethostname()}\n"
                        "TapeDrive#=0\nTapeNum#=0\nTapeVer#=0\n")
    assert said.log == "Reading tape header.\n"


def test_an_unlabelled_tape_leaves_the_record_alone(drive):
    out = drive.write("tmp/label", b"\xee" * 2056)
    said = drive.call("int getTapeHead", "0", Buffer(out))
    assert (said.result, drive.read("tmp/label")) == (0, b"\xee" * 2056)
    assert said.log == "Reading tape header.\nERROR:  No label found on tape.  Label and retry\n"
    said = drive.call("int getTapeHead", "5", Buffer(out))
    assert (said.result, said.log) == (-1, "Reading tape header.\nERROR:  Cannot find tape path\n")
    tape = drive.write("tmp/tape", bytes(4))
    assert drive.call("int gotoNextVol", "/dev/vtape/d", 0, Buffer(tape)).result == -1


def test_the_next_volume_is_found_behind_those_of_the_catalog(drive):
    assert drive.call("int addTape", "0:1:2:3:lab").result == 0
    tape = drive.write("tmp/tape", b"\xee" * 4)
    said = drive.call("int gotoNextVol", "/dev/vtape/d", 0, Buffer(tape))
    assert (said.result, drive.read("tmp/tape")) == (1, bytes(4))
    assert said.err == "NOTE:   Positioning tape to volume 1\n"
    assert drive.call("int gotoNextVol", "/srv/file", 0, Buffer(tape)).result == -2
    drive.write("var/tape/drive.0/tape.0/catalog", volume_record() * 3)
    said = drive.call("int gotoNextVol", "/dev/vtape/d", 0, Buffer(tape))
    assert said.result == -1
    assert said.err.startswith("NOTE:   Positioning tape to volume 7\n"
                               "ERROR:  8203  Failed to forward tape: /dev/vtape/d by 7.\nERROR:  8203  Errno: ")


def test_a_device_that_is_no_tape_is_named(outside):
    file = outside.write("tmp/file", "")
    said = outside.call("int mtRewind", file)
    assert (said.result, said.err) == (-1, f"ERROR:  8201  Failed to rewind tape: {file}.  errno=25\n")
    said = outside.call("int mtRewind", "/dev/none")
    assert (said.result, said.err) == (-1, "ERROR:  8200  Cannot open device: /dev/none.  errno=2\n")
    said = outside.call("int mtFSF", "/dev/none", 7)
    assert (said.result, said.err) == (
        -1, "ERROR:  8200  Cannot open device: /dev/none.  errno=2\nNOTE:   Positioning tape to volume 7\n"
            "ERROR:  8202  Cannot open device: /dev/none.  errno=2\n")


def test_tapes_are_read_in_pieces(outside):
    reader, writer = os.pipe()
    os.write(writer, b"abcdef")
    os.close(writer)
    buffer = Buffer(outside.write("tmp/read", bytes(4)))
    said = outside.run([["errno", 5], ["long readt", reader, buffer, 0], ["long readt", reader, buffer, 4],
                        ["long readt", reader, buffer, 4]], fds=(reader,))
    assert said.results == ["readt 0", "readt 4", "readt -3"]
    assert said.err.startswith(f"ERROR:  Read error.  nread=0, nleft= 2, fd={reader}, ptr=0x")
    assert said.err.endswith(", errno = 5\n")
    assert outside.call("long readt", -1, buffer, 4).result == -1


def test_an_ended_tape_with_a_leftover_errno_is_tried_again(outside):
    outside.write("etc/ZULsite", "pause.tape-retry = 1ms\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    buffer = Buffer(outside.write("tmp/read", bytes(4)))
    started = outside.start([["errno", 2], ["long readt", Descriptor("/dev/null"), buffer, 4]])
    time.sleep(1)
    started[0].kill()
    said = outside.finish(started)
    assert said.results == []
    assert said.err.count("ERROR:  Read error. Retry 20:  nread=0, nleft= 4, fd=") == 1


@pytest.mark.parametrize("junk, dots", [(b"", 0), (b"j", 1), (b"j" * 515, 1), (b"j" * 1000, 2)],
                         ids=["none", "a byte", "a window", "two windows"])
def test_a_package_header_is_searched_for(outside, junk, dots):
    stream = outside.write("tmp/stream", junk + header(b"/name", 77) + bytes(1100))
    raw, unpacked = (Buffer(outside.write(name, bytes(520))) for name in ("tmp/raw", "tmp/unpacked"))
    said = outside.call("int getPackHead", Descriptor(stream), raw, unpacked)
    assert said.result == 0
    if dots == 0:
        assert said.err == ""
    else:
        window = (junk + header(b"/name", 77))[:520].decode("latin-1")
        assert said.err == (f"NOTICE:  RAW data:{window}WARNING:  Did not find package header\n"
                            "WARNING:  Searching" + "." * dots)
    if len(junk) < 516:
        assert outside.read("tmp/raw") == header(b"/name", 77)
        assert outside.read("tmp/unpacked")[:12] == b"!LuZ\0\0\0/name"
    else:
        # Found in a later window, a header has four stale bytes in it and the rest is shifted behind them.
        whole = header(b"/name", 77)
        assert outside.read("tmp/raw")[:36] == whole[:36] and outside.read("tmp/raw")[40:] == whole[36:516]


def test_a_search_for_a_header_ends(outside):
    raw, unpacked = (Buffer(outside.write(name, bytes(520))) for name in ("tmp/raw", "tmp/unpacked"))
    stream = outside.write("tmp/stream", b"j" * 60000)
    said = outside.call("int getPackHead", Descriptor(stream), raw, unpacked)
    assert (said.result, said.err.split("Searching")[1]) == (-2, "." * 100 + "\nERROR:  Can't find package header\n")
    stream = outside.write("tmp/stream", b"short")
    said = outside.run([["errno", 5], ["int getPackHead", Descriptor(stream), raw, unpacked]])
    assert (said.result, said.err.splitlines()[-1]) == (
        -1, "ERROR:  Failed to read the data header(1).  Got error -3")
    stream = outside.write("tmp/stream", b"\0" * 520)
    said = outside.call("long getPackageHead", Descriptor(stream), raw)
    assert (said.result, said.err) == (-2, "Magic = 0, expected: 5a754c21\n")
    stream = outside.write("tmp/stream", record(size=4711))
    assert outside.call("long getPackageHead", Descriptor(stream), raw).result == 4711


def test_directories_are_made_with_their_parents(outside):
    for path, result in (("a/b/c", 0), ("a/b", 0), ("d/e/", 0), ("tmp", 0)):
        assert outside.call("int rmkdir", outside.path(path), 0o700).result == result
    outside.write("file", "")
    assert outside.call("int rmkdir", outside.path("file"), 0o700).result == -1
    assert outside.call("int rmkdir", outside.path("file/x"), 0o700).result == -1
    assert os.path.isdir(outside.path("a/b/c")) and os.path.isdir(outside.path("d/e"))
