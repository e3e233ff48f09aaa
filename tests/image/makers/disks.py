"""Disks around volumes: GUID partition table (UEFI specification, chapter 5), Apple partition map, master boot record,
the older HFS volume that wraps an HFS+ one."""
import struct
import uuid
import zlib

SECTOR = 512
HFS = uuid.UUID("48465300-0000-11AA-AA11-00306543ECAC")
EFI = uuid.UUID("C12A7328-F81F-11D2-BA4B-00A0C93EC93B")


def padded(data, unit=SECTOR):
    return data + bytes(-len(data) % unit)


def mbr(entries):
    out = bytes(446)
    for kind, first, count in entries:
        out += struct.pack("<B3sB3sII", 0, b"\xff\xff\xfe", kind, b"\xff\xff\xfe", first, count)
    return out.ljust(510, b"\0") + b"\x55\xaa"


def guid(parts, sector=SECTOR, primary=True, backup=True, slots=128):
    """parts: (type, name, bytes). Regions of the disk as an image's tables name them beside it."""
    table_sectors = slots * 128 // sector
    at = 2 + table_sectors
    at += -at % 8
    body, entries, regions = {}, b"", []
    for number, (kind, name, data) in enumerate(parts, 1):
        data = padded(data, sector)
        last = at + len(data) // sector - 1
        entries += kind.bytes_le + uuid.UUID(int=number).bytes_le + struct.pack("<QQQ", at, last, 0)
        entries += name.encode("utf-16-le").ljust(72, b"\0")
        body[at] = data
        regions.append((f"{name} (Apple_HFS : {number})", at, last - at + 1))
        at = last + 1 + 3
    entries = entries.ljust(slots * 128, b"\0")
    total = at + table_sectors + 1
    def header(own, other, table):
        def text(crc):
            return struct.pack("<8sIIIIQQQQ16sQIII", b"EFI PART", 0x10000, 92, crc, 0, own, other, 2 + table_sectors,
                               total - table_sectors - 2, uuid.UUID(int=99).bytes_le, table, slots, 128,
                               zlib.crc32(entries))
        return text(zlib.crc32(text(0))).ljust(sector, b"\0")
    disk = bytearray(total * sector)
    disk[:512] = mbr([(0xEE, 1, total - 1)])
    if primary:
        disk[sector:2 * sector] = header(1, total - 1, 2)
        disk[2 * sector:(2 + table_sectors) * sector] = entries
    for first, data in body.items():
        disk[first * sector:first * sector + len(data)] = data
    if backup:
        disk[-sector:] = header(total - 1, 1, total - 1 - table_sectors)
        disk[-(1 + table_sectors) * sector:-sector] = entries
    whole = [("Protective Master Boot Record (MBR : 0)", 0, 1), ("GPT Header (Primary GPT Header : 1)", 1, 1),
             ("GPT Partition Data (Primary GPT Table : 2)", 2, table_sectors)]
    end = 2 + table_sectors
    for region in regions:
        if region[1] > end:
            whole.append((" (Apple_Free : 9)", end, region[1] - end))
        whole.append(region)
        end = region[1] + region[2]
    whole.append((" (Apple_Free : 9)", end, total - 1 - table_sectors - end))
    whole.append(("GPT Partition Data (Backup GPT Table : 4)", total - 1 - table_sectors, table_sectors))
    whole.append(("GPT Header (Backup GPT Header : 5)", total - 1, 1))
    return bytes(disk), whole


def apple(parts, unit=SECTOR, slots=15):
    """parts: (type, name, bytes), drivers and free space among them as the caller likes; the map itself first."""
    at = 1 + slots
    entries = [("Apple_partition_map", "Apple", 1, slots)]
    body = {}
    for kind, name, data in parts:
        data = padded(data, unit)
        entries.append((kind, name, at, len(data) // unit))
        body[at] = data
        at += len(data) // unit
    disk = bytearray(at * unit)
    disk[:512] = struct.pack(">2sHIHHIH", b"ER", unit, at, 1, 1, 0, 0).ljust(512, b"\0")
    for i, (kind, name, first, count) in enumerate(entries, 1):
        entry = struct.pack(">2sHIII32s32sIII", b"PM", 0, len(entries), first, count, name.encode(), kind.encode(), 0, count,
                            0x37)
        disk[i * unit:i * unit + 512] = entry.ljust(512, b"\0")
    for first, data in body.items():
        disk[first * unit:first * unit + len(data)] = data
    scale = unit // SECTOR
    regions = [("Driver Descriptor Map (DDM : 0)", 0, scale)]
    regions += [(f"{name} ({kind} : {i})", first * scale, count * scale)
                for i, (kind, name, first, count) in enumerate(entries, 1)]
    return bytes(disk), regions


def master(parts):
    at, entries, body = 63, [], []
    for kind, data in parts:
        data = padded(data)
        entries.append((kind, at, len(data) // SECTOR))
        body.append((at, data))
        at += len(data) // SECTOR
    disk = bytearray(at * SECTOR)
    disk[:512] = mbr(entries)
    for first, data in body:
        disk[first * SECTOR:first * SECTOR + len(data)] = data
    return bytes(disk), [("Master Boot Record (MBR : 0)", 0, 1), (" (Apple_Free : 1)", 1, 62)] + [
        (f" (Apple_HFS : {i})", first, count) for i, (_, first, count) in enumerate(entries, 2)]


def wrapped(volume, block=4096, first_sector=24, start=3):
    """An HFS volume whose allocation blocks `start` and on are the embedded volume."""
    volume = padded(volume, block)
    count = len(volume) // block
    blocks = start + count
    directory = struct.pack(">2sIIHHHHHIIHIH", b"BD", 0xB0000000, 0xB0000000, 0x100, 4, 3, 0, blocks, block, block,
                            first_sector, 32, 0)
    directory += b"\x0bHFS Wrapper".ljust(28, b"\0")
    directory = directory.ljust(124, b"\0") + struct.pack(">2sHH", volume[1024:1026], start, count)
    out = bytearray(first_sector * 512 + blocks * block + 1024)
    out[1024:1024 + len(directory)] = directory
    out[-1024:-1024 + len(directory)] = directory
    at = first_sector * 512 + start * block
    out[at:at + len(volume)] = volume
    return bytes(out)
