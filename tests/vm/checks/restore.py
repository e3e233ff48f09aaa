"""stashwickctl restores onto a FAT32 stick as the person at the seat: what is on the stick afterwards is read from the
stick's own bytes. Passwords, and a stick that is pulled out in the middle."""
import json
import random
import shutil

from bench import composed, require, require_same
from sticks import contents, make_fat, make_folder, read_fat

OTHERS = """set -e
cd {folder}
rm -r DCIM 'a long name with many words in it, so that it needs several entries.txt'
echo other > readme.txt
mkdir -p new/empty && head -c 300000 /dev/urandom > new/noise
mv Documents/日本語.txt Documents/한국어.txt
"""


def require_on_stick(place, disk, source, folder, where):
    """What the stick's bytes hold, once the person has unmounted it; it is mounted again then."""
    device = place.machine.sh(f"findmnt -no SOURCE {folder}").strip()
    place.person_does(f"udisksctl unmount --no-user-interaction -b {device}")
    out = read_fat(disk, place.scratch / "read")
    require_same(contents(composed(place.list_here(out))), contents(composed(place.list_here(source))), where)
    shutil.rmtree(out)
    place.person_does(f"udisksctl mount --no-user-interaction -b {device}")


def check_plain(place, disk, source, folder):
    place.person_does("stashwickctl backup CARD")
    place.person_does(OTHERS.format(folder=folder))
    status, said = place.person("stashwickctl restore CARD/1")
    require(status == 2 and "nobody to ask" in said, f"without an answer: status {status}: {said}")
    require("other" in place.person_does(f"cat {folder}/readme.txt"), "it was restored without an answer")
    said = place.person_does("stashwickctl restore CARD/1 --yes")
    require("CARD: restored CARD/1, and compared with it" in said, f"restore says {said!r}")
    require_on_stick(place, disk, source, folder, "the restored stick")
    device = place.machine.sh(f"findmnt -no SOURCE {folder}").strip()
    place.person_does(f"udisksctl unmount --no-user-interaction -b {device}")
    place.machine.sh(f"fsck.fat -n {device}")
    place.person_does(f"udisksctl mount --no-user-interaction -b {device}")


def check_encrypted(place, disk, source, folder):
    place.person_does("printf 'ünd secret\\n' | stashwickctl backup CARD --encrypt --password-stdin")
    backup = json.loads(place.person_does("stashwickctl list --json"))[-1]
    require(backup["name"] == "CARD/2" and backup["encrypted"], f"list gives {backup}")
    place.person_does(OTHERS.format(folder=folder))
    kept = place.list_in_guest(folder)
    status, said = place.person("printf 'und secret\\n' | stashwickctl restore CARD/2 --yes --password-stdin")
    require(status == 4, f"with a wrong password: status {status}: {said}")
    status, said = place.person("stashwickctl restore CARD/2 --yes </dev/null")
    require(status == 4, f"without a password: status {status}: {said}")
    require_same(place.list_in_guest(folder), kept, "the stick after wrong passwords")
    place.person_does("printf 'ünd secret\\n' | stashwickctl restore CARD/2 --yes --password-stdin")
    require_on_stick(place, disk, source, folder, "the stick restored from the encrypted backup")


def check_pulled(place, disk, source, folder):
    """Pulled out while the files come back: it says so, leaves nothing mounted, and can be done again."""
    machine = place.machine
    place.person_starts("stashwickctl restore CARD/1 --yes", "pulled")
    machine.await_sh(f"test -e {folder}/DCIM/100CAM && pkill -STOP -u person rsync")
    machine.pull("CARD0001")
    machine.sh("pkill -CONT rsync")
    status, said = place.person_ended("pulled")
    require(status == 1, f"status {status}: {said}")
    require('"CARD" is incomplete now. The backup is untouched.' in said and "stashwickctl restore 'CARD/1'" in said,
            f"restore onto a stick that was pulled says {said!r}")
    require(not machine.sh("findmnt -nlo TARGET,FSTYPE | grep fuse.hdiutil || true"), "the image is still mounted")
    machine.await_sh(f"! findmnt {folder}")
    folder = place.mount(machine.plug(str(disk), "CARD0001"))
    require(place.person("stashwickctl verify CARD/1")[0] == 0, "the backup is not sound")
    place.person_does("stashwickctl restore CARD/1 --yes")
    require_on_stick(place, disk, source, folder, "the stick restored at the second attempt")
    return said


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    make_folder(source)
    (source / "DCIM/100CAM/film.mp4").write_bytes(random.Random(3).randbytes(8 << 20))
    make_fat(disk, source, "CARD", 80)
    machine = place.start_guest()
    place.install_package()
    folder = place.mount(machine.plug(str(disk), "CARD0001"))
    check_plain(place, disk, source, folder)
    check_encrypted(place, disk, source, folder)
    check_pulled(place, disk, source, folder)
    return "a stick restored from a plain and an encrypted backup, and again after it was pulled out"
