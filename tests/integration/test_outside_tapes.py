"""Lists, histories, catalogs and tapes, called through the built module's exported functions; the drive is a virtual
one, whose image is read with an eye of our own."""
import os
import platform
import socket
import struct
import time

import pytest

from outside import Buffer, Descriptor
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


# --- the expansion of backup lists ---

def expand(outside, wanted, newer=0):
    source, target = outside.write("tmp/wanted", wanted), outside.path("tmp/list")
    said = outside.call("int mkBackupList", source, target, newer)
    said.lines = outside.text("tmp/list").replace(outside.home, "H").splitlines()
    return said


def ancestors(outside):
    """The home's own folders above it, which every list of paths in it begins with."""
    parts = outside.home.strip("/").split("/")
    return ["/" + "/".join(parts[:at + 1]) + "/" for at in range(len(parts))]


def test_a_backup_list_is_expanded(outside):
    outside.write("data/tree/sub/file", "x")
    os.symlink("sub", outside.path("data/tree/link"))
    outside.write("data/tree/proc/inside", "x")
    home = outside.home
    said = expand(outside, f"{home}/data/tree/proc/inside\n{home}/data/tree/\n{home}/missing\n{home}/gone/\n")
    assert said.result == 0
    above = len(ancestors(outside))
    names = [line.split(" ", 1)[1] for line in said.lines]
    assert [int(line.split(" ", 1)[0]) for line in said.lines] == list(range(len(names)))
    assert names[above:above + 4] == ["H/data/", "H/data/tree/", "H/data/tree/proc/", "H/data/tree/proc/inside"]
    second = names[above + 4 + above:]
    assert second[:2] == ["H/data/", "H/data/tree/"]
    tree = second[2:2 + 5]
    assert sorted(tree) == ["H/data/tree/link", "H/data/tree/proc/", "H/data/tree/proc/inside",
                            "H/data/tree/sub/", "H/data/tree/sub/file"]
    assert tree.index("H/data/tree/sub/") + 1 == tree.index("H/data/tree/sub/file")
    assert second[2 + 5:] == names[:above] + ["H/missing"] + names[:above]
    assert "/" not in names
    assert os.stat(outside.path("tmp/list")).st_mode & 0o777 == 0o600


def test_a_reference_time_leaves_out_what_is_older_but_not_a_single_file(outside):
    outside.write("data/tree/file", "x")
    said = expand(outside, f"{outside.home}/data/tree/\n{outside.home}/data/tree/file\n", int(time.time()) + 10)
    names = [line.split(" ", 1)[1] for line in said.lines]
    above = len(ancestors(outside))
    assert names[above:] == ["H/data/"] + names[:above] + ["H/data/", "H/data/tree/", "H/data/tree/file"]


def test_names_end_with_any_control_character_and_an_empty_one_counts(outside):
    said = expand(outside, "/a\r\n/b\t/unfinished")
    assert said.lines == ["0 /a", "1 ", "2 /b"]


def test_names_have_255_characters_at_most(outside):
    assert expand(outside, "/" + "n" * 254 + "\n").lines == ["0 /" + "n" * 254]
    said = expand(outside, "/a\n/" + "n" * 255 + "\n/b\n")
    assert (said.result, said.lines) == (-3, ["0 /a"])
    assert said.log == "ERROR:  8306  mkBackupList:  File name + path is too long.\n"


def test_lists_that_cannot_be_opened_are_named(outside):
    nowhere = outside.path("none/x")
    said = outside.call("int mkBackupList", nowhere, nowhere, 0)
    assert (said.result, said.log) == (-1, f"ERROR:  8304  mkBackupList:  Cannot open output file: {nowhere}\n")
    said = outside.call("int mkBackupList", nowhere, outside.path("tmp/x"), 0)
    assert (said.result, said.log) == (-2, f"ERROR:  8305  mkBackupList:  Cannot open input file: {nowhere}\n")


def test_a_walk_gives_the_path_back_as_it_was(outside):
    outside.write("data/a", "12345")
    path = outside.write("tmp/path", outside.path("data").encode().ljust(4096, b"\0"))
    sums = outside.write("tmp/sums", bytes(8))
    count = outside.write("tmp/count", struct.pack("<i", 5))
    out = outside.path("tmp/out")
    with open(out, "w") as handle:
        said = outside.call("int ScanDir", handle.fileno(), Buffer(path), Buffer(sums), 0, Buffer(count),
                            fds=(handle.fileno(),))
    assert said.result == 0
    assert outside.read("tmp/path").split(b"\0")[0].decode() == outside.path("data")
    assert struct.unpack("<i", outside.read("tmp/count")) == (7,)
    assert outside.text("tmp/out") == f"5 {outside.path('data')}/\n6 {outside.path('data')}/a\n"
    assert struct.unpack("<q", outside.read("tmp/sums"))[0] == 5 + os.stat(outside.path("data")).st_size


# --- headers made from files ---

def describe(outside, path, table=None):
    header_file = outside.write("tmp/header", b"\xff" * 520)
    said = outside.call("int getFileData", path, Buffer(header_file), table)
    raw = outside.read("tmp/header")
    said.kind, said.name = raw[6], raw[7:264].rstrip(b"\0").decode("latin-1")
    said.uid, said.gid, said.mode = struct.unpack_from("<3I", raw, 264)
    said.mtime, said.atime, said.size = struct.unpack_from("<3Q", raw, 280)
    said.sequence, said.unused1, said.unused2 = struct.unpack_from("<iII", raw, 304)
    said.host = raw[316:380].rstrip(b"\0").decode()
    said.raw = raw
    return said


def test_files_are_described_by_their_kind(outside):
    file = outside.write("data/file", "12345")
    os.symlink("/tmp", outside.path("data/link"))
    os.mkfifo(outside.path("data/pipe"))
    said = describe(outside, file)
    status = os.stat(file)
    assert (said.result, said.kind, said.name, said.size, said.mtime) == (0, 0, file, 5, int(status.st_mtime))
    assert (said.uid, said.gid, said.mode, said.sequence) == (status.st_uid, status.st_gid, status.st_mode, 0)
    assert (said.unused1, said.unused2, said.host) == (0xa5a5a5a5, 0xa5a5a5a5, NODE)
    assert said.raw[:4] == b"!LuZ" and said.raw[380:] == bytes(140)
    assert (describe(outside, outside.path("data")).kind, describe(outside, outside.path("data")).size) == (1, 0)
    said = describe(outside, outside.path("data/link"))
    assert (said.kind, said.size) == (2, 5)
    assert describe(outside, outside.path("data/pipe")).kind == 5
    said = describe(outside, "/dev/null")
    assert (said.kind, said.unused1) == (3, os.stat("/dev/null").st_rdev)


def test_a_missing_file_keeps_the_defaults(outside):
    said = describe(outside, "/no/such")
    assert (said.result, said.kind, said.mode, said.uid, said.gid, said.size) == (0, 5, 0o600, 65535, 4294967294, 0)
    assert said.err == "NOTICE:  Can't stat file: /no/such.  errno = 2.  Ignoring\n"
    assert said.log == "NOTICE:  Can't stat file: /no/such.  errno = 2.   Ignoring\n"


def test_a_name_is_cut_after_256_characters(outside):
    said = describe(outside, "/" + "n" * 300)
    assert said.name == "/" + "n" * 255 and said.uid == 65535


def test_a_header_is_printed_in_thirteen_lines(outside):
    path = outside.write("tmp/header", record(b"/x", 7, 1, 2, b"h"))
    said = outside.call("void prntFileData", Buffer(path))
    assert said.out == ("Filename = /x\nFromhost = h\nMagic = 5a754c21\nUser ID = 0\nGroup ID = 0\nMode = 33152\n"
                        "Size = 7\nMtime = 0\nAtime = 0\nType # = 2\nVersion = 0\nSqeez= 0\nUnused = a5a5a5a5\n")


def test_a_directory_is_listed(outside):
    outside.write("data/file", "x")
    os.mkdir(outside.path("data/sub"))
    said = outside.call("int getdir", outside.path("data"))
    assert (said.result, sorted(said.err.splitlines())) == (0, [".", "file", "sub/"])
    said = outside.call("int getdir", outside.path("none"))
    assert (said.result, said.err) == (-1, f"ERROR:  8300  Cannot stat file: >{outside.path('none')}<, errno = 2\n")
    said = outside.run([["errno", 0], ["int getdir", outside.path("data/file")]])
    assert (said.result, said.err) == (
        -1, f"ERROR:  8301  Path is not a directory:  >{outside.path('data/file')}<, errno = 0\\n")


# --- the history ---

def job_run(job=7, group=3, retention=100, drive=0, tape=2, volume=5, level=1):
    return struct.pack("<6i", 0, job, group, retention, drive, 0) + bytes(492) + struct.pack("<3i", tape, volume, level)


def test_a_run_is_added_and_completed_and_old_ones_go(outside):
    run = outside.write("tmp/run", job_run(retention=-5))
    assert outside.call("int updateHist", Buffer(run), 1000).result == 0
    raw = outside.read("var/tape/bhistory")
    assert raw[:4] == b"!LuZ" and len(raw) == 184
    assert struct.unpack("<iiqqqiiiii", raw[8:60]) == (7, 3, 1000, -5, 0, 0, 0, 2, 5, 1)
    assert raw[60:] == bytes(124)
    assert os.stat(outside.path("var/tape/bhistory")).st_mode & 0o777 == 0o600
    assert outside.exists("var/tape/bhistory.BAK")
    late = 1000 - 5 + 15552000
    for start, left in ((late - 1, 2), (late, 1)):
        outside.write("var/tape/bhistory", raw)
        other = outside.write("tmp/other", job_run(job=9))
        assert outside.call("int updateHist", Buffer(other), start).result == 0
        assert outside.call("int modHist", Buffer(other), start, 1, 4711).result == 0
        assert len(outside.read("var/tape/bhistory")) == left * 184
        assert struct.unpack("<qi", outside.read("var/tape/bhistory")[-184:][32:44]) == (4711, 1)


def test_what_goes_wrong_with_the_history_is_said_and_undone(outside):
    run = Buffer(outside.write("tmp/run", job_run()))
    assert outside.call("int updateHist", run, 1000).result == 0
    kept = outside.read("var/tape/bhistory")
    history = outside.path("var/tape/bhistory")
    for lines, result, text in [
        ([["copies 1"], ["int updateHist", run, 2000]], -1,
         "ERROR:  8346  Cannot make a backup copy of the backup history file.\n"),
        ([["copies 1"], ["int modHist", run, 2000, 1, 1]], -1,
         "ERROR:  8337  Cannot make a backup copy of the backup history file.\n"),
        ([["int modHist", run, 2000, 1, 1]], -6, "ERROR:  8344  Cannot find the desired backup record.\n"),
    ]:
        said = outside.run(lines)
        assert (said.result, said.log, said.err) == (result, text, ""), lines
        assert outside.read("var/tape/bhistory") == kept
    outside.write("var/tape/bhistory", kept + b"junk" * 46)
    said = outside.call("int modHist", run, 1000, 1, 1)
    assert (said.result, said.log) == (
        -4, "ERROR:  8340  Parse error reading backup history.  Restoring copy.\n")
    assert outside.read("var/tape/bhistory") == kept + b"junk" * 46
    os.unlink(outside.path("var/tape/bhistory.BAK"))
    said = outside.run([["copies 2"], ["int modHist", run, 1000, 1, 1]])
    assert (said.result, said.log) == (-2, "ERROR:  8338  Failed to open master copy of backup history.\n")
    outside.write("var/tape/bhistory.BAK", kept)
    os.unlink(history)
    os.mkdir(history)
    said = outside.run([["copies 2"], ["int modHist", run, 1000, 1, 1]])
    assert (said.result, said.log) == (-3, "ERROR:  8339  Failed to open working copy of the backup history.\n")
    said = outside.run([["copies 2"], ["int updateHist", run, 1000]])
    assert (said.result, said.log) == (-2, f"ERROR:  8347  Cannot open backup history file:  {history}\n")
    os.rmdir(history)
    os.symlink("/dev/full", history)
    said = outside.run([["copies 2"], ["int updateHist", run, 1000]])
    assert (said.result, said.log) == (-4, "ERROR:  8348  Failed to update backup history file\n")
    said = outside.run([["copies 2"], ["int modHist", run, 1000, 1, 1]])
    assert (said.result, said.log) == (-5, "ERROR:  8342  Failed to write backup record.  Restoring copy\n")


@pytest.mark.parametrize("function, history, copy, result, text", [
    ("modHist", b"", b"junk" * 46, -4, "8340  Parse error reading backup history.  Restoring copy.\n"
     "ERROR:  8341  Cannot restore backup copy of the backup history."),
    ("modHist", None, "run", -5, "8342  Failed to write backup record.  Restoring copy\n"
     "ERROR:  8343  Cannot restore backup copy of the backup history."),
    ("modHist", b"", b"", -6, "8344  Cannot find the desired backup record.\n"
     "ERROR:  8345  Cannot restore backup copy of the backup history."),
    ("updateHist", None, b"", -3, "8348  Failed to update backup history file\n"
     "ERROR:  8349  CANNOT RESTORE BACKUP backup-history file!"),
], ids=["damaged", "full disk", "unknown run", "full disk at the start"])
def test_a_history_that_cannot_be_put_back_is_said_too(outside, function, history, copy, result, text):
    run = Buffer(outside.write("tmp/run", job_run()))
    if copy == "run":
        assert outside.call("int updateHist", run, 1000).result == 0
        copy = outside.read("var/tape/bhistory")
        os.unlink(outside.path("var/tape/bhistory"))
    outside.write("var/tape/bhistory.BAK", copy)
    if history is None:
        os.symlink("/dev/full", outside.path("var/tape/bhistory"))
    arguments = [1000, 1, 1] if function == "modHist" else [1000]
    said = outside.run([["copies 3"], [f"int {function}", run, *arguments]])
    assert (said.result, said.log) == (result, f"ERROR:  {text}\n")


def test_a_hosts_history_is_listed(outside):
    now = int(time.time())
    outside.write("var/tape/jobids/group", "3:alpha,beta:web\n4:gamma:db\n")
    for start, retention, group in ((now - 50, 100, 3), (now - 500, 100, 3), (now, 100, 4)):
        run = outside.write("tmp/run", job_run(retention=retention, group=group))
        assert outside.call("int updateHist", Buffer(run), start).result == 0
    said = outside.call("int dumpHostHist", "beta")
    assert said.err == "".join(f"7,3,1,0,{flag},0,2,5,0,{time.asctime(time.gmtime(start))}\n"
                               for start, flag in ((now - 50, 1), (now - 500, 0)))
    assert (outside.call("int dumpHostHist", "nobody").err, said.result) == ("", 0)
    outside.write("var/tape/bhistory", bytes(184))
    said = outside.call("int dumpHostHist", "beta")
    assert (said.result, said.log) == (-4, "ERROR: Parse error reading backup history.  Restoring copy.\n")
    os.unlink(outside.path("var/tape/bhistory"))
    said = outside.call("int dumpHostHist", "beta")
    assert (said.result, said.log) == (-2, "ERROR:  Failed to open master copy of backup history.\n")


@pytest.mark.parametrize("lines, stored", [
    (["/a\n", "/b\n", "TRANSFER OK\n", "/c\n"], 2), ([f"/{at}\n" for at in range(200)], 129), (["/a\n"], 1),
])
def test_a_member_stores_the_list_it_is_sent(outside, lines, stored):
    ours, theirs = socket.socketpair()
    ours.sendall("".join(lines).encode())
    ours.shutdown(socket.SHUT_WR)
    said = outside.call("int reqSync", "7", stdin=theirs)
    assert said.result == 0
    assert outside.text("var/tape/jobids/7.req") == "".join(lines[:stored])
    assert os.stat(outside.path("var/tape/jobids/7.req")).st_mode & 0o777 == 0o600


def test_a_list_that_cannot_be_stored_is_refused(outside):
    os.mkdir(outside.path("var/tape/jobids/7.req"))
    assert outside.call("int reqSync", "7").result == -1


# --- catalogs ---

def volume_record(label=b"daily", created=1000, retention=100, texts=(), magic=b"CaT*"):
    fixed = magic + struct.pack("<I3q", 0, created, retention, 0) + b"alpha".ljust(4096, b"\0")
    fixed += struct.pack("<2i", 7, 3) + label.ljust(256, b"\0") + struct.pack("<2i", 0, 0) + b"\xff" * 20
    fixed = fixed.ljust(8200, b"\0")
    return fixed + b"".join(text + b"\0" for text in texts) + b"\0" * (128 - len(texts))


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
