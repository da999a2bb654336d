#!/usr/bin/env python3
"""check_needed.py [--as NAME] FILE...: which libraries a library or program is linked to. What is not listed here for its
name is an error: EGL and OpenGL are only ever looked up at run time, the platform libraries and zevshm do without Qt. --as
holds the files to another's list."""
import os
import pathlib
import re
import subprocess
import sys

# Every C++ program's, and what sanitizers add.
SYSTEM = r"ld-linux.*|lib(c|m|stdc\+\+|gcc_s|pthread|rt|dl|asan|ubsan|tsan)"
QT = r"libQt5({})"
FFMPEG = r"lib(av\w+|sw\w+)"
ALLOWED = {
    "libshm": [],
    "libzevmm": [],
    "libzev-utils": [],
    "libaudio-level": [],
    "libzevqt-utils": [QT.format("Core")],
    "libzevqt-mm": [QT.format("Core|Gui|Multimedia"), FFMPEG,
                    r"lib(shm|zevmm|zevqt-utils|zev-utils|audio-level)"],
    "zevshm": [FFMPEG, r"lib(shm|zevmm)"],
}


def needed(path):
    listing = subprocess.run(["readelf", "--dynamic", "--wide", path], check=True, capture_output=True, text=True,
                             env={**os.environ, "LC_ALL": "C"}).stdout
    found = re.findall(r"\(NEEDED\).*\[(.*?)\]", listing)
    if not found:
        sys.exit(f"check_needed: {path} needs nothing at all; give shared libraries and programs")
    return found


def main(arguments):
    name = None
    if arguments[:1] == ["--as"]:
        name, arguments = arguments[1], arguments[2:]
    if not arguments:
        sys.exit(__doc__)
    errors = 0
    for path in arguments:
        own = name or pathlib.Path(path).name.split(".")[0]
        allowed = re.compile(f"({'|'.join([SYSTEM, *ALLOWED[own]])})\\.so.*")
        for library in needed(path):
            if not allowed.fullmatch(library):
                errors += 1
                print(f"{own} is linked to {library}, which is not among what it may need")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
