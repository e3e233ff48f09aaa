"""UDisks2 for tests, as a template of python-dbusmock: objects that a test adds, fills in, changes and removes.

Mounting makes a folder named after the block device in the media folder (the template's parameter). Control
methods are on /org/freedesktop/UDisks2, in the interface CONTROL.
"""
import os

import dbus
from dbusmock import OBJECT_MANAGER_IFACE, mockobject

BUS_NAME = "org.freedesktop.UDisks2"
MAIN_OBJ = "/org/freedesktop/UDisks2"
MAIN_IFACE = "org.freedesktop.UDisks2.Mock"
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

CONTROL = "org.freedesktop.UDisks2.Control"
FILE_SYSTEM = "org.freedesktop.UDisks2.Filesystem"
DRIVE = "org.freedesktop.UDisks2.Drive"
BLOCK = "org.freedesktop.UDisks2.Block"

media = ""
refusals = {}
calls = []


def load(mock, parameters):
    global media
    media = parameters["media"]
    print("ready", flush=True)


def note(mock, method, details=""):
    calls.append(f"{method} {os.path.basename(mock.path)} {details}".strip())
    if method in refusals:
        name, message = refusals.pop(method)
        raise dbus.exceptions.DBusException(message, name=name)


def options_text(options):
    return " ".join(sorted(options))


def mount_points(*paths):
    return {"MountPoints": dbus.Array([dbus.ByteArray(p.encode() + b"\0") for p in paths], signature="ay")}


def mount(mock, options):
    note(mock, "Mount", options_text(options))
    if mock.props[FILE_SYSTEM]["MountPoints"]:
        raise dbus.exceptions.DBusException("already mounted", name="org.freedesktop.UDisks2.Error.AlreadyMounted")
    path = os.path.join(media, os.path.basename(mock.path))
    os.makedirs(path, exist_ok=True)
    mock.UpdateProperties(FILE_SYSTEM, mount_points(path))
    return path


def unmount(mock, options):
    note(mock, "Unmount")
    if not mock.props[FILE_SYSTEM]["MountPoints"]:
        raise dbus.exceptions.DBusException("not mounted", name="org.freedesktop.UDisks2.Error.NotMounted")
    mock.UpdateProperties(FILE_SYSTEM, mount_points())


def set_label(mock, label, options):
    note(mock, "SetLabel", label)
    mock.UpdateProperties(BLOCK, {"IdLabel": label})


def eject(mock, options):
    note(mock, "Eject")


METHODS = {
    FILE_SYSTEM: [("Mount", "a{sv}", "s", mount), ("Unmount", "a{sv}", "", unmount),
                  ("SetLabel", "sa{sv}", "", set_label)],
    DRIVE: [("Eject", "a{sv}", "", eject)],
}


@dbus.service.method(CONTROL, in_signature="sa{sa{sv}}", out_signature="")
def Add(self, path, interfaces):
    """Adds the interfaces to the object, which is made where there is none, and tells of just these."""
    for interface, properties in interfaces.items():
        if path in mockobject.objects:
            mockobject.objects[path].AddProperties(interface, properties)
        else:
            self.AddObject(path, interface, properties, [])
        for method in METHODS.get(interface, []):
            mockobject.objects[path].AddMethod(interface, *method)
    self.EmitSignal(OBJECT_MANAGER_IFACE, "InterfacesAdded", "oa{sa{sv}}", [dbus.ObjectPath(path), interfaces])


@dbus.service.method(CONTROL, in_signature="s", out_signature="")
def Remove(self, path):
    self.object_manager_emit_removed(path)
    self.RemoveObject(path)


@dbus.service.method(CONTROL, in_signature="s", out_signature="")
def TellAgain(self, path):
    self.object_manager_emit_added(path)


@dbus.service.method(CONTROL, in_signature="ssa{sv}", out_signature="")
def Change(self, path, interface, properties):
    mockobject.objects[path].UpdateProperties(interface, properties)


@dbus.service.method(CONTROL, in_signature="sss", out_signature="")
def RefuseNext(self, method, name, message):
    refusals[method] = (name, message)


@dbus.service.method(CONTROL, in_signature="", out_signature="as")
def Calls(self):
    """The calls of UDisks2's methods so far: "Mount sdb1 OPTIONS"."""
    return calls
