#!/usr/bin/env python3
"""installed_qml.py SOURCE BUILD CXX ZEVSHM: the QML module as a stranger has it. Installs BUILD into a folder of its own,
builds SOURCE/examples/qml-minimal against nothing else, runs it on a virtual display beside a publisher of the test
picture, and compares the screen with what the store holds. Then the tree is moved, so that only QML2_IMPORT_PATH tells
where the module lies, and the same is looked at again."""
import contextlib
import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile
import time

LIMIT_S = 60
WIDTH, HEIGHT = 960, 540
STILL = 100  # lines at the top of the test picture in which nothing moves: color bars and a ramp


def must(*command, **options):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit {done.returncode}\n{done.stdout}")
    return done.stdout


@contextlib.contextmanager
def running(*command, **options):
    process = subprocess.Popen([str(part) for part in command], **options)
    try:
        yield process
    finally:
        process.kill()
        process.wait()


def screen(path):
    """The display's pixels as rows of (r, g, b), from the server's XWD file."""
    data = path.read_bytes()
    header = struct.unpack(">25I", data[:100])
    size, width, height, bits, stride, colors = header[0], header[4], header[5], header[11], header[12], header[19]
    if bits != 32:
        sys.exit(f"the display has {bits} bits a pixel")
    offset = size + 12 * colors
    rows = []
    for y in range(height):
        row = data[offset + y * stride:offset + y * stride + 4 * width]
        rows.append([(row[i + 2], row[i + 1], row[i]) for i in range(0, 4 * width, 4)])
    return rows


def snapshot(zevshm, environment, folder):
    """The newest frame of the store, scaled to the window, as rows of (r, g, b)."""
    picture = folder / "frame.png"
    must(zevshm, "snapshot", "demo", picture, env=environment)
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", str(picture), "-vf", f"scale={WIDTH}:{HEIGHT}", "-f", "rawvideo",
                          "-pix_fmt", "rgb24", "-"], stdout=subprocess.PIPE, check=True).stdout
    return [[tuple(raw[3 * (y * WIDTH + x):3 * (y * WIDTH + x) + 3]) for x in range(WIDTH)] for y in range(HEIGHT)]


def difference(shot, expected):
    """Mean over points of a grid that keeps off the edges of the bars."""
    points = [(x, y) for x in range(10, WIDTH, 20) for y in range(10, STILL, 10)]
    total = sum(abs(shot[y][x][i] - expected[y][x][i]) for x, y in points for i in range(3))
    return total / (3 * len(points))


def wait_for_picture(shoot, expected):
    deadline = time.monotonic() + LIMIT_S
    best = 255.0
    while time.monotonic() < deadline:
        best = min(best, difference(shoot(), expected))
        if best < 6:
            return
        time.sleep(0.2)
    sys.exit(f"the screen differs from the store's picture by {best:.1f} of 255")


def check_qml_size(source):
    lines = [line for line in (source / "examples/qml-minimal/main.qml").read_text().splitlines() if line.strip()]
    if len(lines) >= 20:
        sys.exit(f"examples/qml-minimal/main.qml has {len(lines)} lines: it is to be the 20 of the documents")


def check_plugin(prefix):
    plugin = next(prefix.glob("lib*/**/libzevqtmultimediaplugin.so"))
    for name in ("qmldir", "plugins.qmltypes"):
        if not (plugin.parent / name).exists():
            sys.exit(f"{name} does not lie beside {plugin}")
    libraries = must("ldd", plugin)
    found = re.search(r"^\s*libzevqt-mm\.so\S* => (\S+)", libraries, re.M)
    if not found or not pathlib.Path(found.group(1)).resolve().is_relative_to(prefix):
        sys.exit(f"libzevqt-mm comes from {found and found.group(1)}, not from {prefix}")
    return plugin.parent.parent.parent


def build(source, folder, prefix, cxx):
    must("cmake", "-S", source / "examples/qml-minimal", "-B", folder / "build", f"-DCMAKE_CXX_COMPILER={cxx}",
         f"-DCMAKE_PREFIX_PATH={prefix}")
    must("cmake", "--build", folder / "build", "--parallel", "2")
    return folder / "build" / "qml-minimal"


def main():
    source, build_tree, cxx, zevshm = map(pathlib.Path, sys.argv[1:])
    check_qml_size(source)
    with tempfile.TemporaryDirectory(prefix="zev") as temporary, contextlib.ExitStack() as stack:
        folder = pathlib.Path(temporary).resolve()
        prefix = folder / "prefix"
        must("cmake", "--install", build_tree, "--prefix", prefix)
        modules = check_plugin(prefix)
        app = build(source, folder, prefix, cxx)

        (folder / "s").mkdir(mode=0o700)
        (folder / "fb").mkdir()
        environment = {**os.environ, "ZEV_SHM_DIR": str(folder / "s"), "QT_QPA_PLATFORM": "xcb"}
        environment.pop("QML2_IMPORT_PATH", None)
        server = stack.enter_context(running("Xvfb", "-displayfd", "1", "-screen", "0", f"{WIDTH}x{HEIGHT}x24", "-fbdir",
                                             folder / "fb", "-nolisten", "tcp", stdout=subprocess.PIPE, text=True,
                                             stderr=subprocess.DEVNULL))
        number = server.stdout.readline().strip()
        if not number:
            sys.exit("Xvfb did not start")
        environment["DISPLAY"] = f":{number}"
        stack.enter_context(running(zevshm, "publish", "demo", "test:", env=environment, stdout=subprocess.DEVNULL))
        deadline = time.monotonic() + LIMIT_S
        while subprocess.run([str(zevshm), "snapshot", "demo", str(folder / "first.png")], env=environment,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode != 0:
            if time.monotonic() > deadline:
                sys.exit("the publisher publishes nothing")
            time.sleep(0.1)
        expected = snapshot(zevshm, environment, folder)
        dark = difference([[(0, 0, 0)] * WIDTH] * HEIGHT, expected)
        if dark < 50:
            sys.exit(f"the test picture is too dark to be told from none: {dark:.1f}")

        def shoot():
            return screen(folder / "fb" / "Xvfb_screen0")

        with running(app, env=environment):
            wait_for_picture(shoot, expected)
        if difference(shoot(), expected) < dark / 2:
            sys.exit("the picture stays on the screen without the program")
        prefix.rename(folder / "moved")
        done = subprocess.run([str(app)], env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 1 or "ZevQt.Multimedia" not in done.stdout:
            sys.exit(f"without the module the program ends with {done.returncode}:\n{done.stdout}")
        environment["QML2_IMPORT_PATH"] = str(folder / "moved" / modules.relative_to(prefix))
        with running(app, env=environment):
            wait_for_picture(shoot, expected)


if __name__ == "__main__":
    main()
