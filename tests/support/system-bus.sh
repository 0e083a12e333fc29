#!/bin/sh
# Starts the private stand-in for the system bus and prints two lines: its
# address and the daemon's pid. The test kills the pid when done.
exec dbus-daemon --config-file="$(dirname "$0")/system-bus.conf" --fork --nopidfile --print-address=1 --print-pid=1
