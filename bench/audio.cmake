# On the library's objects, since the resampler's options are not public.
include(${PROJECT_SOURCE_DIR}/platform/audio-level/variants.cmake)
zev_bench(bench_audio SOURCES bench_audio.cpp counting_allocator.cpp
    LIBRARIES zevqt-mm-objects Zev::zevmm Zev::shm Zev::zevqt-utils Zev::audio-level audio-level-vectors0
        audio-level-vectors1 PkgConfig::FFMPEG)
zev_bench_test(bench_audio)
