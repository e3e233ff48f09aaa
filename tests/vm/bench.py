"""What a check works with: a scratch folder that the guest has at /host, our programs, and a guest."""
import json
import os
import pathlib
import shlex
import shutil
import subprocess
import threading
import unicodedata

import guest

HERE = pathlib.Path(__file__).resolve().parent


class Fault(Exception):
    """What a check found wrong."""


def require(condition, text):
    if not condition:
        raise Fault(text)


def run(*words):
    """Runs a program of this machine, which must succeed; gives its standard output."""
    result = subprocess.run([str(word) for word in words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    require(result.returncode == 0, f"status {result.returncode} of {' '.join(map(str, words))}: "
            f"{(result.stdout + result.stderr).decode(errors='replace')[-2000:]}")
    return result.stdout


def require_same(found, expected, where):
    """Two listings must be equal; says of each item that differs what differs, up to a few items."""
    faults = [f"{path}: missing" for path in expected if path not in found]
    faults += [f"{path}: not expected" for path in found if path not in expected]
    for path in set(found) & set(expected):
        for field in expected[path]:
            if found[path].get(field) != expected[path][field]:
                faults.append(f"{path}: {field} is {found[path].get(field)!r}, not {expected[path][field]!r}")
    require(not faults, f"{where}: {len(faults)} differences: " + "; ".join(sorted(faults)[:8]))


def composed(listing):
    """A listing under the names' composed forms: decomposed ones are another way to write the same."""
    return {unicodedata.normalize("NFC", path): facts for path, facts in listing.items()}


PACKAGING = threading.Lock()


def package_of(programs):
    """The package of what was built in the folder, made if it is missing or older than a program."""
    built = [*programs.glob("bin/stashwick*"), *programs.glob("libexec/stashwick/*")]
    require(built, f"nothing is built in {programs}")
    found = [*programs.glob("stashwick_*.deb")]
    if not found or min(map(os.path.getmtime, found)) < max(map(os.path.getmtime, built)):
        run("cmake", "--build", programs, "--target", "package")
        found = [*programs.glob("stashwick_*.deb")]
    return max(found, key=os.path.getmtime)


class Bench:
    def __init__(self, image, scratch, programs):
        self._image, self.scratch, self.programs = image, pathlib.Path(scratch), programs
        self.share = self.scratch / "share"
        self.machine = None

    def __enter__(self):
        self.share.mkdir()
        (self.scratch / "machine").mkdir()
        shutil.copy(HERE / "listing.py", self.share)
        return self

    def __exit__(self, *_):
        if self.machine is not None:
            self.machine.__exit__()

    def start_guest(self):
        machine = guest.Guest(self._image, str(self.scratch / "machine"), str(self.share))
        self.machine = machine.__enter__()
        return self.machine

    def tool(self, name):
        """The path of one of our programs on this machine."""
        program = self.programs / "libexec" / "stashwick" / name
        require(program.is_file(), f"{program} is not built")
        return program

    def tool_in_guest(self, name):
        """The path of one of our programs in the guest."""
        small = self.share / name
        run("strip", "-o", small, self.tool(name))
        self.machine.sh(f"install -m 755 /host/{name} /usr/local/bin/{name}")
        return f"/usr/local/bin/{name}"

    def install_package(self):
        """Installs our package in the guest, where everything that it depends on must be already."""
        with PACKAGING:
            shutil.copy(package_of(self.programs), self.share / "stashwick.deb")
        self.machine.sh("dpkg --install /host/stashwick.deb")

    def person(self, line):
        """Runs a line of bash as the person at the seat; gives its status and output."""
        return self.machine.run(self.machine.as_person(line))

    def person_does(self, line):
        """The same, which must succeed; gives the output."""
        status, output = self.person(line)
        require(status == 0, f"status {status} of: {line}\n{output}")
        return output

    def person_starts(self, line, name):
        """Leaves a line of bash running; person_ended() waits for its end."""
        self.person_does(f"(setsid bash -c {shlex.quote(line)} </dev/null >/tmp/{name}.out 2>&1; echo $? >/tmp/{name}.status) "
                         "</dev/null >/dev/null 2>&1 &")

    def person_ended(self, name):
        """Waits for what person_starts left running; gives its status and output."""
        self.machine.await_sh(f"test -s /tmp/{name}.status")
        return int(self.machine.sh(f"cat /tmp/{name}.status")), self.machine.sh(f"cat /tmp/{name}.out")

    def mount(self, device):
        """The person mounts a stick's first partition through UDisks2; gives the folder."""
        self.machine.await_sh(f"udisksctl info -b {device}1")
        self.person_does(f"udisksctl mount --no-user-interaction -b {device}1")
        return self.machine.sh(f"findmnt -no TARGET {device}1").strip()

    def list_here(self, folder):
        return json.loads(run("python3", HERE / "listing.py", folder))

    def list_in_guest(self, folder):
        return json.loads(self.machine.sh(f"python3 /host/listing.py '{folder}'"))
