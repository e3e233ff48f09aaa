"""The agent from the package on a small desktop of the person at the seat: an X server without a screen, a window manager,
the systemd user unit, and its name on the session bus."""
import json
import plistlib
import shlex
import shutil

from bench import Fault, composed, require, require_same, run
from guest import GuestError
from sticks import contents

ENVIRONMENT = "DISPLAY=:7"
CALL = "busctl --user --json=short call com.stashwick.Agent /com/stashwick/Agent com.stashwick.Agent"
STORE = "/home/person/.local/share/Stashwick 3"
WINDOW = "xdotool search --onlyvisible --name '^Stashwick$'"
# The question opens with the focus on "Backup", and Escape is "Later".
IGNORE_VOLUME = ("Tab", "space")
BACKUP_FROM_NOW_ON = ("shift+Tab", "space", "Return")  # ticks the box first
# Connection dates are kept in steps of 64 seconds: a stick that comes sooner than that after the agent's start can count
# as one that was there before, and one that was there as one that comes.
STEP = 130


def require_image(place, path, source):
    """What 7-Zip finds in an image of the guest."""
    place.machine.sh(f"cp '{path}' /host/image.dmg")
    out = place.scratch / "extracted"
    run("7zz", "x", "-y", f"-o{out}", place.share / "image.dmg")
    [volume] = out.iterdir()
    require_same(contents(composed(place.list_here(volume))), contents(composed(place.list_here(source))),
                 f"{path}, read by 7-Zip")
    shutil.rmtree(out)


def await_reading(machine, program, pattern):
    """Waits until the program holds a file or folder open whose path is like the pattern."""
    machine.await_sh(f"find /proc/$(pgrep -x {program})/fd -lname {shlex.quote(pattern)} | grep -q .")


class Desktop:
    def __init__(self, place):
        self.place, self.machine = place, place.machine
        place.person_starts("Xvfb :7 -screen 0 1024x768x24 -extension GLX -nolisten tcp", "screen")
        self.machine.await_sh("test -S /tmp/.X11-unix/X7")
        place.person_starts(f"{ENVIRONMENT} openbox --sm-disable", "windows")
        self.await_person(f"{ENVIRONMENT} xdotool getactivewindow || {ENVIRONMENT} xdotool get_desktop")
        place.person_does("systemctl --user set-environment " + ENVIRONMENT)
        self.start_agent()

    def await_person(self, condition):
        """Waits until a line of bash succeeds as the person."""
        try:
            self.place.person_does(f"until {{ {condition}; }} >/dev/null 2>&1; do sleep 0.3; done")
        except GuestError as error:
            raise Fault(f"waited in vain for: {condition} ({error})\n{self.log()}")

    def start_agent(self):
        self._let_time_pass()
        self.place.person_does("systemctl --user start stashwick-agent")
        self.await_agent()

    def await_agent(self):
        self.await_person(f"{CALL} Volumes")
        self._let_time_pass()

    def _let_time_pass(self):
        self.machine.sh(f"date -s '+{STEP} seconds'")

    def stop_agent(self):
        self.place.person_does("systemctl --user stop stashwick-agent")

    def kill_agent(self):
        """It is given no time for anything; systemd starts another."""
        self._let_time_pass()
        before = self.process()
        self.place.person_does(f"kill -KILL {before}")
        self.await_person(f"test $(systemctl --user show -P MainPID stashwick-agent) -gt 0 && "
                          f"test $(systemctl --user show -P MainPID stashwick-agent) != {before}")
        self.await_agent()

    def process(self):
        return self.place.person_does("systemctl --user show -P MainPID stashwick-agent").strip()

    def log(self):
        return self.machine.run("journalctl --no-pager -o cat _COMM=stashwick-agent | tail -30; dmesg | tail -5")[1]

    def await_log(self, *patterns):
        """Waits until one line of the running agent's is like all the patterns."""
        lines = "".join(f" | grep -iE {shlex.quote(pattern)}" for pattern in patterns)
        self.machine.await_sh(f"journalctl --no-pager -o cat _PID={self.process()}{lines}")

    def call(self, method, *arguments):
        types = f" s {' '.join(map(shlex.quote, arguments))}" if arguments else ""
        return json.loads(self.place.person_does(f"{CALL} {method}{types}") or "{}").get("data", [None])[0]

    def _rows(self, method, *arguments):
        return [{key: value["data"] for key, value in row.items()} for row in self.call(method, *arguments)]

    def volumes(self):
        """The names of the listed volumes that are mounted."""
        return sorted(row["Name"] for row in self._rows("Volumes") if row["Mounted"])

    def backups(self, volume):
        return [row["Path"] for row in self._rows("Backups", volume)]

    def await_volumes(self, *names):
        quoted = json.dumps(sorted(names), ensure_ascii=False)
        (self.place.share / "volumes.py").write_text(
            "import json, sys\nrows = json.load(sys.stdin)['data'][0]\n"
            "names = sorted(row['Name']['data'] for row in rows if row['Mounted']['data'])\n"
            "sys.exit(names != json.loads(sys.argv[1]))\n")
        self.await_person(f"{CALL} Volumes | python3 /host/volumes.py {shlex.quote(quoted)}")

    def await_backups(self, volume, count):
        """Waits until the store has so many images of the volume and no backup is under way; gives their paths."""
        self.await_person(f"test $(find '{STORE}/{volume}' -name '*.dmg' | wc -l) = {count} && {self.is_idle()}")
        paths = self.backups(volume)
        require(len(paths) == count, f"Backups of {volume} gives {paths}\n{self.log()}")
        return paths

    def is_idle(self):
        return ("busctl --user --json=short get-property com.stashwick.Agent /com/stashwick/Agent com.stashwick.Agent "
                "CurrentVolume | grep -q '\"data\":\"\"'")

    def await_question(self):
        self.await_person(f"{ENVIRONMENT} {WINDOW}")

    def press(self, *keys):
        """Keys for the agent's window, which must go away of them; another one may follow it."""
        self.await_question()
        window = self.place.person_does(f"{ENVIRONMENT} {WINDOW}").split()[-1]
        self.place.person_does(f"{ENVIRONMENT} xdotool windowactivate --sync {window} key --delay 100 {' '.join(keys)}")
        self.await_person(f"! {ENVIRONMENT} {WINDOW} | grep -qx {window}")

    def _identifier(self, volume):
        [identifier] = [row["Identifier"] for row in self._rows("Volumes") if row["Name"] == volume]
        return identifier

    def flag(self, volume):
        """What the agent's list says of a volume that is there."""
        status, listed = self.machine.run(f"cat '{STORE}/StashwickHelper.plist'")
        return plistlib.loads(listed.encode()).get(self._identifier(volume), 0) if status == 0 else 0

    def mark(self, volume, flag):
        """Writes into the agent's list what it does when the volume arrives: 1 backs it up, -1 ignores it, 0 asks."""
        (self.place.share / "list.plist").write_bytes(plistlib.dumps({self._identifier(volume): flag}))
        self.place.person_does(f"cp /host/list.plist '{STORE}/StashwickHelper.plist'")

    def require_no_question(self):
        status, found = self.place.person(f"{ENVIRONMENT} {WINDOW}")
        require(status != 0, f"there is a question: windows {found}")
