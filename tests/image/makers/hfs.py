"""Lays HFS+ and HFSX volumes out from the field descriptions of Apple's technical note TN1150, in shapes that our own
writer never gives them. What a volume holds is known afterwards as `expected`: path to Item."""
import collections
import random
import struct
import unicodedata
import zlib

EPOCH = 2_082_844_800
DATE = 1_000_000_000
ROOT = 2
PRIVATE_FILES = "\0\0\0\0HFS+ Private Data"
PRIVATE_FOLDERS = ".HFS+ Private Directory Data\r"

Item = collections.namedtuple("Item", "kind content mode modified attributes")


def shown(stored):
    """What a POSIX system calls the item of a stored name."""
    return unicodedata.normalize("NFC", stored).replace("/", "\0").replace(":", "/").replace("\0", ":")


def units(text):
    return text.encode("utf-16-be", "surrogatepass")


def folded(text):
    """The order of names without case, for letters on whose lower case all tables agree."""
    ignored = set(range(0x200C, 0x2010)) | set(range(0x202A, 0x202F)) | set(range(0x206A, 0x2070)) | {0xFEFF}
    out = []
    for c in text:
        if ord(c) in ignored:
            continue
        out.append(0xFFFF if c == "\0" else ord(c.lower()) if len(c.lower()) == 1 else ord(c))
    return out


class BTree:
    """The bytes of a B-tree file. records: (key, data), in order; a key begins with its 16-bit length."""

    def __init__(self, records, node, max_key, kind, compare=0, per_node=0, shuffle=None, spare=0, tail=0,
                 index_key=None):
        self.node, self.index_key = node, index_key
        leaves = self.pack(records, per_node)
        levels = [leaves] if leaves else []
        while levels and len(levels[-1]) > 1:
            # An index key is the first key of its child; the child is named once the numbers are known.
            levels.append(self.pack([(group[0][0], b"\0\0\0\0") for group in levels[-1]], per_node))
        count = 1 + spare + sum(map(len, levels))
        room, map_room = (node - 256) * 8, (node - 20) * 8
        maps = 0
        while room + maps * map_room < count + maps:
            maps += 1
        count += maps
        numbers = list(range(1, count))
        if shuffle is not None:
            random.Random(shuffle).shuffle(numbers)
        maps = [numbers.pop() for _ in range(maps)]
        placed = [[numbers.pop(0) for _ in level] for level in levels]
        used = {0, *maps, *(n for level in placed for n in level)}
        nodes = {}
        for height, (level, at) in enumerate(zip(levels, placed), 1):
            child = iter(placed[height - 2]) if height > 1 else None
            for i, group in enumerate(level):
                if child:
                    group = [(key, struct.pack(">I", next(child))) for key, _ in group]
                nodes[at[i]] = self.make(at[i + 1] if i + 1 < len(at) else 0, at[i - 1] if i else 0,
                                         -1 if height == 1 else 0, height, [k + d for k, d in group])
        bits = bytearray(node - 256 + len(maps) * (node - 20))
        for n in used:
            bits[n // 8] |= 0x80 >> n % 8
        for i, at in enumerate(maps):
            begin = node - 256 + i * (node - 20)
            nodes[at] = self.make(maps[i + 1] if i + 1 < len(maps) else 0, 0, 2, 0, [bytes(bits[begin:begin + node - 20])])
        head = struct.pack(">HIIIIHHII", len(levels), placed[-1][0] if levels else 0, len(records),
                           placed[0][0] if levels else 0, placed[0][-1] if levels else 0, node, max_key, count,
                           count - len(used))
        head += struct.pack(">HIBBI", 0, node, 0, compare, kind) + bytes(64)
        nodes[0] = self.make(maps[0] if maps else 0, 0, 1, 0, [head, bytes(128), bytes(bits[:node - 256])])
        self.bytes = b"".join(nodes.get(n, bytes(node)) for n in range(count)) + bytes(tail)
        self.depth, self.maps = len(levels), len(maps)

    def pack(self, records, most):
        groups, room = [], 0
        for key, data in records:
            size = len(key) + len(data) + 2
            if not groups or size > room or (most and len(groups[-1]) == most):
                groups.append([])
                room = self.node - 14 - 2
            groups[-1].append((key, data))
            room -= size
        return groups

    def make(self, following, previous, kind, height, records):
        body, offsets = b"", []
        for record in records:
            offsets.append(14 + len(body))
            body += record
        offsets.append(14 + len(body))
        out = struct.pack(">IIbBHH", following, previous, kind, height, len(records), 0) + body
        table = b"".join(struct.pack(">H", o) for o in reversed(offsets))
        assert len(out) + len(table) <= self.node, (len(out), len(table), kind)
        return out + bytes(self.node - len(out) - len(table)) + table


class Fork:
    def __init__(self, size=0, extents=()):
        self.size, self.extents = size, list(extents)

    @property
    def blocks(self):
        return sum(count for _, count in self.extents)


class Volume:
    def __init__(self, name="Made", block=4096, x=False, binary=False, catalog_node=4096, extents_node=4096,
                 attributes_node=8192, per_node=0, shuffle=None, spare=0, tail=0, mark_last=True, counts=None,
                 catalog_extents=1, tree_tail=0, free=10, bad_blocks=0, clean=True, first_block=None,
                 next_id=None, reused=False):
        self.name, self.block, self.x, self.binary = name, block, x, binary
        self.nodes = catalog_node, extents_node, attributes_node
        self.shape = dict(per_node=per_node, shuffle=shuffle, spare=spare)
        self.tail, self.mark_last, self.catalog_extents, self.tree_tail = tail, mark_last, catalog_extents, tree_tail
        self.counts = (x if counts is None else counts)
        self.free_blocks, self.clean = free, clean
        self.attributes = 0x100 if clean else 0
        self.last_mounted = b"10.0"
        self.journal_info = 0
        self.given_next_id, self.reused = next_id, reused
        self.data = {}
        self.next_block = first_block or max(1, -(-1536 // block))
        self.reserved = set(range(max(1, -(-1536 // block))))
        self.freed = set(range(self.next_block)) - self.reserved
        self.next_id = 16
        self.catalog, self.overflow, self.values = [], [], []
        self.valence, self.subfolders = collections.Counter(), collections.Counter()
        self.files = self.folders = 0
        self.paths = {ROOT: ""}
        self.expected = {}
        self.hidden = set()
        self.private_files = self.private_folders = None
        self.records = {}
        if bad_blocks:
            self.bad = self.store(bytes(bad_blocks * block), 11, backwards=True)
            self.put_overflow(5, 0, self.bad, 0)

    # Blocks.

    def take(self, count):
        first = self.next_block
        self.next_block += count
        return first

    def store(self, data, extents=1, backwards=False):
        """In as many extents as told, a free block between any two, the last one first where told."""
        blocks = -(-len(data) // self.block)
        extents = max(1, min(extents, blocks))
        if not blocks:
            return Fork()
        counts = [blocks // extents + (i < blocks % extents) for i in range(extents)]
        places = [0] * extents
        for i in (reversed(range(extents)) if backwards else range(extents)):
            places[i] = self.take(counts[i])
            if extents > 1:
                self.freed.add(self.take(1))
        at = 0
        for place, count in zip(places, counts):
            for b in range(place, place + count):
                self.data[b] = data[at:at + self.block].ljust(self.block, b"\0")
                at += self.block
        return Fork(len(data), zip(places, counts))

    def fork(self, fork):
        first = (fork.extents + [(0, 0)] * 8)[:8]
        return struct.pack(">QII", fork.size, 0, fork.blocks) + b"".join(struct.pack(">II", *e) for e in first)

    def put_overflow(self, file, kind, fork, inside=8):
        done = sum(count for _, count in fork.extents[:inside])
        for at in range(inside, len(fork.extents), 8):
            group = fork.extents[at:at + 8]
            key = struct.pack(">HBBII", 10, kind, 0, file, done)
            self.overflow.append(((file, kind, done), key, b"".join(struct.pack(">II", *e) for e in
                                                                    (group + [(0, 0)] * 8)[:8])))
            done += sum(count for _, count in group)

    # Items.

    def take_id(self):
        self.next_id += 1
        return self.next_id - 1

    def key(self, parent, name):
        return struct.pack(">HIH", 6 + len(units(name)), parent, len(units(name)) // 2) + units(name)

    def put(self, parent, name, data):
        self.catalog.append((parent, name, data))

    def thread(self, item, parent, name, folder):
        self.put(item, "", struct.pack(">HHIH", 3 if folder else 4, 0, parent, len(units(name)) // 2) + units(name))

    def note(self, parent, name, kind, content, mode, modified, attributes):
        if parent not in self.paths:
            return
        path = self.paths[parent] + shown(name)
        self.expected[path] = Item(kind, content, mode & 0o7777, modified, attributes)

    def path(self, parent, name):
        return self.paths[parent] + shown(name) + "/"

    def add_folder(self, name, parent=ROOT, mode=0o40755, modified=DATE, flags=0, finder=bytes(32), hidden=False,
                   item=None, special=0, attributes=None):
        item = item or self.take_id()
        self.valence[parent] += 1
        self.subfolders[parent] += 1
        self.folders += 1
        if hidden:
            self.hidden.add(item)
        elif parent not in self.hidden:
            self.paths[item] = self.path(parent, name)
        self.records[item] = (parent, name, mode, modified, flags | (4 if attributes else 0), finder, special)
        self.thread(item, parent, name, True)
        for key, value in (attributes or {}).items():
            self.add_attribute(item, key, value)
        if item not in self.hidden:
            self.note(parent, name, "folder", None, mode, modified, self.shown_attributes(attributes, finder))
        return item

    @staticmethod
    def shown_attributes(attributes, finder=bytes(32), resources=b""):
        out = {"user." + k: v for k, v in (attributes or {}).items()}
        plain = finder[:16] + bytes(8) + finder[24:28] + bytes(4)
        if any(plain):
            out["user.com.apple.FinderInfo"] = plain
        if resources:
            out["user.com.apple.ResourceFork"] = resources
        return out

    def add_file(self, name, data=b"", parent=ROOT, mode=0o100644, modified=DATE, flags=2, finder=bytes(32),
                 resources=b"", extents=1, backwards=False, owner_flags=0, special=0, attributes=None, created=DATE,
                 owner=0, group=0, noted=True, shown_data=None, shown_attributes=None, item=None):
        item = item or self.take_id()
        self.valence[parent] += 1
        self.files += 1
        stored, kept = self.store(data, extents, backwards), self.store(resources, extents, backwards)
        self.put_overflow(item, 0, stored)
        self.put_overflow(item, 0xFF, kept)
        record = struct.pack(">HHII", 2, flags | (4 if attributes else 0), 0, item)
        record += struct.pack(">IIIII", created + EPOCH, modified + EPOCH, modified + EPOCH, modified + EPOCH, 0)
        record += struct.pack(">IIBBHI", owner, group, 0, owner_flags, mode, special) + finder.ljust(32, b"\0")
        record += bytes(8) + self.fork(stored) + self.fork(kept)
        self.put(parent, name, record)
        self.thread(item, parent, name, False)
        for key, value in (attributes or {}).items():
            self.add_attribute(item, key, value)
        if noted:
            content = data if shown_data is None else shown_data
            kind = "link" if mode & 0o170000 == 0o120000 else "file"
            seen = shown_attributes
            if seen is None:
                seen = self.shown_attributes(attributes, bytes(32) if kind == "link" else finder, resources)
            self.note(parent, name, kind, content, mode if mode else 0o644, modified, seen)
        return item

    def add_link(self, name, target, parent=ROOT):
        return self.add_file(name, target.encode(), parent, mode=0o120755, finder=b"slnkrhap".ljust(32, b"\0"))

    def add_attribute(self, item, name, value, extents=0, backwards=False):
        """Inline, or in that many extents of its own."""
        def key(block):
            return struct.pack(">HHIIH", 12 + len(units(name)), 0, item, block, len(units(name)) // 2) + units(name)
        if not extents:
            data = struct.pack(">IIII", 0x10, 0, 0, len(value)) + value + bytes(len(value) % 2)
            self.values.append(((item, units(name), 0), key(0), data))
            return
        fork = self.store(value, extents, backwards)
        self.values.append(((item, units(name), 0), key(0), struct.pack(">II", 0x20, 0) + self.fork(fork)))
        done = sum(count for _, count in fork.extents[:8])
        for at in range(8, len(fork.extents), 8):
            group = fork.extents[at:at + 8]
            body = b"".join(struct.pack(">II", *e) for e in (group + [(0, 0)] * 8)[:8])
            self.values.append(((item, units(name), done), key(done), struct.pack(">II", 0x30, 0) + body))
            done += sum(count for _, count in group)

    def add_hard_links(self, names, data, chained=True, **kept):
        """names: (name, parent)."""
        if self.private_files is None:
            self.private_files = self.add_folder(PRIVATE_FILES, hidden=True)
        target = self.take_id()
        self.add_file(f"iNode{target}", data, self.private_files, special=len(names), item=target,
                      flags=2 | (0x20 if chained else 0), noted=False, **kept)
        for name, parent in names:
            self.add_file(name, parent=parent, mode=0o100444, finder=b"hlnkhfs+".ljust(32, b"\0"), special=target,
                          flags=2 | (0x20 if chained else 0), noted=False)
            self.note(parent, name, "file", data, kept.get("mode", 0o100644), DATE, {})

    def add_folder_links(self, names, fill):
        """Hard links to one folder; fill(volume, folder) puts something into it."""
        if self.private_folders is None:
            self.private_folders = self.add_folder(PRIVATE_FOLDERS, hidden=True)
        target = self.take_id()
        self.add_folder(f"dir_{target}", self.private_folders, item=target, flags=0x20, special=len(names))
        fill(self, target)
        for name, parent in names:
            self.add_file(name, parent=parent, mode=0o100444, finder=b"fdrpMACS".ljust(32, b"\0"), special=target,
                          flags=0x22, noted=False)
            self.note(parent, name, "folder", None, 0o755, DATE, {})
        return target

    def add_compressed(self, name, data, kind, parent=ROOT, plain=False):
        """As the system's own compression leaves it: 3 in the attribute, 4 in the resource fork."""
        head = struct.pack("<4sIQ", b"fpmc", kind, len(data))
        pieces = [data[i:i + 65536] for i in range(0, len(data), 65536)]
        stored = [b"\xff" + p if plain else zlib.compress(p) for p in pieces]
        seen = dict(shown_data=data, shown_attributes={})
        if kind == 3:
            return self.add_file(name, parent=parent, owner_flags=0x20, attributes={"com.apple.decmpfs": head + stored[0]},
                                 **seen)
        at, table = 4 + 8 * len(stored), b""
        for piece in stored:
            table += struct.pack("<II", at, len(piece))
            at += len(piece)
        body = struct.pack("<I", len(stored)) + table + b"".join(stored)
        fork = struct.pack(">IIII", 256, 256 + 4 + len(body), 4 + len(body), 50).ljust(256, b"\0")
        fork += struct.pack(">I", len(body)) + body
        fork += bytes(24) + struct.pack(">HHH4sHHHH", 28, 50, 0, b"cmpf", 0, 10, 1, 0xFFFF) + bytes(8)
        return self.add_file(name, parent=parent, owner_flags=0x20, resources=fork,
                             attributes={"com.apple.decmpfs": head}, **seen)

    # The whole.

    def order(self, parent, name):
        return (parent, units(name) if self.binary else folded(name))

    def catalog_records(self):
        entries = list(self.catalog)
        for item, (parent, name, mode, modified, flags, finder, special) in self.records.items():
            flags |= 0x10 if self.counts else 0
            record = struct.pack(">HHII", 1, flags, self.valence[item], item)
            record += struct.pack(">IIIII", *[modified + EPOCH] * 4, 0)
            record += struct.pack(">IIBBHI", 0, 0, 0, 0, mode, special) + finder.ljust(32, b"\0")
            record += struct.pack(">II", 0, self.subfolders[item] if self.counts else 0)
            entries.append((parent, name, record))
        entries.sort(key=lambda e: self.order(e[0], e[1]))
        return [(self.key(parent, name), data) for parent, name, data in entries]

    def tree_fork(self, file, records, node, max_key, kind, compare=0, extents=1, tail=0):
        tree = BTree(records, node, max_key, kind, compare, tail=tail, **self.shape)
        size = len(tree.bytes)
        fork = self.store(tree.bytes, extents, backwards=extents > 1)
        fork.size = size
        self.put_overflow(file, 0, fork)
        setattr(self, {3: "overflow_tree", 4: "catalog_tree", 8: "attributes_tree"}[file], tree)
        return fork

    def make(self):
        self.records[ROOT] = (1, self.name, 0o40755, DATE, 0, bytes(32), 0)
        self.thread(ROOT, 1, self.name, True)
        catalog_node, extents_node, attributes_node = self.nodes
        catalog = self.tree_fork(4, self.catalog_records(), catalog_node, 516, 6,
                                 (0xBC if self.binary else 0xCF) if self.x else 0, self.catalog_extents)
        values = Fork()
        if self.values:
            values = self.tree_fork(8, [v[1:] for v in sorted(self.values)], attributes_node, 266, 6, tail=self.tree_tail)
        overflow = self.tree_fork(3, [v[1:] for v in sorted(self.overflow)], extents_node, 10, 2)
        self.freed.update(range(self.next_block, self.next_block + self.free_blocks))
        self.next_block += self.free_blocks
        last = 2 if self.block == 512 else 1
        blocks = self.next_block + last
        bitmap_blocks = 1
        while bitmap_blocks * self.block * 8 < blocks + bitmap_blocks:
            bitmap_blocks += 1
        bitmap = Fork(bitmap_blocks * self.block, [(self.take(bitmap_blocks), bitmap_blocks)])
        self.total = self.next_block + last
        if self.tail >= 1024 and not self.mark_last:
            self.freed.update(range(self.next_block, self.total))
        bits = bytearray(bitmap.size)
        for b in range(self.total):
            if b not in self.freed:
                bits[b // 8] |= 0x80 >> b % 8
        header = struct.pack(">2sHI4sI", b"HX" if self.x else b"H+", 5 if self.x else 4,
                             self.attributes | (0x1000 if self.reused else 0), self.last_mounted, self.journal_info)
        header += struct.pack(">IIII", DATE + EPOCH, DATE + EPOCH, 0, DATE + EPOCH)
        header += struct.pack(">IIIII", self.files, self.folders, self.block, self.total, len(self.freed))
        header += struct.pack(">IIIIIQ", 0, 65536, 65536, self.given_next_id or self.next_id, 1, 1) + bytes(32)
        for fork in (bitmap, overflow, catalog, values, Fork()):
            header += self.fork(fork)
        self.header = header
        volume = bytearray(self.total * self.block + self.tail)
        for b, piece in self.data.items():
            volume[b * self.block:(b + 1) * self.block] = piece
        at = bitmap.extents[0][0] * self.block
        volume[at:at + len(bits)] = bits
        volume[1024:1536] = header
        volume[-1024:-512] = header
        self.bitmap_at = at
        return bytes(volume)
