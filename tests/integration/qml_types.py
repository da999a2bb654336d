#!/usr/bin/env python3
"""qml_types.py DUMP MODULES FILE: whether FILE, the module's plugins.qmltypes, says what Qt's qmlplugindump finds in the
plugin below MODULES. With --write as a fourth argument it is made so."""
import os
import pathlib
import subprocess
import sys


def main():
    dump, modules, file, *more = sys.argv[1:]
    environment = {**os.environ, "QT_QPA_PLATFORM": "offscreen"}
    done = subprocess.run([dump, "-noinstantiate", "-nonrelocatable", "ZevQt.Multimedia", "1.0", modules],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment)
    if done.returncode != 0 or "LiveVideo" not in done.stdout:
        sys.exit(f"{dump} ends with {done.returncode}:\n{done.stdout}{done.stderr}")
    # The comment at the top has the folders of this machine.
    lines = [line for line in done.stdout.splitlines() if not line.startswith("// 'qmlplugindump")]
    found = "\n".join(lines) + "\n"
    if more == ["--write"]:
        pathlib.Path(file).write_text(found)
    elif pathlib.Path(file).read_text() != found:
        sys.exit(f"{file} is not what the plugin has; run\n  {' '.join(sys.argv)} --write")


main()
