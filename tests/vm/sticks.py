"""Sticks as files of this machine: made, filled, and read again without mounting anything. Standard library only,
beside sfdisk, mkfs.fat and mtools."""
import os
import random

from bench import run

FIRST_SECTOR = 2048
FIRST_BYTE = FIRST_SECTOR * 512
MTOOLS = ("env", "LC_ALL=C.UTF-8", "MTOOLS_SKIP_CHECK=1")
NAMES = ["readme.txt", "DCIM/100CAM/IMG_0001.JPG", "DCIM/100CAM/IMG_0002.JPG", "Documents/Übersicht & Plan.odt",
         "Documents/日本語.txt", "Documents/empty", "a long name with many words in it, so that it needs several entries.txt"]


def make_folder(folder, seed=7, most=3_000_000):
    """What a camera and an office leave on a stick, from the seed alone."""
    chance = random.Random(seed)
    for name in NAMES:
        os.makedirs(folder / os.path.dirname(name), exist_ok=True)
        size = 0 if name.endswith("empty") else chance.randrange(1, most)
        (folder / name).write_bytes(chance.randbytes(size))
        os.utime(folder / name, (1_600_000_000, 1_600_000_000))  # FAT counts in steps of two seconds


def make_partition(disk, megabytes, kind="c"):
    """A disk with an MBR and one partition from the first mebibyte on; gives the partition's size."""
    run("rm", "-f", disk)
    run("truncate", "-s", f"{megabytes}M", disk)
    run("bash", "-c", f"printf 'label: dos\\nstart={FIRST_SECTOR}, type={kind}\\n' | /usr/sbin/sfdisk -q {disk}")
    return (megabytes << 20) - FIRST_BYTE


def make_fat(disk, folder, label, megabytes=64):
    """A disk with one FAT32 partition that holds what the folder holds."""
    partition = f"{disk}.partition"
    bytes = make_partition(disk, megabytes)
    run("rm", "-f", partition)
    run("truncate", "-s", bytes, partition)
    run("/usr/sbin/mkfs.fat", "-F", "32", "-n", label, partition)
    if names := sorted(os.listdir(folder)):
        run(*MTOOLS, "mcopy", "-Q", "-s", "-m", "-i", partition, *(os.path.join(folder, name) for name in names), "::/")
    run("dd", f"if={partition}", f"of={disk}", "bs=1M", "seek=1", "conv=notrunc,sparse", "status=none")
    run("rm", partition)
    return disk


def read_fat(disk, folder):
    """Copies what the disk's FAT volume holds into the folder, which is made."""
    os.makedirs(folder)
    run(*MTOOLS, "mcopy", "-Q", "-s", "-m", "-n", "-i", f"{disk}@@{FIRST_BYTE}", "::/*", folder)
    return folder


def contents(listing):
    """Of a listing, what FAT and 7-Zip both keep."""
    kept = ("kind", "size", "sha256")
    return {path: {field: facts[field] for field in kept if field in facts} for path, facts in listing.items()}
