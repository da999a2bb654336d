#!/usr/bin/env python3
"""run_script.py SOURCE ZEVSHM VIEWER: what a person sees of ./run and of what it calls. The script runs from a tree of its
own, in which nothing is installed or built: the programs are those given."""
import ctypes
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

LIMIT_S = 60


class ClientMessage(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("message_type", ctypes.c_ulong),
                ("format", ctypes.c_int), ("data", ctypes.c_long * 5), ("padding", ctypes.c_long * 24)]


class Screen:
    """A virtual display, on which a window can be closed as a person's click on its frame would."""

    CLIENT_MESSAGE = 33
    # Windows may go while they are looked at, of which Xlib would end this program.
    IGNORE = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)(lambda *_: 0)

    def __enter__(self):
        reading, writing = os.pipe()
        self.server = subprocess.Popen(["Xvfb", "-displayfd", str(writing), "-screen", "0", "640x480x24", "-nolisten", "tcp"],
                                       pass_fds=[writing], stderr=subprocess.DEVNULL)
        os.close(writing)
        with os.fdopen(reading) as number:
            self.name = ":" + number.readline().strip()
        x = self.x = ctypes.CDLL("libX11.so.6")
        pointer, number = ctypes.c_void_p, ctypes.c_ulong
        x.XOpenDisplay.restype = pointer
        x.XDefaultRootWindow.restype = x.XInternAtom.restype = number
        x.XDefaultRootWindow.argtypes = x.XFlush.argtypes = x.XCloseDisplay.argtypes = [pointer]
        x.XInternAtom.argtypes = [pointer, ctypes.c_char_p, ctypes.c_int]
        x.XQueryTree.argtypes = [pointer, number] + [pointer] * 4
        x.XGetWMProtocols.argtypes = [pointer, number, pointer, pointer]
        x.XSendEvent.argtypes = [pointer, number, ctypes.c_int, ctypes.c_long, pointer]
        x.XFree.argtypes = [pointer]
        x.XSetErrorHandler(self.IGNORE)
        self.display = x.XOpenDisplay(self.name.encode())
        check(self.display, "Xvfb did not start")
        self.protocols = x.XInternAtom(self.display, b"WM_PROTOCOLS", 0)
        self.delete = x.XInternAtom(self.display, b"WM_DELETE_WINDOW", 0)
        return self

    def __exit__(self, *_):
        self.x.XCloseDisplay(self.display)
        self.server.terminate()
        self.server.wait()

    def takes_closing(self, window):
        atoms, count = ctypes.POINTER(ctypes.c_ulong)(), ctypes.c_int()
        if not self.x.XGetWMProtocols(self.display, window, ctypes.byref(atoms), ctypes.byref(count)):
            return False
        taken = self.delete in atoms[:count.value]
        self.x.XFree(atoms)
        return taken

    def window(self):
        """The one that can be closed, or None."""
        root, parent = ctypes.c_ulong(), ctypes.c_ulong()
        children, count = ctypes.POINTER(ctypes.c_ulong)(), ctypes.c_uint()
        self.x.XQueryTree(self.display, self.x.XDefaultRootWindow(self.display), ctypes.byref(root),
                          ctypes.byref(parent), ctypes.byref(children), ctypes.byref(count))
        windows = children[:count.value]
        if windows:
            self.x.XFree(children)
        return next(filter(self.takes_closing, windows), None)

    def close(self, window):
        message = ClientMessage(type=self.CLIENT_MESSAGE, window=window, message_type=self.protocols, format=32)
        message.data[0] = self.delete
        self.x.XSendEvent(self.display, window, 0, 0, ctypes.byref(message))
        self.x.XFlush(self.display)


class Tree:
    """A source tree with only the scripts in it, and a place for stores."""

    def __init__(self, root, source, zevshm, viewer):
        self.root = root
        (root / "scripts").mkdir()
        binaries = root / "build" / "release" / "bin"
        binaries.mkdir(parents=True)
        shutil.copy(source / "run", root / "run")
        for name in ("dependencies", "build"):
            script = root / "scripts" / name
            script.write_text("#!/bin/sh\n")
            script.chmod(0o755)
        (binaries / "zevshm").symlink_to(zevshm)
        (binaries / "zevqt-viewer").symlink_to(viewer)
        self.stores = root / "stores"
        self.stores.mkdir(mode=0o700)
        self.work = root / "work"
        self.work.mkdir()
        self.environment = {key: value for key, value in os.environ.items()
                            if key not in ("DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM")}
        self.environment["ZEV_SHM_DIR"] = str(self.stores)

    def start(self, *arguments):
        return subprocess.Popen([str(self.root / "run"), *arguments], cwd=self.work, env=self.environment, text=True,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                start_new_session=True)

    def run(self, *arguments):
        process = self.start(*arguments)
        output, errors = process.communicate(timeout=LIMIT_S)
        return process.returncode, output, errors

    def has_store(self):
        return (self.stores / "demo").exists()


def check(condition, what):
    if not condition:
        sys.exit(f"run_script: {what}")


def wait_for(condition, what):
    deadline = time.monotonic() + LIMIT_S
    while not condition():
        check(time.monotonic() < deadline, f"waited in vain for {what}")
        time.sleep(0.05)


def session_is_empty(leader):
    """Nothing that the process started is left."""
    try:
        os.killpg(leader, 0)
        return False
    except ProcessLookupError:
        return True


def test_headless_without_a_display(tree):
    code, output, errors = tree.run("test:", "--seconds", "3")
    check(code == 0, f"exit {code}: {errors}")
    check("no display" in output and "headless" in output, f"does not say that it runs headless: {output!r}")
    report = json.loads((tree.work / "report.json").read_text())
    check(report["frames"] > 25, f"no picture: {report}")
    check((tree.work / "snapshot.png").read_bytes()[:4] == b"\x89PNG", "snapshot.png is no picture")
    check(not tree.has_store(), "the store is left behind")


def test_options_are_the_viewers(tree):
    code, output, errors = tree.run("--headless", "--seconds", "2", "--frames", "image", "--report", "other.json")
    check(code == 0, f"exit {code}: {errors}")
    check("no display" not in output, "speaks of the display though --headless was asked for")
    report = json.loads((tree.work / "other.json").read_text())
    check(report["frame_path"] == "image", f"--frames was not passed on: {report['frame_path']}")


def test_failures_are_those_of_the_programs(tree):
    code, _, errors = tree.run("nothing.mp4")
    check(code == 8 and errors.count("\n") == 1 and "nothing.mp4" in errors, f"missing input: {code} {errors!r}")
    code, _, errors = tree.run("test:", "--headless", "--nonsense")
    check(code == 2 and "nonsense" in errors, f"unknown option: {code} {errors!r}")
    check(not tree.has_store(), "the store is left behind")


def test_an_interrupt_ends_both_cleanly(tree):
    process = tree.start("test:", "--headless", "--report", "interrupted.json")
    wait_for(tree.has_store, "the store")
    time.sleep(1)  # pictures; how many does not matter
    second = tree.run("test:", "--headless", "--seconds", "1")
    check(second[0] == 5 and "already published" in second[2], f"a second ./run: {second}")
    os.killpg(process.pid, signal.SIGINT)  # as a terminal does
    _, errors = process.communicate(timeout=LIMIT_S)
    check(process.returncode == 130, f"exit {process.returncode} after Ctrl-C: {errors!r}")
    check(json.loads((tree.work / "interrupted.json").read_text())["frames"] > 0, "no report after Ctrl-C")
    check(not tree.has_store(), "the store is left behind after Ctrl-C")
    wait_for(lambda: session_is_empty(process.pid), "everything that was started to end")


def test_closing_the_window_ends_both_cleanly(tree):
    with Screen() as screen:
        tree.environment.update(DISPLAY=screen.name, QT_QPA_PLATFORM="xcb", QT_QUICK_BACKEND="software")
        process = tree.start("test:", "--size", "320x180", "--audio-device", "none", "--report", "closed.json")
        wait_for(lambda: process.poll() is not None or screen.window(), "the window")
        check(process.poll() is None, "ended before it had a window")
        time.sleep(1)  # pictures; how many does not matter
        check(tree.has_store(), "no store beside the window")
        screen.close(screen.window())
        output, errors = process.communicate(timeout=LIMIT_S)
        check(process.returncode == 0, f"exit {process.returncode} after its window was closed: {errors!r}")
        check(not errors and "no display" not in output, f"complains: {output!r} {errors!r}")
        check(json.loads((tree.work / "closed.json").read_text())["frames"] > 0, "no report after the window was closed")
        check(not tree.has_store(), "the store is left behind after the window was closed")
        wait_for(lambda: session_is_empty(process.pid), "everything that was started to end")
        for name in ("DISPLAY", "QT_QPA_PLATFORM", "QT_QUICK_BACKEND"):
            del tree.environment[name]


def test_help(tree):
    code, output, _ = tree.run("--help")
    check(code == 0 and "./run [INPUT] [viewer options]" in output, f"--help: {code} {output!r}")


def test_a_build_folder_that_cannot_be_written(tree, source):
    """scripts/build itself, where build/ is a file: root may write into every folder."""
    scripts = tree.root / "closed" / "scripts"
    scripts.mkdir(parents=True)
    shutil.copy(source / "scripts" / "build", scripts / "build")
    (tree.root / "closed" / "build").write_text("")
    done = subprocess.run([scripts / "build", "release"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    check(done.returncode == 1 and done.stderr.count("\n") == 1 and "build: cannot write" in done.stderr,
          f"build/ not writable: {done.returncode} {done.stderr!r}")


def main():
    source, zevshm, viewer = map(pathlib.Path, sys.argv[1:4])
    with tempfile.TemporaryDirectory() as folder:
        tree = Tree(pathlib.Path(folder), source, zevshm, viewer)
        test_help(tree)
        test_headless_without_a_display(tree)
        test_options_are_the_viewers(tree)
        test_failures_are_those_of_the_programs(tree)
        test_an_interrupt_ends_both_cleanly(tree)
        test_closing_the_window_ends_both_cleanly(tree)
        test_a_build_folder_that_cannot_be_written(tree, source)


main()
