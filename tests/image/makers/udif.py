"""UDIF images of a disk as makers other than ours put them together, and the encrypted container, version 2."""
import base64
import bz2
import hashlib
import hmac
import lzma
import random
import struct
import subprocess
import zlib

SECTOR = 512
ZERO, RAW, IGNORE, COMMENT, END = 0, 1, 2, 0x7FFFFFFE, 0xFFFFFFFF
ADC, ZLIB, BZIP2, LZMA = 0x80000004, 0x80000005, 0x80000006, 0x80000008


def adc(data):
    """Copies of all three lengths where they are to be had, plain bytes elsewhere."""
    out, at, plain, seen = bytearray(), 0, bytearray(), {}

    def flush():
        for i in range(0, len(plain), 128):
            piece = plain[i:i + 128]
            out.append(0x7F + len(piece))
            out.extend(piece)
        plain.clear()
    while at < len(data):
        key = data[at:at + 4]
        back = at - seen.get(key, at)
        seen[key] = at
        length = 0
        while back and at + length < len(data) and length < 67 and data[at + length] == data[at + length - back]:
            length += 1
        if back and back <= 1024 and 3 <= length <= 18:
            flush()
            out += bytes([(length - 3) << 2 | (back - 1) >> 8, (back - 1) & 255])
        elif back and back <= 65536 and length >= 4:
            flush()
            out += bytes([0x40 | length - 4, (back - 1) >> 8, (back - 1) & 255])
        else:
            plain.append(data[at])
            at += 1
            continue
        at += length
    flush()
    return bytes(out)


PACK = {RAW: bytes, ADC: adc, ZLIB: zlib.compress, BZIP2: bz2.compress, LZMA: lambda d: lzma.compress(d),
        ZERO: lambda d: b"", IGNORE: lambda d: b""}


def checksum(value, kind=2, junk=b""):
    return struct.pack(">III", kind, 32 if kind == 2 else 0, value if kind == 2 else 0) + junk.ljust(124, b"\0")


def image(disk, regions=None, kinds=(ZLIB,), chunk=64, summed=True, order=None, gap=0, fork_at=0, table_offset=0,
          comments=False, leave_out=False, style="xml", trailer="end", junk=b"", segments=1, sectors=None, end_offset=True,
          variant=None, ignore=False, buffers=None):
    """order: seed of the order in which chunks are stored. leave_out: zeros get no run at all."""
    regions = regions or [("whole disk (Apple_HFS : 0)", 0, len(disk) // SECTOR)]
    jobs, tables = [], []
    number = 0
    for name, first, count in regions:
        runs = []
        for at in range(0, count, chunk):
            size = min(chunk, count - at)
            plain = disk[(first + at) * SECTOR:(first + at + size) * SECTOR]
            assert len(plain) == size * SECTOR, (name, first, count)
            kind = kinds[number % len(kinds)]
            number += 1
            if not any(plain):
                if leave_out:
                    continue
                kind = IGNORE if ignore else ZERO
            run = [kind, at, size, 0, 0, PACK[kind](plain), plain]
            runs.append(run)
            jobs.append(run)
        tables.append((name, first, count, runs))
    stored = [r for r in jobs if r[5]]
    if order is not None:
        random.Random(order).shuffle(stored)
    fork = b"\xAA" * table_offset
    for run in stored:
        fork += b"\xBB" * gap
        run[3], run[4] = len(fork) - table_offset, len(run[5])
        fork += run[5]
    entries, sums = [], b""
    for i, (name, first, count, runs) in enumerate(tables):
        crc = 0
        for run in runs:
            if run[0] != IGNORE:
                crc = zlib.crc32(run[6], crc)
        sums += struct.pack(">I", crc)
        table = struct.pack(">4sIQQQII", b"mish", 1, first, count, table_offset,
                            chunk + 8 if buffers is None else buffers, (i - 1) & 0xFFFFFFFF) + bytes(24)
        table += checksum(crc, 2 if summed else 0, junk)
        lines = [struct.pack(">IIQQQQ", r[0], 0, r[1], r[2], r[3], r[4]) for r in runs]
        if comments:
            for at in range(len(lines) - 1, -1, -2):
                lines.insert(at, struct.pack(">I4sQQQQ", COMMENT, b"+beg", runs[at][1], 0, runs[at][3], 0))
        lines.append(struct.pack(">IIQQQQ", END, 0, count, 0, len(fork) if end_offset else 0, 0))
        entries.append((i - 1, name, table + struct.pack(">I", len(lines)) + b"".join(lines)))
    listing = {"xml": xml_list, "odd": odd_list, "binary": binary_list, "resources": resource_fork,
               "plain": plain_list}[style](entries)
    head = 512 if trailer == "start" else 0
    at = head + fork_at
    body = b"\xCC" * fork_at + fork
    here = head + len(body)
    is_fork = style == "resources"
    koly = struct.pack(">4sIIIQQQQQ", b"koly", 4, 512, 1, 0, at, len(fork), here if is_fork else 0,
                       len(listing) if is_fork else 0)
    koly += struct.pack(">II16s", 1, segments, bytes(range(16))) + checksum(zlib.crc32(fork), 2 if summed else 0, junk)
    koly += struct.pack(">QQ", 0 if is_fork else here, 0 if is_fork else len(listing)) + bytes(120)
    koly += checksum(zlib.crc32(sums), 2 if summed else 0, junk)
    koly += struct.pack(">IQ", variant or (1 if len(regions) > 1 else 2),
                        len(disk) // SECTOR if sectors is None else sectors)
    koly = koly.ljust(512, b"\0")
    return {"end": body + listing + koly, "start": koly + body + listing, "both": body + listing + koly}[trailer]


def wrap(text, width, before="\t\t\t\t"):
    return "\n".join(before + text[i:i + width] for i in range(0, len(text), width))


def xml_list(entries, data=lambda b: "\n" + wrap(base64.b64encode(b).decode(), 44) + "\n\t\t\t\t", named=True):
    out = '<?xml version="1.0" encoding="UTF-8"?>\n'
    out += '<!DOCTYPE plist PUBLIC "-//Apple Computer//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n'
    out += '<plist version="1.0">\n<dict>\n\t<key>resource-fork</key>\n\t<dict>\n\t\t<key>blkx</key>\n\t\t<array>\n'
    for number, name, table in entries:
        named_too = f"<key>CFName</key><string>{name}</string>" if named else ""
        out += f"\t\t\t<dict><key>Attributes</key><string>0x0050</string>{named_too}<key>Data</key><data>{data(table)}</data>"
        out += f"<key>ID</key><string>{number}</string><key>Name</key><string>{name}</string></dict>\n"
    out += "\t\t</array>\n\t\t<key>cSum</key><array><dict><key>Attributes</key><string>0x0000</string><key>Data</key>"
    out += "<data>AAIAAAAA</data><key>ID</key><string>0</string><key>Name</key><string></string></dict></array>\n"
    return (out + "\t</dict>\n</dict>\n</plist>\n").encode()


def plain_list(entries):
    """As short as can be: no declaration, no names but one, zero bytes behind it."""
    text = xml_list(entries, lambda b: base64.b64encode(b).decode(), named=False).decode()
    return text[text.index("<plist"):].encode() + bytes(3)


def odd_list(entries):
    """A byte order mark, comments, line ends of another system, white space within every group of digits."""
    def data(table):
        text = base64.b64encode(table).decode()
        return "\r\n \t" + " \r\n\t ".join(text[i:i + 3] for i in range(0, len(text), 3)) + " "
    text = xml_list(entries, data).decode().replace("\n", "\r\n")
    text = text.replace("<dict>", "<dict  kind = 'a>b'\r\n>").replace("<array>", "<!-- tables --><array>")
    return b"\xef\xbb\xbf" + text.encode()


def binary_list(entries):
    import plistlib
    blocks = [{"Attributes": "0x0050", "Data": table, "ID": str(number), "Name": name} for number, name, table in entries]
    return plistlib.dumps({"resource-fork": {"blkx": blocks}}, fmt=plistlib.FMT_BINARY)


def resource_fork(entries):
    """A classic resource fork (Inside Macintosh: More Macintosh Toolbox, chapter 1)."""
    data, references, names = b"", b"", b""
    for number, name, table in entries:
        text = name.encode("mac-roman")
        references += struct.pack(">hHBBHI", number, len(names), 0x50, len(data) >> 16, len(data) & 0xFFFF, 0)
        names += bytes([len(text)]) + text
        data += struct.pack(">I", len(table)) + table
    other = struct.pack(">hHBBHI", 0, 0xFFFF, 0, len(data) >> 16, len(data) & 0xFFFF, 0)
    data += struct.pack(">I", 6) + b"\0\2\0\0\0\0"
    types = struct.pack(">H4sHH4sHH", 1, b"cSum", 0, 18, b"blkx", len(entries) - 1, 18 + 12)
    listing = types + other + references
    header = struct.pack(">IIII", 256, 256 + len(data), len(data), 28 + len(listing) + len(names))
    mapping = header + bytes(4 + 2) + struct.pack(">HHH", 0, 28, 28 + len(listing)) + listing + names
    return header.ljust(256, b"\0") + data + mapping


def openssl(cipher, key, iv, data, padded=False):
    command = ["openssl", "enc", "-e", "-" + cipher, "-K", key.hex(), "-iv", iv.hex()] + ([] if padded else ["-nopad"])
    return subprocess.run(command, input=data, stdout=subprocess.PIPE, check=True).stdout


def container(plain, passwords, bits=256, block=512, data_offset=122368, iterations=1000, certificates=0, entry_at=None,
              trailing=b""):
    """Any of the passwords opens it. certificates: key entries of another kind in front of theirs."""
    chance = random.Random(5)
    aes, mac = chance.randbytes(bits // 8), chance.randbytes(20)
    slots, bodies = [], b""
    at = entry_at or 76 + 20 * (certificates + len(passwords))
    for _ in range(certificates):
        body = b"\0\0\0\x2a" + chance.randbytes(560)
        slots.append((2, at + len(bodies), len(body)))
        bodies += body
    for password in passwords:
        salt, iv = chance.randbytes(20), chance.randbytes(8)
        key = hashlib.pbkdf2_hmac("sha1", password.encode(), salt, iterations, 24)
        blob = openssl("des-ede3-cbc", key, iv, aes + mac + b"CKIE\0", True)
        body = struct.pack(">IIII", 103, 0, iterations, 20) + salt.ljust(32, b"\0") + struct.pack(">I", 8)
        body += iv.ljust(32, b"\0") + struct.pack(">IIIII", 192, 17, 7, 6, len(blob)) + blob
        slots.append((1, at + len(bodies), 616))
        bodies += body.ljust(616, b"\0")
    head = struct.pack(">8sIIIIIII", b"encrcdsa", 2, 16, 5, 0x80000001, bits, 91, 160) + bytes(range(16))
    head += struct.pack(">IQQI", block, len(plain), data_offset, len(slots))
    head += b"".join(struct.pack(">IQQ", *slot) for slot in slots)
    head = head.ljust(at, b"\0") + bodies
    assert len(head) <= data_offset, len(head)
    out = head.ljust(data_offset, b"\xEE")
    for i in range(-(-len(plain) // block)):
        iv = hmac.new(mac, struct.pack(">I", i), "sha1").digest()[:16]
        out += openssl(f"aes-{bits}-cbc", aes, iv, plain[i * block:(i + 1) * block].ljust(block, b"\0"))
    return out + trailing
