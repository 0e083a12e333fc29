#!/usr/bin/python3
# Usage: mock_calls.py ADDRESS BUS_NAME OBJECT_PATH. The calls a dbusmock object recorded,
# one per line: the method name, then each argument as a Python literal, tab-separated.
import sys

import dbus
from dbus.bus import BusConnection


def plain(value):
    # dbus-python's types derive from Python's own; their repr() does not.
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, dict):
        return {plain(k): plain(v) for k, v in value.items()}
    if isinstance(value, list):
        return [plain(v) for v in value]
    if isinstance(value, tuple):
        return tuple(plain(v) for v in value)
    for kind in (str, int, float):
        if isinstance(value, kind):
            return kind(value)
    return value


address, name, path = sys.argv[1:4]
bus = BusConnection(address)
mock = dbus.Interface(bus.get_object(name, path), 'org.freedesktop.DBus.Mock')
for _stamp, method, args in mock.GetCalls():
    print('\t'.join([str(method)] + [repr(plain(a)) for a in args]))
