"""A Linux desktop without a screen, of a test's own: X server, window manager, panel, session bus, system bus with
UDisks2 and its sticks, keyring, accessibility. All of it ends with the block that it is made in, or with its process."""
import contextlib
import ctypes
import itertools
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

from gi.repository import Gio, GLib

ROOT = pathlib.Path(__file__).resolve().parents[2]
UDISKS2_MOCK = ROOT / "tests/platform/linux/disks/udisks2_mock.py"
PANEL = pathlib.Path(__file__).parent / "panel.xml"
STICK_MEGABYTES = 512
# Where the kernel says which number it has given to each disk that came.
KERNELS_DISKS = pathlib.Path("/sys/dev/block")
LIMIT = 300  # seconds that anything may take, beside whatever else runs; only a failure takes that long

BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={folder}/{name}</listen>
  <auth>EXTERNAL</auth>
  <servicedir>{folder}/services</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""
FRAMES = """<openbox_config xmlns="http://openbox.org/3.4/rc">
  <theme><name>{theme}</name><titleLayout>LC</titleLayout></theme>
</openbox_config>
"""
# What the session bus starts by itself. Not the keyring: it would be a locked one.
SERVICES = ["org.xfce.Xfconf.service", "org.a11y.Bus.service"]


# Programs without which nothing more comes.
watched = set()


def wait_for(what, condition, seconds=LIMIT):
    """The condition's first true value."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        for program in watched:
            assert not program.poll(), f"{program.args[0]} has ended with {program.returncode}; waited for {what}"
        # A window may go while it is being looked at.
        with contextlib.suppress(GLib.Error, LookupError, StopIteration, TypeError):
            if value := condition():
                return value
        while GLib.MainContext.default().iteration(False):
            pass
        time.sleep(0.02)
    raise AssertionError(f"waited {seconds} s in vain for {what}")


def end_with_this_process():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)


class Bus:
    """Calls on a message bus, answered with plain values."""

    def __init__(self, address):
        self.address = address
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None, None)

    def call(self, name, path, interface, method, signature="()", *arguments):
        answer = self.connection.call_sync(name, path, interface, method, GLib.Variant(signature, arguments), None,
                                           Gio.DBusCallFlags.NO_AUTO_START, LIMIT * 1000, None).unpack()
        return answer[0] if len(answer) == 1 else answer

    def get(self, name, path, interface, key):
        return self.call(name, path, "org.freedesktop.DBus.Properties", "Get", "(ss)", interface, key)

    def has(self, name):
        return self.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
                         "(s)", name)

    def follow(self, path, interface, signal_name):
        """A list that grows by the arguments of each such signal."""
        heard = []
        self.connection.signal_subscribe(None, interface, signal_name, path, None, Gio.DBusSignalFlags.NONE,
                                         lambda *heard_of: heard.append(heard_of[5].unpack()))
        return heard


class HeadlessDesktop:
    def __init__(self, panel=True, screen="1024x768x24", window_theme="Clearlooks"):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="stashwick-desktop-"))
        self.programs = []
        self.mounted = []
        self.sticks = []
        self.users = 0
        self.has_panel = panel
        self.screen = screen
        self.window_theme = window_theme

    def __enter__(self):
        try:
            self.start_all()
        except BaseException:
            self.show_logs()
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for program in reversed(self.programs):
            self.end(program)
        for mounted in self.mounted:
            subprocess.run(["umount", "--lazy", mounted], check=False)
        shutil.rmtree(self.folder, ignore_errors=True)

    def start(self, *command, name=None, **options):
        """Starts a program; what it says goes to a file of that name, or its own, and ends with the test."""
        with open(self.folder / f"{name or pathlib.Path(command[0]).name}.log", "ab") as log:
            options = {"stdin": subprocess.DEVNULL, "stdout": log, "stderr": log, "env": self.environment} | options
            program = subprocess.Popen([str(word) for word in command], preexec_fn=end_with_this_process, **options)
        self.programs.append(program)
        return program

    @staticmethod
    def end(program):
        program.kill()
        program.wait()

    def show_logs(self):
        for log in sorted(self.folder.glob("*.log")):
            print(f"--- {log.name}\n{log.read_text(errors='replace')[-4000:]}", file=sys.stderr)

    def log_of(self, name):
        return (self.folder / f"{name}.log").read_text(errors="replace")

    def start_all(self):
        for name in ["home", "run", "media", "services", "home/.config", "home/.local", "home/.local/share"]:
            (self.folder / name).mkdir(mode=0o700)
        self.mount("media")
        self.mount(KERNELS_DISKS, 1)
        self.install_icons()
        for service in SERVICES:
            (self.folder / "services" / service).symlink_to(f"/usr/share/dbus-1/services/{service}")
        # No name of a desktop: for some the toolkit loads plugins that may or may not be installed.
        kept = {name: value for name, value in os.environ.items()
                if name in ("PATH", "LD_LIBRARY_PATH") or name.endswith("SAN_OPTIONS")}
        self.environment = kept | {
            "HOME": str(self.folder / "home"), "XDG_RUNTIME_DIR": str(self.folder / "run"),
            "XDG_CONFIG_HOME": str(self.folder / "home/.config"), "XDG_DATA_HOME": str(self.folder / "home/.local/share"),
            "LANG": "en_US.UTF-8", "TZ": "UTC", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1",
            "XDG_DATA_DIRS": f"{self.folder}/share:/usr/local/share:/usr/share", "LIBGL_ALWAYS_SOFTWARE": "1",
            "GSETTINGS_BACKEND": "memory", "QT_QPA_PLATFORMTHEME": "gnome"}
        self.start_display()
        self.session = self.start_bus("session", "DBUS_SESSION_BUS_ADDRESS")
        self.system = self.start_bus("system", "DBUS_SYSTEM_BUS_ADDRESS")
        # The libraries that this process looks through are on the same desktop.
        os.environ.update(self.environment)
        self.start_udisks()
        if self.has_panel:
            self.start_panel()

    def change_user(self):
        """From now on programs start with fresh settings and no backups; no stick is left."""
        for stick in self.sticks:
            stick.leave()
        self.sticks = []
        self.environment["LANG"] = "en_US.UTF-8"
        self.users += 1
        user = self.folder / f"user{self.users}"
        for variable, name in [("XDG_DATA_HOME", "data"), ("XDG_CONFIG_HOME", "config")]:
            (user / name).mkdir(parents=True)
            self.environment[variable] = str(user / name)

    def mount(self, name, megabytes=STICK_MEGABYTES):
        """A file system of that size; seen by this process and its children, and gone with them."""
        folder = self.folder / name
        folder.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={megabytes}m", "test", folder], check=True)
        self.mounted.append(folder)
        return folder

    def install_icons(self):
        for kind, pattern in [("symbolic", "*-symbolic.svg"), ("scalable", "com.stashwick.Agent.svg")]:
            place = self.folder / "share/icons/hicolor" / kind / "apps"
            place.mkdir(parents=True)
            for icon in (ROOT / "packaging/icons").glob(pattern):
                shutil.copy(icon, place)
        shutil.copy("/usr/share/icons/hicolor/index.theme", self.folder / "share/icons/hicolor")

    def start_display(self):
        reading, writing = os.pipe()
        self.start("Xvfb", "-displayfd", writing, "-screen", "0", self.screen, "-nolisten", "tcp", "-noreset",
                   pass_fds=[writing])
        os.close(writing)
        with open(reading, encoding="ascii") as display:
            self.environment["DISPLAY"] = ":" + display.readline().strip()
        frames = self.folder / "openbox.xml"
        frames.write_text(FRAMES.format(theme=self.window_theme))
        self.start("openbox", "--sm-disable", "--config-file", frames)
        # A window that comes before the manager can stay unmapped for good.
        wait_for("the window manager", lambda: b"window id" in subprocess.run(
            ["xprop", "-root", "_NET_SUPPORTING_WM_CHECK"], env=self.environment, capture_output=True).stdout)

    def start_bus(self, name, variable):
        configuration = self.folder / f"{name}.conf"
        configuration.write_text(BUS.format(folder=self.folder, name=name + "-bus"))
        address = f"unix:path={self.folder}/{name}-bus"
        self.start("dbus-daemon", "--nofork", f"--config-file={configuration}")
        wait_for(f"the {name} bus", (self.folder / f"{name}-bus").exists)
        self.environment[variable] = address
        return wait_for(f"the {name} bus", lambda: Bus(address))

    def start_panel(self):
        channels = self.folder / "home/.config/xfce4/xfconf/xfce-perchannel-xml"
        channels.mkdir(parents=True, exist_ok=True)
        shutil.copy(PANEL, channels / "xfce4-panel.xml")
        self.panel = self.start("xfce4-panel", "--disable-wm-check")
        wait_for("the panel", lambda: self.session.has("org.kde.StatusNotifierWatcher"))

    def end_panel(self):
        self.panel.terminate()
        self.panel.wait()
        wait_for("the panel's end", lambda: not self.session.has("org.kde.StatusNotifierWatcher"))

    def start_keyring(self):
        keyring = self.start("gnome-keyring-daemon", "--foreground", "--unlock", "--components=secrets",
                             stdin=subprocess.PIPE)
        keyring.stdin.write(b"keyring password")
        keyring.stdin.close()
        wait_for("the keyring", lambda: self.session.has("org.freedesktop.secrets"))

    def start_notifications(self):
        """A desktop's notification service, which remembers what it was told."""
        self.start("/usr/bin/python3", "-m", "dbusmock", "--template", "notification_daemon")
        wait_for("the notification service", lambda: self.session.has("org.freedesktop.Notifications"))

    def notifications(self):
        """Heading and text of each so far."""
        calls = self.session.call("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                                  "org.freedesktop.DBus.Mock", "GetMethodCalls", "(s)", "Notify")
        return [arguments[3:5] for _, arguments in calls]

    def start_logind(self):
        """It grants everybody everything."""
        program = self.start("/usr/bin/python3", "-m", "dbusmock", "--system", "--template", "logind")
        wait_for("logind", lambda: self.inhibitors() == [])
        return program

    def inhibitors(self):
        """What is inhibited, by whom, why, and how."""
        held = self.system.call("org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                "ListInhibitors")
        return [inhibitor[:4] for inhibitor in held]

    def make_mute_socket(self):
        """The address of a bus that takes connections and never says a word."""
        self.mute = socket.socket(socket.AF_UNIX)
        self.mute.bind(str(self.folder / "mute-bus"))
        self.mute.listen()
        return f"unix:path={self.folder}/mute-bus"

    @staticmethod
    def seconds_since(file):
        return time.time() - file.stat().st_mtime

    def start_udisks(self):
        self.start("/usr/bin/python3", "-m", "dbusmock", "--system", "--template", UDISKS2_MOCK, "--parameters",
                   '{"media": "%s"}' % (self.folder / "media"))
        wait_for("UDisks2", lambda: self.system.has("org.freedesktop.UDisks2"))
        wait_for("UDisks2's answers", lambda: isinstance(self.udisks("Calls"), list))

    def udisks(self, method, signature="()", *arguments):
        return self.system.call("org.freedesktop.UDisks2", "/org/freedesktop/UDisks2",
                                "org.freedesktop.UDisks2.Control", method, signature, *arguments)

    def stick(self, label, uuid="CAFE-0001", device="sdb"):
        self.sticks.append(Stick(self, label, uuid, device))
        return self.sticks[-1]


class Stick:
    """A USB stick with one volume. It is mounted on a folder, which holds its contents from the beginning."""
    BYTES = STICK_MEGABYTES << 20
    DEVICES = ["sdb", "sdc", "sdd", "sde"]
    SEQUENCE = itertools.count(1)

    def __init__(self, desktop, label, uuid, device):
        self.desktop, self.label, self.uuid, self.device = desktop, label, uuid, device
        self.contents = desktop.folder / "media" / f"{device}1"
        self.contents.mkdir()
        self.plugged = False
        self.minor = 16 * (1 + self.DEVICES.index(device))
        self.kernels = KERNELS_DISKS / f"8:{self.minor}"

    def interface(self, name):
        return f"org.freedesktop.UDisks2.{name}"

    def path(self, name):
        return f"/org/freedesktop/UDisks2/{name}"

    def block(self, name, size, **other):
        return {"Device": GLib.Variant("ay", f"/dev/{name}\0".encode()), "Size": GLib.Variant("t", size),
                "Drive": GLib.Variant("o", self.path(f"drives/{self.device}")),
                "HintAuto": GLib.Variant("b", True), "HintSystem": GLib.Variant("b", False),
                "CryptoBackingDevice": GLib.Variant("o", "/")} | other

    def add(self, path, interfaces):
        self.desktop.udisks("Add", "(sa{sa{sv}})", self.path(path),
                            {self.interface(name): properties for name, properties in interfaces.items()})

    def plug(self):
        self.plugged = True
        self.kernels.mkdir()
        (self.kernels / "diskseq").write_text(f"{next(self.SEQUENCE)}\n")
        text = lambda value: GLib.Variant("s", value)
        flag = GLib.Variant("b", True)
        # Later than any start of the agent, which asks only about what came after it.
        appearance = GLib.Variant("t", int((time.time() + 3600) * 1e6))
        self.add(f"drives/{self.device}", {"Drive": {
            "Vendor": text("ACME"), "Model": text("Flash Drive"), "Serial": text(self.uuid), "ConnectionBus": text("usb"),
            "Removable": flag, "MediaRemovable": flag, "Ejectable": flag, "TimeMediaDetected": appearance,
            "Size": GLib.Variant("t", self.BYTES)}})
        whole = self.block(self.device, self.BYTES, DeviceNumber=GLib.Variant("t", os.makedev(8, self.minor)))
        self.add(f"block_devices/{self.device}", {"Block": whole, "PartitionTable": {"Type": text("dos")}})
        volume = self.block(f"{self.device}1", self.BYTES, DeviceNumber=GLib.Variant("t", 0), IdUsage=text("filesystem"),
                            IdType=text("vfat"), IdLabel=text(self.label), IdUUID=text(self.uuid))
        partition = {"Number": GLib.Variant("u", 1), "UUID": text(f"{self.uuid}-01"),
                     "Table": GLib.Variant("o", self.path(f"block_devices/{self.device}"))}
        self.add(f"block_devices/{self.device}1", {"Block": volume, "Partition": partition, "Filesystem": {
            "MountPoints": GLib.Variant("aay", [])}})

    def write(self, name, contents):
        (self.contents / name).write_bytes(contents)

    def pull(self):
        for path in [f"block_devices/{self.device}1", f"block_devices/{self.device}", f"drives/{self.device}"]:
            self.desktop.udisks("Remove", "(s)", self.path(path))
        shutil.rmtree(self.kernels)
        self.plugged = False

    def leave(self):
        """Is nowhere any more, and holds nothing."""
        if self.plugged:
            self.pull()
        shutil.rmtree(self.contents)
