#!/usr/bin/env python3
"""Prints what a folder holds as JSON, the same on this machine and in the guest: for each path below it the facts
that a volume must keep. The bytes of files above 64 MiB are judged by their beginning, middle and end.

usage: listing.py FOLDER
"""
import errno
import hashlib
import json
import os
import stat
import sys

WHOLE = 64 << 20
PIECE = 1 << 20
OWN_ATTRIBUTE = "osx.stashwick.original"
KINDS = {stat.S_IFREG: "file", stat.S_IFDIR: "folder", stat.S_IFLNK: "link", stat.S_IFIFO: "fifo",
         stat.S_IFSOCK: "socket", stat.S_IFCHR: "character device", stat.S_IFBLK: "block device"}


def digest(path, size):
    total = hashlib.sha256()
    with open(path, "rb") as file:
        if size <= WHOLE:
            while data := file.read(PIECE):
                total.update(data)
        else:
            for offset in (0, size // 2, size - PIECE):
                file.seek(offset)
                total.update(file.read(PIECE))
    return total.hexdigest()


def attributes(path):
    """By the names that an ordinary file system gives them; the hfsplus driver says osx. of what has no namespace,
    and calls it an error where there are none."""
    found = {}
    try:
        names = os.listxattr(path, follow_symlinks=False)
    except OSError as error:
        if error.errno != errno.ENODATA:
            raise
        names = []
    for name in names:
        if name.startswith(("user.", "osx.")) and name != OWN_ATTRIBUTE:
            found["user." + name.split(".", 1)[1]] = os.getxattr(path, name, follow_symlinks=False).hex()
    return found


def facts(path):
    status = os.lstat(path)
    kind = KINDS[stat.S_IFMT(status.st_mode)]
    result = {"kind": kind, "mode": oct(stat.S_IMODE(status.st_mode)), "owner": [status.st_uid, status.st_gid],
              "modified": status.st_mtime_ns // 10**9}
    if kind == "link":
        result["target"] = os.readlink(path)
    if kind == "file":
        result |= {"size": status.st_size, "links": status.st_nlink, "sha256": digest(path, status.st_size)}
    if kind in ("file", "folder"):
        result["attributes"] = attributes(path)
    return result, (status.st_dev, status.st_ino)


def main():
    os.chdir(sys.argv[1])
    listing, first = {}, {}
    for folder, folders, files in os.walk("."):
        folders.sort()
        for name in sorted(folders + files):
            path = os.path.normpath(os.path.join(folder, name))
            listing[path], inode = facts(path)
            if listing[path].get("links", 1) > 1:
                first.setdefault(inode, []).append(path)
    for paths in first.values():
        for path in paths:
            listing[path]["same as"] = min(paths)
    json.dump(listing, sys.stdout)


main()
