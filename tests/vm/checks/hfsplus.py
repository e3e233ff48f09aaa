"""The kernel's own HFS+ driver reads our volumes, writes onto them, and what it wrote is read by others."""
import os
import random
import socket
import unicodedata

from bench import composed, require, require_same, run

SCRIPTS = ["plain.txt", "Grüße.txt", "français à côté", "Ελληνικά κείμενα", "Русский текст", "עברית", "العربية", "हिन्दी",
           "ไทย", "日本語の名前", "漢字", "한국어 파일", "Tiếng Việt", "Ǆ ǅ ǆ İ ı ß", "a:b", "back\\slash", " leading", "trailing ",
           "new\nline", "quote'\"", "..three", "%41", "~", "€ ™ №", "q\u0307\u0323", "A\u030a composed"]


def write(path, data=b"", mode=0o644, when=1_600_000_000):
    with open(path, "wb") as file:
        file.write(data)
    os.chmod(path, mode)
    os.utime(path, (when, when))


def make_tree(root, seed):
    """Every kind of thing that the driver can show, from the seed alone."""
    chance = random.Random(seed)
    os.makedirs(f"{root}/names")
    for name in SCRIPTS:
        write(f"{root}/names/{name}", name.encode() * 3, when=chance.randrange(10**9, 2 * 10**9))
        os.mkdir(f"{root}/names/{name} folder")
    os.mkdir(f"{root}/longest")
    for name in ("x" * 255, "é" * 127, "각" * 85, "漢" * 85):  # as many units as fit: 255, 254, 255, 85
        write(f"{root}/longest/{name}", name.encode())
    os.mkdir(f"{root}/thousands")
    for number in range(3000):
        write(f"{root}/thousands/item {number:05} {'n' * (number % 60)}", b"%d" % number)
    os.makedirs(f"{root}/{'/'.join(f'depth {level}' for level in range(30))}")
    os.mkdir(f"{root}/sizes")
    for size in (0, 1, 4095, 4096, 4097, 65536, 1_000_003, 5 << 20):
        write(f"{root}/sizes/{size}", chance.randbytes(size))
    make_links(root)
    make_modes(root, chance)
    make_sparse(root, chance)
    make_attributes(root, chance)


def make_links(root):
    os.mkdir(f"{root}/links")
    write(f"{root}/links/first", b"hard-linked", when=1_234_567_890)
    os.mkdir(f"{root}/links/far")
    os.link(f"{root}/links/first", f"{root}/links/second")
    os.link(f"{root}/links/first", f"{root}/links/far/third")
    write(f"{root}/links/other", b"another", mode=0o600)
    os.link(f"{root}/links/other", f"{root}/links/other again")
    for name, target in (("to file", "first"), ("to nothing", "../no such thing/ä"), ("long", "t/" * 400)):
        os.symlink(target, f"{root}/links/{name}")
        os.utime(f"{root}/links/{name}", (1_111_111_111, 1_111_111_111), follow_symlinks=False)


def make_modes(root, chance):
    os.mkdir(f"{root}/modes")
    for mode in (0o000, 0o400, 0o755, 0o1777, 0o2755, 0o4755, 0o666):
        write(f"{root}/modes/{mode:04o}", b"mode", mode)
        os.chown(f"{root}/modes/{mode:04o}", chance.randrange(70000), chance.randrange(70000))
        os.chmod(f"{root}/modes/{mode:04o}", mode)
    os.mkfifo(f"{root}/modes/fifo")
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(f"{root}/modes/socket")


def make_sparse(root, chance):
    path = f"{root}/sizes/five gigabytes of almost nothing"
    with open(path, "wb") as file:
        file.truncate(5 << 30)
        for offset in (0, 5 << 29, (5 << 30) - 4096):
            file.seek(offset)
            file.write(chance.randbytes(4096))
    os.utime(path, (1_500_000_000, 1_500_000_000))


def make_attributes(root, chance):
    os.mkdir(f"{root}/attributes")
    write(f"{root}/attributes/some")
    os.setxattr(f"{root}/attributes/some", "user.note", "a note, ä".encode())
    os.setxattr(f"{root}/attributes/some", "user.bytes", chance.randbytes(1000))
    os.setxattr(f"{root}/attributes", "user.of.a.folder", b"yes")


def make_disk(place, source, name):
    """Our image of the folder, as a disk; what makes the disk of it is qemu's own reader of images."""
    image, disk = place.scratch / f"{name}.dmg", place.scratch / f"{name}.raw"
    run(place.tool("hdiutil"), "create", "-fs", "HFS+", "-volname", name, "-srcfolder", source, image)
    run("qemu-img", "convert", "-f", "dmg", "-O", "raw", image, disk)
    return disk


def complaints(machine):
    return [line for line in machine.sh("dmesg --clear --read-clear 2>/dev/null || dmesg -c").splitlines()
            if any(word in line.lower() for word in ("hfs", "i/o error", "bug:", "warning:", "oops"))]


def mount(machine, device, folder, how):
    machine.sh(f"mkdir -p {folder} && mount -t hfsplus -o {how},nls=utf8 {device}1 {folder}")
    shown = machine.sh(f"findmnt -no OPTIONS {folder}")
    require(how in shown.split(","), f"{folder} was mounted {shown.strip()}, not {how}")
    require(not (lines := complaints(machine)), f"mounting {folder}: {lines}")


def check_reading(place, device, name, source):
    machine, folder = place.machine, f"/mnt/{name}"
    mount(machine, device, folder, "ro")
    found = composed(place.list_in_guest(folder))
    expected = composed(place.list_here(source))
    require_same(found, expected, f"{name} read by the kernel")
    machine.sh(f"umount {folder}")
    require(not (lines := complaints(machine)), f"reading {name}: {lines}")
    return len(expected)


WRITES = r"""
set -e
cd /mnt/writing
mkdir -p 'made here/inner'
head -c 20000 /dev/urandom > 'made here/big'
for n in $(seq 10); do echo $n > "made here/inner/number $n"; done
printf 'grün' > 'made here/Übergröße'
ln -s '../names/plain.txt' 'made here/link'
ln 'made here/big' 'made here/big again'
ln links/first 'made here/one more of first'
mv names/plain.txt 'made here/moved'
rm names/漢字
rm -r 'names/ไทย folder'
echo appended >> 'sizes/4097'
truncate -s 10 sizes/65536
chmod 600 sizes/1
touch -d @1300000000 sizes/4096
setfattr -n osx.fresh -v value 'made here/moved'
sync
"""


def check_writing(place, device):
    """The kernel changes the volume, and finds its own changes there again. Gives what it then holds."""
    machine = place.machine
    mount(machine, device, "/mnt/writing", "rw")
    (place.share / "writes").write_text(WRITES)
    machine.sh("bash /host/writes")
    written = composed(place.list_in_guest("/mnt/writing"))
    machine.sh("umount /mnt/writing")
    require(not (lines := complaints(machine)), f"writing: {lines}")
    mount(machine, device, "/mnt/writing", "ro")
    require_same(composed(place.list_in_guest("/mnt/writing")), written, "what the kernel wrote, mounted again")
    machine.sh("umount /mnt/writing")
    return written


def check_others_reading(place, disk, written):
    """7-Zip and libfshfs read what the kernel wrote, as the kernel read it."""
    out = place.scratch / "extracted"
    run("7zz", "x", "-y", f"-o{out}", disk, "folding/made here", "folding/sizes", "-x!folding/made here/link",
        "-x!folding/sizes/five*", "-x!*:*")
    extracted = composed(place.list_here(out / "folding"))
    for path, facts in written.items():
        if path.startswith(("made here/", "sizes/")) and facts.get("links") == 1 and "five" not in path:
            require(extracted[path]["sha256"] == facts["sha256"], f"7-Zip reads other bytes of {path}")
    hierarchy = unicodedata.normalize("NFC", run("fshfsinfo", "-o", 40 * 512, "-H", disk).decode())
    shown = {line for line in hierarchy.splitlines() if line.startswith(("/made here", "/names/"))}
    require("/names/漢字" not in shown, "libfshfs shows a file that the kernel removed")
    missing = [path for path in written if path.startswith("made here/") and f"/{path}" not in shown]
    require(not missing, f"libfshfs does not show {missing}")


def check_our_reading(place, disk, written):
    """Our own reader gives back what the kernel wrote. Dates of folders are the moment at which they were filled."""
    out = place.scratch / "given back"
    paths = ["made here", "links", "names", *(f"sizes/{name}" for name in (0, 1, 4095, 4096, 4097, 65536, 1_000_003))]
    out.mkdir()
    run(place.tool("hdiutil"), "extract", "-to", out, disk, *paths)
    found = composed(place.list_here(out))
    expected = {path: facts for path, facts in written.items()
                if path in paths or path.startswith(("made here/", "links/", "names/"))}
    found.pop("sizes", None)
    require_same(found, expected, "what the kernel wrote, as hdiutil extracts it")


def check(place):
    folding, binary = place.scratch / "folding", place.scratch / "binary"
    make_tree(str(folding), 1)
    os.mkdir(binary)
    for name in ("Readme", "README", "readme", "ÄPFEL", "äpfel"):
        write(binary / name, name.encode())
    os.mkdir(binary / "Folder")
    os.mkdir(binary / "folder")
    disks = {"folding": make_disk(place, folding, "folding"), "binary": make_disk(place, binary, "binary")}
    machine = place.start_guest()
    complaints(machine)
    count = 0
    for name, disk in disks.items():
        device = machine.plug(str(disk), name.upper())
        count += check_reading(place, device, name, place.scratch / name)
        written = check_writing(place, device) if name == "folding" else None
        machine.pull(name.upper())
        if written:
            check_others_reading(place, disk, written)
            check_our_reading(place, disk, written)
    return f"{count} items read as they were, the kernel's own writes read back"
