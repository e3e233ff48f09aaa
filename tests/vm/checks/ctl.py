"""stashwickctl as the person at the seat has it, from the package, with a FAT32 stick that UDisks2 mounts: backups, what
can be read of them, and mounts without root."""
import json

from bench import composed, require, require_same
from sticks import NAMES, contents, make_fat, make_folder

STORE = "/home/person/.local/share/Stashwick 3"


def check_backup(place):
    listed = json.loads(place.person_does("stashwickctl volumes --json"))
    require([(volume["name"], volume["place"]) for volume in listed] == [("CARD", "/media/person/CARD")],
            f"volumes gives {listed}")
    require(listed[0]["udid"], "the stick has no identity")
    said = place.person_does("stashwickctl backup CARD")
    require("CARD: backed up to CARD/1, " in said, f"backup says {said!r}")
    backups = json.loads(place.person_does("stashwickctl list --verify --json"))
    require([(backup["name"], backup["verified"]) for backup in backups] == [("CARD/1", "sound")],
            f"list gives {backups}")
    require(place.person_does("stashwickctl verify --all") == "CARD/1: sound\n", "verify says otherwise")
    loose = place.machine.sh("find /home/person/.local -perm /077 -printf '%m %p\\n'")
    require(not loose, f"others may look into {loose}")


def check_files(place, source):
    expected = {path: facts.get("size", 0) for path, facts in composed(place.list_here(source)).items()}
    found = json.loads(place.person_does("stashwickctl files CARD/1 --long --json"))
    sizes = composed({item["path"]: item["size"] if item["kind"] == "file" else 0 for item in found})
    require(sizes == expected, f"files --long gives {sizes}, not {expected}")
    table = place.person_does("stashwickctl files CARD/1 --long")
    require(all(name in table for name in NAMES), f"files --long shows {table}")
    place.person_does("stashwickctl extract CARD/1 --to out && stashwickctl extract CARD/1 Documents --to some")
    require_same(contents(composed(place.list_in_guest("/home/person/out"))), contents(composed(place.list_here(source))),
                 "what was extracted")
    require(place.machine.sh("ls /home/person/some") == "Documents\n", "more than one folder was extracted")


def check_diff(place, folder):
    status, said = place.person("stashwickctl diff CARD/1")
    require(status == 0, f"diff of what did not change: status {status}: {said}")
    place.person_does(f"cd {folder} && echo more >> readme.txt && mv Documents/empty Documents/filled && mkdir -p fresh")
    status, said = place.person("stashwickctl diff CARD/1 --json")
    require(status == 6, f"diff: status {status}: {said}")
    changes = {(item["path"], item["change"]) for item in json.loads(said)}
    require({("readme.txt", "changed"), ("Documents/empty", "removed"), ("Documents/filled", "added"),
             ("fresh", "added")} <= changes, f"diff gives {changes}")
    strange = {path for path, _ in changes if path.startswith("DCIM") or path == "Documents/日本語.txt"}
    require(not strange, f"diff tells of {strange}, which did not change")


def check_second_backup(place):
    place.person_does("stashwickctl backup CARD -q")
    names = [backup["name"] for backup in json.loads(place.person_does("stashwickctl list --json"))]
    require(names == ["CARD/1", "CARD/2"], f"list gives {names}")
    require(place.person("stashwickctl diff CARD/latest")[0] == 0, "the new backup differs from the stick")


def mounted_folder(place):
    return place.machine.sh("findmnt -nlo TARGET,FSTYPE | awk '$2 == \"fuse.hdiutil\"' | sed 's/ *fuse.hdiutil$//'").rstrip("\n")


def check_mount(place, source):
    place.person_does("stashwickctl mount CARD/1")
    folder = mounted_folder(place)
    require(folder.startswith("/home/person/"), f"it is mounted at {folder!r}")
    listing = json.loads(place.person_does(f"python3 /host/listing.py '{folder}'"))
    require_same(contents(composed(listing)), contents(composed(place.list_here(source))), "the mounted backup")
    status, said = place.person(f"touch '{folder}/new'")
    require(status != 0 and "Read-only" in said, f"writing into it: status {status}: {said}")
    place.person_does("stashwickctl mount CARD/1")
    require(mounted_folder(place) == folder, "mounting it again made another mount")
    place.person_does("stashwickctl unmount CARD/1")
    require(mounted_folder(place) == "", "it is still mounted")
    status, said = place.person("stashwickctl unmount CARD/1")
    require(status == 1 and "CARD-Backup" in said, f"unmounting what is not mounted: status {status}: {said}")


def check_killed_server(place):
    """A mount whose server was killed can be taken away, and a new one takes its place, for the person alone."""
    for again in ("stashwickctl unmount CARD/1", "stashwickctl mount CARD/1"):
        place.person_does("stashwickctl mount CARD/1")
        place.person_does("pkill -KILL -x -u person hdiutil")
        place.machine.await_sh("! pgrep -x hdiutil")
        place.person_does(again)
    folder = mounted_folder(place)
    require("readme.txt" in place.person_does(f"ls '{folder}'"), "the new mount shows nothing")
    place.person_does("stashwickctl unmount CARD/1")
    require(mounted_folder(place) == "", "a mount is left")


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    make_folder(source)
    make_fat(disk, source, "CARD")
    machine = place.start_guest()
    place.install_package()
    status, said = place.person("stashwickctl volumes")
    require(status == 0 and "CARD" not in said, f"volumes without a stick: status {status}: {said}")
    folder = place.mount(machine.plug(str(disk), "CARD0001"))
    check_backup(place)
    check_files(place, source)
    check_diff(place, folder)
    check_second_backup(place)
    check_mount(place, source)
    check_killed_server(place)
    return "two backups of a mounted stick, read in every way, mounted and unmounted without root"
