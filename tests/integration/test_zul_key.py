"""zul key: making, comparing and checking the key that encrypts streams; what libscram.so offers."""
import os
import re
import shutil
import subprocess

import pytest

from zulsupport import BUILD, zul


@pytest.fixture
def home(tmp_path):
    path = str(tmp_path / "home")
    assert zul("--home", path, "init", "--no-drive").returncode == 0
    return path


def key(home, *words):
    return zul("--home", home, "key", *words)


def good(home, *words):
    done = key(home, *words)
    assert done.returncode == 0 and done.stderr == "", done.stderr
    return done.stdout


def read(home):
    with open(f"{home}/etc/ZULkey") as handle:
        return handle.read()


def fingerprint(home):
    return good(home, "show-fingerprint").strip()


def test_init_brings_the_library_and_no_key(home):
    assert os.path.getsize(f"{home}/bin/libscram.so") > 1000
    assert not os.path.exists(f"{home}/etc/ZULkey")


def test_force_brings_the_library_up_to_date_and_keeps_the_key(home):
    good(home, "new")
    before = read(home)
    with open(f"{home}/bin/libscram.so", "w") as library:
        library.write("old")
    assert zul("--home", home, "init", "--force").returncode == 0
    assert os.path.getsize(f"{home}/bin/libscram.so") > 1000 and read(home) == before


def test_a_new_key_is_random_and_its_owners_alone(home):
    said = good(home, "new")
    first = read(home)
    assert re.fullmatch("[0-9a-f]{64}\n", first) and os.stat(f"{home}/etc/ZULkey").st_mode & 0o7777 == 0o600
    assert fingerprint(home) in said and "scp" in said and first.strip() not in said
    good(home, "new", "--force")
    assert read(home) != first


def test_a_key_is_not_replaced_unasked(home):
    good(home, "new")
    before = read(home)
    done = key(home, "new")
    assert done.returncode == 1 and "--force" in done.stderr and read(home) == before


def test_the_fingerprint_is_the_same_for_a_copy_and_another_for_another_key(home, tmp_path):
    good(home, "new")
    other = str(tmp_path / "other")
    assert zul("--home", other, "init", "--no-drive").returncode == 0
    shutil.copy(f"{home}/etc/ZULkey", f"{other}/etc/ZULkey")
    assert fingerprint(home) == fingerprint(other)
    assert re.fullmatch("([0-9a-f]{4} ){7}[0-9a-f]{4}", fingerprint(home))
    assert fingerprint(home).replace(" ", "") not in read(home)
    good(other, "new", "--force")
    assert fingerprint(home) != fingerprint(other)


def test_check_is_content_with_a_key_and_a_library(home):
    good(home, "new")
    said = good(home, "check")
    assert fingerprint(home) in said and f"{home}/bin/libscram.so" in said


def test_check_says_what_is_missing(home):
    done = key(home, "check")
    assert done.returncode == 1 and "there is no key" in done.stderr and "zul key new" in done.stderr
    good(home, "new")
    os.unlink(f"{home}/bin/libscram.so")
    done = key(home, "check")
    assert done.returncode == 1 and "libscram.so" in done.stderr and "init --force" in done.stderr


def test_check_refuses_a_library_that_is_none(home):
    good(home, "new")
    shutil.copy(f"{home}/bin/libtape.so", f"{home}/bin/libscram.so")
    done = key(home, "check")
    assert done.returncode == 1 and "init --force" in done.stderr


@pytest.mark.parametrize("mode", [0o644, 0o640, 0o606])
def test_a_key_that_others_may_read_is_refused(home, mode):
    good(home, "new")
    os.chmod(f"{home}/etc/ZULkey", mode)
    for word in ("check", "show-fingerprint"):
        done = key(home, word)
        assert done.returncode == 1 and "chmod 600" in done.stderr, word


def test_a_file_that_is_no_key_is_refused(home):
    good(home, "new")
    with open(f"{home}/etc/ZULkey", "w") as handle:
        handle.write("swordfish\n")
    done = key(home, "check")
    assert done.returncode == 1 and "64 hexadecimal digits" in done.stderr


def test_without_a_home_there_is_no_key(tmp_path):
    for word in ("new", "check", "show-fingerprint"):
        done = key(str(tmp_path), word)
        assert done.returncode == 1 and "is no home" in done.stderr
    assert os.listdir(tmp_path) == []


def test_the_library_exports_its_three_functions_and_nothing_else():
    listed = subprocess.run(["nm", "-D", "--defined-only", f"{BUILD}/bin/libscram.so"], capture_output=True, text=True,
                            check=True).stdout
    assert sorted(line.split()[-1] for line in listed.splitlines()) == ["cryreadn", "cryreadnline", "crywriten"]
