#!/bin/sh
# A private stand-in for the system bus: prints its address and the daemon's pid, which the test kills.
exec dbus-daemon --config-file="$(dirname "$0")/system-bus.conf" --fork --nopidfile --print-address=1 --print-pid=1
