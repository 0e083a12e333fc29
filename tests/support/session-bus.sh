#!/bin/sh
# Starts a private session bus for a test and prints two lines: its address
# and the daemon's pid. The test kills the pid when done.
exec dbus-daemon --config-file="$(dirname "$0")/session.conf" --fork --nopidfile --print-address=1 --print-pid=1
