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
    "qml": ("zevqt-mm/", "shm/", "zevmm/", "zev-utils/"),
    "tools": ("shm/", "zevmm/"),
    "gstreamer": ("shm/",),
    "examples": ("zevqt-mm/", "shm/", "zevmm/", "zev-utils/"),
}
# These know nothing of Qt.
WITHOUT_QT = ("platform/shm/", "platform/zevmm/", "platform/zev-utils/", "platform/audio-level/", "tools/",
              "gstreamer/")
QT = re.compile(r"(Q[A-Z]\w*|Qt[A-Z]\w*/.*)$")
# The library's own folders and libraries, by what an include of them starts with.
OURS = ("zevqt-mm/", "sources/", "video/", "provider/", "audio/", "wrapping.h") + PLATFORM


def findings(root):
    result = []
    # Only the folders of the project: build trees lie in the root, too.
    tops = [root / top for top in ("platform", "include", "src", "qml", "tools", "gstreamer", "examples")]
    sources = [p for top in tops for p in top.rglob("*") if p.suffix in (".h", ".c", ".cpp", ".hpp")]
    for path in sources:
        relative = path.relative_to(root).as_posix()
        text = path.read_text(encoding="utf-8", errors="replace")
        for _, name in INCLUDE.findall(text):
            if ".." in name.split("/"):
                result.append(f"{relative}: {name} goes around who may include whom")
            if relative.startswith(WITHOUT_QT) and QT.match(name):
                result.append(f"{relative}: does without Qt, but includes {name}")
            if relative.startswith("include/") and "private/" in name:
                result.append(f"{relative}: {name} is not there for everyone who has Qt")
        if relative.startswith("platform/"):
            own = relative.split("/")[1]
            for bracket, name in INCLUDE.findall(text):
                is_own = name.startswith((own + "/", own.replace("-", "_") + "/"))
                is_beside = bracket == '"' and (path.parent / name).exists()
                if name.startswith(OURS) and not is_own and not is_beside:
                    result.append(f"{relative}: platform/{own} knows of no other part, but includes {name}")
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
    return len(sources), result


def self_test():
    cases = {
        "platform/shm/src/a.cpp": "#include <zevqt-mm/mediasource.h>\n",
        "platform/shm/src/b.cpp": '#include "audio/audiologging.h"\n',
        "platform/zev-utils/src/c.cpp": "#include <shm/shm_reader.h>\n",
        "platform/audio-level/src/d.c": "#include <QtCore/qglobal.h>\n",
        "src/video/e.cpp": '#include "sources/shmemreader.h"\n',
        "src/provider/f.cpp": "#include <shm/shm_reader.h>\n",
        "src/audio/g.cpp": '#include "../sources/shmemreader.h"\n',
        "include/zevqt-mm/h.h": "#include <shm/shm_reader.h>\n",
        "include/zevqt-mm/i.h": "#include <QtCore/private/qobject_p.h>\n",
        "qml/j.cpp": '#include "sources/shmemreader.h"\n',
        "examples/k.cpp": '#include "../src/video/dmavideobuffer.h"\n',
        "tools/l.cpp": "#include <zevqt-mm/mediasource.h>\n",
        "tools/m.cpp": "#include <QString>\n",
    }
    allowed = {
        "platform/shm/src/n.cpp": '#include <shm/shm_reader.h>\n#include "shm/shm_types.h"\n',
        "platform/zevqt-utils/src/o.cpp": "#include <zevqt-utils/multimediathread.h>\n#include <QObject>\n",
        "src/sources/p.cpp": "#include <shm/shm_reader.h>\n#include <QtCore/QString>\n#include <vector>\n",
        "examples/q.cpp": "#include <zevqt-mm/mediaprovider.h>\n",
    }
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        for name, text in {**cases, **allowed}.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text)
        found = findings(root)[1]
    missed = [name for name in cases if not any(line.startswith(name) for line in found)]
    wrong = [line for line in found if line.startswith(tuple(allowed))]
    if missed or wrong:
        print("not found:", *missed, "found by mistake:", *wrong, sep="\n")
    return 1 if missed or wrong else 0


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
