"""Backup lists, headers of files and histories, called through the built module's exported functions."""
import os
import socket
import struct
import time

import pytest

from outside import Buffer
from outsidetapes import NODE, record


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
