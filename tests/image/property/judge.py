"""Judges an image of a folder by programs that are not ours: 7-Zip, sleuthkit, libfshfs. Every method raises
Fault where they do not find what the folder holds."""
import collections
import hashlib
import os
import re
import shutil
import stat
import struct
import subprocess
import unicodedata

FILE_NAME_BYTES = 255
PRIVATE_FOLDER = b"[HFS+ Private Data]"
ORIGINAL = b"stashwick.original"
# What the volume's 32 bits of seconds hold; the ends stand for everything beyond.
FIRST_DATE, LAST_DATE = -2_082_844_800, 2_212_122_495


class Fault(Exception):
    pass


def require(condition, what):
    if not condition:
        raise Fault(what)


def run(*command, text=True):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=text,
                            errors="surrogateescape" if text else None)
    return result.returncode, result.stdout


def sha(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


Item = collections.namedtuple("Item", "kind content mode modified links attributes")


def kind_of(status):
    return {stat.S_IFDIR: "folder", stat.S_IFREG: "file", stat.S_IFLNK: "link"}[stat.S_IFMT(status.st_mode)]


def item_of(path):
    status = os.lstat(path)
    kind = kind_of(status)
    content = {"folder": lambda p: None, "file": sha, "link": os.readlink}[kind](path)
    names = os.listxattr(path, follow_symlinks=False)
    attributes = {n[5:].encode(): os.getxattr(path, n, follow_symlinks=False) for n in names if n.startswith("user.")}
    links = status.st_ino if kind == "file" and status.st_nlink > 1 else 0
    return Item(kind, content, status.st_mode & 0o777, status.st_mtime_ns // 10**9, links, attributes)


def source_items(root):
    """Path (as 7-Zip would call it where ':' is concerned) to Item, for all that is in a folder."""
    items = {b".": item_of(root)}
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            items[os.path.relpath(path, root).replace(b":", b"_")] = item_of(path)
    return items


def name_kept_in(original):
    at = 0
    while at < len(original):
        tag, size = struct.unpack_from(">II", original, at)
        if tag == 1:
            return original[at + 8:at + 8 + size]
        at += 8 + size
    return None


def stored_length(name):
    """The most bytes that an item's name could have in the volume, as 7-Zip gives it."""
    try:
        text = name.decode()
    except UnicodeDecodeError:
        return 3 * len(name)
    return max(len(unicodedata.normalize("NFD", text).encode()), 3 * len(name) if len(text) > 80 else 0)


def could_be_too_long(path):
    return any(stored_length(name) + 1 + len(ORIGINAL) > FILE_NAME_BYTES for name in path.split(b"/"))


class Unpacked:
    """What 7-Zip unpacked, by the names that the items had at the source."""

    def __init__(self, root):
        self.items = {}
        self.indirect = collections.Counter()
        volumes, streams = self.names_in(root)
        require(len(volumes) == 1, f"7zz x gives {volumes}")
        self.add(volumes[0], b"", streams.pop(volumes[0].name, {}), b".")
        require(not streams, f"streams without an item: {list(streams)}")
        self.visit(volumes[0].path, b"")

    @staticmethod
    def names_in(folder):
        """The items, and by item the attributes that 7-Zip unpacks beside it."""
        streams = collections.defaultdict(dict)
        plain = []
        for entry in os.scandir(folder):
            base, colon, attribute = entry.name.partition(b":")
            if colon:
                with open(entry.path, "rb") as file:
                    streams[base][attribute] = file.read()
            else:
                plain.append(entry)
        return plain, streams

    def visit(self, folder, source_path):
        plain, streams = self.names_in(folder)
        for entry in plain:
            if source_path == b"" and entry.name == PRIVATE_FOLDER:
                self.indirect.update(sha(e.path) for e in os.scandir(entry.path) if b":" not in e.name)
                continue
            path = self.add(entry, source_path, streams.pop(entry.name, {}))
            if entry.is_dir(follow_symlinks=False):
                self.visit(entry.path, path)
        require(not streams, f"streams without an item: {list(streams)}")

    def add(self, entry, source_path, attributes, path=None):
        kept = name_kept_in(attributes.pop(ORIGINAL, b""))
        name = kept or unicodedata.normalize("NFC", entry.name.decode(errors="surrogateescape")).encode(
            errors="surrogateescape")
        path = path or os.path.join(source_path, name.replace(b":", b"_"))
        require(path not in self.items, f"two items called {path}")
        self.items[path] = item_of(entry.path)._replace(attributes=attributes)
        return path


class Judge:
    def __init__(self, hdiutil, image, source, scratch):
        self.hdiutil, self.image, self.scratch = hdiutil, image, scratch
        self.source = os.fsencode(source)
        self.volume = os.path.join(scratch, "volume.hfs")
        self.expected = source_items(self.source)
        # Those that 7-Zip cannot unpack, because what their names decompose to is too long for this system.
        self.hidden = {path for path in self.expected if could_be_too_long(path)}

    def judge(self):
        self.verify()
        self.test_with_7zip()
        self.unpack_with_7zip()
        self.extract_volume()
        self.list_with_sleuthkit()
        self.list_with_libfshfs()

    def verify(self):
        status, output = run(self.hdiutil, "verify", self.image)
        require(status == 0 and "is VALID" in output, f"hdiutil verify: {output}")

    def test_with_7zip(self):
        status, output = run("7zz", "t", "-tdmg", self.image)
        require(status == 0 and "Everything is Ok" in output and "WARNING" not in output and "rror" not in output,
                f"7zz t: {output}")

    def unpack_with_7zip(self):
        folder = os.path.join(self.scratch, "unpacked")
        status, output = run("7zz", "x", "-y", "-snld", "-o" + folder, self.image)
        require(status == 0 or self.hidden, f"7zz x: {output}")
        self.compare(Unpacked(os.fsencode(folder)))
        shutil.rmtree(folder)

    def compare(self, unpacked):
        seen = {p: i for p, i in self.expected.items() if p not in self.hidden}
        extra = {p for p in unpacked.items if not could_be_too_long(p)} - seen.keys()
        missing = seen.keys() - unpacked.items.keys()
        require(not extra and not missing, f"7zz x: stray {sorted(extra)[:3]}, missing {sorted(missing)[:3]}")
        for path, item in seen.items():
            self.compare_item(path, item, unpacked.items[path])
        linked = collections.Counter({i.links: i.content for i in self.expected.values() if i.links}.values())
        require(unpacked.indirect == linked, "7zz x: other hard-linked files")

    @staticmethod
    def compare_item(path, there, here):
        if there.links:
            return require(here.kind == "file", f"7zz x: {path} is a {here.kind}")
        require((here.kind, here.content) == (there.kind, there.content), f"7zz x: {path} is {here}, not {there}")
        for name, value in there.attributes.items():
            # Escaped, where a neighbour's name decomposes to the same, a name is three times as long.
            unpacks = 3 * len(os.path.basename(path)) + 1 + len(name) <= FILE_NAME_BYTES
            require(not unpacks or here.attributes.get(name) == value, f"7zz x: attribute {name} of {path}")
        require(here.attributes.keys() <= there.attributes.keys(), f"7zz x: stray {here.attributes.keys()} of {path}")
        if there.kind != "link":
            require(here.mode == there.mode, f"7zz x: mode of {path} {here.mode:o}, not {there.mode:o}")
        # The first date stands for no date at all.
        if there.kind != "link" and there.modified > FIRST_DATE:
            date = min(there.modified, LAST_DATE)
            require(here.modified == date, f"7zz x: date of {path} {here.modified}, not {date}")

    def extract_volume(self):
        with open(self.volume, "wb") as out:
            subprocess.run(["7zz", "x", "-so", "-tdmg", self.image, "4.hfs", "4.hfsx"], stdout=out,
                           stderr=subprocess.DEVNULL, check=True)

    def count(self):
        """Items in the volume, the private folder of the hard links and what is in it included."""
        groups = {item.links for item in self.expected.values() if item.links}
        return len(self.expected) - 1 + (1 + len(groups) if groups else 0)

    def list_with_sleuthkit(self):
        status, output = run("fls", "-r", "-p", self.volume)
        require(status == 0, f"fls: {output}")
        entries = re.findall(r"^([rdl])/[rdl] (\d+):\t(.*)$", output, re.MULTILINE)
        entries = [e for e in entries if int(e[1]) >= 16]
        require(len(entries) == self.count(), f"fls lists {len(entries)} items, not {self.count()}")
        files = collections.Counter()
        for kind, node, name in entries:
            if kind == "r" and "HFS+ Private Data/" not in name:
                files[self.hash_with_sleuthkit(node) if len(entries) < 100 or int(node) % 50 == 0 else None] += 1
        expected = collections.Counter(i.content for i in self.expected.values() if i.kind == "file")
        files.pop(None, None)
        require(files <= expected, "icat: other contents")
        require(len(entries) >= 100 or files == expected, "icat: contents are missing")

    def hash_with_sleuthkit(self, node):
        status, content = run("icat", self.volume, node, text=False)
        require(status == 0, f"icat {node}: {content[:200]}")
        return hashlib.sha256(content).hexdigest()

    def list_with_libfshfs(self):
        status, output = run("fshfsinfo", "-H", self.volume)
        require(status == 0, f"fshfsinfo: {output}")
        lines = [line for line in output.split("\n") if re.match(r"/.", line)]
        require(len(lines) == self.count(), f"fshfsinfo lists {len(lines)} items, not {self.count()}")
