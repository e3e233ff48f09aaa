"""diskutil eraseDisk on real disks: what it makes is judged by the kernel, by UDisks2 and by other programs; what it
refuses stays as it was."""
import hashlib
import shlex
import unicodedata

from bench import require, run

PARTITION = 1 << 20
KINDS = {"FAT16": ("dos", "e", "vfat", "FAT16"), "FAT32": ("dos", "c", "vfat", "FAT32"),
         "HFS+": ("gpt", "48465300-0000-11AA-AA11-00306543ECAC", "hfsplus", ""),
         "JHFS+": ("gpt", "48465300-0000-11AA-AA11-00306543ECAC", "hfsplus", "")}
RULE = """polkit.addRule(function(action, subject) {
  if (subject.user == "person" && action.id == "org.freedesktop.udisks2.open-device") return polkit.Result.YES;
});
"""


def make_used_stick(place, name, megabytes):
    """A stick with a history: a GPT with an ext4 volume."""
    disk, volume = place.scratch / f"{name}.raw", place.scratch / "volume"
    run("truncate", "-s", f"{megabytes}M", disk)
    run("bash", "-c", f"printf 'label: gpt\\nstart=2048, size=40M\\n' | /usr/sbin/sfdisk -q {disk}")
    run("truncate", "-s", "40M", volume)
    run("/usr/sbin/mke2fs", "-q", "-t", "ext4", "-L", "HISTORY", "-F", volume)
    run("dd", f"if={volume}", f"of={disk}", "bs=1M", "seek=1", "conv=notrunc", "status=none")
    return disk


def digest(disk):
    total = hashlib.sha256()
    with open(disk, "rb") as file:
        while data := file.read(1 << 20):
            total.update(data)
    return total.hexdigest()


def sequence_name(machine, device):
    return "disk" + machine.sh(f"cat /sys/block/{device.removeprefix('/dev/')}/diskseq").strip()


def erase(machine, tool, file_system, name, disk, person=False):
    line = f"{tool} eraseDisk {file_system} {shlex.quote(name)} {disk}"
    return machine.run(machine.as_person(line) if person else line)


def require_erased(machine, tool, file_system, name, disk, person=False):
    status, output = erase(machine, tool, file_system, name, disk, person)
    require(status == 0, f"eraseDisk {file_system}: status {status}: {output}")
    require("failed" not in output, f"eraseDisk {file_system} says {output}")


def use_volume(machine, device, file_system, name):
    """The person at the seat mounts the new volume and, where the kernel may write, keeps a file on it."""
    partition = f"{device}1"
    kind = KINDS[file_system][2]
    machine.await_sh(f"udevadm settle; test $(blkid -o value -s TYPE {partition}) = {kind} && udisksctl info -b {partition}")
    machine.sh(machine.as_person(f"udisksctl mount --no-user-interaction -b {partition}"))
    folder = machine.sh(f"findmnt -no TARGET {partition}").strip()
    if file_system == "JHFS+":  # which this kernel only reads
        listed = machine.sh(f"ls -A {shlex.quote(folder)}").split()
        require(listed == [".journal", ".journal_info_block"], f"the journaled volume holds {listed}")
    else:
        file = shlex.quote(f"{folder}/a file")
        machine.sh(machine.as_person(f"head -c 3000000 /dev/urandom > {file} && sha256sum < {file} > sum && sync"))
    machine.sh(machine.as_person(f"udisksctl unmount --no-user-interaction -b {partition}"))
    if file_system != "JHFS+":
        machine.sh(machine.as_person(f"udisksctl mount --no-user-interaction -b {partition} && sha256sum < {file} | cmp sum - "
                                     f"&& udisksctl unmount --no-user-interaction -b {partition}"))


def said_by_blkid(disk, tag):
    said = run("/usr/sbin/blkid", "-p", "-O", PARTITION, "-o", "value", "-s", tag, disk).decode()
    return unicodedata.normalize("NFC", said).strip()


def require_kind(place, disk, file_system, name):
    """What partition and file system tools that are not ours say of the disk."""
    table, kind, system, version = KINDS[file_system]
    dump = run("/usr/sbin/sfdisk", "-d", disk).decode()
    partitions = [line for line in dump.splitlines() if "start=" in line]
    require(f"label: {table}\n" in dump and len(partitions) == 1 and f"type={kind}" in partitions[0],
            f"{file_system}: the partition table is {dump}")
    found = {tag: said_by_blkid(disk, tag) for tag in ("TYPE", "LABEL", "VERSION")}
    expected = {"TYPE": system, "LABEL": name, "VERSION": version}
    require(found == expected, f"{file_system}: blkid says {found}")
    if system == "vfat":
        volume = place.scratch / "judged"
        run("dd", f"if={disk}", f"of={volume}", "bs=1M", "skip=1", "conv=sparse", "status=none")
        run("/usr/sbin/fsck.fat", "-n", volume)
    else:
        shown = run("fshfsinfo", "-o", PARTITION, "-H", disk).decode()
        require(("/.journal" in shown) == (file_system == "JHFS+"), f"libfshfs shows {shown}")
        stated = unicodedata.normalize("NFC", run("fsstat", "-o", 2048, disk).decode())
        require(f"Volume Name: {name}" in stated, f"sleuthkit finds another name: {stated}")


def look_into(machine, device):
    """Somebody has the old partition open until the new table has been on the disk for a moment."""
    machine.sh(f"(exec 9<{device}1; until blkid -p {device} | grep -q 'PTTYPE=\"dos\"'; do sleep 0.1; done; sleep 1) "
               "</dev/null >/dev/null 2>&1 &")


def check_kinds(place, machine, tool):
    """As root, on sticks that are mounted."""
    for file_system, name in (("FAT16", "SIXTEEN"), ("FAT32", "KING STICK"), ("HFS+", "Größe ß"), ("JHFS+", "With Journal")):
        serial = f"KIND{file_system.replace('+', '')}"
        disk = make_used_stick(place, serial, 300)
        device = machine.plug(str(disk), serial)
        machine.await_sh(f"udisksctl info -b {device}1")
        machine.sh(machine.as_person(f"udisksctl mount --no-user-interaction -b {device}1"))
        if file_system == "FAT16":
            look_into(machine, device)
        require_erased(machine, tool, file_system, name, sequence_name(machine, device))
        use_volume(machine, device, file_system, name)
        machine.pull(serial)
        machine.await_sh(f"! test -e {device}")
        require_kind(place, disk, file_system, name)


def check_person(place, machine, tool):
    """Without a password, the disk service lets a person format a stick with FAT32, and write nothing else onto it."""
    disk = make_used_stick(place, "PERSON", 1500)
    device = machine.plug(str(disk), "PERSON")
    machine.await_sh(f"udisksctl info -b {device}1")
    name = sequence_name(machine, device)
    before = digest(disk)
    status, output = erase(machine, tool, "HFS+", "Mine", name, person=True)
    require(status == 1 and "diskutil: eraseDisk failed - " in output, f"without permission: status {status}: {output}")
    require(digest(disk) == before, "an erase without permission changed the disk")
    machine.sh(machine.as_person(f"udisksctl mount --no-user-interaction -b {device}1"))
    require_erased(machine, tool, "FAT32", "OURS", name, person=True)
    use_volume(machine, device, "FAT32", "OURS")
    machine.sh(f"cat > /etc/polkit-1/rules.d/50-open.rules << 'END'\n{RULE}END\nsystemctl restart polkit")
    require_erased(machine, tool, "HFS+", "Mine", name, person=True)
    use_volume(machine, device, "HFS+", "Mine")
    machine.pull("PERSON")
    machine.await_sh(f"! test -e {device}")
    require_kind(place, disk, "HFS+", "Mine")
    status, output = erase(machine, tool, "HFS+", "Mine", name)
    require(status == 1 and f"there is no {name} here" in output, f"a pulled disk: status {status}: {output}")


def check_refusals(place, machine, tool):
    disk = make_used_stick(place, "REFUSED", 64)
    device = machine.plug(str(disk), "REFUSED")
    name = sequence_name(machine, device)

    def refused(what, words, *arguments):
        before = digest(disk)
        status, output = erase(machine, tool, *arguments)
        require(status == 1 and words in output and "failed" in output, f"{what}: status {status}: {output}")
        require(digest(disk) == before, f"{what}: the disk changed")

    refused("the system's disk", "not a removable disk on USB", "HFS+", "X", "/dev/vda")
    refused("a partition", "is a partition", "HFS+", "X", f"{device}1")
    refused("a file", "is not a disk", "HFS+", "X", "/etc/passwd")
    refused("a number never given", "there is no disk4711 here", "HFS+", "X", "disk4711")
    refused("small letters on FAT", "cannot call a volume", "FAT32", "stick", name)
    refused("a name too long for FAT", "cannot call a volume", "FAT32", "ABCDEFGHIJKL", name)
    refused("too few clusters", "mkfs.fat", "FAT16", "X", small_loop(machine))
    machine.sh(f"mkdir -p /mnt/place && mount -o ro {device}1 /mnt/place")
    refused("mounted at a place of the system's", "is mounted at /mnt/place", "HFS+", "X", name)
    machine.sh("umount /mnt/place")
    machine.sh(machine.as_person(f"udisksctl mount --no-user-interaction -o ro -b {device}1"))
    machine.sh("cd /media/person/HISTORY && (sleep 1000 >/dev/null 2>&1 & echo $! > /run/holder)")
    refused("in use", "cannot unmount", "HFS+", "X", name)
    machine.sh(f"kill $(cat /run/holder); umount {device}1; mkswap {device}1; sync; swapon {device}1")
    refused("swap space", "is in use as swap space", "HFS+", "X", name)
    machine.sh(f"swapoff {device}1")
    machine.pull("REFUSED")
    machine.await_sh(f"! test -e {device}")
    device = machine.plug(str(disk), "REFUSED", read_only=True)
    refused("the number of before", f"there is no {name} here", "HFS+", "X", name)
    refused("write-protected", "is write-protected", "HFS+", "X", sequence_name(machine, device))
    machine.pull("REFUSED")


def small_loop(machine):
    return machine.sh("truncate -s 9M /run/small && losetup --find --show /run/small").strip()


def check_loop(machine, tool):
    """A file as a disk, for whoever may write to it."""
    loop = machine.sh("truncate -s 200M /run/disk && losetup --find --show --partscan /run/disk").strip()
    require_erased(machine, tool, "HFS+", "In a file", loop)
    machine.await_sh(f"blkid {loop}p1 | grep -q 'LABEL=\"In a file\"'")
    machine.sh(f"losetup --detach {loop}; rm /run/disk")


def check(place):
    machine = place.start_guest()
    tool = place.tool_in_guest("diskutil")
    check_kinds(place, machine, tool)
    check_person(place, machine, tool)
    check_refusals(place, machine, tool)
    check_loop(machine, tool)
    return "four kinds of volumes made, as root and as a person; refusals leave the disk alone"
