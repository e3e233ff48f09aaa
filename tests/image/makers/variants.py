"""Images as makers other than ours write them, each with what a reader must find in it, or what it must say."""
import collections
import os
import random
import struct
import subprocess
import tempfile
import unicodedata

import disks
import hfs
import udif

# expected: path to hfs.Item, or None where the image must be refused. refused: part of the refusal; with something
# expected, of its extraction alone. volume: the HFS+
# volume alone, for judges. unverified: part of what verify says of an image that can be read nonetheless. noted: part
# of what list says beside.
Variant = collections.namedtuple("Variant", "name image expected refused volume password unverified judged noted", defaults=[""])

VARIANTS = {}


def variant(make):
    VARIANTS[make.__name__] = make
    return make


def result(image, volume=None, refused=None, password=None, unverified=None, raw=None, judged=True):
    return Variant(None, image, volume.expected if volume else None, refused, raw, password, unverified, judged)


def text(size, seed=1):
    words = [b"lorem ", b"ipsum ", b"dolor\n", b"\0\0\0\0", b"sit amet "]
    chance, out = random.Random(seed), bytearray()
    while len(out) < size:
        out += chance.choice(words) * chance.randint(1, 9)
    return bytes(out[:size])


def noise(size, seed=1):
    return random.Random(seed).randbytes(size)


def furnish(v, many=40, fragments=12):
    """Every kind of thing that a volume holds."""
    nfd = lambda name: unicodedata.normalize("NFD", name)  # noqa: E731
    v.add_file("empty")
    v.add_file("text", text(5000), mode=0o100600, modified=1_234_567_890)
    v.add_file("noise", noise(70_000), attributes={"com.apple.quarantine": b"0081;x", "note": noise(700)})
    v.add_file("in pieces", noise(v.block * 40 + 7, 2), extents=fragments, backwards=True)
    v.add_file("both in pieces", noise(v.block * 21, 3), resources=noise(min(v.block * 15, 60_000), 4), extents=fragments,
               finder=b"TEXTttxt".ljust(32, b"\0"))
    folder = v.add_folder("folder", mode=0o40700, finder=bytes(8) + b"\x20\0" + bytes(22))
    for i in range(many):
        v.add_file(f"item {i:04}" + "x" * (i * 7 % 200), text(i * 37 % 3000, i), folder)
    deep = folder
    for i in range(6):
        deep = v.add_folder(f"level {i}", deep)
    v.add_file("at the bottom", b"deep", deep)
    names = v.add_folder("names")
    for name in ("Grüße", "français", "Ελληνικά", "Русский", "日本語", "한국어", "a/b", "Ω", "emoji 😀", "trailing ", "x" * 255):
        v.add_file(nfd(name), name.encode(), names)
    v.add_link("to text", "text")
    v.add_link("to nowhere", "../no/such thing")
    v.add_hard_links([("first name", hfs.ROOT), ("second name", folder), ("third name", deep)], b"one file", chained=False)
    v.add_hard_links([("other", hfs.ROOT), ("another", names)], text(9000), mode=0o100640)
    v.add_compressed("small", text(2000), 3)
    v.add_compressed("small, plain", noise(1000), 3, plain=True)
    v.add_compressed("large", text(300_000), 4)
    v.add_compressed("large, plain", noise(150_000), 4, plain=True)
    tagged = v.add_file("tagged", b"tagged", attributes={"short": b"x", "empty": b""})
    for i, (size, extents) in enumerate([(10_000, 1), (min(v.block * 20, 50_000), 8)]):
        value = noise(size, 50 + i)
        v.add_attribute(tagged, f"long {i}", value, extents)
        v.expected["tagged"].attributes[f"user.long {i}"] = value
    return v


def small(**options):
    v = hfs.Volume(**options)
    v.add_file("text", text(3000))
    v.add_file("noise", noise(9000), attributes={"note": b"of noise"})
    v.add_file("inside", b"inside", v.add_folder("folder"))
    return v


def bare(v, **options):
    """`judged` by 7-Zip too only where the volume ends with its last block, which is where 7-Zip looks."""
    raw = v.make()
    return result(disks.padded(raw), v, raw=raw, **{"judged": not v.tail, **options})


def in_image(v=None, judged=True, unverified=None, **options):
    v = v or small()
    raw = v.make()
    return result(udif.image(disks.padded(raw), **options), v, raw=raw, judged=judged, unverified=unverified)


# Volumes.

def shape(name, **options):
    VARIANTS[name] = lambda: bare(furnish(hfs.Volume(**options)))


for size in (512, 1024, 2048, 4096, 8192, 16384, 65536, 262144):
    shape(f"block_{size}", block=size)
for size in (1024, 2048, 4096, 8192, 16384, 32768):
    shape(f"nodes_{size}", catalog_node=max(size, 4096), extents_node=size, attributes_node=max(size, 2048))
shape("extents_nodes_512", extents_node=512, per_node=3)
shape("deep_trees", per_node=3, shuffle=7, spare=9)
shape("deepest_trees", per_node=2, shuffle=8, spare=3)
shape("case_sensitive", x=True, binary=True)
shape("case_sensitive_without_counts", x=True, binary=True, counts=False)
shape("hfsx_without_case", x=True)
shape("catalog_in_pieces", catalog_extents=30, per_node=4)
shape("part_of_a_node", tree_tail=4096, attributes_node=8192)
shape("bad_blocks", bad_blocks=17)
shape("numbers_reused", next_id=20, reused=True)
shape("trailing_sector", tail=512)
shape("trailing_half_block", tail=2048)
shape("trailing_half_block_unmarked", tail=2048, mark_last=False)
shape("trailing_large", block=65536, tail=65024, mark_last=False)
shape("first_block_later", first_block=50)


@variant
def attributes_in_pieces():
    v = small(block=1024)
    file = v.add_file("tagged", b"tagged", attributes={"short": b"x"})
    for count in (9, 16, 17, 40):
        value = noise(v.block * count, count)
        v.add_attribute(file, f"in {count}", value, count, backwards=True)
        v.expected["tagged"].attributes[f"user.in {count}"] = value
    return bare(v, judged=False)


@variant
def map_nodes():
    v = hfs.Volume(block=512, extents_node=512, per_node=2)
    v.add_file("in thousands of pieces", noise(512 * 18_000), extents=18_000)
    # 7-Zip takes overflow records of one file in two nodes for damage.
    outcome = bare(v, judged=False)
    assert v.overflow_tree.maps > 0
    return outcome


@variant
def folder_links():
    v = small()
    def fill(v, folder):
        v.add_file("in the linked one", b"x", folder)
    inside = v.add_folder("elsewhere")
    target = v.add_folder_links([("link one", hfs.ROOT), ("link two", inside)], fill)
    assert target
    for path in ("link one", "elsewhere/link two"):
        v.expected[path + "/in the linked one"] = hfs.Item("file", b"x", 0o644, hfs.DATE, {})
    return bare(v)


@variant
def old_hard_links():
    v = small()
    v.add_hard_links([("a", hfs.ROOT), ("b", hfs.ROOT), ("c", hfs.ROOT)], b"old", chained=False)
    return bare(v)


@variant
def odd_names():
    v = hfs.Volume(name="Vol/ume: \N{SNOWMAN} é")
    names = {"..": "..~18", ".": ".~19", "a:b": "a:b", "a\0b": "a␀b", "\0": "␀", "precomposed é": "precomposed é",
             "\u212b": "\u00c5", "e\u0301\u0323": "\u1eb9\u0301", "\ud800 alone": "\ufffd alone", "\uac00": "\uac00"}
    for name, seen in names.items():
        v.add_file(name, seen.encode(), noted=False)
        v.expected[seen] = hfs.Item("file", seen.encode(), 0o644, hfs.DATE, {})
    return bare(v, judged=False)


@variant
def composed_names():
    """As makers write them who never heard of decomposing."""
    v = small()
    v.add_file("précomposé", b"1")
    v.add_file("Å", b"2")
    return bare(v, judged=False)


@variant
def no_modes():
    v = hfs.Volume()
    v.add_file("no mode", b"x", mode=0)
    v.add_file("mode", b"x")
    return bare(v, judged=False)


@variant
def alternate_header_only():
    v = small()
    raw = bytearray(v.make())
    raw[1024:1536] = bytes(512)
    return result(bytes(raw), v, unverified="failed", judged=False)


@variant
def alternate_header_only_in_a_partition():
    v = small(tail=512)
    raw = bytearray(v.make())
    raw[1024:1536] = bytes(512)
    disk, _ = disks.guid([(disks.HFS, "Made", bytes(raw))])
    return result(disk, v, unverified="failed", judged=False)


@variant
def volume_shorter_than_its_partition():
    v = small()
    disk, _ = disks.guid([(disks.HFS, "Made", v.make() + bytes(100 * 512))])
    return result(disk, v, judged=False)


@variant
def compression_of_other_kinds():
    v = small()
    for kind in (7, 8, 9, 10, 11, 12):
        head = struct.pack("<4sIQ", b"fpmc", kind, 100) + b"\x06" + noise(50)
        v.add_file(f"kind {kind}", owner_flags=0x20, attributes={"com.apple.decmpfs": head}, noted=False)
    return bare(v, judged=False)._replace(refused="type 7) that is not known here")


def checksum(data, at):
    total = 0
    for i, byte in enumerate(data):
        total = (total << 8 & 0xFFFFFFFF) ^ (total + (0 if at <= i < at + 4 else byte) & 0xFFFFFFFF)
    return ~total & 0xFFFFFFFF


def journaled(order="<", start=512, dirty=True, clean_flag=False, journal_blocks=8, last=b"HFSJ"):
    """A volume whose catalog and header on disk are older than its journal."""
    v = small(clean=False, free=30)
    info_block = v.take(1)
    journal = v.take(journal_blocks)
    size = journal_blocks * v.block
    v.data[info_block] = struct.pack(">I32sQQ", 1, b"", journal * v.block, size).ljust(v.block, b"\0")
    for name, block, length, count in ((".journal_info_block", info_block, v.block, 1), (".journal", journal, size, journal_blocks)):
        item = v.add_file(name, noted=False)
        record = next(i for i, e in enumerate(v.catalog) if e[1] == name)
        parent, name, data = v.catalog[record]
        v.catalog[record] = (parent, name, data[:88] + v.fork(hfs.Fork(length, [(block, count)])) + data[168:])
        assert item
    v.attributes, v.last_mounted, v.journal_info = 0x2000 | (0x100 if clean_flag else 0), last, info_block
    new = v.make()
    raw = bytearray(new)
    pieces = []
    if dirty:
        # The root leaf of the catalog and the volume header come from the journal.
        catalog_at = int.from_bytes(v.header[272 + 16:272 + 20], "big") * v.block
        for at, size_of in ((1024 // 512 * 512, 512), (catalog_at + 4096, 4096), (v.bitmap_at, 4096)):
            pieces.append((at // 512, new[at:at + size_of]))
            raw[at:at + size_of] = noise(size_of, at) if at != 1024 else new[at:at + 32] + bytes(8) + new[at + 40:at + 512]
    head = journal * v.block
    blocks = b"".join(data for _, data in pieces)
    listing = struct.pack(order + "HHIII", 255, len(pieces) + 1, 4096 + len(blocks), 0, 0) + bytes(16)
    for number, data in pieces:
        listing += struct.pack(order + "QII", number, len(data), 0)
    listing = listing[:8] + struct.pack(order + "I", checksum(listing[:32], 8)) + listing[12:]
    transaction = listing.ljust(4096, b"\0") + blocks if pieces else b""
    end = start + len(transaction)
    end = end if end <= size else end - size + 512
    fields = struct.pack(order + "IIQQQIII", 0x4A4E4C78, 0x12345678, start, end, size, 4096, 0, 512)
    fields = fields[:36] + struct.pack(order + "I", checksum(fields, 36)) + fields[40:]
    raw[head:head + 44] = fields
    room = size - start
    raw[head + start:head + start + len(transaction[:room])] = transaction[:room]
    rest = transaction[room:]
    raw[head + 512:head + 512 + len(rest)] = rest
    return v, bytes(raw)


for order, spelled in (("<", "little"), (">", "big")):
    for start, where in ((512, "begin"), (30_000 - 30_000 % 512, "around")):
        def dirty(order=order, start=start):
            v, raw = journaled(order, start)
            return result(raw, v, judged=False)
        VARIANTS[f"dirty_journal_{spelled}_{where}"] = dirty


@variant
def empty_journal():
    v, raw = journaled(dirty=False)
    return result(raw, v, raw=raw)


@variant
def clean_journaled():
    v, raw = journaled(dirty=False, clean_flag=True)
    return result(raw, v, raw=raw)


@variant
def dirty_journal_in_an_image():
    v, raw = journaled()
    disk, regions = disks.guid([(disks.HFS, "Made", raw)])
    return result(udif.image(disk, regions), v, judged=False)


# Disks.

@variant
def guid_disk():
    v = furnish(hfs.Volume())
    raw = v.make()
    disk, regions = disks.guid([(disks.EFI, "EFI", noise(30_000)), (disks.HFS, "Made", raw)])
    return result(udif.image(disk, regions, kinds=(udif.ZLIB, udif.RAW)), v, raw=raw)


@variant
def guid_disk_as_it_is():
    v = small()
    return result(disks.guid([(disks.EFI, "EFI", noise(30_000)), (disks.HFS, "Made", v.make())])[0], v, judged=False)


@variant
def guid_disk_with_its_backup_only():
    v = small()
    return result(disks.guid([(disks.HFS, "Made", v.make())], primary=False)[0], v, judged=False)


@variant
def guid_disk_without_a_backup():
    v = small()
    return result(disks.guid([(disks.HFS, "Made", v.make())], backup=False)[0], v, judged=False)


@variant
def guid_disk_of_4096_byte_sectors():
    v = small()
    return result(disks.guid([(disks.HFS, "Made", v.make())], sector=4096)[0], v, judged=False)


@variant
def guid_disk_with_a_few_slots():
    v = small()
    return result(disks.guid([(disks.HFS, "Made", v.make())], slots=8)[0], v, judged=False)


def apple_parts(v, kind="Apple_HFS"):
    return [("Apple_Driver43", "Macintosh", noise(20_000)), ("Apple_Driver_ATA", "Macintosh", noise(512 * 9)),
            ("Apple_Patches", "Patch Partition", bytes(512 * 8)), (kind, "Made", v.make()), ("Apple_Free", "Extra", bytes(512 * 10))]


def apple_disk(name, kind, unit, image, x=False):
    def make():
        v = small(x=x, binary=x)
        disk, regions = disks.apple(apple_parts(v, kind), unit)
        return result(udif.image(disk, regions, kinds=(udif.ADC, udif.ZLIB)) if image else disk, v, judged=image and unit == 512)
    VARIANTS[name] = make


apple_disk("apple_map", "Apple_HFS", 512, True)
apple_disk("apple_map_hfsx", "Apple_HFSX", 512, True, True)
apple_disk("apple_map_as_it_is", "Apple_HFS", 512, False)
apple_disk("apple_map_2048", "Apple_HFS", 2048, False)


@variant
def master_boot_record():
    v = small()
    disk, regions = disks.master([(0x0C, noise(9000)), (0xAF, v.make())])
    return result(udif.image(disk, regions), v, judged=False)


@variant
def wrapper():
    v = small()
    return result(disks.wrapped(v.make()), v, judged=False)


@variant
def wrapper_in_an_apple_map():
    v = small()
    disk, regions = disks.apple([("Apple_HFS", "Made", disks.wrapped(v.make(), 2048, 30, 7))])
    return result(udif.image(disk, regions), v, judged=False)


@variant
def older_hfs():
    raw = bytearray(disks.wrapped(small().make()))
    raw[1024 + 124:1024 + 130] = bytes(6)
    return result(bytes(raw), refused="HFS", judged=False)


@variant
def apfs():
    kind = disks.uuid.UUID("7C3457EF-0000-11AA-AA11-00306543ECAC")
    return result(disks.guid([(kind, "Made", noise(50_000))])[0], refused="HFS", judged=False)


@variant
def two_volumes():
    v = small()
    disk, regions = disks.guid([(disks.HFS, "First", v.make()), (disks.HFS, "Second", small(name="Second").make())])
    return result(udif.image(disk, regions), v, judged=False)._replace(noted="more than one HFS+ volume")


# Images.

def image(name, judged=True, unverified=None, **options):
    VARIANTS[name] = lambda: in_image(judged=judged, unverified=unverified, **options)


EVERY = (udif.RAW, udif.ZLIB, udif.BZIP2, udif.LZMA, udif.ADC)
image("every_chunk_type", kinds=EVERY, chunk=16)
for kind, called in ((udif.RAW, "raw"), (udif.ZLIB, "zlib"), (udif.BZIP2, "bzip2"), (udif.LZMA, "lzma"), (udif.ADC, "adc")):
    image(f"only_{called}", kinds=(kind,))
image("chunks_out_of_order", order=3, kinds=EVERY, chunk=16, judged=False)
image("chunks_with_gaps", gap=77, judged=False)
image("without_checksums", summed=False)
image("bytes_behind_a_checksum", junk=b"left over", judged=False)
image("data_fork_later", fork_at=4096)
image("table_offset", table_offset=1000)
image("comments", comments=True)
image("ignored_runs", ignore=True)
image("zeros_left_out", leave_out=True, summed=False, judged=False)
image("no_end_offset", end_offset=False)
image("no_buffers", buffers=0)
image("sectors_not_counted", sectors=0, summed=False, judged=False)
image("odd_list", style="odd", judged=False)
image("plain_list", style="plain", judged=False)
image("binary_list", style="binary", judged=False)
image("resource_fork", style="resources", judged=False)
image("trailer_first", trailer="start", judged=False)
image("one_chunk", chunk=1 << 20)
image("a_sector_a_chunk", chunk=1, kinds=(udif.ZLIB, udif.RAW))
image("no_segments", segments=0)


@variant
def several_segments():
    v = small()
    return result(udif.image(v.make(), segments=3), refused="segment", judged=False)


@variant
def sparse():
    return result(b"sprs" + noise(8188), refused="a sparse image is not supported", judged=False)


@variant
def cut_short():
    return result(udif.image(small().make())[:-700], refused="failed", judged=False)


# Containers.

def encrypted(name, **options):
    password = options.pop("password", "päss word")
    def make():
        v = small()
        plain = udif.image(v.make()) if not options.pop("bare", False) else v.make()
        return result(udif.container(plain, options.pop("passwords", [password]), **options), v, password=password)
    VARIANTS[name] = make


encrypted("aes256_512")
encrypted("aes128_512", bits=128)
encrypted("aes128_4096", bits=128, block=4096, data_offset=122880)
encrypted("aes256_4096", block=4096, data_offset=122880)
encrypted("container_block_1024", block=1024, data_offset=8192)
encrypted("container_block_65536", block=65536, data_offset=65536)
encrypted("data_offset_odd", data_offset=5000, block=4096)
encrypted("encrypted_bare_volume", bare=True, block=4096)
encrypted("second_slot", passwords=["another", "päss word"])
encrypted("fourth_slot", passwords=["another", "more", "and more", "päss word"], certificates=2)
encrypted("certificate_first", certificates=1)
encrypted("entries_far_away", entry_at=100_000)
encrypted("bytes_behind_the_data", trailing=b"\0" * 999)


@variant
def wrong_password():
    return result(udif.container(udif.image(small().make()), ["another"], block=4096), refused="Authentication error",
                  password="päss word", judged=False)


@variant
def container_version_1():
    return result(noise(8192) + bytes(1268) + b"cdsaencr", refused="version 1", judged=False)


@variant
def container_of_other_blocks():
    raw = bytearray(udif.container(small().make(), ["x"], block=4096))
    raw[52:56] = struct.pack(">I", 24)
    return result(bytes(raw), refused="blocks of 24 bytes", password="x", judged=False)


# What other programs write.

@variant
def hybrid_of_xorriso():
    """A volume beside an ISO 9660 one, in an Apple partition map. Of 8n blocks its allocation file lacks the last 8."""
    with tempfile.TemporaryDirectory() as scratch:
        source = os.path.join(scratch, "source")
        os.makedirs(os.path.join(source, "folder/empty"))
        expected = {"folder": None, "folder/empty": None, "text": text(8000), "folder/noise": noise(70_000),
                    "Grüße": b"names", "folder/none": b""}
        for path, data in expected.items():
            if data is not None:
                with open(os.path.join(source, path), "wb") as out:
                    out.write(data)
        for path in expected:
            os.chmod(os.path.join(source, path), 0o755)
            os.utime(os.path.join(source, path), (hfs.DATE, hfs.DATE))
        disk = os.path.join(scratch, "disk.iso")
        subprocess.run(["xorriso", "-as", "mkisofs", "-quiet", "-hfsplus", "-V", "Made", "-o", disk, source], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(disk, "rb") as file:
            raw = file.read()
    v = hfs.Volume()
    for path, data in expected.items():
        untyped = {} if data is None else {"user.com.apple.FinderInfo": b"????????".ljust(32, b"\0")}
        v.expected[path] = hfs.Item("folder" if data is None else "file", data, 0o755, hfs.DATE, untyped)
    return result(raw, v, judged=False)
