"""Random folder trees, the same for the same seed: names in many scripts and forms, sizes around the borders of
blocks and chunks, holes, links, modes, dates far out, extended attributes."""
import errno
import os
import random
import unicodedata

BLOCK = 4096
CHUNK = 1 << 20
NAME_BYTES = 255

# What the letters of one name are taken from.
SCRIPTS = [
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789",
    "ab .,-+=()[]{}'\"!?*<>|\\@#$%^&~`;:",
    "äöüßéèñçåøÅÄÖŁśźżőűİıǅǆ",
    "ếộữặẫǖǘḹṩ",
    "абвгдеёжзийАБВГЁЙїў",
    "αβγάέήϊΰΑΩΆᾳῷἄ",
    "אבגדהשׁבּלְ",
    "ابتثجآأؤئةىَّ",
    "कखगघक़ख़ज़डिीुূো",
    "กขคงจฉไใำุ์",
    "가각갂한국어힣",
    "ᄀ하ᅦᆨᇂ",
    "あいうがぎぱぴヴヷ日本語",
    "漢字簡體繁體",
    "豈更車賈﨑塚",
    "≠≮∄⊄⫝̸Å℃Ω",
    "😀🏽👩\u200d👩\u200d👧🇩🇪",
    "𝕬𝖆𠀀𠮷\U0002f800\U0002f81a\U0001d15e",
    "\u200b\u200c\u200d\u200e\ufeff\u2060x",
    "\x01\x02\t\n\r\x1b\x7f a",
    "e\u0301a\u0308\u0323o\u0302\u0301n\u0327\u0316",
    "\u0340\u0341\u0343\u0344\u0374\u037e\u0387",
    "\ufdd0\ufffe\uffff\ue000\uf8ff\U000f0000",
    "ﬁﬂＡｂ①²½㎏",
    "ẞȺⱥꭰᏸɐꞮ",
]

DATES = [0, 1, -1, 10**9, 1_700_000_000, 2**31 - 1, 2**31, 2**32, -(2**31), -2_082_844_800, -2_082_844_801,
         2_212_122_495, 2_212_122_496, 4_102_444_800, 253_402_300_799, -5_000_000_000]


def utf8_cut(text, limit=NAME_BYTES):
    data = text.encode()[:limit]
    return data.decode(errors="ignore").encode()


class TreeMaker:
    """Grows the tree in an empty folder. Sizes add up to `most_bytes` at most."""

    def __init__(self, folder, seed, most_items, most_bytes):
        self.root = os.fsencode(folder)
        self.random = random.Random(seed)
        self.items_left = self.random.randint(0, most_items)
        self.bytes_left = most_bytes
        self.files = []
        self.wild = self.random.random() < 0.8
        self.has_collisions = self.random.random() < 0.4

    def make(self):
        folders = [self.root]
        while self.items_left > 0:
            folder = self.random.choice(folders)
            path = os.path.join(folder, self.name(folder))
            self.items_left -= 1
            kind = self.random.random()
            if os.path.lexists(path) or len(path) > 1200:
                continue
            if kind < 0.15:
                os.mkdir(path)
                folders.append(path)
            elif kind < 0.22:
                self.link(path)
            elif kind < 0.29 and self.files:
                os.link(self.random.choice(self.files), path)
            else:
                self.file(path)
        for folder in reversed(folders):
            self.dress(folder)
        if self.random.random() < 0.02:
            self.crowd(folders[-1])
            self.dress(folders[-1])

    # Some thousands of files in one folder, so that its catalog has index nodes of more than one level.
    def crowd(self, folder):
        for i in range(self.random.randint(1000, 5000)):
            with open(os.path.join(folder, b"crowd %d %s" % (i, b"x" * self.random.randint(0, 200))), "wb"):
                pass

    def name(self, folder):
        siblings = os.listdir(folder)
        if self.has_collisions and siblings and self.random.random() < 0.2:
            return self.twin(self.random.choice(siblings))
        if not self.wild:
            return self.text(SCRIPTS[0], self.random.randint(1, 12))
        chance = self.random.random()
        if chance < 0.05:
            return self.not_utf8()
        if chance < 0.12:
            return self.text(self.random.choice(SCRIPTS), 255)
        if chance < 0.2:
            return self.text("".join(SCRIPTS), self.random.randint(1, 30))
        return self.text(self.random.choice(SCRIPTS), self.random.randint(1, 12))

    def text(self, letters, count):
        name = utf8_cut("".join(self.random.choice(letters) for _ in range(count)))
        # 7-Zip calls names of blanks alone otherwise.
        return name if name.strip(b" ") not in (b"", b".", b"..") else b"dots"

    def not_utf8(self):
        name = bytes(self.random.choice(b"abc \x80\xc3\xe9\xff\xed\xa0\xf0\x9f%:") for _ in range(self.random.randint(1, 20)))
        return name + b"\xe9"

    # A name that differs from another in case, form or characters that are not seen.
    def twin(self, name):
        try:
            text = name.decode()
        except UnicodeDecodeError:
            return name.swapcase()
        forms = [text.swapcase(), text.upper(), unicodedata.normalize("NFD", text), unicodedata.normalize("NFC", text),
                 text + "\u200d", "".join("%%%02X" % b for b in name)]
        return utf8_cut(self.random.choice(forms)) or b"twin"

    def link(self, path):
        target = self.random.choice([b"nowhere", b"./x/y", b"dangling " + b"t" * self.random.randint(1, 900)] +
                                    [os.path.basename(f) for f in self.files[-3:]])
        os.symlink(target, path)
        self.date(path)

    def size(self):
        chance = self.random.random()
        if chance < 0.2:
            size = 0
        elif chance < 0.6:
            size = self.random.randint(1, 3 * BLOCK)
        elif chance < 0.85:
            size = self.random.choice([1, 512, BLOCK, 2 * BLOCK, 16 * BLOCK]) + self.random.randint(-1, 1)
        else:
            size = self.random.choice([CHUNK // 2, CHUNK, 2 * CHUNK]) + self.random.randint(-BLOCK, BLOCK)
        size = min(size, self.bytes_left)
        self.bytes_left -= size
        return size

    def piece(self, size):
        kind = self.random.random()
        if kind < 0.3:
            return bytes(size)
        if kind < 0.6:
            return self.random.randbytes(size)
        word = self.random.randbytes(self.random.randint(1, 40))
        return (word * (size // len(word) + 1))[:size]

    def file(self, path):
        size = self.size()
        with open(path, "wb") as out:
            if self.random.random() < 0.15:
                self.write_with_holes(out, size)
            else:
                first = self.random.randint(0, size)
                out.write(self.piece(first))
                out.write(self.piece(size - first))
        self.files.append(path)
        self.dress(path)

    def write_with_holes(self, out, size):
        out.truncate(size)
        for _ in range(self.random.randint(0, 3)):
            start = self.random.randint(0, size)
            out.seek(start)
            out.write(self.piece(min(size - start, self.random.randint(0, 2 * BLOCK))))

    def dress(self, path):
        for _ in range(self.random.choice([0, 0, 0, 1, 3])):
            name = "user." + self.random.choice(["note", "com.example.tag", "größe", "x" * 100])
            value = self.random.randbytes(self.random.choice([1, 10, 300, 3000]))
            try:
                os.setxattr(path, name, value)
            except OSError as error:
                if error.errno not in (errno.ENOSPC, errno.EOPNOTSUPP):
                    raise
        if self.random.random() < 0.3:
            needed = 0o700 if os.path.isdir(path) else 0o400
            os.chmod(path, self.random.randint(0, 0o7777) | needed)
        self.date(path)

    def date(self, path):
        if self.random.random() < 0.5:
            def when():
                return self.random.choice(DATES) * 10**9 + self.random.choice([0, 1, 999_999_999, 500_000_000])
            os.utime(path, ns=(when(), when()), follow_symlinks=False)


def make_tree(folder, seed, most_items=80, most_bytes=8 << 20):
    TreeMaker(folder, seed, most_items, most_bytes).make()
