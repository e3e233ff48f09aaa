"""The agent and sticks of other kinds and numbers: exFAT with names of many scripts, two at once, one label twice."""
import shutil

from desktop import Desktop, require_image
from sticks import make_fat, make_folder, make_partition

SCRIPTS = ["Grüße.txt", "Ελληνικά", "Русский текст", "עברית", "العربية", "हिन्दी", "日本語の名前", "한국어 파일", "Tiếng Việt", "😀 ok"]


def make_exfat(place):
    """Made and filled by the guest, before there is an agent to see it. Gives the disk and what it holds."""
    disk, source, machine = place.scratch / "exfat.raw", place.share / "names", place.machine
    make_partition(disk, 48, kind="7")
    for name in SCRIPTS:
        (source / name).mkdir(parents=True)
        (source / name / f"{name}.bin").write_bytes(name.encode() * 500)
    device = machine.plug(str(disk), "EXFAT001")
    machine.sh(f"mkfs.exfat -L ДИСК {device}1 && mkdir -p /mnt/new && mount -t exfat {device}1 /mnt/new && "
               "cp -r /host/names/. /mnt/new && umount /mnt/new")
    machine.pull("EXFAT001")
    machine.await_sh(f"! test -e {device}")
    return disk, source


def check_exfat(place, desktop, disk, source):
    place.machine.plug(str(disk), "EXFAT001")
    desktop.press("Return")
    desktop.await_volumes("ДИСК")
    require_image(place, desktop.await_backups("ДИСК", 1)[0], source)
    place.machine.pull("EXFAT001")
    desktop.await_volumes()


def check_two(place, desktop, labels, names):
    """Both are asked about, one after the other, and both images hold what their sticks held."""
    machine, sources = place.machine, {}
    for number, label in enumerate(labels):
        source = place.scratch / f"{label}-{number}"
        make_folder(source, seed=number + 1, most=400_000)
        sources[number] = source
        make_fat(place.scratch / f"{number}.raw", source, label)
    for number, name in enumerate(names):
        machine.plug(str(place.scratch / f"{number}.raw"), f"TWO0000{number}")
        if number == 0:
            desktop.await_question()  # so that the first stick is the first of that label
    desktop.press("Return")
    desktop.press("Return")
    desktop.await_volumes(*names)
    for number, name in enumerate(names):
        require_image(place, desktop.await_backups(name, 1)[0], sources[number])
    for number in range(2):
        machine.pull(f"TWO0000{number}")
    desktop.await_volumes()
    for source in sources.values():
        shutil.rmtree(source)


def check(place):
    machine = place.start_guest()
    place.install_package()
    exfat = make_exfat(place)
    desktop = Desktop(place)
    check_exfat(place, desktop, *exfat)
    check_two(place, desktop, ("ALPHA", "BETA"), ("ALPHA", "BETA"))
    check_two(place, desktop, ("TWIN", "TWIN"), ("TWIN", "TWIN 1"))
    return "exFAT with names of many scripts, two sticks at once, two of one label"
