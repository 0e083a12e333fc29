#!/usr/bin/python3
"""Writes the agent's settings file as the preferences application would.

Usage: write-settings.py PATH JSON
The JSON object becomes the property list's root dictionary (XML format).
The file is replaced in one step, so the agent never reads half of it.
"""
import json
import os
import plistlib
import sys

path, settings = sys.argv[1], json.loads(sys.argv[2])
os.makedirs(os.path.dirname(path), exist_ok=True)
with open(path + ".new", "wb") as out:
    plistlib.dump(settings, out)
os.replace(path + ".new", path)
