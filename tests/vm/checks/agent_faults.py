"""The agent when something comes in between: a stick that is pulled out at the question, while its contents are listed and
while its image is written; somebody who wants to unmount it; the agent killed; a full disk. No half image stays, the
failure is told, and the next backup is made."""
import random

from bench import require
from desktop import STORE, Desktop, await_reading, require_image
from sticks import make_fat

SERIAL, LABEL = "FAULT001", "FAULTY"
FOLDER = f"/media/person/{LABEL}"
LISTED_SLOWLY = 1_000  # bytes a second: the folders take some two minutes to list
READ_SLOWLY = 100_000  # bytes a second: the films take over a minute to read


def make_source(source):
    for number in range(4):
        (source / f"film {number}.mp4").write_bytes(random.Random(number).randbytes(2 << 20))
    for number in range(200):
        (source / f"folder {number}").mkdir()
        (source / f"folder {number}/note").write_bytes(b"%d" % number)


def images(place):
    """Everything in the store that is an image or was to be one."""
    return place.machine.sh(f"find '{STORE}' -type f ! -name '*.plist' ! -name '*.manifest'").splitlines()


def await_failure(place, desktop, reason):
    """Waits until making the image has failed for this reason; that leaves nothing."""
    desktop.await_log("create failed", reason)
    place.machine.await_sh("! pgrep -x hdiutil")
    require(not images(place), f"left of the failed backup: {images(place)}")


def begin(desktop):
    require(desktop.call("BackUp", LABEL) == "", "the backup was not begun")


def require_told(desktop, reason):
    """What has failed in the last step is told when the next backup is begun, which ends with that."""
    desktop.press("Return")
    desktop.await_log(r"\[ERROR\]", reason)


def start_anew(desktop):
    """What failed is told once, and then each time, until the agent is started again."""
    desktop.stop_agent()
    desktop.start_agent()
    desktop.await_volumes()


def answer(place, desktop, disk, bytes_per_second=0):
    """Plugs the stick and answers the question with Backup; from then on it is slow."""
    device = place.machine.plug(str(disk), SERIAL)
    desktop.await_question()
    place.machine.slow_down(SERIAL, bytes_per_second)
    desktop.press("Return")
    return device


def pull(place, desktop):
    place.machine.pull(SERIAL)
    desktop.await_volumes()


def check_pulled_while_asked(place, desktop, disk):
    place.machine.plug(str(disk), SERIAL)
    desktop.await_question()
    place.machine.pull(SERIAL)
    desktop.press("Return")
    await_failure(place, desktop, "cannot open the folder")
    start_anew(desktop)


def check_pulled_while_listed(place, desktop, disk):
    answer(place, desktop, disk, LISTED_SLOWLY)
    await_reading(place.machine, "stashwick-agent", f"{FOLDER}*")
    require(place.machine.run("pgrep -x hdiutil")[0] != 0, "the image is begun before the contents are listed")
    pull(place, desktop)
    await_failure(place, desktop, "cannot open the folder|input/output error|no such device")
    start_anew(desktop)


def check_pulled_while_written(place, desktop, disk):
    """Nobody can unmount the stick meanwhile; but it can be pulled out."""
    device = answer(place, desktop, disk, READ_SLOWLY)
    await_reading(place.machine, "hdiutil", f"{FOLDER}/film*")
    for line in (f"udisksctl unmount --no-user-interaction -b {device}1", f"umount {FOLDER}"):
        status, said = place.person(line)
        require(status != 0 and "busy" in said, f"{line} during a backup: status {status}: {said}")
    status, said = place.machine.run(f"umount {FOLDER}")
    require(status != 0 and "busy" in said, f"unmounting by root during a backup: status {status}: {said}")
    pull(place, desktop)
    await_failure(place, desktop, "input/output error|no such device")
    answer(place, desktop, disk)
    require_told(desktop, "input/output error|no such device")
    place.machine.pull(SERIAL)
    start_anew(desktop)


def check_killed(place, desktop, disk, source):
    """What the killed agent was making is not there; what the next one makes is whole."""
    answer(place, desktop, disk, READ_SLOWLY)
    await_reading(place.machine, "hdiutil", f"{FOLDER}/film*")
    desktop.kill_agent()
    place.machine.await_sh("! pgrep -x hdiutil")
    require(not images(place), f"left of the killed agent: {images(place)}")
    pull(place, desktop)
    answer(place, desktop, disk)
    require_image(place, desktop.await_backups(LABEL, 1)[0], source)
    require(len(images(place)) == 1, f"the store holds {images(place)}")


def check_full_disk(place, desktop):
    desktop.stop_agent()
    place.machine.sh(f"mount -t tmpfs -o size=2M,uid=1000,gid=1000 none '{STORE}'")
    desktop.start_agent()
    desktop.await_volumes(LABEL)
    begin(desktop)
    await_failure(place, desktop, "free space|no space left")
    begin(desktop)
    require_told(desktop, "free space|no space left")


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    source.mkdir()
    make_source(source)
    make_fat(disk, source, LABEL)
    place.start_guest()
    place.install_package()
    desktop = Desktop(place)
    check_pulled_while_asked(place, desktop, disk)
    check_pulled_while_listed(place, desktop, disk)
    check_pulled_while_written(place, desktop, disk)
    check_killed(place, desktop, disk, source)
    check_full_disk(place, desktop)
    return "pulled while asked, listed and written, unmounting refused, killed, a full disk: told, and no half image"
