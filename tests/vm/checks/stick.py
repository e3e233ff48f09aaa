"""A FAT32 stick, mounted through UDisks2 by the person at the seat, goes into an image made inside the guest."""
import shutil

from bench import composed, require, require_same, run
from sticks import NAMES, contents, make_fat, make_folder


def check(place):
    source, disk = place.scratch / "source", place.scratch / "stick.raw"
    make_folder(source)
    make_fat(disk, source, "KINGSTICK")
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
