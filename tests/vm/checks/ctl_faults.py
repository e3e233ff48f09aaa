"""stashwickctl in dangerous places: a stick is erased after its backup, and only after; the command and its tool are
killed in the middle of a backup, in a store on a file system where an unfinished image has a name."""
import json
import random

from bench import require
from desktop import STORE, await_reading, require_image
from sticks import make_fat

SERIAL = "CARD0001"
FOLDER = "/media/person/CARD"
READ_SLOWLY = 100_000  # bytes a second: the films take over a minute to read


def images(place):
    """Everything in the store that is an image or was to be one."""
    return place.machine.sh(f"find '{STORE}/CARD' -type f ! -name '*.manifest'").splitlines()


def begin_slowly(place, line, name):
    """Leaves a backup running, whose image is being written."""
    place.machine.slow_down(SERIAL, READ_SLOWLY)
    place.person_starts(line, name)
    await_reading(place.machine, "hdiutil", f"{FOLDER}/film*")


def make_store_on_hfs(place):
    """A volume of ours, written by the kernel, holds the store."""
    machine = place.machine
    loop = machine.sh("truncate -s 200M /run/store && losetup --find --show --partscan /run/store").strip()
    machine.sh(f"$(dpkg -L stashwick | grep '/diskutil$') eraseDisk HFS+ Store {loop}")
    machine.await_sh(f"test -b {loop}p1")
    place.person_does(f"mkdir -p '{STORE}'")
    machine.sh(f"mount -t hfsplus -o uid=1000,gid=1000,umask=077 {loop}p1 '{STORE}'")


def check_killed(place, source):
    """What both left is gone with the next backup."""
    begin_slowly(place, "stashwickctl backup CARD", "killed")
    place.machine.sh("pkill -KILL -x stashwickctl; pkill -KILL -x hdiutil")
    place.person_ended("killed")
    left = images(place)
    require(len(left) == 1 and left[0].endswith(".unfinished"), f"the killed backup left {left}")
    place.machine.slow_down(SERIAL, 0)
    place.person_does("stashwickctl backup CARD")
    backups = json.loads(place.person_does("stashwickctl list --verify --json"))
    require([backup["verified"] for backup in backups] == ["sound"], f"list gives {backups}")
    require(images(place) == [backups[0]["path"]], f"the store holds {images(place)}")
    require_image(place, backups[0]["path"], source)


def check_orphan(place):
    """The tool whose command was killed leaves a whole image or none."""
    begin_slowly(place, "stashwickctl backup CARD", "orphan")
    place.machine.sh("pkill -KILL -x stashwickctl")
    place.person_ended("orphan")
    place.machine.slow_down(SERIAL, 0)
    place.machine.await_sh("! pgrep -x hdiutil")
    place.person_does("stashwickctl verify --all && stashwickctl backup CARD")
    backups = json.loads(place.person_does("stashwickctl list --verify --json"))
    require({backup["verified"] for backup in backups} == {"sound"}, f"list gives {backups}")
    require(sorted(images(place)) == sorted(backup["path"] for backup in backups), f"the store holds {images(place)}")


def check_changed_meanwhile(place):
    """What came onto the stick while its image was written is in no backup: nothing is erased."""
    begin_slowly(place, "stashwickctl backup CARD --erase-after --yes", "changed")
    place.person_does(f"echo new > {FOLDER}/new")
    place.machine.slow_down(SERIAL, 0)
    status, said = place.person_ended("changed")
    require(status == 6 and "is not erased: 1 difference" in said, f"a stick that changed: status {status}: {said}")
    held = place.person_does(f"ls {FOLDER}").split("\n")
    require("new" in held and "film 0.mp4" in held, f"the stick holds {held}")
    place.person_does(f"rm {FOLDER}/new")


def check_erased(place, source):
    status, said = place.person("stashwickctl backup CARD --erase-after </dev/null")
    require(status == 2 and "nobody to ask" in said, f"without an answer: status {status}: {said}")
    said = place.person_does("stashwickctl backup CARD --erase-after --yes")
    require(said.index("verified") < said.index('"CARD" was erased.'), f"backup says {said!r}")
    require_image(place, json.loads(place.person_does("stashwickctl list --json"))[-1]["path"], source)
    require(place.person_does(f"ls -A {FOLDER}") == "", "the stick is not empty")
    device = place.machine.sh(f"findmnt -no SOURCE {FOLDER}").strip()
    place.person_does(f"head -c 3000000 /dev/urandom > {FOLDER}/again && sha256sum < {FOLDER}/again > sum && "
                      f"udisksctl unmount --no-user-interaction -b {device}")
    place.machine.sh(f"fsck.fat -n {device}")
    place.person_does(f"udisksctl mount --no-user-interaction -b {device} && sha256sum < {FOLDER}/again | cmp sum -")


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    source.mkdir()
    for number in range(3):
        (source / f"film {number}.mp4").write_bytes(random.Random(number).randbytes(2 << 20))
    make_fat(disk, source, "CARD")
    machine = place.start_guest()
    place.install_package()
    make_store_on_hfs(place)
    place.mount(machine.plug(str(disk), SERIAL))
    check_killed(place, source)
    check_orphan(place)
    check_changed_meanwhile(place)
    check_erased(place, source)
    return "killed during a backup, the next clears up; a stick erased after its backup, and not when it changed meanwhile"
