"""What an operator meets on a bad morning, and whether what is said then leads on."""
import os
import shlex

from jobs import backup, define, follow
from trees import same, snapshot


def test_files_of_a_host_that_was_down_last_night_are_found_in_an_earlier_run(make_lab):
    lab = make_lab(2)
    h1, h2 = lab[1], lab[2]
    for number, host in enumerate((h1, h2)):
        host.own_tree(number, files=5)
        host.start()
    define(h1, [h1, h2], [h1.tree, h2.tree])
    backup(h1)
    h2.stop()
    backup(h1, fails=True)
    h2.start()
    words = ["restore", "--from", "h2", "--into", "/mnt", "--yes", h2.tree + "/"]
    h2.run("mount", "-t", "tmpfs", "none", "/mnt")
    done = h1.zul(*words, "--job", "7", check=False)
    assert done.returncode == 1 and "the volume holds no files of h2, but of: h1" in done.stderr, done.stderr
    # What the hint names does it.
    place = done.stderr.split(" has them: ")[1].split("\n")[0]
    h1.zul(*words, *shlex.split(place))
    same(snapshot(h2.inside(h2.tree)), snapshot(h2.inside("/mnt" + h2.tree)))
    # No run has files of a host that never took part.
    done = h1.zul("restore", "--from", "h9", "--yes", "--all", "--job", "7", check=False)
    assert done.returncode == 1 and "TAPE get hhist HOST" in done.stderr


def test_what_a_host_left_out_is_found_by_the_words_of_the_manual(make_lab):
    lab = make_lab(2)
    h1, h2 = lab[1], lab[2]
    for number, host in enumerate((h1, h2)):
        host.own_tree(number, files=5)
        host.start()
    with open(os.path.join(h2.inside(h2.tree), "a\nb"), "w") as odd:
        odd.write("x")
    define(h1, [h1, h2], [h2.tree, "/srv/misspelt"])
    backup(h1)
    end = follow(h1).stdout.splitlines()
    assert [line.split("WARNING: ")[1] for line in end if "WARNING: " in line] == [
        "nothing of /srv/misspelt/ came from h1, h2; is it there?"], end
    # A level above it cannot know.
    backup(h1, level=1)
    assert "WARNING: " not in follow(h1).stdout
    said = h1.zul("fanout", "@1", "--", "HOST tail var/tape/jobids/request.7.log").stdout.splitlines()
    assert any(line.startswith("h2: ") and "Not listed: " in line and "control characters" in line for line in said), said
    assert sum("/srv/misspelt" in line for line in said) == 2, said
    # The whole file shows the same, and nothing that is meant for programs.
    got = h1.zul("fanout", "@1", "--", "HOST", "get", "var/tape/jobids/request.7.log").stdout.splitlines()
    assert sorted(got) == sorted(said)
