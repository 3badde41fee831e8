"""The daemon: starting, stopping, and what happens to those who work for it meanwhile."""
import json
import os
import resource
import signal
import socket
import subprocess
import time

import pytest

from home import PORT, PROMPT, ZULD, Home, eventually


def run_daemon(*options, **settings):
    return subprocess.run([ZULD, *map(str, options)], capture_output=True, text=True, timeout=30, **settings)


# --- starting ---

def test_version_and_help_need_no_home():
    assert run_daemon("--version").stdout == "ZULd 0.34\n"
    assert "--background" in run_daemon("--help").stdout


def test_without_a_home_it_says_what_to_give():
    done = run_daemon(env={"PATH": os.environ["PATH"]})
    assert done.returncode == 1 and "--home" in done.stderr


def test_a_folder_that_is_no_home_is_named(tmp_path):
    done = run_daemon("--home", tmp_path)
    assert done.returncode == 1 and str(tmp_path) in done.stderr and "zul init" in done.stderr


def test_a_missing_module_is_named(make_home):
    home = make_home(module=None)
    done = run_daemon("--home", home.path)
    assert done.returncode == 1 and home.at("bin/libtape.so") in done.stderr


def test_a_module_that_lacks_an_entry_is_refused(make_home, tmp_path):
    library = str(tmp_path / "half.so")
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-o", library, "-"], check=True,
                   input=b"int tapetool(char *line) { return line[0]; }")
    done = run_daemon("--home", make_home(module=library).path)
    assert done.returncode == 1 and "lacks mreplicate" in done.stderr


def test_the_home_may_come_from_the_environment(make_home, fake_module):
    home = make_home(module=fake_module)
    with open(home.log, "w") as log:
        home.daemon = subprocess.Popen([ZULD], env={**os.environ, "ZULHOME": home.path}, stderr=log)
    home.await_ready()
    assert home.pid() == home.daemon.pid


def test_a_second_daemon_is_refused_and_told_the_first(fake_home):
    done = run_daemon("--home", fake_home.path)
    assert done.returncode == 1 and f"process {fake_home.pid()}" in done.stderr
    assert fake_home.ask("TAPE echo") == ("[echo]\n", 0)


def test_a_port_that_is_taken_is_named(fake_home, make_home, fake_module):
    done = run_daemon("--home", make_home(module=fake_module).path)
    assert done.returncode == 1 and f"TCP port {PORT}" in done.stderr


def test_in_the_background_it_returns_when_the_console_is_open(make_home, fake_module):
    home = make_home(module=fake_module)
    assert run_daemon("--home", home.path, "--background").returncode == 0
    pid = home.pid()
    try:
        assert home.ask("TAPE echo") == ("[echo]\n", 0)
        assert os.getsid(pid) == pid
        assert "serving" in home.read("var/ZULd.log")
        for fd in ("0", "1", "2"):
            assert os.readlink(f"/proc/{pid}/fd/{fd}") == "/dev/null"
    finally:
        os.kill(pid, signal.SIGTERM)
    eventually(lambda: not os.path.exists(home.at("var/ZULd.pid")))


def test_in_the_background_a_failure_is_told_to_the_caller(fake_home):
    done = run_daemon("--home", fake_home.path, "--background")
    assert done.returncode == 1 and "Another ZULd" in done.stderr


def test_it_listens_where_it_is_told(make_home, fake_module):
    home = make_home(module=fake_module).start("--address", "127.0.0.1")
    home.node().close()
    with pytest.raises(OSError):
        socket.create_connection(("127.0.0.2", PORT), 5)
    other = run_daemon("--home", make_home(module=fake_module).path, "--address", "localhost")
    assert other.returncode == 1 and "Not an IPv4 address: localhost" in other.stderr


def test_a_home_with_a_long_path_is_served(tmp_path, fake_module):
    home = Home(tmp_path / ("x" * 90) / ("y" * 20), module=fake_module)
    try:
        home.log = str(tmp_path / "log")
        assert home.start().ask("TAPE echo") == ("[echo]\n", 0)
    finally:
        home.clean_up()


def test_a_home_whose_path_is_too_long_is_refused(tmp_path, fake_module):
    deep = tmp_path
    while len(str(deep)) <= 256:
        deep = deep / ("x" * 60)
    home = Home(deep, module=fake_module)
    done = run_daemon("--home", home.path)
    assert done.returncode == 1 and "too long" in done.stderr


# --- the supervisor ---

def test_a_supervisor_hears_of_ready_and_stopping(make_home, fake_module, tmp_path):
    heard = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    heard.bind(str(tmp_path / "notify"))
    heard.settimeout(30)
    home = make_home(module=fake_module)
    home.start(env={**os.environ, "NOTIFY_SOCKET": str(tmp_path / "notify")})
    assert heard.recv(100) == b"READY=1"
    assert home.stop() == 0
    assert heard.recv(100) == b"STOPPING=1"


def test_sockets_of_a_supervisor_are_taken_over(make_home, fake_module):
    home = make_home(module=fake_module)
    listening = socket.create_server(("127.0.0.1", 4711))
    os.set_inheritable(listening.fileno(), True)
    script = f"exec 3<&{listening.fileno()}; LISTEN_FDS=1 LISTEN_PID=$$ exec \"$@\""
    with open(home.log, "w") as log:
        home.daemon = subprocess.Popen(["bash", "-c", script, "bash", ZULD, "--home", home.path], stderr=log,
                                       pass_fds=[listening.fileno()])
    home.await_ready()
    with socket.create_connection(("127.0.0.1", 4711)) as client:
        assert client.recv(5) == b"ZUL1 "
    with pytest.raises(OSError):
        socket.create_connection(("127.0.0.1", PORT), 5)


# --- stopping and being killed ---

def test_a_stop_is_clean(fake_home):
    fake_home.node().close()
    assert fake_home.stop() == 0
    assert not os.path.exists(fake_home.at("var/ZULd.pid"))
    assert not os.path.exists(fake_home.at("var/console"))
    assert "stopping" in fake_home.logged()


def test_it_starts_again_at_once_after_a_stop(fake_home):
    for _ in range(3):
        agent = fake_home.node()
        agent.say("TAPE rsync 0\n")
        agent.answer()
        assert fake_home.stop() == 0
        fake_home.start()
    fake_home.node().close()


def test_after_a_kill_nothing_stale_is_in_the_way(fake_home):
    waiting = fake_home.local()
    fake_home.kill()
    assert os.path.exists(fake_home.at("var/console"))
    # Its sessions end with it.
    assert waiting.rest() == b""
    fake_home.start()
    assert fake_home.ask("TAPE echo") == ("[echo]\n", 0)


def test_a_stop_leaves_requests_and_jobs_alone_and_the_next_daemon_finds_them(fake_home):
    request, job = fake_home.at("tmp/request"), fake_home.at("tmp/job")
    running = fake_home.local()
    running.say(f"TAPE server {request}\n")
    assert running.line() == b"waiting\n"
    assert fake_home.ask(f"TAPE daemon {job}") == ("TRANSFER OK\n", 0)
    fake_home.stop()
    assert len(fake_home.workers()) == 2
    fake_home.start()
    found = json.loads(fake_home.ask("HOST ps json")[0])
    assert sorted((one["request"], one["tag"]) for one in found) == [
        (f"TAPE daemon {job}", "zulcatlg"), (f"TAPE server {request}", "zultserv")]
    assert all(abs(one["started"] - time.time()) < 120 for one in found)
    assert f"zulcatlg   TAPE daemon {job}\n" in fake_home.ask("HOST ps")[0]
    for path in (request, job):
        fake_home.write(os.path.relpath(path, fake_home.path), "")
        eventually(lambda: os.path.exists(path + ".done"))
    # The session that waited for its request has told the end of it, and is over.
    assert running.rest() == b"ZuL_DoNe. 0\n" + PROMPT
    eventually(lambda: not fake_home.workers())


def test_a_killed_daemon_leaves_requests_and_jobs_alone(fake_home):
    flag = fake_home.at("tmp/flag")
    running = fake_home.local()
    running.say(f"TAPE wait {flag}\n")
    assert running.line() == b"waiting\n"
    fake_home.kill()
    fake_home.start()
    assert len(json.loads(fake_home.ask("HOST ps json")[0])) == 1
    fake_home.write("tmp/flag", "")
    assert running.rest() == b"ZuL_DoNe. 0\n" + PROMPT
    assert os.path.exists(flag + ".done")


def test_a_killed_session_takes_nobody_with_it(fake_home):
    running = fake_home.local()
    running.say(f"TAPE wait {fake_home.at('tmp/flag')}\n")
    assert running.line() == b"waiting\n"
    worker, = fake_home.workers()
    with open(f"/proc/{worker}/stat") as handle:
        session = int(handle.read().rsplit(")", 1)[1].split()[1])
    os.kill(session, signal.SIGKILL)
    eventually(lambda: f"session {session} was killed by signal 9" in fake_home.logged())
    assert fake_home.workers() == [worker]
    fake_home.write("tmp/flag", "")
    eventually(lambda: os.path.exists(fake_home.at("tmp/flag.done")))


def test_processes_show_their_request(fake_home):
    running = fake_home.local()
    running.say(f"TAPE wait {fake_home.at('tmp/flag')}\n")
    assert running.line() == b"waiting\n"
    worker, = fake_home.workers()
    with open(f"/proc/{worker}/cmdline", "rb") as handle:
        assert handle.read().rstrip(b"\0") == f"ZULd: TAPE wait {fake_home.at('tmp/flag')}".encode()


def test_the_log_is_opened_again_on_request(make_home, fake_module, tmp_path):
    home = make_home(module=fake_module)
    log = tmp_path / "zuld.log"
    home.start("--log", str(log))
    log.rename(tmp_path / "zuld.log.1")
    home.daemon.send_signal(signal.SIGHUP)
    eventually(log.exists)
    home.ask("TAPE echo after")
    assert "TAPE echo after" in log.read_text()
    home.ask("TAPE log from the module")
    assert "from the module\n" in log.read_text()


# --- shortages ---

def test_a_shortage_of_descriptors_passes(fake_home):
    pid = fake_home.pid()
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    taken = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
    free = min(set(range(len(taken) + 1)) - taken)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (free, before[1]))
    waiting = fake_home.connect()
    eventually(lambda: "cannot accept" in fake_home.logged())
    resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    assert waiting.login("NODE", "alpha", fake_home.secret)


def test_a_home_that_has_vanished_is_told_in_words(fake_home):
    with fake_home.local() as console:
        os.rename(fake_home.path, fake_home.path + ".gone")
        try:
            text, status = console.ask("TAPE echo")
            refused = fake_home.connect()
            assert not refused.login("NODE", "alpha", fake_home.secret)
        finally:
            os.rename(fake_home.path + ".gone", fake_home.path)
        assert status == 1 and text.startswith(f"ERROR:  Cannot enter {fake_home.path}")
        assert console.ask("TAPE echo") == ("[echo]\n", 0)
    fake_home.node().close()
