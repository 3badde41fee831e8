#!/usr/bin/python3
"""tidy: the house rules a machine can check, over the files git tracks.

Line length and trailing blanks, banned calls with what to use instead, leftover reminders, sources without an
opening comment, links in documents that lead nowhere, records whose page and header disagree about a size.
"""
import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SOURCES = (".cpp", ".h", ".c")
# call -> why not
BANNED = {
    r"\bstrcpy\(": "base::copyText bounds the copy",
    r"\bstrcat\(": "snprintf bounds the text",
    r"\bsprintf\(": "snprintf bounds the text",
    r"\bgets\(": "fgets bounds the line",
    r"\bsystem\(": "no shell: words come from operators and peers",
    r"\bpopen\(": "no shell: words come from operators and peers",
    r"\bstrtok\(": "wssplit or insplit",
    r"(?<![:_\w])ctime\(": "ctime_r: the buffer belongs to the caller",
    r"\blocaltime\(": "localtime_r: the buffer belongs to the caller",
}
REMINDER = re.compile(r"\b(TODO|FIXME|XXX|HACK)\b")
MODULE = ("base/", "drive/", "net/", "tape/", "replication/", "mrepl/", "fanout/")
problems = []


def complain(path, line, what):
    problems.append(f"{path}:{line}: {what}")


def check_source(path, lines):
    in_tests = path.startswith("tests/")
    for number, line in enumerate(lines, 1):
        if len(line) > 120:
            complain(path, number, f"{len(line)} characters; 120 at most")
        if not in_tests:
            code = line.split("//")[0]
            for call, instead in BANNED.items():
                if re.search(call, code):
                    complain(path, number, f"banned call: {instead}")
        if path.startswith(MODULE) and re.match(r'#include "(host|console)/', line):
            complain(path, number, "the module knows nothing of the daemon or the operator's command")
    first = lines[0] if lines else ""
    if not first.startswith(("//", "/*", "#pragma once", "#include")):
        complain(path, 1, "opens without a comment that says what it is for")
    if path.endswith(".cpp") and not first.startswith("//") and len(lines) > 80:
        complain(path, 1, "a source of this size opens with what it does, who calls it, in which process")


def check_links(path, lines):
    folder = os.path.dirname(os.path.join(ROOT, path))
    for number, line in enumerate(lines, 1):
        for target in re.findall(r"\]\(([^)#\s]+)[^)]*\)", line):
            if "://" not in target and not os.path.exists(os.path.join(folder, target)):
                complain(path, number, f"link to {target}, which is not there")


def main():
    tracked = subprocess.run(["git", "-C", ROOT, "ls-files"], capture_output=True, text=True, check=True).stdout.split("\n")
    for path in filter(None, tracked):
        full = os.path.join(ROOT, path)
        if not os.path.isfile(full):
            continue
        try:
            with open(full, encoding="utf-8") as handle:
                lines = handle.read().split("\n")
        except UnicodeDecodeError:
            continue
        for number, line in enumerate(lines, 1):
            if path.endswith(SOURCES + (".py", ".md", ".txt", ".cmake")) and line != line.rstrip():
                complain(path, number, "trailing blanks")
            if path.endswith(SOURCES) and REMINDER.search(line):
                complain(path, number, "a reminder left behind")
        if path.endswith(SOURCES):
            check_source(path, lines)
        if path.endswith(".md"):
            check_links(path, lines)
    for problem in problems:
        print(problem)
    print(f"tidy: {len(problems)} complaint(s)")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
