# The frame store's parts on injected data. shm_testable is the library with what it hides.
zev_test(tst_shm_records SOURCES unit/tst_shm_records.cpp unit/shm_records_in_c.c LIBRARIES Zev::shm GTest::gtest_main)
zev_test(tst_shm_layout SOURCES unit/tst_shm_layout.cpp LIBRARIES shm_testable GTest::gtest_main)
zev_test(tst_shm_history SOURCES unit/tst_shm_history.cpp LIBRARIES shm_testable GTest::gtest_main)
zev_test(tst_shm_interval_estimator SOURCES unit/tst_shm_interval_estimator.cpp LIBRARIES shm_testable GTest::gtest_main)
zev_test(tst_shm_frame_order SOURCES unit/tst_shm_frame_order.cpp LIBRARIES shm_testable GTest::gtest_main)
zev_test(tst_shm_audio_ring SOURCES unit/tst_shm_audio_ring.cpp LIBRARIES shm_testable GTest::gtest_main)
zev_test(tst_shm_handshake_check SOURCES unit/tst_shm_handshake_check.cpp LIBRARIES shm_testable GTest::gtest_main)
zev_test(tst_shm_memory_check SOURCES unit/tst_shm_memory_check.cpp LIBRARIES shm_testable GTest::gtest_main)
