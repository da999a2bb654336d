# On the library's objects, since the reader and the stream converter are not public.
zev_bench(bench_grab SOURCES bench_grab.cpp
    LIBRARIES zevqt-mm-objects Zev::zevmm Zev::shm Zev::zevqt-utils PkgConfig::FFMPEG)
zev_bench_test(bench_grab)
zev_bench(bench_core SOURCES bench_core.cpp counting_allocator.cpp
    LIBRARIES zevqt-mm-objects Zev::zevmm Zev::shm Zev::zevqt-utils PkgConfig::FFMPEG)
zev_bench_test(bench_core)
