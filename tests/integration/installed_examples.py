#!/usr/bin/env python3
"""installed_examples.py SOURCE BUILD CXX NAME: an example as a stranger has it. Installs BUILD into a folder of its own, builds
SOURCE/examples/NAME against nothing else, and runs it, on a virtual display and beside publishers of the test picture where it
wants them."""
import contextlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time

from installed_qml import HEIGHT, LIMIT_S, WIDTH, difference, must, running, screen, snapshot

BARS = {(0x40, 0xc0, 0x60), (0xe0, 0xc0, 0x40), (0xe0, 0x40, 0x40)}  # of the meters


class Installed:
    def __init__(self, source, build_tree, cxx, folder, stack):
        self.source, self.cxx, self.folder, self.stack = source, cxx, folder, stack
        self.prefix = folder / "prefix"
        must("cmake", "--install", build_tree, "--prefix", self.prefix)
        self.zevshm = self.prefix / "bin/zevshm"
        for name in ("s", "fb"):
            (folder / name).mkdir(mode=0o700)
        self.environment = {name: value for name, value in os.environ.items() if name != "QML2_IMPORT_PATH"}
        self.environment |= {"ZEV_SHM_DIR": str(folder / "s"), "QT_QPA_PLATFORM": "xcb"}

    def build(self, name):
        config = next(self.prefix.glob("lib*/**/pkgconfig/libshm.pc"))
        must("cmake", "-S", self.source / "examples" / name, "-B", self.folder / "build", f"-DCMAKE_CXX_COMPILER={self.cxx}",
             "-DCMAKE_BUILD_TYPE=Release", f"-DCMAKE_PREFIX_PATH={self.prefix}",
             env={**os.environ, "PKG_CONFIG_PATH": str(config.parent)})
        must("cmake", "--build", self.folder / "build", "--parallel", "2")
        return self.folder / "build" / name

    def run(self, *command):
        return self.stack.enter_context(running(*command, env=self.environment))

    def open_display(self, width=WIDTH, height=HEIGHT):
        server = self.stack.enter_context(running("Xvfb", "-displayfd", "1", "-screen", "0", f"{width}x{height}x24", "-fbdir",
                                                  self.folder / "fb", "-nolisten", "tcp", stdout=subprocess.PIPE, text=True,
                                                  stderr=subprocess.DEVNULL))
        number = server.stdout.readline().strip()
        if not number:
            sys.exit("Xvfb did not start")
        self.environment["DISPLAY"] = f":{number}"

    def screen(self):
        return screen(self.folder / "fb" / "Xvfb_screen0")

    def publish(self, name, *options):
        self.stack.enter_context(running(self.zevshm, "publish", name, "test:", *options, env=self.environment,
                                         stdout=subprocess.DEVNULL))
        self.wait_for(name)

    def wait_for(self, name):
        file = self.folder / f"{name}.png"
        wait_until(lambda: subprocess.run([self.zevshm, "snapshot", name, file], env=self.environment,
                                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0,
                   f"a picture in the store {name}")


def wait_until(condition, what):
    deadline = time.monotonic() + LIMIT_S
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"{what} did not come within {LIMIT_S} s")
        time.sleep(0.2)


def c_publisher(installed, program):
    lines = (installed.source / "examples/c-publisher/main.c").read_text().splitlines()
    if len(lines) > 60:
        sys.exit(f"c-publisher has {len(lines)} lines: it is to be the 60 of the documents")
    publisher = installed.run(program, "bar")
    installed.wait_for("bar")
    wait_until(lambda: info(installed)["audio"]["streams"][0]["framesPublished"] > 48000, "a second of sound")
    found = info(installed)
    expected = {"width": 640, "height": 360, "pixelFormat": "nv12", "range": "full"}
    if {name: found["video"][name] for name in expected} != expected or found["audio"]["channels"] != 1:
        sys.exit(f"the store is not what it is to be: {found}")
    if found["writerPid"] != publisher.pid or found["video"]["framesPublished"] < 20:
        sys.exit(f"it is another store, or stands still: {found}")


def info(installed):
    return json.loads(must(installed.zevshm, "info", "bar", "--json", env=installed.environment))


def qwidget(installed, program):
    installed.open_display()
    installed.publish("demo")
    expected = snapshot(installed.zevshm, installed.environment, installed.folder)
    installed.run(program, "shm:///demo")
    # Images are RGB16, and of the converter's own matrix; an empty window is farther away than 50.
    if difference([[(0, 0, 0)] * WIDTH] * HEIGHT, expected) < 50:
        sys.exit("the test picture is too dark to be told from none")
    wait_until(lambda: difference(installed.screen(), expected) < 20, "the store's picture on the screen")


def level_meter(installed, program):
    installed.open_display()
    installed.publish("demo")
    installed.run(program)
    wait_until(lambda: sum(pixel in BARS for row in installed.screen() for pixel in row) > 1000, "a bar")


def video_wall(installed, program):
    installed.open_display(1280, 720)
    names = ["wall0", "wall1", "wall2"]
    for name in names:
        installed.publish(name, "--size", "320x180", "--no-audio")
    report = installed.folder / "wall.json"
    must(program, "--seconds", "6", "--report", report, *[f"shm:///{name}" for name in names], env=installed.environment)
    for stream in json.loads(report.read_text())["streams"]:
        if stream["distinct"] < 25 or stream["frame_path"] not in ("mapped", "converted"):
            sys.exit(f"not shown: {stream}")


EXAMPLES = {"c-publisher": c_publisher, "qwidget": qwidget, "level-meter": level_meter, "video-wall": video_wall}


def main():
    source, build_tree, cxx = map(pathlib.Path, sys.argv[1:4])
    name = sys.argv[4]
    with tempfile.TemporaryDirectory(prefix="zev") as temporary, contextlib.ExitStack() as stack:
        installed = Installed(source, build_tree, cxx, pathlib.Path(temporary).resolve(), stack)
        EXAMPLES[name](installed, installed.build(name))


main()
