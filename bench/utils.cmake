zev_bench(bench_utils SOURCES bench_utils.cpp LIBRARIES Zev::zevqt-utils Qt5::Core)
