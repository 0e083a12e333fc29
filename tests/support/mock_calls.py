#!/usr/bin/python3
# Prints the calls a python3-dbusmock object recorded (org.freedesktop.DBus.Mock
# GetCalls), one per line: the method name, then each argument as Python
# literal, separated by tabs. Usage: mock_calls.py ADDRESS BUS_NAME OBJECT_PATH
import sys

import dbus
from dbus.bus import BusConnection


def plain(value):
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, (dbus.Byte, dbus.Int16, dbus.Int32, dbus.Int64, dbus.UInt16, dbus.UInt32, dbus.UInt64)):
        return int(value)
    if isinstance(value, dbus.Double):
        return float(value)
    if isinstance(value, dbus.Array):
        return [plain(v) for v in value]
    if isinstance(value, dbus.Struct):
        return tuple(plain(v) for v in value)
    if isinstance(value, dbus.Dictionary):
        return {plain(k): plain(v) for k, v in value.items()}
    return value


address, name, path = sys.argv[1:4]
bus = BusConnection(address)
mock = dbus.Interface(bus.get_object(name, path), 'org.freedesktop.DBus.Mock')
for _stamp, method, args in mock.GetCalls():
    print('\t'.join([str(method)] + [repr(plain(a)) for a in args]))
