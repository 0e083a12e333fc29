#!/usr/bin/env bash
# Start-up of the settings window beside another libadwaita application from
# Debian (gnome-text-editor): from starting the process to its window being
# mapped on the X server, which GTK 4 does right after laying out and drawing
# the first frame. Each run is a new process in the same private session
# (tests/settings-window/session.py: Xvfb, session bus, accessibility bus,
# keyring). Prints the medians and their ratio, of wall time and of the
# process's CPU time at that moment (user and system, from /proc/PID/stat),
# which a busy machine disturbs less than the wall time.
#
# Usage: bench/settings-window-start.sh BIN_DIR [RUNS]   (RUNS defaults to 9)
set -euo pipefail
BIN=$(cd "${1:?usage: settings-window-start.sh BIN_DIR [RUNS]}" && pwd)
RUNS=${2:-9}
command -v gnome-text-editor >/dev/null || { echo "gnome-text-editor is missing (apt-get install gnome-text-editor)" >&2; exit 1; }
ROOT=$(cd "$(dirname "$0")/.." && pwd)
/usr/bin/python3 - "$BIN" "$RUNS" "$ROOT" <<'PY'
import os, statistics, subprocess, sys, time
bin_dir, runs, root = sys.argv[1], int(sys.argv[2]), sys.argv[3]
sys.path.insert(0, os.path.join(root, "tests", "settings-window"))
from session import Session

s = Session(os.path.join(bin_dir, "quillon-settings"), os.path.join(bin_dir, "quillon-prefs"), relay=False)

def mapped_ms(command, window_class):
    start = time.monotonic()
    process = subprocess.Popen(command, env=s.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        while True:
            found = subprocess.run(["xdotool", "search", "--onlyvisible", "--class", window_class],
                                   env=s.env, capture_output=True).stdout.strip()
            if found:
                wall = (time.monotonic() - start) * 1000
                with open("/proc/%d/stat" % process.pid) as f:
                    fields = f.read().rsplit(")", 1)[1].split()
                cpu = (int(fields[11]) + int(fields[12])) * 1000 / os.sysconf("SC_CLK_TCK")
                return wall, cpu
            if time.monotonic() - start > 30:
                raise RuntimeError("%s showed no window" % command[0])
    finally:
        process.terminate()
        process.wait(10)
        time.sleep(0.5)

try:
    subjects = [("quillon-settings", [os.path.join(bin_dir, "quillon-settings")], "quillon-settings"),
                ("gnome-text-editor", ["gnome-text-editor", "--standalone", "--ignore-session"], "gnome-text-editor")]
    for _, command, window_class in subjects:  # warm the caches
        mapped_ms(command, window_class)
    medians = {}
    for name, command, window_class in subjects:
        samples = [mapped_ms(command, window_class) for _ in range(runs)]
        walls, cpus = [w for w, _ in samples], [c for _, c in samples]
        medians[name] = (statistics.median(walls), statistics.median(cpus))
        print("%-18s wall median %6.0f ms (min %6.0f, max %6.0f)   CPU median %6.0f ms   (%d runs)"
              % (name, medians[name][0], min(walls), max(walls), medians[name][1], runs))
    ours, theirs = medians["quillon-settings"], medians["gnome-text-editor"]
    print("ratio quillon-settings / gnome-text-editor: wall %.2f, CPU %.2f" % (ours[0] / theirs[0], ours[1] / theirs[1]))
finally:
    s.close()
PY
