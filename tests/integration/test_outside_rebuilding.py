"""Files rebuilt from the segments of a multicast run, called through the built module's exported functions."""
import os
import stat
import struct

from outside import Memory
from outsidemulticast import END_RECORD, FILE, FOLDER, HEAD, INLINE, LINK, OTHER, PAYLOAD, SLOT, head, own, pattern


def fed(outside, *payloads, before=()):
    """What fileExtractor makes of payloads, one slot each."""
    lines = list(before) + [["memory", "slot", SLOT + 64]]
    for at, payload in enumerate(payloads):
        control = 0
        if isinstance(payload, tuple):
            payload, control = payload
        slot = bytes(8) + b"\0\1" + bytes(2) + b"PaCk" + struct.pack("<5I", 0, 0, at, 0, control) + bytes(8)
        lines += [["poke", "slot", 0, outside.write(f"tmp/slot{at}", slot + payload.ljust(PAYLOAD, b"\0"))],
                  ["int fileExtractor", Memory("slot")]]
    said = outside.run(lines)
    return said, [int(line.split()[1]) for line in said.results]


def test_a_file_is_rebuilt_from_its_header_and_its_segments(outside):
    for length in (689, 1024, 1025, 5000):
        path = outside.path(f"new/folder{length}/file")
        blocks = [pattern(length)[at:at + 1024] for at in range(0, length, 1024)]
        said, results = fed(outside, own(FILE, path, length, 0o4751), *blocks, END_RECORD)
        assert results == [0] * (1 + len(blocks)) + [-11]
        status = os.stat(path)
        assert (status.st_size, stat.S_IMODE(status.st_mode), status.st_mtime) == (length, 0o4751, 1700000000)
        with open(path, "rb") as handle:
            assert handle.read() == pattern(length)
        assert stat.S_IMODE(os.stat(os.path.dirname(path)).st_mode) == 0o755
        assert said.hostlog == ""


def test_small_files_are_read_behind_the_place_where_they_lie(outside):
    path = outside.path("small")
    assert fed(outside, own(FILE, path, 5) + bytes(INLINE - HEAD) + b"right")[1] == [0]
    assert outside.read("small") == b"right"
    assert fed(outside, own(FILE, path, 400) + b"c" * INLINE)[1] == [0]
    assert outside.read("small") == b"c" * 336 + bytes(64), "what would lie behind the segment is zero"
    assert os.stat(path).st_mtime != 1700000000
    assert fed(outside, own(FILE, path, 688) + b"c" * INLINE, b"n" * 1024)[1] == [0, 0]
    assert outside.read("small") == b"n" * 688
    os.chmod(path, 0o600)
    assert fed(outside, own(FILE, path, 0, 0o644))[1] == [0]
    assert (outside.read("small"), stat.S_IMODE(os.stat(path).st_mode)) == (b"", 0o644)


def test_folders_links_and_others_are_made_in_their_ways(outside):
    folder, link = outside.path("folder"), outside.path("sub/link")
    outside.write("folder", "in the way")
    said, results = fed(outside, own(FOLDER, folder, mode=0o710), own(FOLDER, folder, mode=0o755),
                        own(LINK, link, 6) + b"there", own(LINK, link, 5) + b"here", own(LINK, outside.path("none")),
                        own(OTHER, outside.path("other")), own(4, outside.path("other")),
                        own(ord("Q"), outside.path("other")),
                        own(FOLDER, link + "/x/y"))
    assert results == [0, 0, 0, -9, -9, 0, 0, 0, -4]
    assert stat.S_IMODE(os.stat(folder).st_mode) == 0o755 and os.stat(folder).st_mtime == 1700000000
    assert os.readlink(link) == "there" and not outside.exists("other")
    log = said.hostlog
    assert log.count("ERROR:  The symlink size is: 6\n") == log.count("ERROR:  The symlink size is: 5\n") == 1
    assert "ERROR:  The symlink size is 0\n" in log and "ERROR:  The symlink size is: 0\n" in log
    assert f"NOTICE:  Failed to replicate >{link}< could not make symbolic link!\n" in log
    assert "INFO:  Unknown file type: >Q<\n" in log
    assert log.count("INFO:  Cannot set access and modification time\n") == 4
    assert log.count("DEBUG:  DUMP: ") == 17 * 3
    assert f"NOTICE:  Failed to replicate >{link}/x/y< could not create directory for it!\n" in log


def test_devices_are_made_and_another_number_is_told(outside):
    null = outside.path("null")
    said, results = fed(outside, own(6, null, mode=0o666, rdev=0x103), own(6, null, rdev=0x105),
                        own(5, outside.path("loop"),
                                                                                                   rdev=0x700))
    if not outside.exists("null"):  # as for everybody but root
        assert results == [-7, -7, -7]
        assert said.hostlog.count(f"NOTICE:  Failed to replicate >{null}< could not make device!\n") == 2
        return
    assert results == [0, -8, 0]
    assert stat.S_ISCHR(os.stat(null).st_mode) and os.stat(null).st_rdev == 0x103
    assert stat.S_ISBLK(os.stat(outside.path("loop")).st_mode)
    text = f"NOTICE:  Failed to replicate >{null}< device file already exists with different major/minor!\n"
    assert text in said.hostlog


def test_what_cannot_be_made_has_its_code(outside):
    folder, device = outside.path("tmp"), outside.path("none/device")
    said, results = fed(outside, own(FILE, folder, 1000), own(FILE, folder, 0), own(6, device, rdev=0x103),
                        own(FOLDER, "/proc/sys"), own(FOLDER, "/proc/self/task"), own(FOLDER, "/proc/version"))
    assert results == [-6, -6, -7, -1, -2, -3]
    failed = "NOTICE:  Failed to replicate "
    texts = [line for line in said.hostlog.splitlines() if line.startswith("NOTICE")]
    assert texts == [f"{failed}>{folder}< could not open file!"] * 2 + [
        f"{failed}>{device}< could not make device!",
        "NOTICE:  File >/proc/sys< replicated, but failed to set ownership.",
        "NOTICE:  File >/proc/self/task< replicated, but failed to set permissions.",
        f"{failed}>/proc/version< a file with that name already exists!"]
    limit = outside.write("tmp/limit", struct.pack("<2Q", 4096, 4096))
    small = [["memory", "limit", 16], ["poke", "limit", 0, limit], ["int signal", 25, 1],
             ["int setrlimit", 1, Memory("limit")]]
    said, results = fed(outside, own(FILE, outside.path("big"), 9000), b"A" * 1024, before=small)
    assert results[-2:] == [-5, -10]
    assert f"{failed}>{outside.path('big')}< could not mmap file!\n" in said.hostlog


def test_a_damaged_header_is_dumped_and_the_stream_finds_the_next(outside):
    row = "DEBUG:  DUMP: " + " 41" * 16 + "  " + "A" * 16 + "\n"
    path = outside.path("file")
    outside.write("plain", "x")
    said, results = fed(outside, b"A" * 1024, own(FILE, outside.path("plain/below"), 2000), b"A" * 1024, b"A" * 1024,
                        own(FILE, path, 1000), pattern(1000))
    assert results == [-10, -4, -10, -10, 0, 0]
    assert said.hostlog.count(row) == 17 * 3
    assert said.hostlog.count("NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n") == 3
    text = f"NOTICE:  Failed to replicate >{outside.path('plain/below')}< could not create directory for it!\n"
    assert text in said.hostlog
    assert outside.read("file") == pattern(1000)


def test_a_header_alone_is_created_by_its_function(outside):
    """createNewFile leaves content to others: it says whether it is awaited."""
    def create(payload):
        slot = bytes(44) + payload.ljust(PAYLOAD, b"\0")
        said = outside.run([["memory", "slot", SLOT], ["poke", "slot", 0, outside.write("tmp/slot", slot)],
                            ["memory", "copy", HEAD], ["memory", "pending", 4],
                            ["poke", "pending", 0, outside.write("tmp/seven", b"\7\0\0\0")],
                            ["int createNewFile", Memory("slot"), Memory("copy"), Memory("pending")],
                            ["number", "pending", 0],
                            ["dump", "copy", 0, HEAD, outside.path("tmp/copy")]])
        return said.result_of(0), int(said.results[1]), struct.unpack_from("<I", outside.read("tmp/copy"))[0]
    assert create(own(FILE, outside.path("f"), 5000)) == (0, 1, 0x64456846)
    assert os.stat(outside.path("f")).st_size == 5000
    assert create(own(FILE, outside.path("f"), 5)) == (0, 0, 0x64456846)
    assert create(END_RECORD) == (-11, 0, 0)
    assert create(b"junk") == (-10, 0, 0)


def test_headers_are_turned_and_failures_have_their_texts(outside):
    record = head("/n", LINK, 9, 1, 2, 3, 4, 5, 6)
    outside.run([["memory", "h", HEAD], ["poke", "h", 0, outside.write("tmp/h", record)],
                 ["void convertFileEndian", Memory("h")],
                 ["dump", "h", 0, HEAD, outside.path("tmp/h")]])
    made = outside.read("tmp/h")
    assert struct.unpack_from("<I", made)[0] == 0x64456846 and made[4:264] == record[4:264]
    assert [struct.unpack_from("<I", made, at)[0] for at in (264, 268, 272, 280, 288, 296, 304)] == [1, 2, 3, 4, 5, 9,
                                                                                                     6]
    lines = [["memory", "h", HEAD], ["memory", "e", HEAD], ["poke", "h", 0, outside.write("tmp/h", record)]]
    said = outside.run([*lines, *[["void logError", Memory("h"), code] for code in (*range(-1, -11, -1), -77)],
                        ["void logError", Memory("e"), -78], ["int decryptHeader", Memory("h")],
                        ["int decryptBlock", Memory("h"), 8]])
    failed = "NOTICE:  Failed to replicate >/n< "
    assert said.hostlog == (
        "NOTICE:  File >/n< replicated, but failed to set ownership.\n"
        "NOTICE:  File >/n< replicated, but failed to set permissions.\n"
        f"{failed}a file with that name already exists!\n{failed}could not create directory for it!\n"
        f"{failed}could not mmap file!\n{failed}could not open file!\n{failed}could not make device!\n"
        f"{failed}device file already exists with different major/minor!\n{failed}could not make symbolic link!\n"
        "NOTICE:  Failed to replicate >u5e6hjytrsjn<.  Data stream error!\n"
        f"{failed}unknown error number -77!\n")
