"""zul against a played daemon: what it sends, what it prints, its exit statuses."""
import json
import signal
import subprocess
import threading
import time

import pytest

from zulsupport import PlayedDaemon, Terminal, ZUL, environment, eventually, zul


BEGUN = int(time.time())  # of the run that most tests are about


@pytest.fixture
def daemon(tmp_path):
    played = PlayedDaemon(tmp_path / "home")
    yield played
    played.close()


def request(daemon, line, *words):
    return zul("--home", daemon.home, "request", *words, line)


def record(state="running", started=None, pid=4711, **more):
    now = int(time.time())
    started = BEGUN if started is None else started
    return {"kind": "backup", "job": 7, "name": "daily", "pid": pid, "state": state, "started": started,
            "updated": now, "ended": 0 if state == "running" else now, "drive": 0, "tape": 0, "volume": 1, "level": 0,
            "files": 3, "bytes": 4096, "rate": 1024, "expectedBytes": 8192,
            "result": None if state == "running" else 0, "error": "",
            "hosts": [{"host": "h1", "state": state, "files": 3, "bytes": 4096, "rate": 1024, "error": ""}], **more}


# --- zul request ---

def test_prints_exactly_what_the_console_relays(daemon):
    daemon.answers["TAPE get drives"] = b"0:a:/dev/nst0:0:0:\n\n# \xff end\nZuL_DoNe. 0\n"
    done = subprocess.run([ZUL, "--home", daemon.home, "request", "TAPE get drives"], capture_output=True,
                          env=environment())
    assert (done.returncode, done.stdout, done.stderr) == (0, b"0:a:/dev/nst0:0:0:\n\n# \xff end\n", b"")


def test_a_status_other_than_0_is_exit_status_1(daemon):
    daemon.answers["TAPE nonsense"] = b"ERROR:  8001  Tape lib: Unknown request, nonsense\nZuL_DoNe. 255\n"
    done = request(daemon, "TAPE nonsense")
    assert (done.returncode, done.stdout) == (1, "ERROR:  8001  Tape lib: Unknown request, nonsense\n")


def test_a_request_killed_by_a_signal_says_which(daemon):
    daemon.answers["TAPE x"] = b"ZuL_DoNe. 267\n"
    done = request(daemon, "TAPE x")
    assert done.returncode == 1 and "signal 11" in done.stderr


def test_an_accepted_request_returns_though_it_runs_on(daemon):
    released = threading.Event()

    def answer(connection, reader, line):
        connection.sendall(b"Restore list built\nTRANSFER OK\n")
        released.wait(20)
        return b"ZuL_DoNe. 1\n"

    daemon.answers["TAPE restore"] = answer
    done = request(daemon, "TAPE restore 0:0:1:0")
    released.set()
    assert (done.returncode, done.stdout) == (0, "Restore list built\nTRANSFER OK\n")


def test_a_listing_that_holds_the_word_of_acceptance_is_read_to_its_end(daemon):
    daemon.answers["TAPE get dir"] = b"TRANSFER OK\nlast\nZuL_DoNe. 1\n"
    done = request(daemon, "TAPE get dir /x")
    assert (done.returncode, done.stdout) == (1, "TRANSFER OK\nlast\n")


def test_an_answer_cut_off_is_a_broken_connection(daemon):
    def answer(connection, reader, line):
        connection.sendall(b"half of")
        connection.shutdown(2)

    daemon.answers["TAPE get drives"] = answer
    done = request(daemon, "TAPE get drives")
    assert done.returncode == 3 and done.stdout == "half of" and "in the middle" in done.stderr


def test_a_request_of_two_lines_is_refused_before_it_is_sent(daemon):
    done = request(daemon, "TAPE get drives\nTAPE del drive 0")
    assert done.returncode == 2 and daemon.requests == []


def test_an_upload_is_sent_with_the_prompt_before_each_line(daemon, tmp_path):
    def answer(connection, reader, line):
        connection.sendall(b"TRANSFER OK\n")
        got = []
        while not got or got[-1] != b"UpLoAd_DoNe.\n":
            got.append(reader.readline())
        daemon.uploaded = got
        return b"Replication Job data uploaded\nZuL_DoNe. 0\n"

    daemon.answers["MREPL set jobid"] = answer
    (tmp_path / "job").write_text("Host: h1\nRequest: /x\n")
    done = request(daemon, "MREPL set jobid 5", "--upload", tmp_path / "job")
    assert (done.returncode, done.stdout) == (0, "TRANSFER OK\nReplication Job data uploaded\n")
    assert daemon.uploaded == [b"ZuL>Host: h1\n", b"ZuL>Request: /x\n", b"UpLoAd_DoNe.\n"]


def test_a_refused_upload_is_not_sent(daemon, tmp_path):
    daemon.answers["MREPL set jobid"] = b"ERROR:  8601  no\nZuL_DoNe. 1\n"
    (tmp_path / "job").write_text("Host: h1\n")
    done = request(daemon, "MREPL set jobid 0", "--upload", tmp_path / "job")
    assert done.returncode == 1 and "ERROR:  8601" in done.stdout and "nothing was sent" in done.stderr


def test_a_request_that_wants_an_upload_says_so(daemon):
    done = request(daemon, "MREPL set jobid 5")
    assert done.returncode == 2 and "--upload" in done.stderr and daemon.requests == []


def test_a_reader_that_has_heard_enough_ends_zul_quietly(daemon):
    daemon.answers["TAPE get cat"] = b"line\n" * 200000 + b"ZuL_DoNe. 0\n"
    done = subprocess.run(["sh", "-c", '"$0" --home "$1" request "TAPE get cat 0" | sed 2q', ZUL, daemon.home],
                          capture_output=True, text=True, env=environment(), timeout=30)
    assert (done.stdout, done.stderr) == ("line\nline\n", "")


# --- connecting ---

def test_without_a_home_it_says_how_to_make_one(tmp_path):
    done = zul("--home", tmp_path / "none", "status")
    assert done.returncode == 3 and "init" in done.stderr


def test_without_a_daemon_it_says_how_to_start_one(tmp_path):
    done = zul("--home", tmp_path, "status")
    assert done.returncode == 3 and f"zul --home {tmp_path} up" in done.stderr


def test_a_socket_that_nobody_listens_on_is_no_daemon(daemon):
    daemon.stop_listening()
    done = zul("--home", daemon.home, "status")
    assert done.returncode == 3 and "nobody listens" in done.stderr


def test_who_is_refused_learns_who_is_not(tmp_path):
    played = PlayedDaemon(tmp_path / "home", greeting=b"NO\n")
    done = zul("--home", played.home, "status")
    played.close()
    assert done.returncode == 3 and "group zul" in done.stderr


def test_the_home_comes_from_the_environment_too(daemon):
    daemon.answers["HOST status"] = b"fine\nZuL_DoNe. 0\n"
    done = subprocess.run([ZUL, "status"], capture_output=True, text=True, env=environment(ZULHOME=daemon.home))
    assert (done.returncode, done.stdout) == (0, "fine\n")


@pytest.mark.parametrize("words", [[], ["nonsense"], ["request"], ["follow", "x"], ["follow", "-1"], ["vtape"],
                                   ["follow", "dream"], ["vtape", "make", "x", "--size", "8X"],
                                   ["--host", "h", "down"]])
def test_a_wrong_command_line_is_exit_status_2(words):
    done = zul("--home", "/nonexistent", *words)
    assert (done.returncode, done.stdout) == (2, "")
    # One sentence, and what to do about it.
    what, hint = done.stderr.splitlines()
    assert what.startswith("zul: ") and hint.startswith("     ")


@pytest.mark.parametrize("words,what,hint", [
    (["inti"], 'zul has no command "inti"', 'Did you mean "init"?'),
    (["multi", "run", "5"], 'zul has no command "multi"', 'Did you mean "multicast"?'),
    (["vtape", "laod", "x"], 'zul vtape has no command "laod"', 'Did you mean "load"?'),
    (["vtape"], "zul vtape needs a command: make, drive, load", "See: zul vtape --help"),
    (["restore", "--josb", "7", "/etc"], "zul restore has no option --josb", 'Did you mean "--job"?'),
    (["init", "--sise", "3"], "zul init has no option --sise", 'Did you mean "--size"?'),
    (["init", "--hoem=/x"], "zul init has no option --hoem=/x", 'Did you mean "--home"?'),
    (["init", "extra"], 'zul init has no use for "extra"', "See: zul init --help"),
    (["request", "TAPE", "get"], 'zul request has no use for "get"', "zul request 'TAPE get drives'"),
    (["users", "add"], "zul users add: name is required", "See: zul users add --help"),
    (["restore", "--conflict", "alway"], "--conflict: alway not in {", "See: zul restore --help"),
    (["quite", "wrong"], 'zul has no command "quite"', "     See: zul --help\n"),
])
def test_a_wrong_word_is_named_with_the_one_that_was_meant(words, what, hint):
    done = zul(*words)
    assert done.returncode == 2 and what in done.stderr and hint in done.stderr


def test_the_help_speaks_no_language_of_programmers():
    for words in (["restore"], ["follow"], ["fanout"], ["repjob", "add"], ["users", "add"], ["replicate"]):
        text = zul(*words, "--help").stdout
        assert "INT:" not in text and "TEXT:" not in text and "REQUIRED          \n" not in text, text


# --- files ---

def test_get_prints_raw_bytes(daemon):
    daemon.answers["HOST get var/x"] = b"DATA 20\n\x00ZuL_DoNe. 9\nZuL>abcZuL_DoNe. 0\n"
    done = subprocess.run([ZUL, "--home", daemon.home, "get", "var/x"], capture_output=True, env=environment())
    assert (done.returncode, done.stdout) == (0, b"\x00ZuL_DoNe. 9\nZuL>abc")


def test_get_of_what_is_not_given_repeats_why(daemon):
    daemon.answers["HOST get etc/ZULsecret"] = b"ERROR:  Not this one\nZuL_DoNe. 1\n"
    done = zul("--home", daemon.home, "get", "etc/ZULsecret")
    assert done.returncode == 1 and done.stdout == "" and "Not this one" in done.stderr


def test_put_sends_the_length_and_then_the_bytes(daemon, tmp_path):
    def answer(connection, reader, line):
        connection.sendall(b"TRANSFER OK\n")
        daemon.stored = reader.read(int(line.split()[-1]))
        return b"ZuL_DoNe. 0\n"

    daemon.answers["HOST put"] = answer
    (tmp_path / "f").write_bytes(b"\x00\n\xff")
    assert zul("--home", daemon.home, "put", tmp_path / "f", "etc/ZULsite").returncode == 0
    assert daemon.requests == ["HOST put etc/ZULsite 3"] and daemon.stored == b"\x00\n\xff"


# --- zul follow ---

def follow(daemon, *words, limit=60):
    return zul("--home", daemon.home, "follow", "7", *words, limit=limit)


def test_a_job_that_just_ended_well_is_exit_status_0(daemon):
    daemon.record(7, record("done"))
    done = follow(daemon)
    assert done.returncode == 0 and "backup 7 (daily): done, 1 of 1 host, 3 files, 4.0 KiB" in done.stdout


def test_a_failed_job_is_exit_status_1_and_names_the_host(daemon):
    daemon.record(7, record("failed", hosts=[{"host": "h2", "state": "failed", "files": 0, "bytes": 0, "rate": 0,
                                              "error": "login refused"}]))
    done = follow(daemon)
    assert done.returncode == 1 and "host h2: failed" in done.stdout and "login refused" in done.stdout


def test_a_running_job_is_followed_to_its_end(daemon):
    daemon.record(7, record("running"))
    following = subprocess.Popen([ZUL, "--home", daemon.home, "follow", "7"], stdout=subprocess.PIPE, text=True,
                                 env=environment())
    eventually(lambda: len(daemon.requests) > 3)
    assert following.poll() is None
    daemon.record(7, record("done"))
    assert following.wait(10) == 0
    assert "h1: running" in following.stdout.read()


def test_ctrl_c_ends_the_watching_and_says_that_the_job_goes_on(daemon):
    daemon.record(7, record("running"))
    following = subprocess.Popen([ZUL, "--home", daemon.home, "follow", "7"], stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, text=True, env=environment())
    eventually(lambda: len(daemon.requests) > 3)
    following.send_signal(signal.SIGINT)
    assert following.wait(10) == -signal.SIGINT
    assert following.stderr.read() == "\nzul: backup 7 is left alone; to see how far it is: zul follow 7\n"


def test_who_waits_for_a_run_is_told_so(daemon):
    done = follow(daemon, "--wait", "3")
    assert done.returncode == 1 and done.stderr.startswith("waiting up to 3 s for a run of backup 7 to begin\n")


def test_json_gives_each_record_on_a_line(daemon):
    daemon.record(7, record("done"))
    done = follow(daemon, "--json")
    lines = done.stdout.splitlines()
    assert done.returncode == 0 and len(lines) == 1
    assert json.loads(lines[0])["hosts"][0]["host"] == "h1"


def test_an_old_end_is_not_taken_for_the_new_run(daemon):
    old = record("done", started=int(time.time()) - 3600)
    old["ended"] = int(time.time()) - 1800
    daemon.record(7, old)
    following = subprocess.Popen([ZUL, "--home", daemon.home, "follow", "7"], stdout=subprocess.PIPE, text=True,
                                 env=environment())
    eventually(lambda: len(daemon.requests) > 3)
    assert following.poll() is None
    daemon.record(7, record("failed", pid=4712))
    assert following.wait(10) == 1


def test_since_leaves_no_doubt(daemon):
    now = int(time.time())
    daemon.record(7, record("done", started=now - 5))
    done = follow(daemon, "--since", str(now - 4), "--wait", "1")
    assert done.returncode == 1 and "no run of backup 7 appeared" in done.stderr
    assert follow(daemon, "--since", str(now - 5)).returncode == 0


def test_a_run_that_never_appears_is_given_up(daemon):
    done = follow(daemon, "--wait", "0")
    assert done.returncode == 1 and "no record of any run" in done.stderr


def test_a_run_whose_process_is_gone_is_exit_status_4(daemon):
    daemon.record(7, record("running"), alive=True)
    following = subprocess.Popen([ZUL, "--home", daemon.home, "follow", "7"], stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, text=True, env=environment())
    eventually(lambda: len(daemon.requests) > 3)
    daemon.record(7, record("running"), alive=False)
    output, error = following.communicate(timeout=20)
    assert following.returncode == 4 and "pid 4711" in error


def test_one_that_died_long_ago_is_not_taken_for_the_new_run(daemon):
    daemon.record(7, record("running", started=int(time.time()) - 3600), alive=False)
    done = follow(daemon, "--wait", "1")
    assert done.returncode == 4 and "gone" in done.stderr


def test_a_restarted_daemon_does_not_end_following(daemon):
    daemon.record(7, record("running"))
    following = subprocess.Popen([ZUL, "--home", daemon.home, "follow", "7"], stdout=subprocess.PIPE, text=True,
                                 env=environment())
    eventually(lambda: len(daemon.requests) > 3)
    daemon.close()
    daemon.greeting = b"NO\n"
    daemon.open()
    eventually(lambda: len(daemon.connections) > 1, what="attempts to connect anew")
    assert following.poll() is None
    daemon.record(7, record("done"))
    daemon.greeting = b"OK local operator\n"
    assert following.wait(10) == 0


def test_request_follow_takes_the_run_it_started(daemon):
    daemon.record(7, record("done", pid=1))  # ended this very second, and still not ours

    def answer(connection, reader, line):
        daemon.record(7, record("failed", pid=2))
        return b"TRANSFER OK\nZuL_DoNe. 0\n"

    daemon.answers["TAPE backup 7 0"] = answer
    done = zul("--home", daemon.home, "request", "--follow", "TAPE backup 7 0")
    assert done.returncode == 1 and "TRANSFER OK" in done.stdout and "backup 7 (daily): failed" in done.stdout


def test_on_a_terminal_there_is_a_bar(daemon):
    daemon.record(7, record("running"))
    terminal = Terminal("--home", daemon.home, "follow", "7")
    terminal.wait_for("[")
    terminal.wait_for("50 %")
    daemon.record(7, record("done"))
    terminal.wait_for("100 %")
    assert terminal.end() == 0


def test_what_a_record_holds_cannot_steer_the_terminal(daemon):
    daemon.record(7, record("done", name="\x1b]0;mine\x07", error="\x9b31m"))
    terminal = Terminal("--home", daemon.home, "follow", "7")
    assert terminal.end() == 0
    assert b"\x1b]0" not in terminal.seen and b"\\x1b]0;mine\\x07" in terminal.seen


# --- zul console ---

def test_lines_from_a_pipe_are_requests(daemon):
    daemon.answers["TAPE get drives"] = b"drives\nZuL_DoNe. 0\n"
    daemon.answers["TAPE get jobids"] = b"jobs\nZuL_DoNe. 0\n"
    done = subprocess.run([ZUL, "--home", daemon.home, "console"], capture_output=True, text=True, env=environment(),
                          input="TAPE get drives\n\n# remark\n  TAPE get jobids")
    assert (done.returncode, done.stdout, done.stderr) == (0, "drives\njobs\n", "")
    assert daemon.requests == ["TAPE get drives", "TAPE get jobids"]


def test_a_failed_line_of_a_pipe_is_exit_status_1(daemon):
    daemon.answers["TAPE get drives"] = b"drives\nZuL_DoNe. 0\n"
    done = subprocess.run([ZUL, "--home", daemon.home, "console"], capture_output=True, text=True, env=environment(),
                          input="TAPE nix\nTAPE get drives\n")
    assert done.returncode == 1 and done.stdout.endswith("drives\n") and "line 1" in done.stderr


def test_typing_has_a_prompt_and_history(daemon, tmp_path):
    daemon.answers["TAPE get drives"] = b"all the drives\nZuL_DoNe. 0\n"
    terminal = Terminal("--home", daemon.home, "console", HOME=str(tmp_path))
    terminal.wait_for("ZuL>")
    terminal.type("TAPE get drives\n")
    terminal.wait_for("all the drives")
    terminal.wait_for("ZuL>")
    terminal.type("\x10\n")  # Ctrl-P: the line before
    terminal.wait_for("all the drives")
    terminal.wait_for("ZuL>")
    terminal.type("quit\n")
    assert terminal.end() == 0
    assert daemon.requests == ["TAPE get drives"] * 2
    history = tmp_path / ".zul_history"
    assert "drives" in history.read_text() and history.stat().st_mode & 0o777 == 0o600


def test_ctrl_c_lets_go_of_a_request_and_a_new_one_can_be_typed(daemon, tmp_path):
    released = threading.Event()

    def slow(connection, reader, line):
        connection.sendall(b"at work\n")
        released.wait(20)
        return b"ZuL_DoNe. 0\n"

    daemon.answers["TAPE slow"] = slow
    daemon.answers["TAPE quick"] = b"quickly done\nZuL_DoNe. 0\n"
    terminal = Terminal("--home", daemon.home, "console", HOME=str(tmp_path))
    terminal.wait_for("ZuL>")
    terminal.type("TAPE slow\n")
    terminal.wait_for("at work")
    terminal.type("\x03")
    terminal.wait_for("it goes on")
    terminal.wait_for("ZuL>")
    terminal.type("TAPE quick\n")
    terminal.wait_for("quickly done")
    released.set()
    terminal.type("quit\n")
    assert terminal.end() == 0


def test_ctrl_c_while_typing_empties_the_line(daemon, tmp_path):
    daemon.answers["TAPE quick"] = b"quickly done\nZuL_DoNe. 0\n"
    terminal = Terminal("--home", daemon.home, "console", HOME=str(tmp_path))
    terminal.wait_for("ZuL>")
    terminal.type("TAPE del drive 0\x03TAPE quick\n")
    terminal.wait_for("quickly done")
    terminal.type("quit\n")
    assert terminal.end() == 0 and daemon.requests == ["TAPE quick"]


def test_what_a_daemon_says_cannot_steer_the_terminal(daemon, tmp_path):
    daemon.answers["TAPE get dir"] = b"evil\x1b[2Jname\nZuL_DoNe. 0\n"
    terminal = Terminal("--home", daemon.home, "request", "TAPE get dir /", HOME=str(tmp_path))
    assert terminal.end() == 0
    assert b"evil\\x1b[2Jname" in terminal.seen
