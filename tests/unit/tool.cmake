# The command-line tool's deciding and drawing parts: no store, no decoder, no clock.
if(ZEV_BUILD_TOOLS)
    zev_test(tst_zevshm_core
        SOURCES
            unit/tst_zevshm_audioblocks.cpp
            unit/tst_zevshm_cadence.cpp
            unit/tst_zevshm_faults.cpp
            unit/tst_zevshm_json.cpp
            unit/tst_zevshm_mediaclock.cpp
            unit/tst_zevshm_options.cpp
            unit/tst_zevshm_toptable.cpp
            unit/tst_zevshm_turn.cpp
        LIBRARIES zevshm-core Qt5::Core GTest::gtest_main)
    zev_test(tst_zevshm_pattern
        SOURCES
            unit/tst_zevshm_blockcode.cpp
            unit/tst_zevshm_testpattern.cpp
            unit/tst_zevshm_tones.cpp
        LIBRARIES zevshm-pattern GTest::gtest_main)
endif()
