#!/usr/bin/env python3
"""getting_started.py SOURCE BUILD CXX: does what docs/getting-started.md tells a new user to do. Installs BUILD into a
folder of its own (the document's first step), writes the files that the document shows, runs its commands one after the other
in one shell, in an empty folder, with nothing but the installed tree, a virtual display and a sound server of its own, and looks
whether the window shows the store's picture and its sound is played. Then the programs of docs/application-guide.md are
compiled."""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from installed_qml import HEIGHT, WIDTH, check_plugin, difference, must, running, screen, snapshot, wait_for_picture

LIMIT_S = 60


def blocks(document, language):
    """(the file that it is to be written to, or "", text) of every block."""
    return re.findall(rf"^```{language}(?: file=(\S+))?\n(.*?)^```", document, re.M | re.S)


def wait_until(condition, what, processes=()):
    deadline = time.monotonic() + LIMIT_S
    while not condition():
        for process in processes:
            if process.poll() is not None and process.returncode != 0:
                sys.exit(f"a command of the document failed with {process.returncode}")
        if time.monotonic() > deadline:
            sys.exit(f"{what} did not happen within {LIMIT_S} s")
        time.sleep(0.1)


def write_files(document, folder):
    names = []
    for language in ("qml", "cpp", "cmake"):
        for name, text in blocks(document, language):
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            (folder / name).write_text(text)
            names.append(name)
    if len(names) != 3:
        sys.exit(f"getting-started.md shows the files {names}: three make the program")


def script_of(document, folder):
    """One after the other, as a person does: who has started a publisher sees its store before going on."""
    commands = [text for _, text in blocks(document, "sh")]
    if len(commands) < 5:
        sys.exit("getting-started.md has fewer commands than steps")
    text = "set -eux\n"
    for command in commands:
        text += command
        for name in re.findall(r"^zevshm publish (\S+) .*&$", command, re.M):
            text += f"for _ in $(seq 600); do if zevshm snapshot {name} '{folder}/first.png'; then break; fi; sleep 0.1; done\n"
    return text + f"touch '{folder}/done'\nwait\n"


def compile_guide(guide, folder, prefix, cxx):
    config = next(prefix.glob("lib*/**/pkgconfig/libzevqt-mm.pc"), None)
    if config is None:
        sys.exit("libzevqt-mm.pc is not installed")
    flags = must("pkg-config", "--cflags", "libzevqt-mm",
                 env={**os.environ, "PKG_CONFIG_PATH": str(config.parent)}).split()
    programs = blocks(guide, "cpp")
    if len(programs) < 4:
        sys.exit("application-guide.md has fewer programs than it is to have")
    for number, (_, text) in enumerate(programs):
        file = folder / f"guide{number}.cpp"
        file.write_text(text)
        must(cxx, "-std=c++17", "-fPIC", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", *flags, file)


def main():
    source, build_tree, cxx = map(pathlib.Path, sys.argv[1:])
    document = (source / "docs/getting-started.md").read_text()
    with tempfile.TemporaryDirectory(prefix="zev") as temporary, contextlib.ExitStack() as stack:
        folder = pathlib.Path(temporary).resolve()
        prefix = folder / "prefix"
        must("cmake", "--install", build_tree, "--prefix", prefix)
        check_plugin(prefix)
        compile_guide((source / "docs/application-guide.md").read_text(), folder, prefix, cxx)
        home = folder / "home"
        for name in ("s", "fb", "home", "run"):
            (folder / name).mkdir(mode=0o700)
        write_files(document, home)

        environment = {name: value for name, value in os.environ.items()
                       if name not in ("QML2_IMPORT_PATH", "LD_LIBRARY_PATH", "QT_QPA_PLATFORM", "QT_PLUGIN_PATH")}
        environment |= {"PREFIX": str(prefix), "ZEV_SHM_DIR": str(folder / "s"), "HOME": str(home), "CXX": str(cxx),
                        "XDG_RUNTIME_DIR": str(folder / "run"), "QT_QPA_PLATFORM": "xcb"}
        server = stack.enter_context(running("Xvfb", "-displayfd", "1", "-screen", "0", f"{WIDTH}x{HEIGHT}x24", "-fbdir",
                                             folder / "fb", "-nolisten", "tcp", stdout=subprocess.PIPE, text=True,
                                             stderr=subprocess.DEVNULL))
        number = server.stdout.readline().strip()
        if not number:
            sys.exit("Xvfb did not start")
        environment["DISPLAY"] = f":{number}"
        has_sound = shutil.which("pulseaudio") and shutil.which("pactl")
        if has_sound:
            environment |= {"PULSE_SERVER": f"unix:{folder}/sound", "PULSE_RUNTIME_PATH": str(folder / "run")}
            stack.enter_context(running("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                                        "-L", f"module-native-protocol-unix auth-anonymous=1 socket={folder}/sound",
                                        "-L", "module-null-sink sink_name=speakers rate=48000 channels=2",
                                        env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

        def sounds():
            return subprocess.run(["pactl", "list", "short", "sink-inputs"], env=environment, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True).stdout.strip()

        with open(folder / "log", "w+") as log:
            shell = subprocess.Popen(["bash", "-c", script_of(document, folder)], cwd=home, env=environment, stdout=log,
                                     stderr=subprocess.STDOUT, start_new_session=True)
            try:
                wait_until(lambda: (folder / "done").exists() or shell.poll() is not None, "the end of the document")
                if not (folder / "done").exists():
                    sys.exit(f"a command of the document failed with {shell.returncode}")
                for name in ("seen.png", "seen.json"):
                    if not (home / name).stat().st_size:
                        sys.exit(f"the document's {name} is empty")
                environment["PATH"] = f"{prefix}/bin:{environment['PATH']}"
                zevshm = prefix / "bin/zevshm"
                wait_for_picture(lambda: screen(folder / "fb" / "Xvfb_screen0"), snapshot(zevshm, environment, folder))
                dark = difference([[(0, 0, 0)] * WIDTH] * HEIGHT, snapshot(zevshm, environment, folder))
                if dark < 50:
                    sys.exit(f"the picture is too dark to be told from none: {dark:.1f}")
                if has_sound:
                    wait_until(sounds, "sound")
                else:
                    print("no sound was looked for: pulseaudio and pactl are not installed")
            except SystemExit:
                log.seek(0)
                print(log.read())
                raise
            finally:
                os.killpg(shell.pid, signal.SIGKILL)
                shell.wait()


main()
