"""A FAT32 stick, mounted through UDisks2 by the person at the seat, goes into an image made inside the guest."""
import os
import random
import shutil

from bench import composed, require, require_same, run

NAMES = ["readme.txt", "DCIM/100CAM/IMG_0001.JPG", "DCIM/100CAM/IMG_0002.JPG", "Documents/Übersicht & Plan.odt",
         "Documents/日本語.txt", "Documents/empty", "a long name with many words in it, so that it needs several entries.txt"]


def make_stick(disk, folder, label):
    """A disk with an MBR and one FAT32 partition that holds what the folder holds."""
    partition = f"{disk}.partition"
    run("truncate", "-s", "64M", disk)
    run("bash", "-c", f"printf 'label: dos\\nlabel-id: 0xcafe0001\\nstart=2048, type=c\\n' | /usr/sbin/sfdisk -q {disk}")
    run("truncate", "-s", (64 << 20) - 2048 * 512, partition)
    run("/usr/sbin/mkfs.fat", "-F", "32", "-n", label, partition)
    run("env", "LC_ALL=C.UTF-8", "MTOOLS_SKIP_CHECK=1", "mcopy", "-Q", "-s", "-m", "-i", partition,
        *(os.path.join(folder, name) for name in sorted(os.listdir(folder))), "::/")
    run("dd", f"if={partition}", f"of={disk}", "bs=1M", "seek=1", "conv=notrunc,sparse", "status=none")


def make_folder(folder):
    chance = random.Random(7)
    for name in NAMES:
        os.makedirs(folder / os.path.dirname(name), exist_ok=True)
        size = 0 if name.endswith("empty") else chance.randrange(1, 3_000_000)
        (folder / name).write_bytes(chance.randbytes(size))
        os.utime(folder / name, (1_600_000_000, 1_600_000_000))  # FAT counts in steps of two seconds


def contents(listing):
    """What FAT and 7-Zip both keep."""
    kept = ("kind", "size", "sha256")
    return {path: {field: facts[field] for field in kept if field in facts} for path, facts in listing.items()}


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    make_folder(source)
    make_stick(disk, source, "KINGSTICK")
    machine = place.start_guest()
    tool = place.tool_in_guest("hdiutil")
    device = machine.plug(str(disk), "KING0001")
    machine.await_sh(f"udisksctl info -b {device}1")
    machine.sh(machine.as_person(f"udisksctl mount --no-user-interaction -b {device}1"))
    mounted = "/media/person/KINGSTICK"
    require_same(contents(composed(place.list_in_guest(mounted))), contents(composed(place.list_here(source))),
                 "the stick, mounted")
    machine.sh(machine.as_person(f"{tool} create -fs HFS+ -volname KINGSTICK -srcfolder {mounted} -plist stick.dmg && "
                                 f"{tool} verify stick.dmg && {tool} compare stick.dmg {mounted}"))
    machine.sh("cp /home/person/stick.dmg /host/")
    machine.sh(machine.as_person(f"udisksctl unmount --no-user-interaction -b {device}1"))
    machine.pull("KING0001")
    machine.await_sh(f"! test -e {device}")
    out = place.scratch / "extracted"
    run("7zz", "x", "-y", f"-o{out}", place.share / "stick.dmg")
    extracted = contents(composed(place.list_here(out / "KINGSTICK")))
    require_same(extracted, contents(composed(place.list_here(source))), "the image, extracted by 7-Zip")
    require(len(extracted) > len(NAMES), "no folders were compared")
    given_back = place.scratch / "given back"
    given_back.mkdir()
    run(place.tool("hdiutil"), "extract", "-to", given_back, place.share / "stick.dmg")
    require_same(contents(composed(place.list_here(given_back))), extracted, "the image, extracted by ourselves")
    shutil.rmtree(out)
    return f"{len(extracted)} items went from the stick into an image and out again"
