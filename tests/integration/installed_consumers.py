#!/usr/bin/env python3
"""installed_consumers.py SOURCE BUILD CXX [QMAKE]: who builds against the installed libraries. Installs BUILD, moves the
tree to another place, builds a program of each library there by pkg-config and by CMake and, with QMAKE, two by qmake, runs every
one of them against nothing but that tree, and configures SOURCE against the installed platform libraries."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

# Library: its program, which does something and says "ok".
PROGRAMS = {
    "libshm.c": """
        #include <shm/shm_reader.h>
        #include <shm/shm_writer.h>
        #include <stdio.h>
        #include <string.h>
        static uint8_t luma[64 * 48], chroma[32 * 24];
        int main(void)
        {
            const uint8_t *const planes[4] = {luma, chroma, chroma, NULL};
            const int32_t strides[4] = {64, 32, 32, 0};
            shm_error_t error;
            shm_writer_params_t params;
            shm_writer_t *writer = NULL;
            memset(luma, 99, sizeof luma);
            shm_writer_params_init(&params);
            params.name = "consumer";
            params.width = 64;
            params.height = 48;
            params.pixel_format = SHM_PIXEL_FORMAT_YUV420P;
            if (shm_writer_open(&params, &writer, &error) != 0)
                return puts(error.message), 1;
            shm_reader_t *reader = shm_reader_open("consumer", 10000);
            shm_video_frame_t frame = {0};
            if (shm_writer_publish_video(writer, planes, strides, 1000000) == 0 && reader &&
                shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST) == 0 && frame.timestamp == 1000000 &&
                frame.planes[0][63] == 99)
                puts("ok");
            shm_reader_close(reader);
            shm_writer_close(writer);
            return 0;
        }""",
    "libaudio-level.c": """
        #include <audio-level/audio_level.h>
        #include <stdio.h>
        int main(void)
        {
            const short samples[2] = {-32768, 0};
            AudioLevelCalcResult levels;
            if (av_audio_level_calc(samples, 1, 2, 1, &levels) == 0 && levels.max[0] == 0 && levels.max[1] == -120)
                puts("ok");
            return 0;
        }""",
    "libzev-utils.cpp": """
        #include <zev-utils/clockadjustmentdetector.h>
        #include <cstdio>
        static std::int64_t wallClock = 0;
        int main()
        {
            md::zev::utils::ClockAdjustmentDetector detector([] { return wallClock; }, [] { return std::int64_t{0}; });
            detector.start();
            wallClock = 5000000;
            if (detector.check() == 5)
                std::puts("ok");
        }""",
    "libzevmm.cpp": """
        #include <zevmm/v4l2/cameras.h>
        #include <cstdio>
        int main()
        {
            for (const zevmm::v4l2::Camera &camera : zevmm::v4l2::listCameras())
                if (camera.device.rfind("/dev/video", 0) != 0)
                    return 1;
            std::puts("ok");
        }""",
    "libzevqt-utils.cpp": """
        #include <zevqt-utils/multimediathread.h>
        #include <QSemaphore>
        #include <cstdio>
        int main()
        {
            QSemaphore ticks;
            MultimediaThread thread;
            QObject::connect(&thread, &MultimediaThread::tick, &thread, [&ticks] { ticks.release(); },
                             Qt::DirectConnection);
            thread.start(1, 100, 0);
            if (ticks.tryAcquire(3, 30000))
                std::puts("ok");
            thread.stop(0);
        }""",
    "libzevqt-mm.cpp": """
        #include <zevqt-mm/videoframeconverter.h>
        #include <cstdio>
        #include <cstring>
        int main()
        {
            QVideoFrame frame(64 * 48 * 3 / 2 + 64, QSize(64, 48), 64, QVideoFrame::Format_NV12);
            if (!frame.map(QAbstractVideoBuffer::WriteOnly))
                return 1;
            std::memset(frame.bits(), 128, frame.mappedBytes());
            frame.unmap();
            const QImage image = VideoFrameConverter::convert(frame, QSize(32, 24), QImage::Format_RGB32, true, false);
            if (image.size() == QSize(32, 24) && std::abs(qGreen(image.pixel(16, 12)) - 128) < 4)
                std::puts("ok");
        }""",
}
MODULES = {pathlib.Path(name).stem: name for name in PROGRAMS}
QMAKE_PROGRAMS = {"libshm": "", "libzevqt-mm": "core gui multimedia"}  # and what of Qt they use


def must(*command, **options):
    done = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit {done.returncode}\n{done.stdout}")
    return done.stdout


def libraries_of(tree):
    """lib, or lib/TRIPLET"""
    return next(tree.glob("lib*/**/pkgconfig")).parent


def check(program, module, how, tree, stores):
    """The program says ok with the library of the tree, which no search path but LD_LIBRARY_PATH leads to."""
    environment = {**os.environ, "LD_LIBRARY_PATH": str(libraries_of(tree)), "ZEV_SHM_DIR": str(stores),
                   "QT_QPA_PLATFORM": "offscreen"}
    libraries = must("ldd", program, env=environment)
    found = re.search(rf"^\s*{module}\.so\S* => (\S+)", libraries, re.M)
    if not found or not pathlib.Path(found.group(1)).resolve().is_relative_to(tree):
        sys.exit(f"{how}: {module} comes from {found and found.group(1)}, not from {tree}")
    said = must(program, env=environment)
    if said != "ok\n":
        sys.exit(f"{how}: the program of {module} said '{said}'")


def by_pkg_config(sources, folder, cxx, environment):
    folder.mkdir()
    for module, source in MODULES.items():
        flags = must("pkg-config", "--cflags", "--libs", module, env=environment).split()
        must(cxx, *(["-xc"] if source.endswith(".c") else ["-std=c++17"]), "-fPIC", sources / source, "-xnone", "-o",
             folder / module, "-Wl,--no-as-needed", *flags)


def by_cmake(sources, folder, cxx, tree):
    project = "cmake_minimum_required(VERSION 3.16)\nproject(consumer LANGUAGES C CXX)\nfind_package(zevqt-mm 1.0 REQUIRED)\n"
    for module, source in MODULES.items():
        project += (f"add_executable({module} {sources / source})\n"
                    f"target_link_libraries({module} PRIVATE Zev::{module[3:]})\n"
                    f"target_link_options({module} PRIVATE -Wl,--no-as-needed)\n")
    folder.mkdir()
    (folder / "CMakeLists.txt").write_text(project)
    must("cmake", "-S", folder, "-B", folder, f"-DCMAKE_CXX_COMPILER={cxx}", f"-DCMAKE_PREFIX_PATH={tree}",
         "-DCMAKE_SKIP_RPATH=ON")
    must("cmake", "--build", folder, "--parallel", "2")


def by_qmake(sources, folder, cxx, qmake, environment):
    folder.mkdir()
    projects = [f"{module}.project/{module}.pro" for module in QMAKE_PROGRAMS]
    (folder / "consumers.pro").write_text(f"TEMPLATE = subdirs\nSUBDIRS = {' '.join(projects)}\n")
    for project, (module, qt) in zip(projects, QMAKE_PROGRAMS.items()):
        (folder / project).parent.mkdir()
        (folder / project).write_text(
            f"CONFIG += link_pkgconfig c++17\nPKGCONFIG += {module}\nSOURCES += {sources / MODULES[module]}\n"
            f"DESTDIR = {folder}\n" + (f"QT = {qt}\n" if qt else "CONFIG -= qt\n"))
    must(qmake, f"QMAKE_CXX={cxx}", f"QMAKE_LINK={cxx}", folder / "consumers.pro", cwd=folder, env=environment)
    must("make", "-j2", cwd=folder, env=environment)


def check_system_libraries(source, folder, cxx, environment):
    system = [f"-DZEV_SYSTEM_{name}=ON" for name in ("SHM", "ZEVMM", "ZEVQT_UTILS", "ZEV_UTILS", "AUDIO_LEVEL")]
    without = [f"-DZEV_BUILD_{part}=OFF" for part in ("TESTS", "BENCH", "TOOLS", "QML", "EXAMPLES")]
    must("cmake", "-S", source, "-B", folder, f"-DCMAKE_CXX_COMPILER={cxx}", "-DCMAKE_BUILD_TYPE=Release", *system, *without,
         env=environment)
    listed = must("cmake", "--build", folder, "--target", "help")
    if re.search(r"\bshm_objects\b", listed):
        sys.exit("platform/shm is built although an installed libshm was asked for")


def build_and_run(folder, tree, cxx, qmake, environment):
    modules = sorted(path.stem for path in tree.glob("lib*/**/pkgconfig/*.pc"))
    if modules != sorted(MODULES):
        sys.exit(f"installed are {modules}, tried are {sorted(MODULES)}")
    libraries = sorted(path.stem for path in libraries_of(tree).glob("lib*.so") if path.is_symlink())
    if libraries != modules:
        sys.exit(f"installed are {libraries}, pkg-config finds {modules}")
    stores = folder / "s"
    stores.mkdir(mode=0o700)
    sources = folder / "sources"
    sources.mkdir()
    for name, text in PROGRAMS.items():
        (sources / name).write_text(text + "\n")
    by_pkg_config(sources, folder / "pkg-config", cxx, environment)
    by_cmake(sources, folder / "cmake", cxx, tree)
    built = {"pkg-config": folder / "pkg-config", "CMake": folder / "cmake"}
    if qmake:
        by_qmake(sources, folder / "qmake", cxx, qmake[0], environment)
        built["qmake"] = folder / "qmake"
    for how, programs in built.items():
        for module in QMAKE_PROGRAMS if how == "qmake" else MODULES:
            check(programs / module, module, how, tree, stores)
    print(f"{len(MODULES)} libraries, by {', '.join(built)}")


def main():
    first, *others = sys.argv[1:]
    with tempfile.TemporaryDirectory(prefix="zev") as temporary:
        folder = pathlib.Path(temporary).resolve()
        if first == "--unpacked":
            tree, cxx, *qmake = others
            tree = pathlib.Path(tree).resolve()
            # The linker looks there for what a library needs. In the system's folders, and with a path of its own
            # beside it, it finds that by itself.
            os.environ["LD_LIBRARY_PATH"] = str(libraries_of(tree))
        else:
            build, cxx, *qmake = others
            must("cmake", "--install", build, "--prefix", folder / "first")
            tree = folder / "moved"
            (folder / "first").rename(tree)
        environment = {**os.environ, "PKG_CONFIG_PATH": str(libraries_of(tree) / "pkgconfig")}
        build_and_run(folder, tree, cxx, qmake, environment)
        if first != "--unpacked":
            check_system_libraries(first, folder / "system", cxx, environment)


main()
