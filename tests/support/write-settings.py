#!/usr/bin/python3
# Usage: write-settings.py PATH JSON. The settings as the preferences application writes
# them: an XML property list, replaced in one step so the agent never reads half of it.
import json
import os
import plistlib
import sys

path, settings = sys.argv[1], json.loads(sys.argv[2])
os.makedirs(os.path.dirname(path), exist_ok=True)
with open(path + ".new", "wb") as out:
    plistlib.dump(settings, out)
os.replace(path + ".new", path)
