"""The module as a host sees it: what it exports, what it borrows, that it loads in the barest host."""
import os
import re
import subprocess

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("ZUL_BUILD", os.path.join(ROOT, "build", "dev"))
MODULE = os.path.join(BUILD, "bin", "libtape.so")
LENT = {"ZULhome", "backuplog", "fplog", "cmdname", "initpass", "autoLogin", "insplit", "filecopy", "filecpy", "deldir"}


def symbols(*options):
    text = subprocess.run(["nm", "-D", *options, MODULE], capture_output=True, text=True, check=True).stdout
    return {line.split()[-1] for line in text.splitlines()}


def declared():
    names = set()
    for header in ("module.h", "net.h", "tape.h", "replication.h", "mrepl.h", "fanout.h"):
        with open(os.path.join(ROOT, "include", "zul", header)) as handle:
            for line in handle:
                if line.startswith("ZUL_API "):
                    names.add(re.match(r"ZUL_API [^(;]*?\**(\w+)\s*[(;\[]", line).group(1))
    return names


def sanitized():
    return any(name.startswith("__asan") for name in symbols("--undefined-only"))


def test_exports_exactly_what_the_headers_declare():
    assert symbols("--defined-only") == declared()


def c_library_exports():
    """Names that the C library itself answers for; sanitizers strip the versions off undefined ones."""
    path = subprocess.run(["gcc", "-print-file-name=libc.so.6"], capture_output=True, text=True, check=True).stdout.strip()
    text = subprocess.run(["nm", "-D", "--defined-only", path], capture_output=True, text=True, check=True).stdout
    return {line.split()[-1].split("@")[0] for line in text.splitlines()}


def test_borrows_from_its_host_exactly_what_a_host_lends():
    runtime = ("_Z", "__asan", "__ubsan", "_ITM", "__gmon", "__cxa", "__gxx", "_Unwind", "__sanitizer", "__interceptor")
    undefined = {name.split("@")[0] for name in symbols("--undefined-only") if not name.startswith(runtime)}
    assert undefined - c_library_exports() <= LENT
    assert {"ZULhome", "backuplog", "fplog", "initpass", "autoLogin"} <= undefined
    # No name of our own is left to chance: the module binds its own calls to its own functions.
    assert not (undefined & declared())


def test_depends_on_the_c_library_and_the_cxx_runtime_only():
    text = subprocess.run(["readelf", "-d", MODULE], capture_output=True, text=True, check=True).stdout
    needed = re.findall(r"NEEDED.*\[(.*)\]", text)
    allowed = ("libc.so", "libstdc++.so", "libgcc_s.so", "libm.so", "libdl.so", "ld-linux", "libasan.so", "libubsan.so")
    assert [name for name in needed if not name.startswith(allowed)] == []


def test_does_nothing_at_load_time():
    text = subprocess.run(["readelf", "-S", "-W", MODULE], capture_output=True, text=True, check=True).stdout
    size = int(re.search(r"\.init_array\s+INIT_ARRAY\s+\S+\s+\S+\s+(\S+)", text).group(1), 16)
    # One entry is the C runtime's own frame_dummy; sanitizers add theirs.
    assert size == 8 or sanitized()


def test_headers_are_plain_c(tmp_path):
    source = tmp_path / "headers.c"
    source.write_text("#include <zul/host.h>\n#include <zul/module.h>\n#include <zul/net.h>\n#include <zul/tape.h>\n"
                      "#include <zul/mrepl.h>\n#include <zul/fanout.h>\n"
                      "int main(void) { return sizeof(package) == 520 ? 0 : 1; }\n")
    subprocess.run(["gcc", "-std=c11", "-Wall", "-Wextra", "-Werror", f"-I{ROOT}/include", "-o", tmp_path / "headers",
                    source], check=True)
    assert subprocess.run([tmp_path / "headers"]).returncode == 0


@pytest.fixture
def bare_host(tmp_path):
    program = tmp_path / "barehost"
    flags = ["-fsanitize=address,undefined"] if sanitized() else []
    subprocess.run(["gcc", "-rdynamic", *flags, "-o", program, os.path.join(ROOT, "tests/integration/barehost.c"),
                    "-ldl"], check=True)
    home = tmp_path / "home"
    for folder in ("etc", "bin", "tmp", "var/tape/jobids"):
        (home / folder).mkdir(parents=True)

    def run(*lines):
        return subprocess.run([program, MODULE, home, *lines], capture_output=True, text=True, timeout=60)
    return run


def test_loads_and_runs_in_the_barest_host(bare_host):
    done = bare_host("version", "get drives", "nonsense", "")
    assert done.returncode == 0, done.stderr
    assert done.stdout.splitlines() == ["version: 0", "get drives: 1", "nonsense: 255", ": 1"]
    assert done.stderr == ("0.34\n"
                           "ERROR:  8030  No Tape drives defined\n"
                           "ERROR:  8001  Tape lib: Unknown request, nonsense\n"
                           "ERROR:  8000 Insufficient arguments.\n")
