# The command-line tool as real processes.
if(ZEV_BUILD_TOOLS)
    pkg_check_modules(FFMPEG_MEDIA REQUIRED IMPORTED_TARGET
        libavformat libavcodec libswscale libswresample libavutil)
    foreach(name errors publish media)
        zev_test(tst_zevshm_${name}
            SOURCES
                integration/tst_zevshm_${name}.cpp
                integration/zevshm_driver.cpp
                integration/zevshm_media.cpp
            LIBRARIES zevshm-core zevshm-pattern Zev::shm PkgConfig::FFMPEG_MEDIA Qt5::Core GTest::gtest_main
            LABEL integration)
        target_compile_definitions(tst_zevshm_${name} PRIVATE ZEVSHM_PROGRAM="$<TARGET_FILE:zevshm>")
        add_dependencies(tst_zevshm_${name} zevshm)
    endforeach()
endif()
