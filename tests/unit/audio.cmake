zev_test(tst_clockadjustmentdetector
    SOURCES unit/tst_clockadjustmentdetector.cpp
    LIBRARIES Zev::zev-utils GTest::gtest_main)

zev_test(tst_audiolevel
    SOURCES unit/tst_audiolevel.cpp
    LIBRARIES Zev::audio-level GTest::gtest_main)
