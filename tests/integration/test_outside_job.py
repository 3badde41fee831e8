"""Backup jobs on a virtual drive, called through the built module's exported functions; agents and gatherers of the
client hosts are played."""
import os
import re
import struct

import pytest

from home import eventually
from outside import Buffer, InSegment, Writing
from outsidehosts import agent, fresh_network  # noqa: F401 (fixtures)
from outsidehosts import CONSUMED, MIB, PARENT_FLAGS, PRODUCED, Gatherer, Segment, assert_heard, framed
from outsidetapes import drive  # noqa: F401 (fixtures)
from outsidetapes import header, record, tape_files, volume_record

# A slot's words, and where the package in its mailbox is described.
MINE, TOTAL, DONE, PACKAGE, DESCRIPTOR = 8, 80, 84, 88, 76


@pytest.fixture
def slot(outside):
    segment = Segment()
    segment.view[MINE:MINE + 6] = b"alpha\0"
    return segment


def offer(outside, slot, name=b"/f", size=0, sequence=0, content=b"", host=b"alpha"):
    """Leaves one package in the mailbox of the slot, as a gathering child does."""
    slot.view[PACKAGE:PACKAGE + 520] = record(name, size, sequence, host=host)
    slot.set(PRODUCED, slot.get(PRODUCED) + 1)
    return outside.write("tmp/ipc.alpha", header(name, size, sequence, host=host) + content)


def copy(outside, slot, target="/dev/null", mailbox=True, flags=os.O_WRONLY):
    """procFIFOData, once, onto a file in the place of a tape."""
    lines = [["set", "tpshmid", slot.id]]
    mail = os.open(outside.path("tmp/ipc.alpha"), os.O_RDONLY) if mailbox else -1
    slot.set(DESCRIPTOR, mail & 0xffffffff)
    tape = os.open(target, flags | os.O_CREAT, 0o600)
    lines.append(["int procFIFOData", InSegment(0), tape, Writing(outside.path("tmp/list"))])
    said = outside.run(lines, fds=(tape, mail) if mailbox else (tape,))
    os.close(tape)
    if mailbox:
        os.close(mail)
    said.list = outside.text("tmp/list")
    return said


# --- the segment ---

def test_a_segment_is_made_attached_once_and_removed(outside):
    said = outside.run([["int tpmkShMem", 65536], ["int tprmShMem", 2147483600]])
    made = said.result_of(0)
    assert (said.result, said.log) == (
        0, "ERROR:  8327  Function shmctl failed!  Unable to free shared memory\n")
    listed = [line.split() for line in open("/proc/sysvipc/shm")][1:]
    segment = next(each for each in listed if int(each[1]) == made)
    assert (segment[2], segment[3]) == ("600", "65536")
    said = outside.run([["long tpgetShMemPtr", made], ["long tpgetShMemPtr", 2147483600], ["long tpgetShMemPtr", -1],
                        ["long tpgetShMemPtr", 2147483600], ["int tprmShMem", made]])
    addresses = [int(line.split()[1]) for line in said.results]
    assert addresses[0] == addresses[1] != 0
    assert addresses[2:] == [0, 0, 1]
    assert said.log == ("ERROR:  8328  Function shmat failed!  Unable to get pointer to shared memory.  "
                        "errno = 22 \n")


# --- mailboxes ---

def test_a_mailbox_is_made(outside, slot):
    said = outside.run([["set", "tpshmid", slot.id], ["int mkFIFO", 0, 4711]])
    assert (said.result, said.log) == (0, "FIFO made.\n")
    assert os.stat(outside.path("tmp/ipc.alpha")).st_mode & 0o777 == 0o600
    assert (slot.get(PARENT_FLAGS), slot.get(4)) == (1, 4711)
    os.unlink(outside.path("tmp/ipc.alpha"))
    os.rmdir(outside.path("tmp"))
    said = outside.run([["set", "tpshmid", slot.id], ["int mkFIFO", 0, 4711]])
    assert (said.result, slot.get(PARENT_FLAGS)) == (-3, 2)
    assert said.log == f"ERROR:  8314  Fatal error.  Can't open FIFO: {outside.path('tmp/ipc.alpha')}\n"
    said = outside.call("int mkFIFO", 0, 4711)
    assert said.result == -1 and said.log.startswith("ERROR:  8313  Fatal error.  Failed to allocate shared memory ")


def test_a_package_goes_to_tape_in_whole_units(outside, slot):
    data = b"d" * 9000
    offer(outside, slot, b"/n:m", 9000, 0, data)
    said = copy(outside, slot, outside.path("tmp/tape"))
    assert (said.result, said.log, said.list) == (0, "", "0:alpha:0:/n:m\n")
    assert (slot.get(TOTAL), slot.get(DONE), slot.get(CONSUMED)) == (9520, 9520, slot.get(PRODUCED))
    # The padding is what the buffer held before.
    assert outside.read("tmp/tape") == header(b"/n:m", 9000) + b"d" * 8192 + b"d" * 1024
    outside.write("etc/ZULsite", "behaviour.backup = sound\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    os.unlink(outside.path("tmp/tape"))
    offer(outside, slot, b"/n", 9000, 0, data)
    assert copy(outside, slot, outside.path("tmp/tape")).result == 0
    assert outside.read("tmp/tape") == header(b"/n", 9000) + data + bytes(1024 - 9000 % 8192)


def test_a_file_of_a_megabyte_takes_two_packages_and_then_is_complete(outside, slot):
    tape = outside.path("tmp/tape")
    offer(outside, slot, b"/big", MIB, 0, b"m" * MIB)
    assert copy(outside, slot, tape, flags=os.O_WRONLY | os.O_APPEND).result == 0
    assert (slot.get(TOTAL), slot.get(DONE)) == (MIB + 1040, MIB + 520)
    offer(outside, slot, b"/big", MIB, 1)
    said = copy(outside, slot, tape, flags=os.O_WRONLY | os.O_APPEND)
    assert (said.result, said.list, slot.get(DONE)) == (0, "0:alpha:1:/big\n", MIB + 1040)
    assert outside.read("tmp/tape") == framed(b"/big", b"m" * MIB, host=b"alpha")
    offer(outside, slot, b"/big", MIB, 2)
    said = copy(outside, slot, tape)
    assert (said.result, said.list, slot.get(CONSUMED)) == (0, "", slot.get(PRODUCED) - 1)


def test_a_tape_that_refuses_is_reported(outside, slot):
    offer(outside, slot, b"/f", 10, 0, b"0123456789")
    slot.set(PARENT_FLAGS, 1)
    said = copy(outside, slot, "/dev/full")
    assert (said.result, slot.get(PARENT_FLAGS)) == (-5, 1)
    assert said.log == "ERROR:  8320  Fatal error.  Can't write to tape.  retval=-1, errno=28\n"
    assert slot.get(CONSUMED) == 0


def test_an_empty_mailbox_stops_its_host_and_says_so(outside, slot):
    offer(outside, slot, b"/f", 10)
    outside.write("tmp/ipc.alpha", header(b"/f", 10))
    slot.set(PARENT_FLAGS, 1)
    said = copy(outside, slot)
    assert (said.result, slot.get(PARENT_FLAGS)) == (-5, 2)
    assert said.log.startswith("ERROR:  8321  Fatal error.  Can't write to tape.  errno=")
    outside.write("tmp/ipc.alpha", "")
    slot.set(PARENT_FLAGS, 1)
    said = copy(outside, slot)
    assert (said.result, slot.get(PARENT_FLAGS)) == (-5, 2)
    assert said.log.startswith("ERROR:  8321  Fatal error.  Can't write to tape.  errno=")


def test_a_mailbox_that_is_lost_is_opened_again_once(outside, slot):
    outside.write("etc/ZULsite", "pause.mailbox-retry = 1ms\n")
    os.chmod(outside.path("etc/ZULsite"), 0o600)
    offer(outside, slot)
    said = copy(outside, slot, mailbox=False)
    assert (said.result, said.err) == (0, "NOTICE:  Attempting to reopen FIFO\n")
    assert said.log == "ERROR:  8316  Seek error! errno = 9\nERROR:  8317  Close error! errno = 9\n"
    os.unlink(outside.path("tmp/ipc.alpha"))
    os.mkdir(outside.path("tmp/ipc.alpha"))
    slot.set(PRODUCED, 9)
    said = copy(outside, slot, mailbox=False)
    assert (said.result, slot.get(PARENT_FLAGS)) == (-1, 2)
    assert said.log.endswith(f"ERROR:  8318  Can't open FIFO: {outside.path('tmp/ipc.alpha')}.  "
                             "Stopping backup of: alpha.  errno=21\n")


# --- the catalog copy ---

def test_a_catalog_copy_is_a_record_and_eight_blocks_of_texts(drive):
    memory = drive.write("tmp/record", volume_record()[:8200] + bytes(1024))
    assert drive.call("int writeCat2Tape", "/dev/vtape/d", Buffer(memory)).result == 0
    assert tape_files(drive.image) == [[volume_record()[:8200]] + [bytes(4096)] * 8]
    said = drive.call("int writeCat2Tape", "/none/x", Buffer(memory))
    assert (said.result, said.log) == (-1, "ERROR:  8322  Can't open tape device: /none/x, errno = 2\n")
    said = drive.call("int writeCat2Tape", "/dev/full", Buffer(memory))
    assert (said.result, said.log) == (-2, "ERROR:  8323  Short write!, errno = 28\n")


def test_a_failed_job_is_taken_out_of_the_catalog(outside):
    for name in ("catalog.Old", "catalog", "vol.3"):
        outside.write(f"var/tape/drive.0/tape.1/{name}", name)
    said = outside.call("int backupFail", 0, 1, 3)
    text = "ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n"
    assert (said.result, said.log, said.err) == (0, text, "")
    assert outside.text("var/tape/drive.0/tape.1/catalog") == "catalog.Old"
    assert not outside.exists("var/tape/drive.0/tape.1/vol.3")
    said = outside.run([["copies 1"], ["int backupFail", 0, 1, 3]])
    assert (said.result, said.log) == (-1, text)


# --- whole jobs ---

def define_job(outside, hosts, retention=86400):
    outside.write("var/tape/jobids/index", struct.pack("<6i", 0, 7, 3, retention, 0, 0) + b"\0daily".ljust(492, b"\0"))
    outside.write("var/tape/jobids/group", f"3:{','.join(hosts)}:web\n")
    outside.write("var/tape/jobids/7", "/etc/\n/home\n")


@pytest.fixture(params=["classic", "sound"])
def job(drive, request):
    """Job 7 with one host, on a labelled tape; .behaviour says which holds."""
    pauses = ("gather-child", "gatherer-start", "label-settle", "list-grace", "drive-busy")
    drive.behaviour = request.param
    drive.write("etc/ZULsite", f"behaviour = {request.param}\nbehaviour.pace = classic\n"
                + "".join(f"pause.{name} = 20ms\n" for name in pauses) + "pause.drive-busy-tries = 3\n")
    define_job(drive, ["127.0.0.1"])
    assert drive.call("int addTape", "0:1:2:3:lab").result == 0
    return drive


def backup(job, level="0"):
    """goBackup in its own process, with its streams where tapeBackup would have put them."""
    return job.call("int goBackup", "7", level, limit=60)


CONSOLE_LINES = ("Positioning tape.\nClosing connection.  Backup will continue silently.\n"
                 "Logging to {}/var/tape/jobids/___.stat\nTRANSFER OK\n")


def test_a_job_writes_its_hosts_to_tape(job, agent):
    files = [framed(b"/etc/a", b"x" * 100), framed(b"/etc/big", b"y" * (MIB + 1))]
    segments = len(open("/proc/sysvipc/shm").readlines())
    for number in (1, 3):
        agent.requests.clear()
        gatherer = Gatherer(files)
        said = backup(job)
        gatherer.close()
        assert said.result == 0
        assert_heard(agent.requests, ["TAPE rsync 7\n/etc/\n/home\nTRANSFER OK\n", "TAPE server 7 0\n"])
        began = re.match(r"Starting backup job# 7 on (.{24})\n", said.err)
        assert began and said.err[began.end():] == CONSOLE_LINES.format(job.home)
        log = [line for line in said.log.splitlines() if not line.startswith("NOTICE")]
        assert log[0] == said.err.splitlines()[0]
        assert log[1:4] == ["Reading tape header.", f"NOTE:   Positioning tape to volume {number}",
                            "Writing to tape number: 0"]
        assert log[4:11] == ["Wrote backup ID to tape.", "Synchronizing backup request lists.",
                             "Synchronizing 127.0.0.1..", "Starting gathering processes",
                             "Listener for: 127.0.0.1  started", "Making FIFO for: 127.0.0.1", "FIFO made."]
        kilobytes = sum(len(each) for each in files) // 1024
        assert log[11] == "Child exit status = 8"
        assert re.fullmatch(rf"Backed-up {kilobytes} KB in 2 items, at \d+ KB/s from 127\.0\.0\.1\.", log[12])
        assert log[13:15] == ["Stopping gathering process for 127.0.0.1.", "INFO:  Backup finished.."]
        assert re.fullmatch(r"Completed backup job# 7 at .{24}", log[15]) and said.log.endswith("\n\n\n")
        assert log[16:] == ["", ""]
    label, *volumes = tape_files(job.image)
    assert label == [job.read("var/tape/drive.0/tape.0/header")] and len(volumes) == 4
    # Each volume: the copy of its catalog record, and the packages of its hosts.
    catalog = job.read("var/tape/drive.0/tape.0/catalog")
    size = 8200 + len("/etc//home") + 128
    assert len(catalog) == 2 * size and job.read("var/tape/drive.0/tape.0/catalog.Old") == catalog[:size]
    for at in (0, 1):
        copied, data = volumes[2 * at], volumes[2 * at + 1]
        assert copied[0] == catalog[at * size:at * size + 8200]
        assert [len(block) for block in copied] == [8200] + [4096] * 8
        assert copied[1][:262] == b"/etc/".ljust(256, b"\0") + b"/home\0"
        assert [len(block) for block in data] == [520, 512, 520] + [8192] * 128 + [520, 512]
        assert b"".join(data[2:131]) + data[131] == files[1][:2 * 520 + MIB] and data[132][:1] == b"y"
    lines = ["{}:%s:0:/etc/a", "{}:%s:0:/etc/big", "{}:%s:1:/etc/big"]
    entries = (1, 2, 2) if job.behaviour == "sound" else (0, 0, 0)
    for number in (1, 3):
        assert job.text(f"var/tape/drive.0/tape.0/vol.{number}").splitlines() == [
            line.format(entry) % os.uname().nodename for line, entry in zip(lines, entries)]
    history = job.read("var/tape/bhistory")
    assert [struct.unpack_from("<qi", history, at + 32) for at in (0, 184)] == [(kilobytes, 1)] * 2
    assert struct.unpack_from("<5i", history, 184 + 40) == (1, 0, 0, 3, 0)
    assert not job.exists("tmp/ipc.127.0.0.1")
    left = len(open("/proc/sysvipc/shm").readlines()) - segments
    assert left == (0 if job.behaviour == "sound" else 2)


def test_a_job_goes_on_without_a_host_that_is_down(job, agent):
    define_job(job, ["127.0.0.9", "127.0.0.1"])
    gatherer = Gatherer([framed(b"/etc/a", b"x")])
    said = backup(job)
    gatherer.close()
    assert said.result == (0 if job.behaviour == "classic" else -993)
    assert "Child exit status = 2\n" in said.log and "Child exit status = 8\n" in said.log
    assert "Backed-up 0 KB in 0 items, at 0 KB/s from 127.0.0.9.\n" in said.log
    assert len(tape_files(job.image)) == 3
    status = struct.unpack_from("<i", job.read("var/tape/bhistory"), 40)[0]
    assert status == (1 if job.behaviour == "classic" else 2)


def test_a_job_ends_where_its_records_do(job):
    os.unlink(job.path("var/tape/jobids/7"))
    said = backup(job)
    assert said.result == -1
    assert said.log.endswith("ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n")
    assert job.read("var/tape/drive.0/tape.0/catalog") == b""
    define_job(job, ["127.0.0.1"])
    os.mkdir(job.path("var/tape/drive.0/tape.0/vol.1"))
    said = backup(job)
    path = job.path("var/tape/drive.0/tape.0/vol.1")
    assert said.result == -995
    assert (f"ERROR:  8309  Fatal error.  Cannot open backup volume list: {path}.  errno = 21\n"
            "ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n") in said.log
    assert job.read("var/tape/drive.0/tape.0/catalog") == b""
    os.rmdir(path)
    said = job.run([["copies 1"], ["int goBackup", "7", "0"]])
    assert said.result == -9
    assert said.log.endswith("ERROR:  8346  Cannot make a backup copy of the backup history file.\n"
                             "ERROR:  8307  Fatal error.  Aborting backup.\n")


def test_a_job_without_shared_memory_takes_its_volume_back(job, agent):
    none_left = "echo 0 > /proc/sys/kernel/shmmni && exec \"$@\""
    said = job.call("int goBackup", "7", "0", inside=["unshare", "-i", "sh", "-c", none_left, "sh"])
    assert said.result == -999
    lines = said.log.splitlines()[-4:]
    assert lines[0] == "ERROR:  8325  Function shmget failed!  errno = 28"
    assert lines[1].startswith("ERROR:  8326  Function shmat failed!  Unable to get pointer to shared memory.  errno = ")
    assert lines[2].startswith("ERROR:  8311  Fatal error.  Failed to allocate shared memory buffer.  errno = ")
    assert lines[3] == "ERROR:  8330  Backup failed, attempting to revert to previous catalog."
    assert job.read("var/tape/drive.0/tape.0/catalog") == b""


def test_a_folder_in_the_place_of_the_list_spoils_a_catalog_in_classic_only(job, agent):
    os.unlink(job.path("var/tape/jobids/7"))
    os.mkdir(job.path("var/tape/jobids/7"))
    gatherer = Gatherer()
    said = backup(job)
    gatherer.close()
    catalog = job.read("var/tape/drive.0/tape.0/catalog")
    if job.behaviour == "classic":
        assert (said.result, catalog) == (0, bytes(8200 + 128))
    else:
        assert (said.result, catalog) == (-1, b"")
        assert said.log.endswith("attempting to revert to previous catalog.\n")


def test_a_job_that_cannot_be_positioned_says_so_after_its_console_is_free(job):
    for table, result in (("0:file:/tmp/none:a:b:\n", -12), ("0:none:/dev/none:a:b:\n", -11)):
        job.write("etc/tapedevs", table)
        said = backup(job)
        assert said.result == result
        assert said.err.endswith(CONSOLE_LINES.format(job.home))
        assert said.log.endswith("ERROR:  8306  Fatal error.  Cannot position tape.\n")
    job.write("etc/tapedevs", "1:x:/dev/x:a:b:\n")
    said = backup(job)
    assert (said.result, "TRANSFER OK" in said.err) == (-1, False)
    assert said.err.endswith("ERROR:  8025  Cannot find tape path\n")


def test_the_gathering_phase_alone(job, agent):
    """Without a drive it takes the volume back; without a segment it comes back at once."""
    run = job.write("tmp/run", job.read("var/tape/jobids/index") + struct.pack("<3i", 0, 1, 0))
    job.write("var/tape/drive.0/tape.0/catalog.Old", "old")
    job.write("var/tape/drive.0/tape.0/vol.1", "list")
    vollist = Writing(job.path("tmp/list"))
    said = job.call("double processHostData", Buffer(run), 0, "/none/x", vollist)
    assert (said.results, said.hostlog) == (["processHostData -1.0"],
                                            "ERROR:  8310  Can't open tape device: /none/x\n")
    assert said.log == ("ERROR:  8310  Can't open tape device: /none/x\n"
                        "ERROR:  8330  Backup failed, attempting to revert to previous catalog.\n")
    assert job.text("var/tape/drive.0/tape.0/catalog") == "old"
    assert not job.exists("var/tape/drive.0/tape.0/vol.1")
    said = job.call("double processHostData", Buffer(run), 0, "/dev/vtape/d", vollist)
    assert said.results == ["processHostData -1.0"]
    assert said.log.startswith("ERROR:  8315  Fatal error.  Failed to find shared memory buffer.  errno = ")


def test_a_request_runs_a_job_from_the_console_to_its_end(job, agent):
    gatherer = Gatherer([framed(b"/etc/a", b"x")])
    said = job.call("int tapetool", "backup 7 5 and more")
    assert said.status == 0
    assert said.err == "Creating a a background process\nSee the backup logs for status\nTRANSFER OK\n"
    eventually(lambda: said.results == ["tapetool 0"], 20, "the end of the job")
    gatherer.close()
    assert "Completed backup job# 7 at " in job.text("var/tape/jobids/7.status")
    assert len(tape_files(job.image)) == 3
    # The rest of the line is the level, and reads as its number; classic hands it on as a time.
    assert struct.unpack_from("<i", job.read("var/tape/bhistory"), 56) == (5,)
    level = 5 if job.behaviour == "classic" else 0
    assert_heard(agent.requests, ["TAPE rsync 7\n/etc/\n/home\nTRANSFER OK\n", f"TAPE server 7 {level}\n"])
