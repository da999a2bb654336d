#!/usr/bin/env python3
"""installed_tree.py SOURCE BUILD CXX [ZEVSHM]: what a stranger does with the installed library. Installs BUILD into a
folder of its own, builds the example of SOURCE/README.md and every installed header against nothing else, and looks
where the program's libraries come from. With ZEVSHM, the command-line tool, publishes a store and waits for the
example's picture of it."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

LIMIT_S = 60


def run(*command, **options):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **options)
    return done.returncode, done.stdout


def must(*command, **options):
    code, output = run(*command, **options)
    if code != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit {code}\n{output}")
    return output


def block(readme, language):
    found = re.search(rf"^```{language}\n(.*?)^```", readme, re.M | re.S)
    if not found:
        sys.exit(f"README.md has no {language} block")
    return found.group(1)


def write_consumer(folder, readme, include):
    cmake = block(readme, "cmake")
    if "find_package(zevqt-mm" not in cmake or "Zev::zevqt-mm" not in cmake:
        sys.exit("README.md's cmake block does not use the package")
    headers = sorted(path.name for path in (include / "zevqt-mm").glob("*.h"))
    if len(headers) < 10:
        sys.exit(f"only {headers} are installed")
    folder.mkdir()
    (folder / "main.cpp").write_text(block(readme, "cpp"))
    (folder / "headers.cpp").write_text("".join(f"#include <zevqt-mm/{header}>\n" for header in headers))
    (folder / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.24)\nproject(stranger LANGUAGES CXX)\n" + cmake +
        "target_sources(app PRIVATE headers.cpp)\n"
        "find_package(zevqt-mm 2.0 QUIET)\n"  # of another major version there is none
        "if(zevqt-mm_FOUND)\n    message(FATAL_ERROR \"2.0 found\")\nendif()\n")


def check_libraries(app, prefix):
    libraries = dict(re.findall(r"^\s*(lib\S+) => (\S+)", must("ldd", app), re.M))
    for name in ("libzevqt-mm.so", "libshm.so", "libzevmm.so", "libzevqt-utils.so", "libzev-utils.so", "libaudio-level.so"):
        path = next((found for key, found in libraries.items() if key.startswith(name)), None)
        if path is None or not pathlib.Path(path).resolve().is_relative_to(prefix):
            sys.exit(f"{name} comes from {path}, not from {prefix}")


def wait_for_picture(app, zevshm, folder):
    store = folder / "s"
    store.mkdir(mode=0o700)
    environment = {**os.environ, "ZEV_SHM_DIR": str(store), "QT_QPA_PLATFORM": "offscreen"}
    publisher = subprocess.Popen([zevshm, "publish", "demo", "test:"], env=environment, stdout=subprocess.DEVNULL)
    example = subprocess.Popen([app], env=environment, cwd=folder)
    try:
        deadline = time.monotonic() + LIMIT_S
        while not (folder / "now.png").exists():
            if publisher.poll() is not None:
                sys.exit(f"the publisher ended with {publisher.returncode}")
            if time.monotonic() > deadline:
                sys.exit("the example has made no picture of the store")
            try:
                sys.exit(f"the example ended with {example.wait(timeout=0.05)}")
            except subprocess.TimeoutExpired:
                pass
    finally:
        for process in (example, publisher):
            process.kill()
            process.wait()


def main():
    source, build, cxx, *zevshm = map(pathlib.Path, sys.argv[1:])
    with tempfile.TemporaryDirectory(prefix="zev") as temporary:
        folder = pathlib.Path(temporary).resolve()
        prefix = folder / "prefix"
        must("cmake", "--install", build, "--prefix", prefix)
        write_consumer(folder / "app", (source / "README.md").read_text(), prefix / "include")
        must("cmake", "-S", folder / "app", "-B", folder / "build", f"-DCMAKE_CXX_COMPILER={cxx}",
             f"-DCMAKE_PREFIX_PATH={prefix}")
        must("cmake", "--build", folder / "build", "--parallel", "2")
        app = folder / "build" / "app"
        check_libraries(app, prefix)
        if zevshm:
            wait_for_picture(app, zevshm[0], folder)


main()
