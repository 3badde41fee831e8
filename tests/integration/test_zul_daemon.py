"""zul with the daemon, the module and virtual drives: homes, up and down, jobs, operators, manual and completion."""
import json
import os
import re
import shutil
import signal
import subprocess

import pytest

from zulsupport import BUILD, ROOT, ZUL, OwnNetwork, environment, eventually, zul


@pytest.fixture(scope="module")
def network():
    own = OwnNetwork()
    yield own
    own.close()


class Site:
    """One home, and zul working on it inside a network of its own."""

    def __init__(self, home, network):
        self.home, self.network = str(home), network

    def zul(self, *words, **options):
        return zul("--home", self.home, *words, inside=self.network.inside(), **options)

    def good(self, *words, **options):
        done = self.zul(*words, **options)
        assert done.returncode == 0, f"{words}: {done.returncode}\n{done.stdout}{done.stderr}"
        return done.stdout

    def path(self, *parts):
        return os.path.join(self.home, *parts)

    def read(self, *parts):
        with open(self.path(*parts)) as handle:
            return handle.read()


@pytest.fixture
def place(tmp_path, network):
    return Site(tmp_path / "home", network)


@pytest.fixture
def site(place):
    place.good("init", "--size", "64M")
    yield place
    place.zul("down")


@pytest.fixture
def served(site):
    site.good("up")
    return site


def mode(path):
    return os.stat(path).st_mode & 0o7777


# --- init ---

def test_init_makes_folders_secret_site_file_module_and_drive(site):
    for folder in ("", "etc", "bin", "tmp", "var", "var/tape", "var/tape/jobids", "var/tape/mrepljobs"):
        assert mode(site.path(folder)) in (0o700, 0o710), folder
    assert re.fullmatch("[0-9a-f]{64}\n", site.read("etc/ZULsecret")) and mode(site.path("etc/ZULsecret")) == 0o600
    assert "\nbehaviour = sound\n" in site.read("etc/ZULsite") and mode(site.path("etc/ZULsite")) == 0o600
    assert os.path.exists(site.path("bin/libtape.so")) and os.path.isdir(site.path("var/tape/drive.0"))
    listed = json.loads(site.good("vtape", "list", "--json"))
    assert [drive["cartridge"] for drive in listed["drives"]] == ["first"]
    assert listed["cartridges"][0]["capacityBytes"] == 64 << 20
    assert sorted(os.listdir(site.home)) == ["bin", "etc", "tmp", "var"]


def test_the_drive_stands_in_the_table_as_a_request_would_add_it(served):
    made = served.good("request", "TAPE get drives")
    served.good("request", "TAPE add drive 1:vtape0:/dev/vtape/vtape0:virtual:0")
    first, second = served.good("request", "TAPE get drives").splitlines()
    assert made == first + "\n" and second == "1" + first[1:]


def test_an_existing_home_is_left_alone(site):
    before = site.read("etc/ZULsecret")
    done = site.zul("init")
    assert done.returncode == 1 and "--force" in done.stderr and site.read("etc/ZULsecret") == before


def test_a_folder_with_files_of_others_is_left_alone(place):
    os.makedirs(place.home)
    open(place.path("letter"), "w").close()
    done = place.zul("init")
    assert done.returncode == 1 and os.listdir(place.home) == ["letter"]


def test_force_mends_and_keeps_what_matters(site):
    site.good("vtape", "make", "other", "--size", "1M")
    kept = {name: site.read(name) for name in ("etc/ZULsecret", "etc/ZULsite", "etc/tapedevs")}
    shutil.rmtree(site.path("tmp"))
    with open(site.path("bin/libtape.so"), "w") as module:
        module.write("old")
    os.unlink(site.path("etc/ZULsite"))  # a classic site
    del kept["etc/ZULsite"]
    site.good("init", "--force")
    assert {name: site.read(name) for name in kept} == kept
    assert not os.path.exists(site.path("etc/ZULsite"))
    assert os.path.isdir(site.path("tmp")) and os.path.getsize(site.path("bin/libtape.so")) > 1000
    names = [each["name"] for each in json.loads(site.good("vtape", "list", "--json"))["cartridges"]]
    assert names == ["first", "other"]


@pytest.mark.parametrize("missing", ["etc/ZULsecret", "var/vtape/vtape0", "etc/tapedevs"])
def test_an_init_that_was_cut_off_is_repeated(place, missing):
    # What a killed init leaves: its mark, and no secret.
    place.good("init", "--size", "1M")
    os.unlink(place.path("etc/ZULsecret"))
    open(place.path(".begun-by-zul-init"), "w").close()
    if missing.startswith("var"):
        shutil.rmtree(place.path("var/vtape"))
    elif os.path.exists(place.path(missing)):
        os.unlink(place.path(missing))
    place.good("init", "--size", "1M")
    assert os.path.exists(place.path("etc/ZULsecret")) and "0:vtape0:" in place.read("etc/tapedevs")
    assert not os.path.exists(place.path(".begun-by-zul-init"))
    assert json.loads(place.good("vtape", "list", "--json"))["drives"][0]["cartridge"] == "first"


def test_a_failed_init_says_what_failed_and_can_be_repeated(place, tmp_path):
    done = place.zul("init", "--module", tmp_path / "none.so")
    assert done.returncode == 1 and "none.so" in done.stderr
    assert place.zul("status").returncode == 3
    place.good("init", "--size", "1M")


def test_a_size_that_no_cartridge_has_leaves_nothing_behind(place):
    done = place.zul("init", "--size", "1")
    assert done.returncode == 2 and "From 64.0 KiB to 1.0 EiB are possible." in done.stderr
    assert not os.path.exists(place.path("etc"))


def test_a_home_that_lost_its_secret_is_not_given_another(site):
    os.unlink(site.path("etc/ZULsecret"))
    for words in (["up"], ["init"], ["init", "--force"]):
        done = site.zul(*words)
        assert done.returncode == 1 and "has lost its etc/ZULsecret" in done.stderr, words
        assert "Copy it from another host" in done.stderr


def test_up_says_that_its_secret_cannot_be_used(site):
    os.chmod(site.path("etc/ZULsecret"), 0o644)
    done = site.zul("up")
    assert done.returncode == 0 and "no other host can log in" in done.stderr and "chmod 600" in done.stderr


def test_a_further_host_takes_the_secret_along(site, tmp_path, network):
    other = Site(tmp_path / "other", network)
    other.good("init", "--no-drive", "--secret", site.path("etc/ZULsecret"))
    assert other.read("etc/ZULsecret") == site.read("etc/ZULsecret")
    assert not os.path.exists(other.path("etc/tapedevs"))


def test_a_classic_home_has_no_site_file(place):
    place.good("init", "--classic", "--no-drive")
    assert not os.path.exists(place.path("etc/ZULsite"))


# --- up and down ---

def test_up_returns_when_the_daemon_serves_and_down_when_it_has_gone(site):
    assert "is up" in site.good("up")
    status = json.loads(site.good("status", "--json"))
    assert status["home"] == site.home
    assert "running already" in site.good("up")
    assert "has stopped" in site.good("down")
    assert not os.path.exists(site.path("var/ZULd.pid")) and site.zul("status").returncode == 3
    assert "No daemon is running" in site.good("down")


def test_a_killed_daemon_is_no_obstacle(served):
    os.kill(json.loads(served.good("status", "--json"))["pid"], signal.SIGKILL)
    eventually(lambda: served.zul("status").returncode == 3)
    assert "is up" in served.good("up")


def test_a_taken_port_is_reported_with_its_holder(served, tmp_path, network):
    other = Site(tmp_path / "other", network)
    other.good("init", "--no-drive")
    done = other.zul("up")
    assert done.returncode == 1 and "2345" in done.stderr and re.search(r"held by .*ZULd.*, pid \d+", done.stderr)


def test_up_of_no_home_says_how_to_make_one(place):
    done = place.zul("up")
    assert done.returncode == 1 and "init" in done.stderr


def test_a_replication_that_is_not_there_is_answered_alike_with_and_without_dry_run(served):
    for words in ([], ["--dry-run"], ["--follow"]):
        done = served.zul("replicate", "4", *words)
        assert done.returncode == 1 and "zul repjob list shows those there are" in done.stderr, words


# --- requests and jobs ---

@pytest.fixture
def job(served, tmp_path):
    """Job 7: this machine's tree onto the virtual drive."""
    tree = tmp_path / "tree"
    tree.mkdir()
    for name in ("a", "b", "c"):
        (tree / name).write_bytes(os.urandom(10000))
    for line in ("TAPE add tape 0:0:0:0:one", "TAPE add group 1:localhost:here",
                 "TAPE add jobids 7:1:2592000:0:0:0:daily", f"TAPE add backuplist 7 {tree}/"):
        served.good("request", line)
    return served


def test_requests_end_with_their_own_status(served):
    assert served.good("request", "TAPE version") == "0.34\n"
    done = served.zul("request", "TAPE nonsense")
    assert done.returncode == 1 and "ERROR:  8001  Tape lib: Unknown request, nonsense\n" in done.stdout


def test_a_backup_is_followed_to_its_end(job):
    done = job.zul("request", "--follow", "TAPE backup 7 0")
    assert done.returncode == 0 and "backup 7 (daily): done, 1 of 1 host" in done.stdout, done.stdout + done.stderr
    last = json.loads(job.good("follow", "7", "--json").splitlines()[-1])
    assert last["state"] == "done" and last["files"] >= 3 and last["hosts"][0]["host"] == "localhost"
    assert "daily" in job.good("jobs") and "Completed backup job# 7" in job.good("get", "var/tape/jobids/7.status")


def test_a_backup_with_a_host_that_does_not_answer_fails(job):
    job.good("request", "TAPE mod group 1 1:localhost,127.0.0.77:here")
    # Loopback as a whole is this machine: only a name that nobody has is a host that does not answer.
    job.good("request", "TAPE mod group 1 1:localhost,nobody.invalid:here")
    done = job.zul("request", "--follow", "TAPE backup 7 0")
    assert done.returncode == 1 and "host nobody.invalid: failed" in done.stdout, done.stdout + done.stderr
    assert "host localhost: done" in done.stdout


# --- cartridges ---

def names(site):
    return {each["name"]: each for each in json.loads(site.good("vtape", "list", "--json"))["cartridges"]}


def test_cartridges_are_made_loaded_protected_and_unloaded(site):
    site.good("vtape", "make", "weekly", "--size", "20M")
    assert names(site)["weekly"]["capacityBytes"] == 20 << 20 and names(site)["weekly"]["drive"] == ""
    done = site.zul("vtape", "load", "weekly")
    assert done.returncode == 1 and "first" in done.stderr
    site.good("vtape", "unload")
    site.good("vtape", "load", "weekly", "--drive", "0")
    assert names(site)["weekly"]["drive"] == "vtape0" and names(site)["first"]["drive"] == ""
    site.good("vtape", "protect", "first")
    assert names(site)["first"]["protected"]
    site.good("vtape", "protect", "first", "--off")
    assert not names(site)["first"]["protected"]


def test_a_cartridge_can_bring_its_drive_along(site):
    site.good("vtape", "make", "quick", "--drive", "quick", "--size", "1M")
    assert names(site)["quick"]["drive"] == "quick"
    done = site.zul("vtape", "unload")
    assert done.returncode == 2 and "quick, vtape0" in done.stderr


@pytest.mark.parametrize("words", [["load", "nothing"], ["load", "first", "--drive", "nowhere"], ["protect", "nothing"],
                                   ["make", "first"], ["make", "../x"], ["make", "x", "--size", "1"]])
def test_what_cannot_be_done_with_cartridges_says_why(site, words):
    before = names(site)
    done = site.zul("vtape", *words)
    assert done.returncode == 1 and len(done.stderr) > 10 and names(site) == before


def test_what_root_makes_in_the_home_of_another_belongs_to_that_one(tmp_path):
    home = str(tmp_path / "home")

    # Not in a namespace of our own, whose root is nobody to other users' files.
    def good(*words):
        done = zul("--home", home, *words)
        assert done.returncode == 0, done.stderr

    good("init", "--size", "1M")
    owner = 65534 if os.geteuid() == 0 else os.geteuid()
    for folder, folders, files in os.walk(home):
        for name in (".", *folders, *files):
            os.chown(os.path.join(folder, name), owner, -1, follow_symlinks=False)
    good("vtape", "make", "week", "--size", "1M", "--drive", "new")
    good("vtape", "protect", "week")
    good("vtape", "unload", "--drive", "new")
    for folder, folders, files in os.walk(home):
        for name in (*folders, *files):
            path = os.path.join(folder, name)
            assert os.lstat(path).st_uid == owner, path


def test_the_listing_for_people_names_drive_and_cartridge(site):
    text = site.good("vtape", "list")
    assert re.search(r"vtape0 +first +ready", text) and re.search(r"first +vtape0 .* 64\.0 MiB", text)


def test_the_listing_tells_the_labels_by_which_tapes_are_asked_for(served):
    served.good("vtape", "make", "blank", "--size", "1M")
    served.good("request", "TAPE add tape 0:0:0:0:week three")
    text = served.good("vtape", "list")
    assert re.search(r"^first .*  drive 0, tape 0, week three$", text, re.M), text
    assert re.search(r"^blank .*  none$", text, re.M), text
    cartridges = json.loads(served.good("vtape", "list", "--json"))["cartridges"]
    assert [each["label"] for each in cartridges] == [None, {"drive": 0, "tape": 0, "name": "week three"}]
    # An image that another program made, or that is cut off, has none.
    with open(served.path("var/vtape/shelf/blank.tap"), "wb") as image:
        image.write(b"\x05\0\0\0hello")
    served.good("vtape", "protect", "first")
    text = served.good("vtape", "list")
    assert re.search(r"^blank .*  none$", text, re.M) and "week three; protected\n" in text


# --- operators of other machines ---

@pytest.fixture
def password(tmp_path):
    path = tmp_path / "password"
    path.write_text("correct horse\n")
    path.chmod(0o600)
    return str(path)


def remote(site, user, password, *words):
    return zul("--host", "localhost", "--user", user, "--password-file", password, *words, inside=site.network.inside())


def test_an_operator_logs_in_over_the_network(served, password):
    served.good("users", "add", "anna", "--new-password-file", password)
    assert served.good("users", "list") == "anna  operator\n"
    assert json.loads(remote(served, "anna", password, "status", "--json").stdout)["home"] == served.home
    assert remote(served, "anna", password, "request", "TAPE get drives").stdout.startswith("0:vtape0:")
    served.good("users", "del", "anna")
    done = remote(served, "anna", password, "status")
    assert done.returncode == 3 and "refuses the login of anna" in done.stderr


def test_a_viewer_may_look_and_not_change(served, password):
    served.good("users", "add", "vera", "--role", "viewer", "--new-password-file", password)
    assert remote(served, "vera", password, "request", "TAPE get drives").returncode == 0
    assert remote(served, "vera", password, "request", "TAPE del drive 0").returncode == 1
    assert served.good("request", "TAPE get drives").startswith("0:vtape0:")


def test_a_wrong_password_is_refused(served, password, tmp_path):
    served.good("users", "add", "anna", "--new-password-file", password)
    wrong = tmp_path / "wrong"
    wrong.write_text("incorrect horse\n")
    wrong.chmod(0o600)
    assert remote(served, "anna", str(wrong), "status").returncode == 3


def test_a_password_file_that_others_may_read_is_not_used(served, password):
    os.chmod(password, 0o644)
    done = remote(served, "anna", password, "status")
    assert done.returncode == 2 and "chmod 600" in done.stderr


# --- what goes along ---

def commands(*words):
    """The subcommands that the help of zul lists."""
    text = subprocess.run([ZUL, *words, "--help"], capture_output=True, text=True, env=environment()).stdout
    return re.findall(r"^  ([a-z-]+) +[A-Z]", text.split("Subcommands:")[1].split("\n\n")[0], re.M)


def every_command():
    for name in commands():
        yield name
        if name in ("vtape", "users", "key", "multicast"):
            yield from (f"{name} {part}" for part in commands(name))


def options(*words):
    text = subprocess.run([ZUL, *words, "--help"], capture_output=True, text=True, env=environment()).stdout
    return set(re.findall(r"(?:^|[ ,])(--[a-z-]+)", text.split("Options:")[1].split("\n\n")[0])) - {"--help"}


def test_the_help_lists_commands():
    assert {"init", "up", "down", "request", "console", "vtape", "follow"} <= set(commands())


def test_every_command_and_option_is_in_the_manual():
    page = open(os.path.join(ROOT, "docs", "man", "zul.1")).read()
    for command in every_command():
        assert f".Ss {command}" in page or f".It Cm {command}" in page, command
    for words in [[], *([name] for name in commands())]:
        for option in options(*words):
            assert f"Fl -{option[2:]}" in page, (words, option)


def test_the_manual_is_well_formed():
    page = os.path.join(ROOT, "docs", "man", "zul.1")
    if shutil.which("mandoc"):
        done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True, text=True)
        assert done.returncode == 0, done.stdout + done.stderr
    else:
        done = subprocess.run(["groff", "-mdoc", "-Tutf8", "-ww", page], capture_output=True, text=True)
        assert done.returncode == 0 and done.stderr == "", done.stderr


def complete(line):
    """What bash offers for the last word of line."""
    words = line.split(" ")
    script = (f"source {ROOT}/packaging/zul.bash; COMP_WORDS=({' '.join(repr(word) for word in words)}); "
              f"COMP_CWORD={len(words) - 1}; COMP_LINE={line!r}; COMP_POINT={len(line)}; _zul; "
              "printf '%s\\n' \"${COMPREPLY[@]}\"")
    done = subprocess.run(["bash", "-c", script], capture_output=True, text=True,
                          env=environment(PATH=f"{BUILD}/bin:{os.environ['PATH']}"))
    assert done.stderr == ""
    return done.stdout.split()


def test_completion_knows_every_command_and_option():
    assert set(complete("zul ")) >= set(commands())
    for name in commands():
        assert set(complete(f"zul {name} --")) >= options(name), name
    for name in ("vtape", "users", "key", "multicast", "repjob", "transform"):
        assert set(complete(f"zul {name} ")) == set(commands(name))
    assert complete("zul fol") == ["follow"]
    assert complete("zul --home /x vt") == ["vtape"]
