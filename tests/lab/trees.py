"""What a tree holds, path by path, so that two of them can be compared: content, owner, mode, times, links."""
import hashlib
import os


def entry(path):
    """All that is to arrive of one file, link or folder."""
    status = os.lstat(path)
    kind, content = status.st_mode >> 12, None
    if os.path.islink(path):
        content = os.readlink(path)
    elif os.path.isfile(path):
        with open(path, "rb") as handle:
            content = hashlib.sha256(handle.read()).hexdigest()
    mode = 0 if os.path.islink(path) else status.st_mode & 0o7777
    return kind, mode, status.st_uid, status.st_gid, int(status.st_mtime), content


def snapshot(root):
    """Every path below root, and root itself as ""."""
    found = {b"": entry(os.fsencode(root))}
    root = os.fsencode(root)
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            found[os.path.relpath(path, root)] = entry(path)
    return found


def same(one, other):
    assert set(one) == set(other), (sorted(set(one) - set(other))[:5], sorted(set(other) - set(one))[:5])
    differing = {path: (one[path], other[path]) for path in one if one[path] != other[path]}
    assert not differing, dict(list(differing.items())[:3])
