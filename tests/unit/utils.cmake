# The schedule is not exported: its test compiles it in.
zev_test(tst_tickschedule
    SOURCES unit/tst_tickschedule.cpp ${PROJECT_SOURCE_DIR}/platform/zevqt-utils/src/tickschedule.cpp
    LIBRARIES GTest::gtest_main)
target_include_directories(tst_tickschedule PRIVATE ${PROJECT_SOURCE_DIR}/platform/zevqt-utils/src)

zev_test(tst_multimediathread
    SOURCES unit/tst_multimediathread.cpp
    LIBRARIES Zev::zevqt-utils Threads::Threads GTest::gtest_main)
