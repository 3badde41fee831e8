"""The console: logins over the network, requests and what surrounds them, the daemon's own words."""
import json
import os
import re
import select
import socket
import time
from concurrent.futures import ThreadPoolExecutor

from home import PROMPT, Console, claim, eventually


# --- the login ---

def test_a_node_hears_nothing_before_its_request(fake_home):
    agent = fake_home.node()
    assert select.select([agent.sock], [], [], 0.2)[0] == []
    agent.say("TAPE rsync 0\n")
    assert agent.answer() == ("", 0)


def test_a_wrong_proof_is_refused_after_a_second(fake_home):
    stranger = fake_home.connect()
    before = time.monotonic()
    assert not stranger.login("NODE", "alpha", b"\0" * 32)
    assert time.monotonic() - before > 0.9
    assert stranger.rest() == b""
    assert "login refused from 127.0.0.1: NODE alpha: wrong proof" in fake_home.logged()


def test_a_line_that_was_heard_does_not_open_the_door_again(fake_home):
    first = fake_home.connect()
    server = bytes.fromhex(first.line()[5:69].decode())
    heard = claim("NODE", "alpha", fake_home.secret, server, b"\1" * 32)
    first.say(heard)
    assert first.line().startswith(b"OK ")
    second = fake_home.connect()
    second.line()
    second.say(heard)
    assert second.line() == b"NO\n"


def test_users_log_in_with_their_password(fake_home):
    key = fake_home.add_user("ann", "correct horse")
    with fake_home.user("ann", key) as console:
        assert console.ask("TAPE echo") == ("[echo]\n", 0)
    assert not fake_home.connect().login("USER", "ann", b"\0" * 32)
    assert not fake_home.connect().login("USER", "bob", key)


def test_after_three_wrong_proofs_an_address_waits(fake_home):
    for _ in range(3):
        assert not fake_home.connect().login("NODE", "alpha", b"\0" * 32)
    assert not fake_home.connect().login("NODE", "alpha", fake_home.secret)
    other = socket.create_connection(("127.0.0.1", 2345), 10, ("127.0.0.9", 0))
    assert Console(other).login("NODE", "alpha", fake_home.secret)


def test_nodes_may_do_the_work_of_agents_only(fake_home):
    agent = fake_home.node()
    for line in ("TAPE backup 7 0", "HOST status", "MREPL replicate 1", "TAPE echo"):
        agent.say(line + "\n")
        assert agent.answer() == ("ERROR:  Not permitted\n", 1)
    agent.say("MREPL mrepclnt 1234567890\n")
    assert agent.answer() == ("{mrepclnt 1234567890}\n", 0)


def test_viewers_may_look(fake_home):
    key = fake_home.add_user("vic", "pw", "viewer")
    with fake_home.user("vic", key) as console:
        assert console.ask("TAPE get drives") == ("[get drives]\n", 0)
        assert console.ask("HOST status")[1] == 0
        assert console.ask("HOST kill 1") == ("ERROR:  Not permitted\n", 1)
        assert console.ask("HOST put etc/x 1") == ("ERROR:  Not permitted\n", 1)


def test_the_module_logs_in_with_what_the_daemon_lends_it(fake_home):
    with fake_home.local() as console:
        console.say("TAPE login 127.0.0.1 TAPE server\n")
        assert console.until(PROMPT) == b"autoLogin 0\n[server]\nZuL_DoNe. 0\nZuL_DoNe. 0\n" + PROMPT
    assert f"node {os.uname().nodename} logged in from 127.0.0.1" in fake_home.logged()


def test_the_module_is_refused_without_a_good_secret(fake_home):
    os.chmod(fake_home.at("etc/ZULsecret"), 0o644)
    assert fake_home.ask("TAPE login 127.0.0.1 x") == ("autoLogin -1\n", 255)
    assert "chmod 600" not in fake_home.logged()
    os.chmod(fake_home.at("etc/ZULsecret"), 0o600)
    fake_home.write("etc/ZULnodes", "somebody-else any\n")
    assert fake_home.ask("TAPE login 127.0.0.1 x") == ("autoLogin -1\n", 255)
    assert "does not list this name" in fake_home.logged()


def test_a_login_at_an_address_where_nobody_listens_fails(fake_home):
    fake_home.stop()
    fake_home.start("--address", "127.0.0.1")
    assert fake_home.ask("TAPE login 127.0.0.2 x") == ("not connected\nautoLogin -1\n", 255)


# --- strangers ---

def test_two_hundred_agents_at_once_are_all_served(fake_home):
    def visit(_):
        console = Console(socket.create_connection(("127.0.0.1", 2345), 60), 60)
        with console:
            assert console.login("NODE", "alpha", fake_home.secret)
            console.say("TAPE rsync 0\n")
            return console.answer()

    with ThreadPoolExecutor(200) as crowd:
        assert list(crowd.map(visit, range(200))) == [("", 0)] * 200
    eventually(lambda: json.loads(fake_home.ask("HOST status json")[0])["sessions"] == 1, 20)


def test_silent_strangers_keep_nobody_out_for_long(fake_home):
    strangers = [fake_home.connect() for _ in range(70)]
    eventually(lambda: json.loads(fake_home.ask("HOST status json")[0])["logins"] == 64)
    late = fake_home.connect()
    late.sock.settimeout(30)
    assert late.login("NODE", "alpha", fake_home.secret)
    for stranger in strangers:
        stranger.close()
    eventually(lambda: json.loads(fake_home.ask("HOST status json")[0])["logins"] == 0, 20)


def test_garbage_and_vanishing_peers_do_no_harm(fake_home):
    for text in (b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", b"\0" * 5000, b"\n\n\n", b"NODE", os.urandom(2000)):
        stranger = fake_home.connect()
        stranger.say(text)
        stranger.reset()
    for _ in range(20):
        fake_home.connect().reset()
    assert fake_home.ask("TAPE echo") == ("[echo]\n", 0)
    eventually(lambda: json.loads(fake_home.ask("HOST status json")[0])["sessions"] == 1, 20)


def test_half_a_line_blocks_nobody_else(fake_home):
    slow = fake_home.node()
    slow.say("TAPE rsy")
    assert fake_home.ask("TAPE echo") == ("[echo]\n", 0)
    slow.say("nc 0\n")
    assert slow.answer() == ("", 0)


# --- requests ---

def test_a_request_has_the_console_the_log_and_nothing_else(fake_home):
    text, status = fake_home.ask("TAPE fds")
    descriptors = dict(line.split(" ", 1) for line in text.splitlines())
    assert status == 0
    assert descriptors.pop("0") == descriptors.pop("2")
    assert descriptors.pop("1") == fake_home.log
    assert list(descriptors.values()) == [fake_home.log]


def test_end_lines_tell_how_it_ended(fake_home):
    with fake_home.local() as console:
        assert console.ask("TAPE exit 255") == ("", 255)
        assert console.ask("TAPE return 1") == ("", 1)
        assert console.ask("TAPE crash") == ("", 256 + 11)
        assert console.ask("TAPE daemon /") == ("TRANSFER OK\n", 0)


def test_a_request_that_comes_with_a_close_is_run(fake_home):
    flag = fake_home.at("tmp/flag")
    agent = fake_home.node()
    agent.say(f"TAPE server {flag}\n")
    agent.close()
    eventually(fake_home.workers)
    fake_home.write("tmp/flag", "")
    eventually(lambda: os.path.exists(flag + ".done"))


def test_a_request_whose_peer_has_crashed_goes_on(fake_home):
    flag = fake_home.at("tmp/flag")
    agent = fake_home.node()
    agent.say(f"TAPE server {flag}\n")
    assert agent.line() == b"waiting\n"
    agent.reset()
    fake_home.write("tmp/flag", "")
    eventually(lambda: os.path.exists(flag + ".done"))
    eventually(lambda: not fake_home.workers())


def test_a_long_list_is_taken_to_its_end(fake_home):
    """The request stops reading after ten lines; the sender must not feel that."""
    agent = fake_home.node()
    agent.say("TAPE rsync 10\n")
    for number in range(20000):
        agent.say(f"/data/{number}/\n")
    agent.say("TRANSFER OK\n")
    agent.sock.shutdown(socket.SHUT_WR)
    text = agent.rest().decode()
    assert text.count("line ") == 10 and text.endswith("ZuL_DoNe. 0\n")


def test_input_stands_right_behind_the_request(fake_home):
    with fake_home.local() as console:
        console.say("TAPE stdin 2\none\ntwo\n")
        assert console.answer() == ("line one\nline two\n", 0)
        assert console.until(PROMPT) == PROMPT


def test_output_on_standard_output_stays_off_the_console(fake_home):
    assert fake_home.ask("TAPE print diagnosis") == ("", 0)
    eventually(lambda: "diagnosis\n" in fake_home.logged())


def test_long_lines_end_the_session(fake_home):
    with fake_home.local() as console:
        console.say("TAPE " + "x" * 5000 + "\n")
        assert console.rest() == b"ERROR:  Line too long\n"


# --- the daemon's own words ---

def test_a_job_is_killed_by_its_number(fake_home):
    fake_home.ask(f"TAPE daemon {fake_home.at('tmp/never')}")
    worker = eventually(fake_home.workers)[0]
    record = {"kind": "backup", "job": 7, "pid": worker, "state": "running", "updated": time.time()}
    fake_home.write("var/tape/jobids/7.status.progress", json.dumps(record))
    assert json.loads(fake_home.ask("HOST jobs json")[0])[0]["alive"] is True
    assert fake_home.ask(f"HOST kill {worker}") == (f"Signal 15 sent to process {worker}\n", 0)
    eventually(lambda: not fake_home.workers())
    assert json.loads(fake_home.ask("HOST jobs json")[0])[0]["alive"] is False
    assert fake_home.ask(f"HOST kill {worker}")[1] == 1


def test_a_number_that_passed_to_another_process_is_not_alive(fake_home):
    fake_home.ask(f"TAPE daemon {fake_home.at('tmp/never')}")
    worker = eventually(fake_home.workers)[0]
    record = {"kind": "backup", "job": 7, "pid": worker, "state": "running", "updated": time.time() - 1000}
    fake_home.write("var/tape/jobids/7.status.progress", json.dumps(record))
    assert json.loads(fake_home.ask("HOST jobs json")[0])[0]["alive"] is False


def test_the_daemon_itself_cannot_be_killed_from_the_console(fake_home):
    assert fake_home.ask(f"HOST kill {fake_home.pid()}")[1] == 1
    assert fake_home.ask(f"HOST kill {os.getpid()} KILL")[1] == 1


def test_files_go_in_and_come_out(fake_home):
    content = os.urandom(300000)
    with fake_home.local() as console:
        console.say(f"HOST put var/tape/jobids/select.x {len(content)}\n")
        assert console.line() == b"TRANSFER OK\n"
        console.say(content)
        assert console.answer() == ("", 0)
        assert console.until(PROMPT) == PROMPT
        console.say("HOST get var/tape/jobids/select.x\n")
        assert console.line() == f"DATA {len(content)}\n".encode()
        assert console.read(len(content)) == content
        assert console.answer() == ("", 0)


def test_following_a_file_ends_with_a_line_and_the_session_goes_on(fake_home):
    fake_home.write("var/log", "1\n")
    with fake_home.local() as console:
        console.say("HOST tail var/log 5 follow\n")
        assert console.line() == b"1\n"
        with open(fake_home.at("var/log"), "a") as log:
            log.write("2\n")
        assert console.line() == b"2\n"
        console.say("\n")
        assert console.answer() == ("", 0)
        assert console.until(PROMPT) == PROMPT
        assert console.ask("TAPE echo") == ("[echo]\n", 0)


def test_status_tells_what_is_going_on(fake_home):
    with fake_home.local() as console:
        # The one that found the daemon ready may just have gone.
        status = eventually(lambda: (told := json.loads(console.ask("HOST status json")[0]))["sessions"] < 2 and told)
        text = console.ask("HOST status")[0]
    assert re.search(r"^started: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d$", text, re.M), text
    assert re.search(r"^uptime: 0:00:\d\d$", text, re.M) and re.search(r"^sound: no area$", text, re.M), text
    assert status["pid"] == fake_home.daemon.pid and status["home"] == fake_home.path
    assert status["port"] == 2345 and status["secret"] is True and status["sessions"] == 1


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as listed:
        return listed.read().split()


def test_a_session_counts_itself_from_the_start(make_home, fake_module):
    home = make_home(module=fake_module).start(env=os.environ | {"FAKE_SLOW_FORK": "1"})
    eventually(lambda: not children(home.daemon.pid), what="the end of the session that found the daemon ready")
    with home.local() as console:
        assert json.loads(console.ask("HOST status json")[0])["sessions"] == 1


def test_the_built_module_answers(make_home):
    home = make_home().start()
    assert home.ask("TAPE version") == ("0.34\n", 0)
    assert home.ask("TAPE nonsense") == ("ERROR:  8001  Tape lib: Unknown request, nonsense\n", 255)
    assert home.ask("TAPE") == ("ERROR:  8000 Insufficient arguments.\n", 1)
    assert os.path.exists(home.at("var/libtape.status"))


if os.geteuid() == 0:
    def test_local_users_outside_the_group_are_refused(fake_home, tmp_path):
        for folder in (fake_home.path, fake_home.at("var"), *(str(one) for one in tmp_path.parents)):
            if os.path.isdir(folder) and folder != "/":
                os.chmod(folder, os.stat(folder).st_mode | 0o011)
        os.chmod(str(tmp_path), 0o711)
        os.chmod(fake_home.at("var/console"), 0o666)
        reader, writer = os.pipe()
        child = os.fork()
        if child == 0:
            os.setgroups([])
            os.setgid(65534)
            os.setuid(65534)
            sock = socket.socket(socket.AF_UNIX)
            os.chdir(fake_home.at("var"))
            sock.connect("console")
            os.write(writer, sock.recv(100))
            os._exit(0)
        os.waitpid(child, 0)
        assert os.read(reader, 100) == b"NO\n"
        assert "local login refused: user nobody" in fake_home.logged()
