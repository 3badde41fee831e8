"""Calling the built module as a host does, through its exported functions and the public headers only.

    host = Host(folder, program)
    said = host.call("int addDrive", "0:lto:/dev/nst0:a:b")     # one call in a process of its own
    assert (said.result, said.err) == (0, "New tape added:  lto\\n")
    said = host.run([["errno", 2], ["long readn", Number(fd), ...]])  # several calls in one process

What a call is given: texts as they are, numbers, None for a null pointer, and the classes below.
"""
import os
import subprocess
import urllib.parse

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("ZUL_BUILD", os.path.join(ROOT, "build", "dev"))
MODULE = os.path.join(BUILD, "bin", "libtape.so")
SOURCES = [os.path.join(ROOT, "tests", "integration", name) for name in ("callhost.c", "shortage.c")]


def build_host(program):
    """Compiles the host; with the sanitizers where the module has them."""
    sanitized = b"__asan_init" in subprocess.run(["nm", "-D", MODULE], capture_output=True, check=True).stdout
    flags = ["-fsanitize=address,undefined"] if sanitized else []
    subprocess.run(["gcc", "-std=gnu11", "-Wall", "-Wextra", "-Werror", "-rdynamic", *flags, f"-I{ROOT}/include",
                    "-o", str(program), *SOURCES, "-ldl"], check=True)
    return str(program)


class Argument:
    """An argument by its letter in the script of callhost.c."""

    def __init__(self, letter, text):
        self.word = letter + str(text)


def Buffer(path):
    return Argument("b", path)


def Table(entries):
    return Argument("t", entries)


def Reading(path):
    return Argument("r", path)


def Writing(path):
    return Argument("w", path)


def Descriptor(path):
    return Argument("o", path)


def InSegment(offset):
    return Argument("@", offset)


def Memory(name, offset=0):
    """An address in a block of the host's, or a result that was kept under this name."""
    return Argument("&", f"{name}+{offset}")


LAST = Argument("=", "")


def script_word(value):
    if value is None:
        return "n"
    if isinstance(value, Argument):
        text = value.word
    elif isinstance(value, int):
        text = f"i{value}"
    else:
        text = "s" + value
    return urllib.parse.quote(text, safe="", encoding="latin-1")


def whole_lines(text):
    """A process that still runs may have written half of the last one."""
    return text[:text.rfind("\n") + 1].splitlines()


class Said:
    """What came of a run: its streams, its results, how the process ended."""

    def __init__(self, folder, process):
        self.folder, self.status = folder, process.returncode
        self.err = process.stderr.decode("latin-1")
        self.out = process.stdout.decode("latin-1")

    def read(self, name):
        with open(os.path.join(self.folder, name), encoding="latin-1") as handle:
            return handle.read()

    @property
    def log(self):
        return self.read("backuplog")

    @property
    def hostlog(self):
        # The module says there, too, that it found no site file; that is no part of any answer.
        lines = self.read("fplog").splitlines(keepends=True)
        return "".join(line for line in lines if not line.startswith("NOTICE:  No site file"))

    @property
    def trace(self):
        return whole_lines(self.read("trace"))

    @property
    def results(self):
        return whole_lines(self.read("results"))

    def result_of(self, call):
        """The number that a call returned."""
        return int(self.results[call].split()[1])

    @property
    def result(self):
        return self.result_of(-1)


class Host:
    def __init__(self, folder, program):
        self.folder, self.program, self.runs = str(folder), program, 0
        self.home = os.path.join(self.folder, "home")
        for name in ("etc", "bin", "tmp", "var/tape/jobids", "var/tape/mrepljobs"):
            os.makedirs(os.path.join(self.home, name))

    def path(self, *parts):
        return os.path.join(self.home, *parts)

    def write(self, name, content):
        data = content if isinstance(content, bytes) else content.encode("latin-1")
        os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
        with open(self.path(name), "wb") as handle:
            handle.write(data)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as handle:
            return handle.read()

    def text(self, name):
        return self.read(name).decode("latin-1")

    def exists(self, name):
        return os.path.lexists(self.path(name))

    def start(self, lines, fds=(), stdin=subprocess.DEVNULL, inside=()):
        """Begins a run: (process, folder)."""
        self.runs += 1
        folder = os.path.join(self.folder, f"run{self.runs}")
        os.mkdir(folder)
        for name in ("backuplog", "fplog", "results", "trace"):
            open(os.path.join(folder, name), "w").close()
        with open(os.path.join(folder, "script"), "w") as script:
            for line in lines:
                is_call = line[0].split()[0] in ("int", "long", "text", "void", "double")
                words = [script_word(word) if is_call else urllib.parse.quote(str(word), encoding="latin-1")
                         for word in line[1:]]
                script.write(" ".join([line[0], *words]) + "\n")
        environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0", "TZ": "UTC", "LC_ALL": "C"}
        with open(os.path.join(folder, "stderr"), "wb") as err:
            process = subprocess.Popen([*inside, self.program, MODULE, self.home, folder,
                                        os.path.join(folder, "script")], stdin=stdin, stdout=subprocess.PIPE,
                                       stderr=err, pass_fds=fds, env=environment)
        return process, folder

    def finish(self, started, limit=60):
        process, folder = started
        try:
            out, _ = process.communicate(timeout=limit)
        finally:
            process.kill()
        with open(os.path.join(folder, "stderr"), "rb") as err:
            return Said(folder, subprocess.CompletedProcess(process.args, process.returncode, out, err.read()))

    def run(self, lines, limit=60, **how):
        return self.finish(self.start(lines, **how), limit)

    def call(self, name, *arguments, **how):
        return self.run([[name, *arguments]], **how)
