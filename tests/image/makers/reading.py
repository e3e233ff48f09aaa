"""Reads an image with hdiutil and compares what comes out with what the image was made of."""
import hashlib
import os
import re
import subprocess

import hfs
import judge
from judge import require


class Reading:
    def __init__(self, hdiutil, variant, scratch):
        self.hdiutil, self.variant, self.scratch = hdiutil, variant, scratch
        self.image = os.path.join(scratch, "image.dmg")
        with open(self.image, "wb") as out:
            out.write(variant.image)

    def prove(self):
        if self.variant.judged and not self.variant.password:
            self.ask_others()
        if self.variant.expected is None:
            return self.refuse_all()
        self.verify()
        self.list()
        if self.variant.refused:
            return self.refuse("extract", "-to", os.path.join(self.scratch, "out"))
        self.compare_extract()

    def run(self, verb, *arguments):
        password = self.variant.password
        flags = ["-stdinpass"] if password else []
        done = subprocess.run([self.hdiutil, verb, *flags, *arguments], input=(password or "").encode(),
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120)
        return done.returncode, done.stdout, done.stderr.decode(errors="replace")

    def refuse_all(self):
        self.refuse("verify")
        self.refuse("list")
        self.refuse("extract", "-to", os.path.join(self.scratch, "out"))

    def refuse(self, *command):
        status, _, said = self.run(*command, self.image)
        require(status != 0 and "failed" in said and self.variant.refused in said, f"{command[0]} says {status}: {said}")

    def verify(self):
        status, out, said = self.run("verify", self.image)
        if self.variant.unverified is None:
            require(status == 0 and b"is VALID" in out + said.encode(), f"verify: {said}")
        else:
            require(status != 0 and self.variant.unverified in said, f"verify says {status}: {said}")

    def list(self):
        status, out, said = self.run("list", "-plist", self.image)
        require(status == 0 and b"<dict>" in out and "failed" not in said, f"list: {said}")
        require(self.variant.noted in said, f"list: {said}")

    def compare_extract(self):
        folder = os.path.join(self.scratch, "out")
        status, _, said = self.run("extract", "-to", folder, self.image)
        require(status == 0, f"extract: {said}")
        found = dict(self.items(folder))
        missing, stray = self.variant.expected.keys() - found.keys(), found.keys() - self.variant.expected.keys()
        require(not missing and not stray, f"extract: missing {sorted(missing)[:3]}, stray {sorted(stray)[:3]}")
        for path, item in self.variant.expected.items():
            require(found[path] == item, f"extract: {path} is {brief(found[path])}, not {brief(item)}")

    def items(self, root):
        for folder, folders, files in os.walk(root):
            for name in folders + files:
                path = os.path.join(folder, name)
                status = os.lstat(path)
                kind = judge.kind_of(status)
                content = None if kind == "folder" else os.readlink(path).encode() if kind == "link" else read(path)
                names = os.listxattr(path, follow_symlinks=False)
                attributes = {n: os.getxattr(path, n, follow_symlinks=False) for n in names}
                mode = 0o755 if kind == "link" else status.st_mode & 0o7777
                yield os.path.relpath(path, root), hfs.Item(kind, content, mode, int(status.st_mtime), attributes)

    def ask_others(self):
        is_raw = self.variant.image == self.variant.volume
        status, out = judge.run("7zz", "t", "-thfs" if is_raw else "-tdmg", self.image)
        require(status == 0 and "Everything is Ok" in out and "WARNING" not in out and "rror" not in out, f"7zz: {out}")
        if self.variant.volume is None:
            return
        volume = os.path.join(self.scratch, "volume.hfs")
        with open(volume, "wb") as out:
            out.write(self.variant.volume)
        status, out = judge.run("fls", "-r", "-p", volume)
        require(status == 0, f"fls: {out}")
        files = {e[1] for e in re.findall(r"^([r-])/r (\d+):\t(.*)$", out, re.MULTILINE) if int(e[1]) >= 16}
        require(len(files) > 1, f"fls lists {out[:500]}")
        status, out = judge.run("fshfsinfo", "-H", volume)
        require(status == 0, f"fshfsinfo: {out}")


def read(path):
    with open(path, "rb") as file:
        return file.read()


def brief(item):
    content = item.content
    if content is not None and len(content) > 40:
        content = f"{len(content)} bytes {hashlib.sha256(content).hexdigest()[:8]}"
    attributes = {k: v if len(v) < 40 else f"{len(v)} bytes" for k, v in item.attributes.items()}
    return (item.kind, content, oct(item.mode), item.modified, attributes)
