"""The agent on a headless desktop, as a user and other programs meet it: menu, alerts, bus name, store."""
import contextlib
import fcntl
import os
import pathlib
import shutil
import signal
import subprocess

import pyatspi
from gi.repository import GLib
from headless_desktop import LIMIT, wait_for, watched

NAME = "com.stashwick.Agent"
PATH = "/com/stashwick/Agent"
WATCHER = "org.kde.StatusNotifierWatcher"
MENU = "com.canonical.dbusmenu"


class Programs:
    """A copy of the build's agent, whose image tool waits before it begins while the test holds the gate.

    prefix: a command line that runs the agent's, say that of a debugging tool.
    """

    def __init__(self, build, folder, prefix=()):
        build = pathlib.Path(build).resolve()
        self.agent = [*prefix, folder / "app/bin/stashwick-agent"]
        self.ctl = build / "bin/stashwickctl"
        self.hdiutil = build / "libexec/stashwick/hdiutil"
        self.gate = folder / "gate"
        self.gate.touch()
        for name in ["bin", "libexec/stashwick", "share"]:
            (folder / "app" / name).mkdir(parents=True)
        shutil.copy2(build / "bin/stashwick-agent", self.agent[-1])
        (folder / "app/share/stashwick").symlink_to(build / "share/stashwick")
        (folder / "app/libexec/stashwick/diskutil").symlink_to(build / "libexec/stashwick/diskutil")
        tool = folder / "app/libexec/stashwick/hdiutil"
        tool.write_text(f'#!/bin/sh\nflock "{self.gate}" true && exec "{self.hdiutil}" "$@"\n')
        tool.chmod(0o755)

    def start_agent(self, desktop):
        program = desktop.start(*self.agent, name="stashwick-agent")
        watched.add(program)
        return program

    @contextlib.contextmanager
    def held_back(self):
        with open(self.gate, "rb") as gate:
            fcntl.flock(gate, fcntl.LOCK_EX)
            yield


class Agent:
    def __init__(self, desktop, programs):
        self.desktop, self.session = desktop, desktop.session
        self.programs = programs
        self.store = pathlib.Path(desktop.environment["XDG_DATA_HOME"]) / "Stashwick 3"
        self.process = programs.start_agent(desktop)
        self.state_changes = self.session.follow(PATH, NAME, "StateChanged")
        wait_for("the agent's name", lambda: self.is_gone() or self.session.has(NAME))
        assert not self.is_gone(), f"the agent has ended with {self.process.returncode}"

    def is_gone(self):
        return self.process.poll() is not None

    def exit_status(self):
        wait_for("the agent's end", self.is_gone)
        return self.process.returncode

    def end(self):
        if not self.is_gone():
            self.process.send_signal(signal.SIGTERM)
        return self.exit_status()

    def kill(self):
        watched.discard(self.process)
        self.process.kill()
        self.process.wait()

    def start_again(self):
        return subprocess.run(self.programs.agent, env=self.desktop.environment, timeout=LIMIT, check=False,
                              capture_output=True).returncode

    # What other programs ask.

    def ask(self, method, signature="()", *arguments):
        return self.session.call(NAME, PATH, NAME, method, signature, *arguments)

    def is_idle(self):
        return self.current_volume() == ""

    def current_volume(self):
        return self.session.get(NAME, PATH, NAME, "CurrentVolume")

    # The menu.

    def item(self):
        """Bus name and path of the status item."""
        items = self.session.get(WATCHER, "/StatusNotifierWatcher", WATCHER, "RegisteredStatusNotifierItems")
        return (items[0].split("/")[0], "/" + items[0].split("/", 1)[1]) if items else None

    def item_property(self, key):
        name, path = wait_for("the status item", self.item)
        return self.session.get(name, path, "org.kde.StatusNotifierItem", key)

    def layout(self):
        name, _ = wait_for("the status item", self.item)
        return self.session.call(name, self.item_property("Menu"), MENU, "GetLayout", "(iias)", 0, -1, [])[1]

    def menu(self):
        """The lines of the menu: "-" is a separator, disabled items stand in parentheses."""
        return [line for entry in self.layout()[2] for line in lines_of(entry)]

    def wait_for_menu(self, line):
        wait_for(f"{line!r} in the menu", lambda: line in self.menu())

    def choose(self, label):
        name, _ = self.item()
        chosen = wait_for(f"{label!r} in the menu", lambda: entry_of(self.layout(), label))
        self.session.call(name, self.item_property("Menu"), MENU, "Event", "(isvu)", chosen, "clicked",
                          GLib.Variant("i", 0), 0)

    # The store.

    def image_tools(self):
        """Command lines of this agent's image tools that run; other tests have their own."""
        return [line for line in map(command_line, os.listdir("/proc"))
                if line.startswith(str(self.programs.hdiutil)) and str(self.store) in line]

    def images(self, volume):
        return sorted((self.store / volume).glob("*.dmg"))

    def leavings(self, volume):
        """What is in the volume's folder, beside whole backups and what is kept hidden."""
        return [path.name for path in (self.store / volume).iterdir() if path.suffix not in (".dmg", ".manifest")]

    def wait_until_idle(self, images, volume="STICK"):
        wait_for(f"{images} images of {volume}",
                 lambda: len(self.images(volume)) == images and self.is_idle())
        return self.images(volume)


def command_line(process):
    with contextlib.suppress(OSError):
        return pathlib.Path("/proc", process, "cmdline").read_text(errors="replace")
    return ""


def lines_of(entry):
    _, properties, children = entry
    if properties.get("type") == "separator":
        return ["-"]
    mark = {0: "[ ] ", 1: "[x] "}.get(properties.get("toggle-state"), "")
    label = mark + text_of(properties)
    return ([label if properties.get("enabled", True) else f"({label})"] +
            ["  " + line for child in children for line in lines_of(child)])


def text_of(properties):
    return properties.get("label", "").replace("__", "\0").replace("_", "").replace("\0", "_")


def entry_of(layout, label):
    number, properties, children = layout
    if text_of(properties) == label:
        return number
    return next((found for child in children if (found := entry_of(child, label))), None)


class Window:
    """A window of the agent, through what a screen reader is told of it."""

    def __init__(self, accessible):
        self.accessible = accessible

    @staticmethod
    def wait(role="alert"):
        return wait_for(f"a window ({role})", lambda: Window.find(role))

    @staticmethod
    def find(role="alert"):
        for application in pyatspi.Registry.getDesktop(0):
            if application and application.name == "stashwick-agent":
                for window in application:
                    if window and window.getRoleName() == role and window.getState().contains(pyatspi.STATE_SHOWING):
                        return Window(window)
        return None

    def all(self, role):
        return pyatspi.findAllDescendants(self.accessible, lambda each: each.getRoleName() == role)

    def names(self, role):
        return [each.name for each in self.all(role)]

    def named(self, role, name):
        return next(each for each in self.all(role) if each.name == name)

    def press(self, name, role="push button"):
        """Once is enough: it stays down for a tenth of a second, and another press begins that anew."""
        self.named(role, name).queryAction().doAction(0)

    def close(self, button):
        self.press(button)
        self.wait_until_closed()

    def left_of(self, role, name):
        """Where it begins on the screen."""
        return self.named(role, name).queryComponent().getExtents(pyatspi.DESKTOP_COORDS).x

    def has(self, state, role, name):
        return self.named(role, name).getState().contains(state)

    def type_key(self, desktop, key):
        """Once the window has the keyboard."""
        focused = lambda: any(each.getState().contains(pyatspi.STATE_FOCUSED) for each in self.all("push button"))
        wait_for("the keyboard's focus", focused)
        subprocess.run(["xdotool", "key", key], env=desktop.environment, check=True)

    def wait_until_closed(self, role="alert"):
        """Another one may be open then."""
        is_shown = lambda: (window := Window.find(role)) is not None and window.accessible == self.accessible
        wait_for(f"the window's end ({role})", lambda: not is_shown())
