"""The agent as a user has it: a stick is plugged, the question answered with the keyboard, and the image stands."""
from bench import require
from desktop import Desktop, require_image
from sticks import make_fat, make_folder


def check_answer(place, desktop, source):
    desktop.await_volumes("STICK")
    desktop.press("Return")
    require_image(place, desktop.await_backups("STICK", 1)[0], source)
    desktop.require_no_question()


def replug(place, desktop, disk):
    place.machine.pull("STICK001")
    desktop.await_volumes()
    return place.machine.plug(str(disk), "STICK001")


def check_automatic(place, desktop, disk):
    """A stick that is marked is backed up as it arrives, without a question."""
    desktop.mark("STICK", 1)
    replug(place, desktop, disk)
    desktop.await_backups("STICK", 2)
    desktop.require_no_question()


def check_ignored(place, desktop, disk):
    desktop.mark("STICK", -1)
    replug(place, desktop, disk)
    desktop.await_volumes("STICK")
    desktop.require_no_question()
    desktop.mark("STICK", 0)
    require(len(desktop.backups("STICK")) == 2, "an ignored stick was backed up")
    replug(place, desktop, disk)
    desktop.press("Escape")
    require(len(desktop.backups("STICK")) == 2, "a stick was backed up that was to be later")


def check_ended(place, desktop):
    """Killed, it is started again by systemd; told to quit, it is not."""
    before = desktop.process()
    place.person_does(f"kill -KILL {before}")
    desktop.await_person(f"test $(systemctl --user show -P MainPID stashwick-agent) -gt 0 && "
                         f"test $(systemctl --user show -P MainPID stashwick-agent) != {before}")
    desktop.await_agent()
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
    check_answer(place, desktop, source)
    check_automatic(place, desktop, disk)
    check_ignored(place, desktop, disk)
    check_ended(place, desktop)
    return "asked about, backed up, from then on by itself; killed and quit"
