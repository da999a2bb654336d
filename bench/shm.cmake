# The frame store's cost beside what it cannot do without.
zev_bench(bench_shm SOURCES bench_shm.cpp LIBRARIES Zev::shm)
zev_bench_test(bench_shm)

# No benchmarks: counts, which are right or wrong.
add_executable(steady_state steady_state.cpp counting_allocator.cpp syscall_counter.cpp)
zev_target(steady_state)
target_link_libraries(steady_state PRIVATE Zev::shm Threads::Threads)

add_executable(store_memory store_memory.cpp)
zev_target(store_memory)
target_link_libraries(store_memory PRIVATE Zev::shm)

# Its own malloc and ptrace leave no room for a sanitizer's.
if(ZEV_BUILD_TESTS AND NOT ZEV_SANITIZE)
    add_test(NAME steady_state COMMAND steady_state)
    add_test(NAME store_memory COMMAND store_memory)
    set_tests_properties(steady_state store_memory PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
endif()

# The least of many rounds, for a machine that others use meanwhile.
add_executable(bench_shm_lock bench_shm_lock.cpp)
zev_target(bench_shm_lock)
target_link_libraries(bench_shm_lock PRIVATE Zev::shm)
