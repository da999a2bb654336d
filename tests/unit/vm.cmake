zev_test(tst_shm_dmabuf SOURCES ${CMAKE_CURRENT_LIST_DIR}/tst_shm_dmabuf.cpp LIBRARIES shm_testable GTest::gtest_main)
