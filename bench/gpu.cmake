# With the scene that the tests of the item draw, under the driver that they draw with.
if(TARGET Zev::items AND ZEV_BUILD_TESTS)
    set(rig ${PROJECT_SOURCE_DIR}/tests/vm)
    zev_bench(bench_gpu SOURCES bench_gpu.cpp ${rig}/itemrenderer.cpp LIBRARIES Zev::items Zev::shm)
    target_include_directories(bench_gpu PRIVATE ${rig})
    target_compile_definitions(bench_gpu PRIVATE ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
    add_dependencies(bench_gpu fakedmabuf)
    add_test(NAME bench_gpu COMMAND ${rig}/with-gl --preload $<TARGET_FILE:fakedmabuf> $<TARGET_FILE:bench_gpu>
        --benchmark_repetitions=1 --benchmark_min_time=0.001)
    set_tests_properties(bench_gpu PROPERTIES
        LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77 FIXTURES_REQUIRED rig)
endif()
