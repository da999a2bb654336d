#!/usr/bin/env python3
"""check_includes.py ROOT: who includes whom. Every folder may include only what is listed for it here; anything else
of ours is an error. With --self-test, shows that a forbidden include is found."""
import pathlib
import re
import sys
import tempfile

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^">]+)[">]', re.M)

# Folder -> the project's include paths it may use, as prefixes of what stands between the brackets.
PLATFORM = ("shm/", "zevmm/", "zevqt-utils/", "zev-utils/", "audio-level/", "audio_level/")
ALLOWED = {
    # The two that the laid-down signatures and members of public classes need, by name.
    "include/zevqt-mm": ("zevqt-mm/", "shm/shm_types.h", "zev-utils/clockadjustmentdetector.h"),
    "src/sources": ("sources/", "video/", "wrapping.h", "zevqt-mm/") + PLATFORM,
    "src/video": ("video/", "wrapping.h", "zevqt-mm/") + PLATFORM,
    "src/provider": ("provider/", "wrapping.h", "zevqt-mm/", "zevqt-utils/"),
    "src/audio": ("audio/", "wrapping.h", "zevqt-mm/", "zev-utils/", "audio-level/", "audio_level/"),
    "qml": ("zevqt-mm/", "shm/"),
    "tools": ("shm/",),
    "examples": ("zevqt-mm/", "shm/"),
}
# The library's own folders and libraries, by what an include of them starts with.
OURS = ("zevqt-mm/", "sources/", "video/", "provider/", "audio/", "wrapping.h") + PLATFORM


def findings(root):
    result = []
    # Only the folders of the project: build trees lie in the root, too.
    tops = [root / top for top in ("platform", "include", "src", "qml", "tools", "examples")]
    sources = [p for top in tops for p in top.rglob("*") if p.suffix in (".h", ".c", ".cpp", ".hpp")]
    for path in sources:
        relative = path.relative_to(root).as_posix()
        text = path.read_text(encoding="utf-8", errors="replace")
        if relative.startswith("platform/"):
            own = relative.split("/")[1]
            for _, name in INCLUDE.findall(text):
                if name.startswith(("zevqt-mm/", "sources/", "video/", "provider/")):
                    result.append(f"{relative}: platform/{own} knows nothing of src/, but includes {name}")
            continue
        folder = next((f for f in ALLOWED if relative.startswith(f + "/")), None)
        if folder is None:
            continue
        beside = {p.relative_to(path.parent).as_posix() for p in path.parent.rglob("*.h")}
        for bracket, name in INCLUDE.findall(text):
            if bracket == '"' and name in beside:
                continue
            if name.startswith(OURS) and not name.startswith(ALLOWED[folder]):
                result.append(f"{relative}: {folder} may not include {name}")
            if folder in ("qml", "tools", "examples") and bracket == '"' and ".." in name:
                result.append(f"{relative}: {folder} uses public headers only, but includes {name}")
    return len(sources), result


def self_test():
    cases = {
        "platform/shm/src/a.cpp": "#include <zevqt-mm/mediasource.h>\n",
        "src/video/b.cpp": '#include "sources/shmemreader.h"\n',
        "src/provider/c.cpp": "#include <shm/shm_reader.h>\n",
        "include/zevqt-mm/d.h": "#include <shm/shm_reader.h>\n",
        "qml/e.cpp": '#include "sources/shmemreader.h"\n',
        "tools/f.cpp": "#include <zevqt-mm/mediasource.h>\n",
    }
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        for name, text in cases.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text)
        found = findings(root)[1]
    missed = [name for name in cases if not any(line.startswith(name) for line in found)]
    if missed:
        print("not found:", *missed, sep="\n")
    return 1 if missed else 0


def main():
    if sys.argv[1:] == ["--self-test"]:
        return self_test()
    root = pathlib.Path(sys.argv[1])
    looked, found = findings(root)
    if looked == 0:
        print(f"{root} holds no sources")
        return 1
    print(*found, f"{looked} files", sep="\n")
    return 1 if found else 0


sys.exit(main())
