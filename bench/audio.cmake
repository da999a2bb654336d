# On the library's objects, since the resampler's options are not public.
zev_bench(bench_audio SOURCES bench_audio.cpp counting_allocator.cpp
    LIBRARIES zevqt-mm-objects Zev::shm Zev::zevqt-utils Zev::audio-level PkgConfig::FFMPEG)
zev_bench_test(bench_audio)
