if(ZEV_BUILD_QML)
    zev_bench(bench_qml SOURCES bench_qml.cpp LIBRARIES Zev::items Zev::shm)
    zev_bench_test(bench_qml)
endif()
