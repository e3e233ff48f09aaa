"""What a check works with: a scratch folder that the guest has at /host, our programs, and a guest."""
import json
import pathlib
import shutil
import subprocess
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

    def list_here(self, folder):
        return json.loads(run("python3", HERE / "listing.py", folder))

    def list_in_guest(self, folder):
        return json.loads(self.machine.sh(f"python3 /host/listing.py '{folder}'"))
