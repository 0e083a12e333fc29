#!/usr/bin/python3
"""Prints a property list as JSON with sorted keys: read-settings.py PATH"""
import json
import plistlib
import sys

with open(sys.argv[1], "rb") as f:
    print(json.dumps(plistlib.load(f), sort_keys=True))
