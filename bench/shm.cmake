# The frame store's cost beside what it cannot do without.
add_executable(bench_shm_lock bench_shm_lock.cpp)
zev_target(bench_shm_lock)
target_link_libraries(bench_shm_lock PRIVATE Zev::shm)
