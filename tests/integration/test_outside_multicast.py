"""Jobs, names, lists and packing of multicast replication, called through the built module's exported functions."""
import os
import struct

import pytest

from outside import Memory
from outsidemulticast import (END_RECORD, FILE, FOLDER, HEAD, INLINE, JOBS, KEEP_ALL, LINK, OTHER, PAYLOAD, SEGMENT,
                              SEND_AREA, SEND_CTRL, SLOT, ancestors, head, pattern, put_job)


def printed(**values):
    """A job as it is printed, without its lists."""
    names = ["IDnum", "Speed", "CntrlFlags", "UserID", "GroupID", "FilePerms", "DirPerms", "HstGrp"]
    return "".join(f"{name}: {values.get(name, 0)}\n" for name in names)


NOTHING = "Description:  \nPrefix: \n"


# --- requests about jobs ---

@pytest.mark.parametrize("line, result, answer", [
    ("", 1, "ERROR:  8600 Insufficient arguments.\n"),
    (" \t ", 1, "ERROR:  8600 Insufficient arguments.\n"),
    ("getx jobids", -1, "ERROR:  8601 Unknown command. >getx<\n"),
    ("get jobidsx", -1, "ERROR:  8601 Unknown command. >get<\n"),
    ("get jobid", -1, "ERROR:  8601 Unknown command. >get<\n"),
    ("GET jobids", -1, "ERROR:  8601 Unknown command. >GET<\n"),
    (" getx", -1, "ERROR:  8601 Unknown command.\n"),
    ("get jobids", 0, "\n"),
    ("get jobid 9", -1, "ERROR:  8602 Cannot open multicast replication job: 9\n"),
    ("get jobid 0", -1, "ERROR:  8603 Invalid replication jobid. jobid=0\n"),
    ("get jobid zero", -1, "ERROR:  8603 Invalid replication jobid. jobid=0\n"),
    ("get jobid 4294967296", -1, "ERROR:  8603 Invalid replication jobid. jobid=0\n"),
    ("set jobid 5", -2, "ERROR:  8604 Cannot write replication control file {jobs}/mrepjob.5\n"),
    ("set jobid 0", -1, "ERROR:  8605 Invalid replication jobid. jobid=0\n"),
    ("replicate 0", -1, "ERROR:  8609 Invalid replication jobid. jobid=0\n"),
    ("replicate 9", -1, "ERROR:  8611 Cannot open multicast replication job: 9\n"),
    ("del jobid 0", -1, "ERROR:  8612 Invalid replication jobid. jobid=0\n"),
    ("del jobid 9", -1, "ERROR:  8613  Unable to delete replication job: {jobs}/mrepjob.9\n"),
])
def test_a_multicast_request_is_answered_in_its_words(outside, line, result, answer):
    os.mkdir(outside.path(JOBS, "mrepjob.5"))
    if line == "get jobids":
        os.rmdir(outside.path(JOBS, "mrepjob.5"))
    said = outside.call("int mreplicate", line)
    assert (said.result, said.err) == (result, answer.format(jobs=outside.path(JOBS)))
    assert (said.out, said.log, said.hostlog) == ("", "", "")


def test_jobs_are_listed_as_their_folder_has_them(outside):
    for name in ("mrepjob.3", "mrepjob.", "mrepjobX.3", "mrepjob", "mrepjob.12", "mrepjob.-7", "xmrepjob.4",
                 "mrepjob.x", "mrepjob.5.old"):
        outside.write(f"{JOBS}/{name}", "")
    numbers = {"mrepjob.3": 3, "mrepjob.": 0, "mrepjob.12": 12, "mrepjob.-7": -7, "mrepjob.x": 0, "mrepjob.5.old": 5}
    there = [numbers[name] for name in os.listdir(outside.path(JOBS)) if name in numbers]
    said = outside.run([["int mreplgetjobids"], ["int mreplicate", "get jobids and more"]])
    assert said.err == (",".join(str(number) for number in there) + "\n") * 2
    assert said.results == ["mreplgetjobids 0", "mreplicate 0"]


def test_the_folder_of_the_jobs_may_be_missing_a_file_or_a_link(outside):
    folder = outside.path(JOBS)
    os.rename(folder, outside.path("elsewhere"))
    said = outside.call("int mreplgetjobids")
    assert (said.result, said.err) == (-1, f"ERROR:  8607 Replication job directory does not exist: {folder}/\n")
    outside.write(JOBS, "a file")
    said = outside.call("int mreplgetjobids")
    assert (said.result, said.err) == (-1, f"ERROR:  8608 Replication job directory does not exist: {folder}/\n")
    os.unlink(folder)
    os.symlink(outside.path("elsewhere"), folder)
    put_job(outside, 4, "")
    said = outside.call("int mreplgetjobids")
    assert (said.result, said.err) == (0, "4\n"), "the jobs of a site may lie on another disk"


def test_a_job_is_printed_in_its_order_and_without_its_protocol(outside):
    put_job(outside, 5,
            "Host: h1\nXform: /a /b\nLast: /l\nHost: h2\nProtocol: 2\nRequest: /r/\nExclude: /e\nXform: /c \n"
            "Speed: 1\nIDnum: 2\nCntrlFlags: 3\nUserID: 4\nGroupID: 5\nFilePerms: 6\nDirPerms: 7\nHstGrp: 8\n"
            "Prefix: /p\nDescription: some words\n")
    said = outside.call("int mreplgetjob", 5)
    fields = printed(Speed=1, IDnum=2, CntrlFlags=3, UserID=4, GroupID=5, FilePerms=6, DirPerms=7, HstGrp=8)
    assert said.result == 0
    assert said.err == ("Description: some words\nPrefix: /p\n" + fields +
                        "Exclude: /e\nRequest: /r/\nHost: h1\nHost: h2\nLast: /l\nXform: /a /b\nXform: /c \n")
    put_job(outside, -3, "")
    assert outside.call("int mreplgetjob", -3).err == NOTHING + printed()


@pytest.mark.parametrize("text, answer", [
    ("FilePerms: 0644\n", NOTHING + printed(FilePerms=644)),
    ("Speed: 7\nSpeed:\nSpeed:  \n", NOTHING + printed(Speed=7)),
    ("Speed: 1\nSpeed: 2\nUserID: -5\n", NOTHING + printed(Speed=2, UserID=-5)),
    ("Speed: 99999999999999999999\nUserID: -99999999999999999999\n", NOTHING + printed(Speed=-1)),
    ("Request: /r\n" * 257, NOTHING + printed() + "Request: /r\n" * 257),
    ("Speed: 4294967298\nIDnum: 12 monkeys\nGroupID: none\n", NOTHING + printed(Speed=2, IDnum=12)),
    ("Host: b\nHost: a\nHost: b\n", NOTHING + printed() + "Host: b\nHost: a\nHost: b\n"),
    (" Host: a\nhost: b\nHost : c\nHosts: d\n# Host: e\n#\nx\n\nHost:f", NOTHING + printed() + "Host: f\n"),
    ("Host:\n", NOTHING + printed() + "Host: \n"),
    ("Host: a \t\r\n", NOTHING + printed() + "Host: a \n"),
    ("Host: \t\v a\n", NOTHING + printed() + "Host: a\n"),
    ("Description:\nPrefix:  /x \n", "Description: \nPrefix: /x \n" + printed()),
    ("Protocol: 7\nHost: a\n", "NOTICE: Parse error\n" + NOTHING + printed() + "Host: a\n"),
    ("Protocol: -1\n", "NOTICE: Parse error\n" + NOTHING + printed()),
    ("Protocol: 3\nProtocol: 0\n", NOTHING + printed()),
    ("Xform: /a\nHost: a\n", "NOTICE: Parse error\n" + NOTHING + printed() + "Host: a\n"),
    ("Xform: /a\t/b\n", "NOTICE: Parse error\n" + NOTHING + printed()),
    ("Xform: /a \n", NOTHING + printed() + "Xform: /a \n"),
    ("Description: " + "x" * 2030 + "\nHost: a\n",
     "Description: " + "x" * 2030 + "\nPrefix: \n" + printed() + "Host: a\n"),
    ("Description: " + "x" * 2030 + "Speed: 9\n", "Description: " + "x" * 2030 + "\nPrefix: \n" + printed(Speed=9)),
    ("Host: " + "h" * 300 + "\n", NOTHING + printed() + "Host: " + "h" * 300 + "\n"),
    ("Host: a\0b\nHost: c\n", NOTHING + printed() + "Host: a\nHost: c\n"),
])
def test_a_job_file_is_read_line_by_line(outside, text, answer):
    put_job(outside, 5, text)
    said = outside.call("int mreplgetjob", 5)
    assert (said.result, said.err) == (0, answer)


def test_values_have_results_of_their_own(outside):
    calls = [["argHost", "h", 0], ["argRequest", "/r", 0], ["argExclude", "", 0], ["argLast", "/l", 0],
             ["argHostGroup", "3", 0], ["argXform", "/a", -1], ["argXform", "/a /b", 0], ["argDescription", "d", 0],
             ["argPrefix", "/p", 0], ["argIDnum", "x", 0], ["argSpeed", "5", 0], ["argCntrlFlags", "1", 0],
             ["argUserID", "2", 0], ["argGroupID", "3", 0], ["argFilePerm", "4", 0], ["argDirPerm", "5", 0],
             ["argProtocol", "4", -1], ["argProtocol", "-1", -1], ["argProtocol", "3", 0]]
    said = outside.run([["memory", "job", 144], *[[f"int {name}", Memory("job"), value] for name, value, _ in calls],
                        ["number", "job", 16], ["number", "job", 44], ["number", "job", 48], ["show", "job", 88],
                        ["show", "job", 120], ["show", "job", 128], ["void cncfree", Memory("job")],
                        ["void cncfree", Memory("job")], ["show", "job", 88]])
    assert said.results[:len(calls)] == [f"{name} {result}" for name, _, result in calls]
    assert said.results[len(calls):] == ["5", "3", "3", "h", "/a", "/b", "cncfree", "cncfree", "(null)"]


def test_the_keywords_are_an_exported_table(outside):
    said = outside.run([["symbol", "table", "cmdlist"], *[["show", "table", 16 * at] for at in range(17)]])
    assert said.results == ["Host:", "Request:", "Exclude:", "Last:", "HstGrp:", "Xform:", "Description:", "Prefix:",
                            "IDnum:", "Speed:", "CntrlFlags:", "UserID:", "GroupID:", "FilePerms:", "DirPerms:",
                            "Protocol:", "(null)"]


# --- an upload ---

def upload(outside, text, number=5):
    return outside.call("int mreplicate", f"set jobid {number}", stdin=open(outside.write("tmp/upload", text), "rb"))


@pytest.mark.parametrize("text, stored", [
    ("ZuL>Host: alpha\nHost: dropped\nZuL>\nUpLoAd_DoNe.\nZuL>Host: b\n", "Host: alpha\n\n"),
    ("ZuL>Host: alpha\r\n\nZuL_DoNe. 0\nZuL>Host: b\n", "Host: alpha\n"),
    ("ZuL>Host: alpha\nZuL>UpLoAd_DoNe.\nZuL>Host: beta", "Host: alpha\nUpLoAd_DoNe.\nHost: beta\n"),
    ("zul>Host: a\n ZuL>Host: b\nZuL\nUpLoAd_DoNe\n", ""),
    ("", ""),
    ("ZuL>" + "x" * 2039 + "ZuL>y\n", "x" * 2039 + "\ny\n"),
])
def test_an_upload_replaces_a_job_by_the_lines_behind_the_prompt(outside, text, stored):
    put_job(outside, 5, "Host: of before\nHost: and more of it\n")
    said = upload(outside, text)
    assert (said.result, said.err) == (0, "TRANSFER OK\nReplication Job data uploaded\n")
    assert outside.text(f"{JOBS}/mrepjob.5") == stored


def test_an_upload_to_a_full_disk_says_so_and_counts_as_done(outside):
    os.symlink("/dev/full", outside.path(JOBS, "mrepjob.5"))
    said = upload(outside, "ZuL>Host: a\nZuL>Host: b\nUpLoAd_DoNe.\n")
    assert said.result == 0
    assert said.err == ("TRANSFER OK\n\nERROR:  8606  Unable to write output.  File may be truncated!\n"
                        "Replication Job data uploaded\n")


def test_a_job_is_deleted(outside):
    put_job(outside, 5, "")
    said = outside.call("int mreplicate", "del jobid 5")
    assert (said.result, said.err, outside.exists(f"{JOBS}/mrepjob.5")) == (0, "", False)


# --- names and permissions ---

def pairs(*texts):
    """Script lines that make a list of pairs "p0", closed by an empty node."""
    lines = [["memory", f"p{at}", 24] for at in range(len(texts) + 1)]
    for at, (from_text, to) in enumerate(texts):
        lines += [["say", f"p{at}", 0, from_text], ["say", f"p{at}", 8, to], ["point", f"p{at}", 16, f"p{at + 1}"]]
    return lines + [["void setXformDataStruct", Memory("p0")]]


def shaped(outside, before, names, call):
    """What a call makes of names in fields of 256 bytes: (results, names)."""
    lines = list(before)
    for at, name in enumerate(names):
        lines += [["memory", f"n{at}", 260], ["poke", f"n{at}", 0, outside.write(f"tmp/n{at}", name)],
                  [*call, Memory(f"n{at}")], ["dump", f"n{at}", 0, 260, outside.path("tmp", f"out{at}")]]
    said = outside.run(lines)
    calls = [int(line.split()[1]) for line in said.results if line.startswith(call[0].split()[1] + " ")]
    assert all(outside.read(f"tmp/out{at}")[256:] == bytes(4) for at in range(len(names))), "the field holds 256"
    return calls[-len(names):], [outside.read(f"tmp/out{at}")[:256].rstrip(b"\0").decode("latin-1")
                                 for at in range(len(names))]


def test_a_name_is_replaced_when_it_is_the_whole_of_one_of_two_pairs(outside):
    names = ["/etc/hosts", "/etc/hosts.allow", "/etc/hosts/x", "/etc/host", "/b", "/c", "", "/" + "x" * 255]
    results, made = shaped(outside, pairs(("/etc/hosts", "/etc/hosts.master"), ("/b", "/2"), ("/c", "/3")), names,
                           ["int xformPrefix"])
    assert results == [1, 0, 0, 0, 1, 0, 0, 0]
    assert made == ["/etc/hosts.master", *names[1:4], "/2", *names[5:]]
    full = "/" + "x" * 255
    results, made = shaped(outside, pairs((full, "/short"), ("/a", "y" * 300)), [full, "/a"], ["int xformPrefix"])
    assert (results, made) == ([1, 1], ["/short", "y" * 255])


def test_pairs_are_handed_out_first_first_and_second(outside):
    ask = [["int getNextXformPair", mode, Memory("out"), Memory("out", 8)] for mode in (0, -1, 1, 1)]
    shows = [["show", "out", 0], ["show", "out", 8]]
    lines = [["memory", "out", 16], *pairs(("/a", "/1"), ("/b", "/2"), ("/c", "/3"))]
    for each in ask:
        lines += [each, *shows]
    lines += [*pairs(("/only", "/one")), ask[2], *shows]
    said = outside.run(lines)
    handed = [line for line in said.results if line.startswith("/")]
    assert handed == ["/a", "/1"] * 2 + ["/b", "/2"] * 2 + ["/only", "/one"]


def test_a_prefix_is_put_before_a_name_that_leaves_it_room(outside):
    names = ["/etc/x", "n" * 250, "n" * 247, "n" * 248, "f" * 256]
    results, made = shaped(outside, [["int addPrefix", 1, "/backup"]], names, ["int addPrefix", 0])
    assert results == [0, 1, 0, 1, 1]
    assert made == ["/backup//etc/x", names[1], "/backup/" + names[2], names[3], names[4]]
    assert shaped(outside, [["int addPrefix", 1, "/backup/"]], ["x"], ["int addPrefix", 0]) == ([0], ["/backup/x"])
    assert shaped(outside, [["int addPrefix", 1, "p" * 300]], ["x"], ["int addPrefix", 0]) == ([1], ["x"])
    assert shaped(outside, [], ["/etc/x"], ["int addPrefix", 0]) == ([0], ["/etc/x"])


KEEP_MODE, KEEP_GROUP, KEEP_OWNER, ALLOW = 4096, 8192, 16384, 32768


@pytest.mark.parametrize("files, folders, kind, own, left", [
    (0o644, 0o755, FILE, 0o777, (50, 60, 0o644)),
    (0o644, 0o755, FOLDER, 0o777, (51, 61, 0o755)),
    (0o644, 0o755, LINK, 0o777, (50, 60, 0o644)),
    (KEEP_GROUP + 0o600, 0, FILE, 0o751, (50, 8, KEEP_GROUP + 0o600)),
    (KEEP_OWNER + 0o600, 0, FILE, 0o751, (7, 60, KEEP_OWNER + 0o600)),
    (ALLOW + KEEP_MODE + 2541, 0, FILE, 0o4755, (50, 60, 0o4755)),
    (KEEP_MODE + 420, 0, FILE, 0o6755, (50, 60, 0o2755)),
    (ALLOW + 0o700, 0, FILE, 0o4755, (50, 60, ALLOW + 0o4700)),
    (0o700, 0, FILE, 0o4755, (50, 60, 0o700)),
    (ALLOW + 0o700, 0o711, FOLDER, 0o4755, (51, 61, 0o711)),
    (ALLOW, KEEP_MODE, FOLDER, 0o4755, (51, 61, 0o4755)),
    (0, KEEP_MODE + ALLOW, FOLDER, 0o4755, (51, 61, 0o755)),
    (0, KEEP_MODE + KEEP_GROUP + KEEP_OWNER, FOLDER, 0o751, (7, 8, 0o751)),
])
def test_permission_words_are_applied_to_headers_as_they_travel(outside, files, folders, kind, own, left):
    def template(owner, group, word):
        return bytes(264) + struct.pack("<3I", owner, group, word) + bytes(60)
    blocks = {"f": template(50, 60, files), "d": template(51, 61, folders),
              "h": head("/n", kind, owner=7, group=8, mode=own)}
    lines = []
    for name, content in blocks.items():
        lines += [["memory", name, HEAD], ["poke", name, 0, outside.write(f"tmp/{name}", content)]]
    lines += [["int modifyPerms", mode, Memory(name)] for mode, name in ((1, "f"), (2, "d"), (0, "h"))]
    said = outside.run([*lines, ["dump", "h", 0, HEAD, outside.path("tmp/made")]])
    assert said.results == ["modifyPerms 0"] * 3
    assert outside.read("tmp/made") == head("/n", kind, owner=left[0], group=left[1], mode=left[2])


def test_transforms_come_from_a_file_too(outside):
    listed = outside.write("tmp/pairs", "/a   /1\nnothing\n/none \n\n/b /2 x\n/c /3\n")
    results, made = shaped(outside, [["int readXformList", listed]], ["/a", "/b", "/c", "nothing", "/none"],
                           ["int xformPrefix"])
    assert (results, made) == ([1, 1, 0, 0, 0], ["/1", "/2 x", "/c", "nothing", "/none"])
    said = outside.run([["int readXformList", listed], ["int readXformList", outside.path("no")]])
    assert said.results == ["readXformList 0", "readXformList -1"]
    assert said.hostlog == "".join(f"DEBUG: Include list entry:  {line}\n" for line in ("/a   /1", "/b /2 x", "/c /3"))


# --- the list of paths ---

def listed(outside, requests, since=0, excluded=()):
    """The paths of a run, in order."""
    lines = [["memory", "wanted", 16], ["memory", "out", 8], ["memory", "list", 16], ["memory", "without", 16],
             ["int readFileList", outside.write("tmp/requests", "".join(f"{path}\n" for path in requests)),
              Memory("wanted")],
             ["int readFileList", outside.write("tmp/excluded", "".join(f"{path}\n" for path in excluded)),
              Memory("without")],
             ["void setFileList", Memory("wanted"), 0], ["int addToIncList", 1, Memory("list")],
             ["int buildFileList", since]]
    for _ in range(60):
        lines += [["int getNextFile", Memory("out")], ["show", "out", 0]]
    results = outside.run(lines).results
    assert results[4:5] == ["buildFileList 0"], results[:6]
    end = results.index("getNextFile -1")
    return results[6:end:2]


def make_tree(outside):
    tree = outside.path("tree")
    for folder in ("a/b", "empty"):
        os.makedirs(os.path.join(tree, folder))
    for name in ("a/one", "a/b/two"):
        outside.write(f"tree/{name}", "x")
    os.symlink("a", os.path.join(tree, "link"))
    return tree


def walked(path):
    """A tree as a scan lists it: every folder before its entries, entries as the folder has them."""
    found = [path]
    if os.path.isdir(path) and not os.path.islink(path):
        for name in os.listdir(path):
            found += walked(os.path.join(path, name))
    return found


def test_a_request_lists_its_ancestors_then_itself(outside):
    tree = make_tree(outside)
    assert listed(outside, [f"{tree}/a/one"]) == [*ancestors(f"{tree}/a/one"), f"{tree}/a/one"]
    assert listed(outside, [tree]) == [*ancestors(tree), tree]
    assert listed(outside, [f"{tree}/"]) == [*ancestors(tree), *walked(tree)]
    assert listed(outside, [f"{tree}/none", f"{tree}/empty/"]) == [*ancestors(tree + "/x"), *ancestors(tree + "/x"),
                                                                  f"{tree}/empty"]


def test_paths_that_are_not_newer_are_left_out_and_excluded_ones_are_not(outside):
    tree = make_tree(outside)
    for name in ("a", "a/one"):
        os.utime(f"{tree}/{name}", (1000, 1000))
    left = [path for path in walked(tree) if path not in (f"{tree}/a", f"{tree}/a/one")]
    assert listed(outside, [f"{tree}/"], since=1000) == [*ancestors(tree), *left]
    assert listed(outside, [f"{tree}/a/one"], since=1000) == ancestors(f"{tree}/a/one")
    assert listed(outside, [f"{tree}/"], excluded=[tree]) == [*ancestors(tree), *walked(tree)]


def test_a_scan_adds_up_sizes_and_passes_over_what_is_not_there(outside):
    tree = make_tree(outside)
    sizes = sum(os.lstat(path).st_size for path in walked(tree))
    said = outside.run([["memory", "total", 8], ["int scanDirectory", tree, Memory("total"), 0], ["number", "total", 0],
                        ["int scanDirectory", tree + "/none", Memory("total"), 0], ["number", "total", 0]])
    assert said.results == ["scanDirectory 0", str(sizes), "scanDirectory 0", str(sizes)]


def test_lists_are_read_from_files(outside):
    path = outside.write("tmp/paths", "/a\n/b c\n")
    said = outside.run([["memory", "list", 16], ["memory", "out", 8], ["int addToIncList", 1, Memory("list")],
                        ["int readIncludeList", path], ["int addToIncList", 0, "/d"],
                        *[["int getNextFile", Memory("out")], ["show", "out", 0]] * 3,
                        ["int getNextFile", Memory("out")],
                        ["int readIncludeList", outside.path("no")],
                        ["int readFileList", outside.path("no"), Memory("list")]])
    assert said.results == ["addToIncList 0", "readIncludeList 0", "addToIncList 0", "getNextFile 0", "/a",
                            "getNextFile 0",
                            "/b c", "getNextFile 0", "/d", "getNextFile -1", "readIncludeList -1", "readFileList -1"]


# --- headers and content ---

def described(outside, path):
    """(results, type, size, stored, payload) of the two calls that make a header segment."""
    said = outside.run([["memory", "segment", SEGMENT], ["memory", "type", 4], ["memory", "size", 8],
                        ["memory", "stored", 8],
                        ["int storeFileHeader", path, Memory("segment"), Memory("type"), Memory("size")],
                        ["number", "type", 0], ["number", "size", 0],
                        ["dump", "segment", 32, PAYLOAD, outside.path("tmp/header")]])
    kind, size = int(said.results[1]), int(said.results[2])
    again = outside.run([["memory", "segment", SEGMENT], ["memory", "stored", 8],
                         ["poke", "segment", 32, outside.path("tmp/header")],
                         ["int storeNewFileData", path, Memory("segment"), kind, Memory("stored"), size],
                         ["number", "stored", 0], ["dump", "segment", 32, PAYLOAD, outside.path("tmp/payload")]])
    return ((said.result_of(0), again.result_of(0)), kind, size, int(again.results[1]), outside.read("tmp/payload"))


def own_head(path, kind, size, mode):
    status = os.lstat(path)
    return head(path, kind, size, status.st_uid, status.st_gid, mode, int(status.st_mtime), int(status.st_atime))


def test_headers_carry_small_files_and_the_targets_of_links(outside):
    for length in (0, 1, 687, 688, 689, 5000):
        path = outside.write("tmp/file", pattern(length))
        os.chmod(path, 0o4751)
        os.utime(path, (1700000001, 1700000000))
        inlined = pattern(length) if length <= INLINE else b""
        expected = own_head(path, FILE, length, 0o4751)
        results, kind, size, stored, payload = described(outside, path)
        assert (results, kind, size, stored) == ((0, 0), FILE, length, len(inlined)), length
        # All but the access time, which reading changes.
        assert payload[:284] == expected[:284] and payload[292:HEAD] == expected[292:]
        assert payload[HEAD:] == inlined.ljust(INLINE, b"\0")
    link = outside.path("tmp/link")
    os.symlink("over/there", link)
    assert described(outside, link)[1:4] == (LINK, 11, 0)
    assert outside.read("tmp/payload")[HEAD:] == b"over/there".ljust(INLINE, b"\0")
    os.unlink(link)
    os.symlink("t" * 300, link)
    assert described(outside, link)[2] == 256
    assert outside.read("tmp/payload")[HEAD:] == (b"t" * 255).ljust(INLINE, b"\0")


def test_what_is_no_file_has_a_type_and_what_is_not_there_is_nobodys(outside):
    assert described(outside, outside.path("tmp"))[1:4] == (FOLDER, 0, 0)
    assert described(outside, "/dev/null")[1:4] == (6, 0, 0)
    assert outside.read("tmp/payload")[304:308] == struct.pack(">I", 0x103)
    os.mkfifo(outside.path("tmp/pipe"))
    assert described(outside, outside.path("tmp/pipe"))[1:4] == (OTHER, 0, 0)
    missing = outside.path("none")
    assert described(outside, missing)[1:4] == (OTHER, 0, 0)
    assert outside.read("tmp/payload")[:HEAD] == head(missing, OTHER, owner=65535, group=-2, mode=0o600)
    full = "/" + "n" * 255
    assert described(outside, full)[0][0] == 0 and outside.read("tmp/payload")[:HEAD] == head(full, OTHER, owner=65535,
                                                                                              group=-2, mode=0o600)
    said = outside.run([["memory", "segment", SEGMENT], ["memory", "type", 4], ["memory", "size", 8],
                        ["int storeFileHeader", full + "n", Memory("segment"), Memory("type"), Memory("size")]])
    assert said.result == -1


def test_the_end_record_is_fixed(outside):
    outside.run([["memory", "record", HEAD], ["int makeEOTPkt", Memory("record")],
                 ["dump", "record", 0, HEAD, outside.path("tmp/end")]])
    assert outside.read("tmp/end") == END_RECORD


def test_views_move_over_a_file_and_write_one(outside):
    path = outside.write("tmp/file", pattern(10000))
    said = outside.run([["memory", "view", 8], ["int memMapOpen", path, Memory("view"), 4096],
                        ["copy", "view", 4096, outside.path("tmp/v0")], ["int memMapSeek", Memory("view"), 8192],
                        ["copy", "view", 4096, outside.path("tmp/v2")], ["int memMapSeek", Memory("view"), 4096],
                        ["copy", "view", 4096, outside.path("tmp/v1")], ["int memMapClose"], ["int memMapClose"],
                        ["int memMapOpen", outside.path("none"), Memory("view"), 4096]])
    assert said.results == ["memMapOpen 0", "memMapSeek 0", "memMapSeek 0", "memMapClose 0", "memMapClose -1",
                            "memMapOpen -1"]
    views = b"".join(outside.read(f"tmp/v{at}") for at in range(3))
    assert views == pattern(10000).ljust(12288, b"\0")
    content = outside.write("tmp/block", pattern(1000))
    said = outside.run([["memory", "view", 8], ["memory", "at", 8], ["memory", "data", 1000],
                        ["poke", "data", 0, content],
                        ["int memMapWriteOpen", outside.path("tmp/new"), Memory("view"), 4096, 5000],
                        ["poke", "at", 0, outside.write("tmp/at", struct.pack("<q", 4000))],
                        ["long memMapWrite", Memory("at"), 1000, Memory("data")], ["number", "at", 0],
                        ["int memMapClose"],
                        ["long memMapWrite", Memory("at"), 1, Memory("data")]])
    assert said.results[:4] == ["memMapWriteOpen 0", "memMapWrite 1000", "5000", "memMapClose 0"] and said.result < 1
    assert outside.read("tmp/new") == bytes(4000) + pattern(1000)


# --- packing ---

def packed(outside, text, ready=1, before=()):
    """A job packed into an area of its own: (said, control block, slots that were filled)."""
    put_job(outside, 5, text)
    control, ring = outside.path("tmp/control"), outside.path("tmp/ring")
    state = outside.write("tmp/state", struct.pack("<I", ready))
    said = outside.run([["int mkShMem", SEND_AREA], ["keep", "id"], ["last", "shmid"],
                        ["long getCtrlPtr", Memory("id")],
                        ["keep", "ctrl"], ["poke", "ctrl", 0, state], *before, ["memory", "job", 144],
                        ["int readMreplJobData", Memory("job"), 5], ["int dataPacker", Memory("job")],
                        ["dump", "ctrl", 0, SEND_CTRL, control], ["dump", "ctrl", SEND_CTRL, 200 * SLOT, ring],
                        ["int rmShMem", Memory("id")]])
    block = struct.unpack("<7Iiqiii4Ii", outside.read("tmp/control"))
    slots = outside.read("tmp/ring")
    return said, block, [slots[at:at + SLOT] for at in range(0, block[14] * SLOT, SLOT)]


def test_paths_become_slots_and_two_end_records_close_them(outside):
    small, large = outside.write("tmp/small", "tiny"), outside.write("tmp/large", pattern(5000))
    said, block, slots = packed(outside, f"Request: {small}\nRequest: {large}\n" + KEEP_ALL)
    folders = ancestors(small)
    assert said.results[3] == "dataPacker 0"
    assert block[12:16] == (8, 0, len(slots), 0), "packer ended, filled, control word"
    names = [slot[48:304].rstrip(b"\0").decode("latin-1") for slot in slots]
    first = len(folders)
    assert names[:first + 1] == [*folders, small]
    assert names[2 * first + 1] == large and names[-2:] == ["EnD_Of_TrAnSmIsSiOn"] * 2
    assert len(slots) == 2 * first + 2 + 5 + 2
    for number, slot in enumerate(slots):
        assert slot[:44] == struct.pack("<IIBBH", number, 0, 0, 0, 0) + b"PaCk" + struct.pack(
            ">5I", 0, 0, number, 0, 0) + b"PfInErR!"
    assert slots[first][44 + HEAD:44 + HEAD + INLINE] == b"tiny".ljust(INLINE, b"\0")
    content = b"".join(slot[44:] for slot in slots[2 * first + 2:2 * first + 7])
    assert content == pattern(5000).ljust(5120, b"\0")
    assert slots[-1][44:] == slots[-2][44:] == END_RECORD.ljust(PAYLOAD, b"\0")


def test_a_path_that_no_header_carries_is_named_and_the_run_goes_on(outside):
    last = outside.write("tmp/last", "x")
    said, _, slots = packed(outside, f"Request: {'/x' * 200}\nRequest: {last}\n" + KEEP_ALL)
    names = [slot[48:304].rstrip(b"\0").decode("latin-1") for slot in slots]
    assert last in names and said.results[3] == "dataPacker 0"
    for path in [path for path in ancestors("/x" * 200) if len(path) > 256]:
        assert f"NOTICE: Failed to store file header for:  {path}\n" in said.hostlog


def test_the_settings_of_a_job_are_applied_in_their_order(outside):
    path = outside.write("tmp/file", "x")
    os.chmod(path, 0o644)
    _, _, slots = packed(outside, f"Request: {path}\nXform: {path} /moved\nPrefix: /stage\nUserID: 7\nGroupID: 9\n"
                         "FilePerms: 384\nDirPerms: 28672\nExclude: /\n")
    record = slots[len(ancestors(path))][44:44 + HEAD]
    status = os.lstat(path)
    assert record[:284] == head("/stage//moved", FILE, 1, 7, 9, 0o600, int(status.st_mtime))[:284]


def test_a_packer_without_its_sender_packs_nothing(outside):
    said, block, slots = packed(outside, f"Request: {outside.path('tmp')}\n", ready=8)
    assert (said.results[3], block[12], slots) == ("dataPacker -1", 8, [])


def test_numbers_carry_into_the_high_word(outside):
    state = outside.write("tmp/state", struct.pack("<5I", 1, 0, 0, 1024, 16384) + struct.pack("<2I", 0, 0xFFFFFFF0))
    filled = outside.write("tmp/filled", struct.pack("<2I", 0, 0xFFFFFFFF))
    said = outside.run([["int mkShMem", SEND_AREA], ["keep", "id"], ["long getCtrlPtr", Memory("id")], ["keep", "ctrl"],
                        ["poke", "ctrl", 0, state], ["poke", "ctrl", 56, filled], ["memory", "list", 16],
                        ["int addToIncList", 1, Memory("list")], ["int plainDataPacker", Memory("ctrl"),
                                                                  Memory("ctrl", SEND_CTRL)],
                        ["number", "ctrl", 56], ["number", "ctrl", 60], ["number", "ctrl", 52],
                        ["dump", "ctrl", SEND_CTRL, SLOT, outside.path("tmp/first")],
                        ["dump", "ctrl", SEND_CTRL + 16383 * SLOT, SLOT, outside.path("tmp/last")],
                        ["int rmShMem", Memory("id")]])
    assert said.results[-4:-1] == ["1", "1", "8"]
    assert outside.read("tmp/last")[:8] == struct.pack("<2I", 0xFFFFFFFF, 0)
    assert outside.read("tmp/first")[:8] == struct.pack("<2I", 0, 1)
    assert outside.read("tmp/first")[20:28] == struct.pack(">2I", 1, 0)
