"""The agent as a user has it: a stick is plugged, the question answered with the keyboard in each way, and the image
stands."""
import json

from bench import require
from desktop import BACKUP_FROM_NOW_ON, IGNORE_VOLUME, Desktop, require_image
from sticks import make_fat, make_folder


def replug(place, desktop, disk):
    place.machine.pull("STICK001")
    desktop.await_volumes()
    return place.machine.plug(str(disk), "STICK001")


def check_later(desktop):
    desktop.press("Escape")
    require(desktop.flag("STICK") == 0, "Later is remembered")


def check_ignored(place, desktop, disk):
    """An ignored stick is not asked about again."""
    replug(place, desktop, disk)
    desktop.press(*IGNORE_VOLUME)
    require(desktop.flag("STICK") == -1, f"ignored, its flag is {desktop.flag('STICK')}")
    replug(place, desktop, disk)
    desktop.await_volumes("STICK")
    desktop.require_no_question()
    require(not desktop.backups("STICK"), "a stick was backed up that was to be later or never")
    desktop.mark("STICK", 0)


def check_automatic(place, desktop, disk, source):
    """A stick whose box was ticked is backed up as it arrives, without a question."""
    replug(place, desktop, disk)
    desktop.press(*BACKUP_FROM_NOW_ON)
    require_image(place, desktop.await_backups("STICK", 1)[0], source)
    require(desktop.flag("STICK") == 1, f"with the box ticked, its flag is {desktop.flag('STICK')}")
    replug(place, desktop, disk)
    desktop.await_backups("STICK", 2)
    desktop.require_no_question()


def check_command(place, desktop):
    """The command line leaves a backup to the agent, and knows the stick by the same identity."""
    [listed] = json.loads(place.person_does("stashwickctl volumes --json"))
    [shown] = desktop.call("Volumes")
    require(listed["udid"] == shown["Identifier"]["data"], f"the agent shows {shown}, the command line {listed}")
    said = place.person_does("stashwickctl backup STICK")
    require("STICK: backed up to STICK/3, " in said, f"backup says {said!r}")
    require(len(desktop.backups("STICK")) == 3, "the agent does not know of the backup")
    desktop.require_no_question()


def check_ended(place, desktop):
    """Killed, it is started again by systemd; told to quit, it is not."""
    desktop.kill_agent()
    desktop.await_volumes("STICK")
    desktop.call("Quit")
    desktop.await_person("test $(systemctl --user is-active stashwick-agent) = inactive")


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    make_folder(source)
    make_fat(disk, source, "STICK")
    machine = place.start_guest()
    place.install_package()
    desktop = Desktop(place)
    machine.plug(str(disk), "STICK001")
    check_later(desktop)
    check_ignored(place, desktop, disk)
    check_automatic(place, desktop, disk, source)
    check_command(place, desktop)
    check_ended(place, desktop)
    return "asked about, put off, ignored; backed up, from then on by itself and by command; killed and quit"
