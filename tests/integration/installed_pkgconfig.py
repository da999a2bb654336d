#!/usr/bin/env python3
"""installed_pkgconfig.py SOURCE BUILD CXX: who finds the platform libraries with pkg-config. Installs BUILD, moves the tree
to another place, builds and runs a program of each library there, and configures SOURCE against the installed ones."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

# Library: language, program. Each says "ok".
PROGRAMS = {
    "libshm": ("c", """
        #include <shm/shm_reader.h>
        #include <shm/shm_writer.h>
        #include <stdio.h>
        int main(void)
        {
            shm_writer_params_t params;
            shm_writer_params_init(&params);
            if (params.size == sizeof params && shm_check_name("a/b", 0) != 0)
                puts("ok");
            return 0;
        }"""),
    "libaudio-level": ("c", """
        #include <audio-level/audio_level.h>
        #include <stdio.h>
        int main(void) { return puts(av_audio_level_calc ? "ok" : "") < 0; }"""),
    "libzev-utils": ("c++", """
        #include <zev-utils/clockadjustmentdetector.h>
        #include <cstdio>
        int main() { md::zev::utils::ClockAdjustmentDetector detector; std::puts("ok"); }"""),
    "libzevmm": ("c++", """
        #include <zevmm/v4l2/capturebase.h>
        #include <cstdio>
        int main() { std::puts("ok"); }"""),
    "libzevqt-utils": ("c++", """
        #include <zevqt-utils/multimediathread.h>
        #include <cstdio>
        int main() { MultimediaThread thread; std::puts("ok"); }"""),
}


def must(*command, **options):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit {done.returncode}\n{done.stdout}")
    return done.stdout


def main():
    source, build, cxx = map(pathlib.Path, sys.argv[1:])
    with tempfile.TemporaryDirectory(prefix="zev") as temporary:
        folder = pathlib.Path(temporary).resolve()
        must("cmake", "--install", build, "--prefix", folder / "first")
        moved = folder / "moved"
        (folder / "first").rename(moved)
        modules = sorted(path.stem for path in moved.glob("lib*/**/pkgconfig/*.pc"))
        if modules != sorted(PROGRAMS):
            sys.exit(f"installed are {modules}, tried are {sorted(PROGRAMS)}")
        environment = {**os.environ, "PKG_CONFIG_PATH": str(next(moved.glob("lib*/**/pkgconfig")))}
        for module, (language, text) in PROGRAMS.items():
            flags = must("pkg-config", "--cflags", "--libs", module, env=environment).split()
            program = folder / module
            must(cxx, f"-x{language}", "-fPIC", "-", "-xnone", "-o", program, "-Wl,--no-as-needed", *flags, input=text)
            libraries = must("ldd", program, env={**os.environ, "LD_LIBRARY_PATH": str(next(moved.glob("lib*")))})
            found = re.search(rf"^\s*{module}\.so\S* => (\S+)", libraries, re.M)
            if not found or not pathlib.Path(found.group(1)).resolve().is_relative_to(moved):
                sys.exit(f"{module} comes from {found and found.group(1)}, not from {moved}")
            if must(program, env={**os.environ, "LD_LIBRARY_PATH": str(next(moved.glob('lib*')))}) != "ok\n":
                sys.exit(f"the program of {module} did not say ok")
        system = [f"-DZEV_SYSTEM_{name}=ON" for name in ("SHM", "ZEVMM", "ZEVQT_UTILS", "ZEV_UTILS", "AUDIO_LEVEL")]
        without = [f"-DZEV_BUILD_{part}=OFF" for part in ("TESTS", "BENCH", "TOOLS", "QML", "EXAMPLES")]
        must("cmake", "-S", source, "-B", folder / "system", f"-DCMAKE_CXX_COMPILER={cxx}", "-DCMAKE_BUILD_TYPE=Release",
             *system, *without, env=environment)
        listed = must("cmake", "--build", folder / "system", "--target", "help")
        if re.search(r"\bshm_objects\b", listed):
            sys.exit("platform/shm is built although an installed libshm was asked for")


main()
