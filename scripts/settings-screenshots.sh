#!/usr/bin/env bash
# Screenshots of each page of the settings window for the README, made in
# the test's own private session (tests/settings-window/session.py) with
# sample settings. usage: scripts/settings-screenshots.sh [BUILD_DIR]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
out=$root/resources/screenshots
mkdir -p "$out"
QUILLON_ROOT=$root /usr/bin/python3 - "$build/bin/quillon-settings" "$build/bin/quillon-prefs" "$out" <<'PY'
import os, subprocess, sys, time
sys.path.insert(0, os.path.join(os.environ["QUILLON_ROOT"], "tests", "settings-window"))
from session import Session
settings, prefs, out = sys.argv[1:4]
s = Session(settings, prefs, relay=False)
try:
    renders = os.path.join(s.home, "Videos", "Renders")
    os.makedirs(renders)
    for arguments in (["set", "watchPremiereRenders", "1"], ["set", "watchAMEQueue", "1"],
                      ["watch-folders", "add", renders], ["set", "notifyEmail", "1"],
                      ["set", "emailServer", "smtp.example.com"], ["set", "emailPort", "587"],
                      ["set", "emailUseTLS", "1"], ["set", "emailFromAddress", "editor@example.com"],
                      ["set", "emailToAddress", "producer@example.com"], ["set", "notifyText", "1"],
                      ["phone", "+1 (555) 010-0000"], ["set", "notifyPush", "1"],
                      ["push", "add", "ntfys://ntfy.sh/render-room"]):
        s.prefs(*arguments)
    s.start_window()
    s.xdotool("mousemove", "999", "899")  # no pointer or tooltip in the pictures
    for tab, name in (("Watched", "watched"), ("When a Render Ends", "actions"), ("E-mail", "mail"),
                      ("Text Message", "text"), ("Push", "push")):
        s.press(s.find("page tab", tab))
        time.sleep(1)
        png = os.path.join(out, "settings-%s.png" % name)
        grab = os.path.join(s.root, "grab.png")
        subprocess.run(["ffmpeg", "-loglevel", "error", "-y", "-f", "x11grab", "-video_size", "640x720", "-i",
                        s.env["DISPLAY"] + "+0,0", "-frames:v", "1", grab], check=True, env=s.env)
        # Small for the README: three quarters of the size, 64 colours.
        subprocess.run(["ffmpeg", "-loglevel", "error", "-y", "-i", grab, "-vf",
                        "scale=480:-1,split[a][b];[a]palettegen=max_colors=64[p];[b][p]paletteuse=dither=none",
                        png], check=True)
        print(png)
finally:
    s.close()
PY
