"""The front end and the configuration stores, called through the built module's exported functions."""
import os
import socket
import struct

import pytest

from home import eventually
from outside import Buffer, Table
from ownnetwork import enter_own_network

OUT_OF_STATUS = "ERROR:  Fatal error.  Cannot open status log file: {}.  errno = {}\n"


@pytest.fixture(autouse=True)
def fresh_network():
    enter_own_network()


def request(outside, line, **how):
    return outside.call("int tapetool", line, **how)


# --- splitting and stripping ---

@pytest.mark.parametrize("line, most, count, words, after", [
    ("", 2, 0, ["untouched"] * 3, ""),
    ("backup 12 full /home", 2, 2, ["backup", "12 full /home", "untouched"], "backup"),
    ("a b c", 7, 3, ["a", "b", "c"], "a"),
    ("a b c", 1, 1, ["a b c", "untouched", "untouched"], "a b c"),
    ("  x", 2, 1, ["x", "untouched", "untouched"], ""),
    (" \t\n ", 2, 0, ["untouched"] * 3, ""),
    ("a\tb\rc\nd", 7, 4, ["a", "b", "c"], "a"),
    ("a b  ", 2, 2, ["a", "b  ", "untouched"], "a"),
])
def test_a_line_is_split_into_words(outside, line, most, count, words, after):
    # A buffer, so that what became of the line itself can be seen.
    path = outside.write("tmp/line", line)
    said = outside.call("int wssplit", Table(3), Buffer(path), most)
    assert said.read("results").startswith(f"wssplit {count} " + " ".join(f"[{word}]" for word in words))
    assert outside.text("tmp/line").split("\0")[0] == after
    if count == 0:
        assert outside.text("tmp/line") == "\0" * len(line)


@pytest.mark.parametrize("text, result, left", [
    ("", 0, ""), ("\n", 1, ""), ("x", 1, "x"), ("abc\r\n", 1, "abc"), ("abc\n", 1, "abc"), ("a\tb", 1, "a"),
    ("abc\n\n\n", 1, "abc\n"),
])
def test_line_ends_are_stripped(outside, text, result, left):
    path = outside.write("tmp/text", text)
    assert outside.call("int stripCtrl", Buffer(path)).result == result
    assert outside.text("tmp/text").split("\0")[0] == left


# --- the dispatcher ---

def test_every_request_truncates_the_status_log(outside):
    outside.write("var/libtape.status", "old")
    said = outside.run([["null backuplog"], ["int tapetool", "version"]])
    assert (said.result, said.err) == (0, "0.34\n")
    assert outside.text("var/libtape.status") == ""


def test_without_a_status_log_nothing_is_done(outside):
    os.rename(outside.path("var"), outside.path("moved"))
    said = request(outside, "version")
    assert (said.result, said.err) == (-9, OUT_OF_STATUS.format(outside.path("var/libtape.status"), 2))


@pytest.mark.parametrize("line, result, answer", [
    ("", 1, "ERROR:  8000 Insufficient arguments.\n"),
    ("  ", 1, "ERROR:  8000 Insufficient arguments.\n"),
    ("backup", 1, "ERROR:  8005  Insufficient arguments.\n"),
    ("backup 7", 1, "ERROR:  8005  Insufficient arguments.\n"),
    ("server 12", 1, "ERROR:  Command syntax error\n"),
    ("repclnt a 5", 1, "ERROR:  Command syntax error\n"),
    ("resclnt a", 1, "ERROR:  Command syntax error\n"),
    ("get", 1, "ERROR:  8004  Tape lib: Unknown get request, \n"),
    ("get drive", 1, "ERROR:  8004  Tape lib: Unknown get request, drive\n"),
    ("get foo 1", 1, "ERROR:  8003  Tape lib: Unknown get request, foo\n"),
    ("get drives ", 1, "ERROR:  8002  Insufficient arguments.\n"),
    ("get tape\t3", 1, "ERROR:  8004  Tape lib: Unknown get request, tape\t3\n"),
    ("get drivesX", 1, "ERROR:  8030  No Tape drives defined\n"),
    ("get backuplist 1", 0, ""),
    ("get vols 0", 1, "ERROR:  8085 Insufficient arguments.\n"),
    ("get catalog 0 0", 1, "ERROR:  8086 Insufficient arguments.\n"),
    ("get trans 1", 0, ""),
    ("add x", 1, "ERROR:  8006  Insufficient arguments.\n"),
    ("add foo x", 1, "ERROR:  8007  Tape lib: Unknown add request, foo\n"),
    ("add tapes a", 1, "ERROR:  8012  Insufficient arguements (1)\n"),
    ("mod tapes 3", 1, "ERROR:  8008  Insufficient arguments.\n"),
    ("mod tapes 3 x", 0, ""),
    ("mod tape 3 x", 1, "ERROR:  8009  Tape lib: Unknown mod request, tape\n"),
    ("mod backuplist 1 x", 1, "ERROR:  8009  Tape lib: Unknown mod request, backuplist\n"),
    ("del x", 1, "ERROR:  8010  Insufficient arguments.\n"),
    ("del foo 1", 1, "ERROR:  8011  Tape lib: Unknown del request, foo\n"),
    ("del trans 4", 1, "ERROR:  8010  Insufficient arguments.\n"),
    ("restore 1", 1, None),
    ("jsync 7", 1, "ERROR:  8046  Cannot read jobid index file\n"),
])
def test_a_request_is_answered_in_its_words(outside, line, result, answer):
    said = request(outside, line)
    assert said.result == result
    if answer is None:
        assert said.err.endswith("ERROR:  Restore failed...\n")
    else:
        assert said.err == answer


def test_the_trial_job_runs_in_the_foreground(outside):
    said = request(outside, "funtest")
    assert (said.status, said.result) == (0, 0)


@pytest.mark.parametrize("word", ["versions", "Version"])
def test_an_unknown_word_ends_the_process(outside, word):
    said = request(outside, word)
    assert (said.status, said.results) == (255, [])
    assert said.err == f"ERROR:  8001  Tape lib: Unknown request, {word}\n"


def test_a_host_may_lend_no_streams_at_all(outside):
    """Without its log, and before any request has set the status log, messages have nowhere to go and do no harm."""
    calls = [["int readJobid", 7, None], ["int getTapePath", 0, None], ["int getTapeDrives"], ["int goServer", "1"],
             ["int fillCatlgstru", 7, Buffer(outside.write("tmp/record", bytes(9224))), 0],
             ["int syncBackupLists", 7], ["int dumpHostHist", "h"], ["int getRepids"], ["int delTape", "x"],
             ["int tpgetShMemPtr", 999999], ["int tprmShMem", 999999], ["int backupFail", 0, 0, 1],
             ["int mkBackupList", outside.path("none"), outside.path("tmp/list"), 0]]
    said = outside.run([["null backuplog"], ["null fplog"], *calls])
    assert said.status == 0
    assert len(said.results) == len(calls)
    assert said.hostlog == "" and said.log == ""


@pytest.mark.parametrize("function, text, results", [
    ("tapeAdd", "foo x", 1), ("tapeAdd", "x", -1), ("tapeAdd", "drive x", 1),
    ("tapeMod", "foo x y", 1), ("tapeMod", "x", -1), ("tapeMod", "drive 1 x", -1), ("tapeMod", "trans 1 x", 1),
    ("tapeDel", "foo x", 1), ("tapeDel", "x", -1), ("tapeDel", "drive 1", -1),
    ("tapeGet", "foo", 1), ("tapeGet", "foo x", 1), ("tapeGet", "x ", -1), ("tapeGet", "drives", -1),
    ("tapeGet", "vols 1", -1),
])
def test_results_of_the_four_configuration_functions(outside, function, text, results):
    assert outside.call(f"int {function}", text).result == results


# --- starters ---

def test_backup_releases_the_console_and_goes_on_detached(outside):
    outside.write("var/tape/jobids/index", b"")
    said = request(outside, "backup 7abc x y")
    assert said.status == 0
    assert said.err == "Creating a a background process\nSee the backup logs for status\nTRANSFER OK\n"
    # The call comes back only in the detached process; the job is not in the index.
    eventually(lambda: said.results == ["tapetool 1"], what="the end of the job")
    status = outside.text("var/tape/jobids/7.status")
    assert status.startswith("Starting backup job# 7 on ")
    assert "ERROR:  8047  Cannot find desired jodid 7\n" in status


def test_a_backup_without_its_status_file_has_a_result_of_its_own(outside):
    os.mkdir(outside.path("var/tape/jobids/7.status"))
    said = outside.call("int tapeBackup", "7 0")
    eventually(lambda: said.results == ["tapeBackup -997"], what="the result of the detached process")


def test_replicate_releases_the_console_and_goes_on_detached(outside):
    said = request(outside, "replicate 5")
    path = outside.path("var/tape/jobids/replicate.5.stat")
    assert said.status == 0
    assert said.err == ("Creating a replication process.\n"
                        f"See the replication logs for status:  {path}\nTRANSFER OK\n")
    eventually(lambda: said.results == ["tapetool 1"], what="the end of the job")
    assert outside.text("var/tape/jobids/replicate.5.stat").endswith("ERROR:  ZUL network file gatherer error\n")


def test_a_replication_without_its_status_file_has_a_result_of_its_own(outside):
    os.mkdir(outside.path("var/tape/jobids/replicate.5.stat"))
    said = outside.call("int goReplicate", "5")
    eventually(lambda: said.results == ["goReplicate -2"], what="the result of the detached process")


def test_the_gatherer_needs_its_status_file(outside):
    os.mkdir(outside.path("var/tape/jobids/tapeserv.stat"))
    said = outside.call("int goServer", "7 0 extra")
    assert said.result == -2
    assert said.err == OUT_OF_STATUS.format(outside.path("var/tape/jobids/tapeserv.stat"), 21)


@pytest.mark.parametrize("files, flags, answer", [
    ([], 2, "n"), (["etc/ZULkey"], 2, "n"), (["bin/libscram.so"], 2, "n"),
    (["etc/ZULkey", "bin/libscram.so"], 2, "e"), (["etc/ZULkey", "bin/libscram.so"], 1, "n"),
])
def test_a_receiver_answers_the_encryption_question_first(outside, files, flags, answer):
    for name in files:
        os.symlink("nowhere", outside.path(name))  # only its being there counts
    with socket.socket() as taken:  # the data port, so that the receiver ends at once
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("", 2346))
        taken.listen()
        said = outside.call("int goRepclnt", f"a 5 {flags}")
    assert said.err.startswith(f"Rep Flags={answer}\n")


# --- drives ---

def test_a_drive_is_added_changed_and_deleted(outside):
    said = outside.call("int addDrive", "0:lto:/dev/nst0:a:b")
    assert (said.result, said.err, said.hostlog) == (0, "New tape added:  lto\n", "")
    assert outside.text("etc/tapedevs") == "0:lto:/dev/nst0:a:b:\n"
    assert os.stat(outside.path("var/tape/drive.0")).st_mode & 0o777 == 0o755
    assert not outside.exists("etc/tapedevs.BAK")
    assert outside.call("int addDrive", "1:dlt:/dev/nst1:a:b").result == 0
    assert outside.text("etc/tapedevs.BAK") == "0:lto:/dev/nst0:a:b:\n"
    # The confirmation names the last entry of the table, whichever was changed.
    said = outside.call("int modDrive", "0", "0:new:/dev/nst9:c:d")
    assert (said.result, said.err) == (0, "Modified tape:  dlt\n")
    assert outside.text("etc/tapedevs") == "0:new:/dev/nst9:c:d:\n1:dlt:/dev/nst1:a:b:\n"
    said = outside.call("int delDrive", "0")
    assert (said.result, said.err) == (0, "Modified tape:  dlt\n")
    assert outside.text("etc/tapedevs") == "1:dlt:/dev/nst1:a:b:\n"
    assert outside.exists("var/tape/drive.0")


def test_what_goes_wrong_with_drives_is_said_on_the_console_only(outside):
    table, copy = outside.path("etc/tapedevs"), outside.path("etc/tapedevs.BAK")
    outside.write("etc/tapedevs", "# c\n0:lto:/dev/nst0:a:b:\n")
    os.makedirs(outside.path("var/tape/drive.0"))
    long_key = "1" * 40
    for lines, answer in [
        ([["int addDrive", "1:a:b:c"]], "ERROR:  8204  Insufficient arguments.\n"),
        ([["int addDrive", "0:a:b:c:d"]], "ERROR:  8214  A drive number 0 already exists.\n"),
        ([["copies 1"], ["int addDrive", "1:a:b:c:d"]], f"ERROR:  8205  Unable to make a work copy of {copy}. \n"),
        ([["int modDrive", "0", "1:a:b:c"]], "ERROR:  8207  Insufficient arguments.\n"),
        ([["copies 1"], ["int delDrive", "0"]], f"ERROR:  8208  Unable to make a work copy of {copy}. \n"),
        ([["copies 2"], ["int delDrive", "0"]], f"ERROR:  8209  Cannot open the file {copy}.  Check permissions\n"),
        ([["int delDrive", long_key]], "ERROR:  8213  The drive entry to modify was not found!\n"),
    ]:
        said = outside.run(lines)
        assert (said.result, said.err, said.hostlog) == (-1, answer, ""), lines
    assert outside.text("etc/tapedevs") == "# c\n0:lto:/dev/nst0:a:b:\n"
    outside.write("etc/tapedevs", "0:lto:/dev/nst0:a:b:\nbad:line\n2:x:y:a:b:\n")
    said = outside.call("int delDrive", "2")
    assert (said.result, said.err) == (-1, "ERROR:  8212  Format error in tape group file.\n")
    assert outside.text("etc/tapedevs") == "0:lto:/dev/nst0:a:b:\n"
    assert outside.text("etc/tapedevs.BAK") == "0:lto:/dev/nst0:a:b:\nbad:line\n2:x:y:a:b:\n"
    os.unlink(table)
    os.mkdir(table)
    said = outside.run([["copies 2"], ["int addDrive", "8:a:b:c:d"]])
    assert said.err == f"ERROR:  8206  Cannot open the temp group file {table}. \n"
    said = outside.run([["copies 2"], ["int delDrive", "8"]])
    assert said.err == f"ERROR:  8210  Cannot open the file {table}.  Check permissions\n"
    assert outside.exists("var/tape/drive.8")


# --- jobs and backup lists ---

def test_a_job_is_added_listed_changed_and_deleted(outside):
    said = outside.call("int addJobids", "7:1:86400:0:3:9:daily")
    assert (said.result, said.err) == (0, "Added job: daily\n")
    record = outside.read("var/tape/jobids/index")
    assert record == struct.pack("<6i", 0, 7, 1, 86400, 0, 3) + b"\0daily".ljust(492, b"\0")
    assert outside.call("int getJobids").err == "7:1:86400:0:3:0:daily\n"
    assert outside.call("int addJobids", "7:x:1:y:z:0:twin").result == 0
    assert outside.call("int getJobids").err == "7:1:86400:0:3:0:daily\n7:0:1:0:0:0:twin\n"
    said = outside.call("int modJobids", "7", "8:1:1:1:1:0:new")
    assert (said.result, said.err) == (0, "Modified job: new\n")
    assert outside.call("int getJobids").err == "8:1:1:1:1:0:new\n" * 2
    said = outside.call("int modJobids", "99", "8:1:1:1:1:0:none")
    assert (said.result, said.err) == (0, "Modified job: none\n")
    said = outside.call("int delJobids", "8")
    assert (said.result, said.err) == (0, "Modified job: Delete Me\n")
    assert outside.read("var/tape/jobids/index") == b""


def test_a_name_of_256_characters_is_listed_whole_and_a_partial_tail_goes(outside):
    name = "n" * 256
    assert outside.call("int addJobids", f"7:1:1:1:1:0:{name}x").result == 0
    with open(outside.path("var/tape/jobids/index"), "ab") as index:
        index.write(b"tail")
    assert outside.call("int getJobids").err == f"7:1:1:1:1:0:{name}\n"
    assert outside.call("int modJobids", "1", "1:1:1:1:1:0:x").result == 0
    assert len(outside.read("var/tape/jobids/index")) == 516


def test_what_goes_wrong_with_jobs_is_said_on_log_and_console(outside):
    both = {"getJobids": "8036  Cannot read jobid index"}
    said = outside.call("int getJobids")
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  " + both["getJobids"] + "\n"] * 2)
    said = outside.call("int readJobid", 7, Buffer(outside.write("tmp/job", bytes(516))))
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8046  Cannot read jobid index file\n"] * 2)
    outside.write("var/tape/jobids/index", b"")
    said = outside.call("int readJobid", 7, Buffer(outside.write("tmp/job", bytes(516))))
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8047  Cannot find desired jodid 7\n"] * 2)
    for function, code, arguments in [("addJobids", 8037, []), ("modJobids", 8040, ["7"])]:
        for text, count in (("1:2:3:4:5:6", 6), ("1:2:3:4:5:6:7:8", 8)):
            said = outside.call(f"int {function}", *arguments, text)
            assert said.hostlog == f"ERROR:  {code}  Insufficient arguments\n"
            assert (said.result, said.err) == (-1, f"ERROR:  {code}  Insufficient arguments: {count}\n")
    said = outside.run([["copies 1"], ["int modJobids", "7", "1:2:3:4:5:6:7"]])
    assert (said.result, said.hostlog, said.err) == (
        -1, *["ERROR:  8041  Cannot make backup copy of index file\n"] * 2)
    said = outside.run([["copies 2"], ["int delJobids", "7"]])
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8043  Cannot read jobid index backup\n"] * 2)
    os.unlink(outside.path("var/tape/jobids/index"))
    os.mkdir(outside.path("var/tape/jobids/index"))
    said = outside.call("int addJobids", "1:2:3:4:5:6:7")
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8038  Cannot read jobid index\n"] * 2)
    said = outside.run([["copies 2"], ["int delJobids", "7"]])
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8042  Cannot read jobid index\n"] * 2)


def test_a_full_disk_is_said_with_the_number_of_the_job(outside):
    os.symlink("/dev/full", outside.path("var/tape/jobids/index"))
    said = outside.call("int addJobids", "7:2:3:4:5:6:x")
    assert (said.result, said.err) == (-1, "ERROR:  8039  Failed to update the jobid index for 7\n")
    job = struct.pack("<2i", 0, 7) + bytes(508)
    for text, code in (("9:2:3:4:5:6:x", 8044), ("9:2:3:4:5:6:x", 8045)):
        outside.write("var/tape/jobids/index.BAK", job if code == 8044 else job.replace(b"\x07", b"\x06"))
        said = outside.run([["copies 2"], ["int modJobids", "7", text]])
        assert (said.result, said.err) == (-1, f"ERROR:  {code}  Failed to update the jobid index for 9\n")


def test_a_backup_list_is_kept_line_by_line(outside):
    for entry in ("/etc/", "/a b", "/var"):
        said = outside.call("int addBackupList", f"7 {entry}")
        assert (said.result, said.err) == (0, "")
    assert outside.call("int getBackupList", "7").err == "/etc/\n/a b\n/var\n"
    assert outside.call("int getBackupList", "8").result == 0
    said = outside.run([["int readBackupList", 7, Table(128)]])
    assert said.results == ["readBackupList 0 [/etc/] [/a b] [/var]" + " []" * 125]
    assert outside.call("int delBackupList", "7 /a b").result == 0
    assert outside.text("var/tape/jobids/7") == "/etc/\n/var\n"
    assert outside.text("var/tape/jobids/7.BAK") == "/etc/\n/a b\n/var\n"
    assert outside.call("int delBackupList", "7 /absent").result == 0
    outside.write("var/tape/jobids/7", "/etc/\n/va")  # a last line without its end goes when it begins the entry
    assert outside.call("int delBackupList", "7 /var").result == 0
    assert outside.text("var/tape/jobids/7") == "/etc/\n"


def test_what_goes_wrong_with_backup_lists_is_said(outside):
    for function, code in (("addBackupList", 8048), ("delBackupList", 8051)):
        said = outside.call(f"int {function}", "7")
        assert said.hostlog == f"ERROR:  {code}  Insufficient arguments\n"
        assert (said.result, said.err) == (-1, f"ERROR:  {code}  Insufficient arguments: 1\n")
    said = outside.call("int readBackupList", 7, Table(128))
    assert (said.result, said.hostlog, said.err) == (
        -1, *["ERROR:  8057  Cannot read backuplist for job# 7\n"] * 2)
    os.symlink("/dev/full", outside.path("var/tape/jobids/7"))
    outside.write("var/tape/jobids/7.BAK", "/etc/\n")
    os.mkdir(outside.path("var/tape/jobids/8"))
    for lines, text in [
        ([["int addBackupList", "8 x"]], "8049  Cannot read backup list # 8"),
        ([["int addBackupList", "7 x"]], "8050  Failed to update the backuplist for jobid 7"),
        ([["copies 1"], ["int delBackupList", "7 x"]], "8052  Cannot make backup copy of backup list file"),
        ([["copies 2"], ["int delBackupList", "8 x"]], "8053  Cannot write backup list for job 8"),
        ([["copies 2"], ["int delBackupList", "9 x"]], "8054  Cannot read backup list for job 9"),
        ([["copies 2"], ["int delBackupList", "7 x"]], "8055  Failed to update the backuplist for jobid 7"),
    ]:
        said = outside.run(lines)
        assert (said.result, said.hostlog, said.err) == (-1, *[f"ERROR:  {text}\n"] * 2)
    # A word that would lead out of the folder names no list.
    assert outside.call("int addBackupList", "../x /etc").result == -1
    assert not outside.exists("var/tape/x")


# --- groups ---

def test_a_group_is_added_asked_changed_and_deleted(outside):
    said = outside.call("int addTapeGroup", "1:alpha,beta,gamma:web")
    assert (said.result, said.err) == (0, "Added group: web\n")
    host = outside.write("tmp/host", bytes(64))
    said = outside.run([["int getGrpMember", 1, 2, Buffer(host)], ["int getGrpMember", 1, 4, Buffer(host)],
                        ["int getGrpMember", 1, 0, Buffer(host)], ["int getGrpMember", 2, 1, Buffer(host)]])
    assert said.results == ["getGrpMember 3", "getGrpMember -3", "getGrpMember -3", "getGrpMember -3"]
    assert outside.read("tmp/host").rstrip(b"\0") == b"beta"
    hosts = outside.write("tmp/hosts", bytes(4096))
    assert outside.call("int getGroupHosts", 1, Buffer(hosts)).result == 0
    assert outside.read("tmp/hosts").rstrip(b"\0") == b"alpha,beta,gamma"
    assert outside.call("int getTapeGroup").err == "1:alpha,beta,gamma:web\n"
    said = outside.call("int modTapeGroup", "1", "1:delta:db")
    assert (said.result, said.err) == (0, "Modifing group: db\n")
    assert outside.call("long getGroupFileSize").result == len("1:delta:db\n")
    said = outside.call("int delTapeGroup", "1")
    assert (said.result, said.err) == (0, "Modifing group: Deleteme\n")
    assert outside.text("var/tape/jobids/group") == ""


def test_a_process_keeps_the_group_it_has_asked_for(outside):
    """Asked again, a group is answered from memory, and another one is read anew."""
    outside.write("var/tape/jobids/group", "# c\n1:alpha:web\n2:beta:db\n")
    host = Buffer(outside.write("tmp/host", bytes(64)))
    said = outside.run([["int getGrpMember", 1, 1, host], ["int addTapeGroup", "3:x:y"],
                        ["int modTapeGroup", "1", "1:gamma,delta:web"], ["int getGrpMember", 1, 1, host],
                        ["int getGrpMember", 2, 1, host], ["int getGrpMember", 1, 1, host]])
    assert [line.split()[1] for line in said.results] == ["1", "0", "0", "1", "1", "2"]


def test_a_host_is_reported_in_32_groups(outside):
    outside.write("var/tape/jobids/group", "".join(f"{at}:other,h:g\n" for at in range(40)))
    groups = outside.write("tmp/groups", bytes(4 * 64))
    assert outside.call("int getHostGrps", "h", Buffer(groups)).result == 32
    assert struct.unpack("<32i", outside.read("tmp/groups")[:128]) == tuple(range(32))


def test_what_goes_wrong_with_groups_is_said(outside):
    table, copy = outside.path("var/tape/jobids/group"), outside.path("var/tape/jobids/group.BAK")
    spare = Buffer(outside.write("tmp/spare", bytes(4096)))
    said = outside.call("int getTapeGroup")
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8058  Cannot read tape group \n"] * 2)
    said = outside.call("int getHostGrps", "h", spare)
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8072  Cannot read tape group \n"] * 2)
    said = outside.call("int getGroupHosts", 1, spare)
    assert (said.result, said.hostlog, said.err) == (-1, *["ERROR:  8069  Cannot read tape group \n"] * 2)
    said = outside.call("int getGrpMember", 1, 1, spare)
    assert (said.result, said.err) == (-1, "")
    outside.write("var/tape/jobids/group", "1:alpha\n")
    assert outside.call("int getGrpMember", 1, 1, spare).result == -5
    said = outside.call("int getGroupHosts", 1, spare)
    assert (said.result, said.err) == (-1, "ERROR:  8071  Format error in tape group file.\n")
    said = outside.call("int getHostGrps", "h", spare)
    assert (said.result, said.hostlog, said.err) == (
        -1, *["ERROR:  8074  Format error in tape group file.\n"] * 2)
    outside.write("var/tape/jobids/group", "1:a:b\n")
    for lines, answer in [
        ([["int getGroupHosts", 2, spare]], "ERROR:  8072  The group entry was not found!\n"),
        ([["int addTapeGroup", "1:a"]], "ERROR:  8059  Insufficient arguments.\n"),
        ([["copies 1"], ["int addTapeGroup", "1:a:b"]], f"ERROR:  8060  Unable to make a work copy of {copy}. \n"),
        ([["int modTapeGroup", "1", "1:a"]], "ERROR:  8062  Insufficient arguments.\n"),
        ([["copies 1"], ["int delTapeGroup", "1"]], f"ERROR:  8063  Unable to make a work copy of {copy}. \n"),
        ([["copies 2"], ["int delTapeGroup", "1"]],
         f"ERROR:  8064  Cannot open the file {copy}.  Check permissions\n"),
        ([["int delTapeGroup", "9"]], "ERROR:  8068  The group entry to modify was not found!\n"),
    ]:
        said = outside.run(lines)
        assert (said.result, said.err, said.hostlog) == (-1, answer, ""), lines
        if outside.exists("var/tape/jobids/group.BAK"):
            os.unlink(copy)
    outside.write("var/tape/jobids/group", "1:a:b\nbad\n2:c:d\n")
    said = outside.call("int delTapeGroup", "2")
    assert (said.result, said.err) == (-1, "ERROR:  8067  Format error in tape group file.\n")
    assert outside.text("var/tape/jobids/group") == "1:a:b\n"
    os.unlink(table)
    os.mkdir(table)
    said = outside.run([["copies 2"], ["int addTapeGroup", "1:a:b"]])
    assert said.err == f"ERROR:  8061  Cannot open the temp group file {table}. \n"
    said = outside.run([["copies 2"], ["int delTapeGroup", "1"]])
    assert said.err == f"ERROR:  8065  Cannot open the file {table}.  Check permissions\n"


# --- replication jobs, transforms, policy ---

def test_a_replication_job_is_kept_and_its_messages_go_to_the_status_log(outside):
    text = "5:2:4:0:0:493:420:8:2:x:/srv:nightly"
    said = outside.call("int addRepids", text)
    assert (said.result, said.err, said.log) == (0, "", "")
    record = outside.read("var/tape/jobids/repljobs")
    assert len(record) == 580
    assert struct.unpack("<9i", record[:36]) == (0, 5, 2, 4, 0, 0, 493, 420, 8)
    assert (record[36:44], record[292:297], struct.unpack("<i", record[548:552])[0]) == (
        b"nightly\0", b"/srv\0", 2)
    assert outside.call("int getRepids").err == "5:2:4:0:0:493:420:8:2:reserved:/srv:nightly\n"
    for lines, code in [([["int addRepids", "1:2"]], "8537  Insufficient arguments"),
                        ([["int modRepids", "5", "1:2"]], "8540  Insufficient arguments"),
                        ([["copies 1"], ["int modRepids", "5", text]], "8541  Cannot make backup copy of index file"),
                        ([["int readRepid", 6, Buffer(outside.write("tmp/r", bytes(580)))]],
                         "8547  Cannot find desired jodid 6")]:
        said = outside.run(lines)
        assert (said.result, said.err, said.hostlog, said.log) == (-1, "", "", f"ERROR:  {code}\n")
    said = outside.call("int delRepids", "5")
    assert (said.result, said.err, outside.read("var/tape/jobids/repljobs")) == (0, "", b"")
    os.unlink(outside.path("var/tape/jobids/repljobs"))
    assert outside.call("int getRepids").log == "ERROR:  8536  Cannot read jobid index\n"
    said = outside.call("int readRepid", 6, Buffer(outside.path("tmp/r")))
    assert said.log == "ERROR:  8546  Cannot read jobid index file\n"


def test_transforms_are_kept_and_some_pairs_dropped_without_a_word(outside):
    for pair in ("/ab>/cd", "a>bb", "/a>/bbb", "/ab/x>/y y"):
        assert outside.call("int addTrans", f"5 {pair}").result == 0
    assert outside.text("var/tape/jobids/trans.5") == "/ab>/cd\n/ab/x>/y y\n"
    assert outside.call("int getTrans", "5").err == "/ab>/cd\n/ab/x>/y y\n"
    assert outside.call("int getTrans", "6").result == 0
    with open(outside.path("var/tape/jobids/trans.5"), "a") as handle:
        handle.write("# note\n")
    assert outside.call("int modTrans", "5", "/ab/x /new>/z").result == 0
    assert outside.text("var/tape/jobids/trans.5") == "/ab>/cd\n/new>/z\n# note\n"
    # Longer prefixes go with a shorter one.
    outside.write("var/tape/jobids/trans.5", "/a>/1\n/ab>/2\n/a/x>/3\n/b>/4\n")
    assert outside.call("int delTrans", "5", "/a").result == 0
    assert outside.text("var/tape/jobids/trans.5") == "/b>/4\n"


def test_what_is_wrong_with_a_transform_is_said(outside):
    said = outside.call("int addTrans", "5")
    assert (said.result, said.err) == (-1, "ERROR:  Command syntax error\n")
    said = outside.call("int addTrans", "5 /a>/b>/c")
    assert said.result == -1
    assert said.err == "ERROR:  Command syntax error.  parse error in 2nd arg.  n=3, args=5\n"
    said = outside.call("int modTrans", "5", "/a /b")
    assert (said.result, said.err) == (-1, "ERROR:  Command syntax error.  parse error in 2nd arg\n")
    path = outside.path("var/tape/jobids/trans.5")
    said = outside.call("int delTrans", "5", "/a")
    assert (said.result, said.err) == (
        -1, f"ERROR:  Cannot make copy of: {path}\nERROR:  Cannot delete entry: /a\n")
    said = outside.run([["copies 2"], ["int modTrans", "5", "/a /b>/c"]])
    assert (said.result, said.err) == (-1, f"ERROR:  Cannot read file: {path}.BAK\n")


def test_transforms_are_loaded_in_pairs(outside):
    outside.write("var/tape/jobids/trans.5", "# c\n/a>/b\nx\nno pair here\n/c>\n")
    buffer = Buffer(outside.write("tmp/texts", bytes(9728)))
    said = outside.call("int readTransforms", 5, buffer, Table(6))
    assert said.results == ["readTransforms 0 [/a] [/b] [/c] [] [(null)] [(null)]"]
    assert said.err == ("Exiting readTransforms\ntransform[0] = /a\ntransform[1] = /b\ntransform[2] = /c\n"
                        "transform[3] = \n")
    said = outside.call("int readTransforms", 6, buffer, Table(3))
    assert said.results == ["readTransforms 0 [(null)] [(null)] [untouched]"]
    outside.write("var/tape/jobids/trans.5", "".join(f"/a{at}>/b\n" for at in range(20)))
    said = outside.call("int readTransforms", 5, Buffer(outside.write("tmp/texts", bytes(9728))), Table(32))
    assert said.results[0].endswith("[/a14] [/b] [(null)] [(null)]")


@pytest.mark.parametrize("directory, file, kind, mode, left", [
    (0, 0o644, 0, 0o104755, (0o644, 10, 20)), (0o755, 0, 1, 0o042777, (0o755, 10, 20)),
    (1 << 12, 1 << 15, 0, 0o104755, (0o104755, 10, 20)), (1 << 12, 0, 0, 0o104755, (0o100755, 10, 20)),
    (1 << 13, 0o600, 0, 0o100755, (0o600, 10, 2)), (1 << 14, 0o600, 0, 0o100755, (0o600, 1, 20)),
    (1 << 13 | 1 << 14 | 0o700, 0, 1, 0o040755, (0o700, 1, 2)), (0, 0, 2, 0o124777, (0o120777, 1, 2)),
])
def test_a_replication_jobs_policy_is_applied_to_headers(outside, directory, file, kind, mode, left):
    job = struct.pack("<9i", 0, 5, 0, 0, 10, 20, directory, file, 0) + bytes(544)
    header = bytearray(520)
    header[6] = kind
    header[264:276] = struct.pack("<3I", 1, 2, mode)
    record, package = outside.write("tmp/job", job), outside.write("tmp/header", bytes(header))
    said = outside.call("int permctrl", 0, Buffer(package))  # without a job nothing changes
    assert (said.result, outside.read("tmp/header")) == (0, bytes(header))
    said = outside.run([["int permctrl", 1, Buffer(record)], ["int permctrl", 0, Buffer(package)]])
    owner, group, bits = struct.unpack("<3I", outside.read("tmp/header")[264:276])
    assert (bits, owner, group) == left
