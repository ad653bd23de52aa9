#!/usr/bin/env python3
"""Fails when a folder of src/ includes a folder above it or beside it. The
floors, bottom up: common; core (settings, log, texts, registry, barriers);
items and install; dataobject; filedrop; hook; addin.

    check_layers.py <src folder>"""
import os
import re
import sys

FLOORS = {"common": 0, "core": 1, "items": 2, "install": 2, "dataobject": 3, "filedrop": 4, "hook": 5, "addin": 6}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_0-9]+)/[^"]+"', re.MULTILINE)


def main(src):
    failures = []
    for folder in sorted(os.listdir(src)):
        if not os.path.isdir(os.path.join(src, folder)):
            continue
        if folder not in FLOORS:
            failures.append("%s: a folder on no floor" % folder)
            continue
        for name in sorted(os.listdir(os.path.join(src, folder))):
            with open(os.path.join(src, folder, name), encoding="utf-8", errors="replace") as f:
                text = f.read()
            for used in INCLUDE.findall(text):
                if used in FLOORS and used != folder and FLOORS[used] >= FLOORS[folder]:
                    failures.append("%s/%s includes %s/, which is not below it" % (folder, name, used))
    print("\n".join(failures + ["%d includes that point up or sideways" % len(failures)]))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
