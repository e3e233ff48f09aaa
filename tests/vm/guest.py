"""The emulated guest: boots or resumes it, runs commands in it, plugs and pulls USB sticks. Standard library only."""
import base64
import contextlib
import itertools
import json
import os
import shlex
import socket
import subprocess
import threading
import time

KERNEL_ARGUMENTS = ("console=ttyS0 root=/dev/vda rw quiet loglevel=3 mitigations=off nokaslr random.trust_cpu=on audit=0 "
                    "selinux=0 apparmor=0 tsc=reliable usb-storage.delay_use=0")
ENVIRONMENT = ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "HOME=/root"]
# How long anything may take, in seconds: longer than it ever does where much else runs, and no sign of a fault.
PATIENCE = 300


class GuestError(Exception):
    """A command of the guest or of its machine failed."""


def connect(path, process):
    end = time.monotonic() + PATIENCE
    while True:
        connection = socket.socket(socket.AF_UNIX)
        try:
            connection.connect(path)
            return connection
        except OSError:
            connection.close()
            if process.poll() is not None:
                raise GuestError(f"qemu ended with status {process.returncode}")
            if time.monotonic() > end:
                raise
            time.sleep(0.02)


class Monitor:
    """qemu's control connection. Events are kept in the order of their arrival."""

    def __init__(self, connection):
        self._lines = connection.makefile("rw")
        self._news = threading.Condition()
        self._reply = None
        self._events = []
        self._lines.readline()
        threading.Thread(target=self._listen, daemon=True).start()
        self.command("qmp_capabilities")

    def _listen(self):
        with contextlib.suppress(OSError, ValueError):
            for line in self._lines:
                message = json.loads(line)
                with self._news:
                    if "event" in message:
                        self._events.append(message)
                    else:
                        self._reply = message
                    self._news.notify_all()

    def command(self, name, **arguments):
        with self._news:
            self._reply = None
            self._lines.write(json.dumps({"execute": name, "arguments": arguments}) + "\n")
            self._lines.flush()
            if not self._news.wait_for(lambda: self._reply is not None, PATIENCE):
                raise GuestError(f"{name}: no answer from qemu")
            reply = self._reply
        if "error" in reply:
            raise GuestError(f"{name}: {reply['error']['desc']}")
        return reply["return"]

    def await_event(self, name, device, since=0):
        def arrived():
            return any(e["event"] == name and e["data"].get("device") == device for e in self._events[since:])

        with self._news:
            if not self._news.wait_for(arrived, PATIENCE):
                raise GuestError(f"qemu did not tell {name} of {device}")

    def event_count(self):
        with self._news:
            return len(self._events)


class Agent:
    """The guest agent's connection: runs programs as the guest's root."""

    def __init__(self, path, process):
        self._path = path
        self._process = process
        self._connection = None
        self._received = b""
        self._numbers = itertools.count(time.time_ns() & 0xFFFFFFF)

    def _line(self):
        while b"\n" not in self._received:
            data = self._connection.recv(1 << 20)
            if not data:
                raise OSError("the guest agent closed its connection")
            self._received += data
        line, self._received = self._received.split(b"\n", 1)
        return line[line.rfind(b"\xff") + 1:]

    def synchronize(self):
        """Waits until the agent answers, and drops what an earlier connection left behind."""
        end = time.monotonic() + PATIENCE
        while True:
            number = next(self._numbers)
            request = {"execute": "guest-sync-delimited", "arguments": {"id": number}}
            try:
                self._connection = connect(self._path, self._process)
                self._connection.settimeout(3)
                self._received = b""
                self._connection.sendall(b"\xff" + json.dumps(request).encode() + b"\n")
                while True:
                    with contextlib.suppress(ValueError):
                        if json.loads(self._line()).get("return") == number:
                            return
            except OSError:
                self.close()
                if time.monotonic() > end:
                    raise GuestError("the guest agent does not answer")

    def close(self):
        self._connection.close()

    def command(self, name, **arguments):
        self._connection.settimeout(PATIENCE)
        self._connection.sendall(json.dumps({"execute": name, "arguments": arguments}).encode() + b"\n")
        reply = json.loads(self._line())
        if "error" in reply:
            raise GuestError(f"{name}: {reply['error']['desc']}")
        return reply["return"]


class Guest:
    """One running machine. `image` is build_guest's folder; `folder` a scratch folder for sockets and logs;
    `share` a host folder that a resumed guest has at /host."""

    def __init__(self, image, folder, share=None, resume=True):
        self.image, self.folder, self.share, self.resume = image, folder, share, resume
        self._seat = None
        self._process = None

    def __enter__(self):
        self._start()
        try:
            self._await_ready()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self._process.poll() is None:
            self._process.kill()
        self._process.wait()

    def _arguments(self):
        disk = f"{self.image}/state/disk.qcow2" if self.resume else f"{self.image}/root.qcow2"
        return ["setpriv", "--pdeathsig", "KILL",  # when what runs the checks is ended
                "qemu-system-x86_64", "-accel", "tcg,thread=multi", "-smp", "2", "-cpu", "max", "-M", "q35", "-m", "768",
                "-kernel", f"{self.image}/vmlinux", "-initrd", f"{self.image}/initrd.cpio", "-append", KERNEL_ARGUMENTS,
                "-nodefaults", "-display", "none", "-no-reboot",
                "-drive", f"file={self.folder}/disk.qcow2,if=none,id=root,cache=unsafe,discard=unmap",
                "-device", "virtio-blk-pci,drive=root", "-device", "virtio-rng-pci",
                "-device", "qemu-xhci,id=xhci,p2=8,p3=8", "-device", "usb-ehci,id=ehci", "-device", "virtio-serial-pci",
                "-chardev", f"socket,id=agent,path={self.folder}/agent.sock,server=on,wait=off",
                "-device", "virtserialport,chardev=agent,name=org.qemu.guest_agent.0",
                "-fsdev", f"local,id=share,path={self.share or self.folder},security_model=none",
                "-device", "virtio-9p-pci,fsdev=share,mount_tag=host",
                "-serial", f"file:{self.folder}/console.log",
                "-qmp", f"unix:{self.folder}/monitor.sock,server=on,wait=off",
                *(["-incoming", "defer"] if self.resume else [])], disk

    def _start(self):
        arguments, backing = self._arguments()
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "qcow2", "-b", backing,
                        f"{self.folder}/disk.qcow2"], check=True)
        with open(f"{self.folder}/qemu.log", "wb") as log:
            self._process = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def _await_ready(self):
        self.monitor = Monitor(connect(f"{self.folder}/monitor.sock", self._process))
        self.agent = Agent(f"{self.folder}/agent.sock", self._process)
        if self.resume:
            self._load_state()
        else:
            self._await_boot()
        self.agent.synchronize()
        if self.resume:
            self.agent.command("guest-set-time", time=time.time_ns())
        if self.resume and self.share:
            # A mounted share could not be saved with the state. Without a cache both sides see the same bytes.
            self.sh("mount -t 9p -o trans=virtio,version=9p2000.L,msize=512000,cache=none host /host")

    def _load_state(self):
        self.monitor.command("migrate-incoming", uri=f"exec:zstd -dcq {shlex.quote(self.image)}/state/memory.zst")
        self._await(lambda: self.monitor.command("query-status")["status"] != "inmigrate", "its saved state")
        self.monitor.command("cont")  # it was saved stopped

    def _await_boot(self):
        def ready():
            with open(f"{self.folder}/console.log", errors="replace") as console:
                return "GUEST-READY" in console.read()

        self._await(ready, "the guest's word that it is ready")

    def _await(self, condition, what):
        end = time.monotonic() + PATIENCE
        while not condition():
            if self._process.poll() is not None or time.monotonic() > end:
                with open(f"{self.folder}/qemu.log") as log:
                    raise GuestError(f"waited in vain for {what}: {log.read()}")
            time.sleep(0.05)

    def save(self):
        """Ends the machine, leaving its memory and disk as the state from which others resume."""
        state = f"{self.image}/state"
        os.makedirs(state)
        self.agent.close()
        self.monitor.command("migrate-set-parameters", **{"max-bandwidth": 4 << 30})
        self.monitor.command("stop")
        self.monitor.command("migrate", uri=f"exec:zstd -1 -T0 -q -o {shlex.quote(state)}/memory.zst")
        self._await(lambda: self.monitor.command("query-migrate")["status"] in ("completed", "failed"), "its state")
        if self.monitor.command("query-migrate")["status"] != "completed":
            raise GuestError("the guest's state could not be saved")
        self.monitor.command("quit")
        self._process.wait(PATIENCE)
        subprocess.run(["qemu-img", "convert", "-O", "qcow2", f"{self.folder}/disk.qcow2", f"{state}/disk.qcow2"],
                       check=True)

    # --- commands ---

    def run(self, line):
        """Runs a line of bash as root; gives its status and output (both streams)."""
        process = self.agent.command("guest-exec", path="/bin/bash", arg=["-c", line], env=ENVIRONMENT,
                                     **{"capture-output": True})["pid"]
        end, pause = time.monotonic() + PATIENCE, 0.01
        while not (result := self.agent.command("guest-exec-status", pid=process))["exited"]:
            if time.monotonic() > end:
                raise GuestError(f"took longer than {PATIENCE} seconds: {line}")
            time.sleep(pause)
            pause = min(pause * 1.5, 0.2)
        output = b"".join(base64.b64decode(result.get(stream, "")) for stream in ("out-data", "err-data"))
        return result.get("exitcode", 128 + result.get("signal", 0)), output.decode(errors="surrogateescape")

    def sh(self, line):
        """Runs a line of bash as root, which must succeed; gives its output."""
        status, output = self.run(line)
        if status != 0:
            raise GuestError(f"status {status} of: {line}\n{output}")
        return output

    def as_person(self, line):
        """The line of bash, run by the ordinary user inside the session of the seat, who may mount sticks."""
        if self._seat is None:
            session = self.sh("loginctl list-sessions --no-legend | awk '$3 == \"person\" && $4 == \"seat0\" { print $1 }'")
            self._seat = f"/sys/fs/cgroup/user.slice/user-1000.slice/session-{session.split()[0]}.scope/cgroup.procs"
        return (f"echo $$ > {self._seat} && cd /home/person && exec setpriv --reuid 1000 --regid 1000 --init-groups "
                "--inh-caps=-all env HOME=/home/person USER=person LOGNAME=person XDG_RUNTIME_DIR=/run/user/1000 "
                f"DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/1000/bus bash -c {shlex.quote(line)}")

    def await_sh(self, condition):
        """Waits until a line of bash succeeds."""
        try:
            self.sh(f"until {{ {condition}; }} >/dev/null 2>&1; do sleep 0.2; done")
        except GuestError as error:
            raise GuestError(f"waited in vain for: {condition} ({error})")

    # --- sticks ---

    def plug(self, disk, serial, removable=True, read_only=False, bus="xhci.0"):
        """Plugs a USB stick whose bytes are the file `disk`; it is named by its serial. Gives its /dev/sdX."""
        self.monitor.command("blockdev-add", **{"node-name": f"disk-{serial}", "driver": "raw", "read-only": read_only,
                                                "file": {"driver": "file", "filename": disk, "read-only": read_only}})
        self.monitor.command("object-add", **{"qom-type": "throttle-group", "id": f"pace-{serial}"})
        self.monitor.command("blockdev-add", **{"node-name": f"paced-{serial}", "driver": "throttle",
                                                "file": f"disk-{serial}", "throttle-group": f"pace-{serial}",
                                                "read-only": read_only})
        self.monitor.command("device_add", driver="usb-storage", id=f"stick-{serial}", bus=bus, drive=f"paced-{serial}",
                             serial=serial, removable=removable)
        link = f"/dev/disk/by-id/usb-QEMU_QEMU_HARDDISK_{serial}-0:0"
        self.await_sh(f"test -b {link}")
        self.sh("udevadm settle")
        return self.sh(f"readlink -f {link}").strip()

    def slow_down(self, serial, bytes_per_second):
        """From now on the stick gives and takes no more than that, and nothing of it is remembered from before."""
        self.sh("echo 3 > /proc/sys/vm/drop_caches")
        self.monitor.command("qom-set", path=f"/objects/pace-{serial}", property="limits",
                             value={"bps-total": bytes_per_second})

    def pull(self, serial):
        """Pulls the stick out, whatever the guest is doing with it."""
        since = self.monitor.event_count()
        self.monitor.command("device_del", id=f"stick-{serial}")
        self.monitor.await_event("DEVICE_DELETED", f"stick-{serial}", since)
        for node in (f"paced-{serial}", f"disk-{serial}"):
            self._remove_node(node)
        self.monitor.command("object-del", id=f"pace-{serial}")

    def _remove_node(self, node):
        end = time.monotonic() + PATIENCE
        while True:
            try:
                return self.monitor.command("blockdev-del", **{"node-name": node})
            except GuestError:  # its last requests are still on the way
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)


def make_state(image, folder):
    """Boots the guest once and saves it when it is ready and has seen a stick."""
    with Guest(image, folder, resume=False) as guest:
        guest.sh("modprobe -a usb_storage uas sd_mod vfat exfat hfsplus nls_utf8 nls_cp437 nls_iso8859-1 nls_ascii fuse loop "
                 "9p 9pnet_virtio")
        stick = f"{folder}/warm.img"
        subprocess.run(["truncate", "-s", "64M", stick], check=True)
        subprocess.run(["/usr/sbin/mkfs.fat", "-F", "32", "-I", stick], check=True, stdout=subprocess.DEVNULL)
        disk = guest.plug(stick, "WARM")
        guest.await_sh(f"udisksctl info -b {disk}")
        guest.sh(guest.as_person(f"udisksctl mount -b {disk} && udisksctl unmount -b {disk}"))
        guest.pull("WARM")
        guest.await_sh(f"! test -e {disk}")
        guest.sh("python3 -c 'import hashlib, json, os'; udevadm settle; sync")
        guest.save()
