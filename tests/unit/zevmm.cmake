# Capture. What the library hides is tested on its objects, with a driver in memory in place of the kernel.
if(NOT TARGET zevmm_testable)
    return() # the library is a system's own
endif()
set(unit ${CMAKE_CURRENT_LIST_DIR})
foreach(test mailbox setup stream faults capture cameras)
    zev_test(tst_zevmm_${test}
        SOURCES ${unit}/tst_zevmm_${test}.cpp ${unit}/fake_v4l2.cpp ${unit}/fake_v4l2.h
        LIBRARIES zevmm_testable GTest::gtest_main)
endforeach()
foreach(test memory memoryfaults)
    zev_test(tst_zevmm_${test}
        SOURCES ${unit}/tst_zevmm_${test}.cpp ${unit}/fake_frametaker.h ${unit}/fake_v4l2.cpp ${unit}/fake_v4l2.h
        LIBRARIES zevmm_testable GTest::gtest_main)
endforeach()

# A camera as a store: the tool's publisher with that driver.
if(ZEV_BUILD_TOOLS)
    pkg_check_modules(FFMPEG_MEDIA REQUIRED IMPORTED_TARGET libavformat libavcodec libswscale libswresample libavutil)
    set(tool ${PROJECT_SOURCE_DIR}/tools/zevshm)
    zev_test(tst_zevshm_camerapublisher
        SOURCES ${unit}/tst_zevshm_camerapublisher.cpp ${unit}/fake_v4l2.cpp ${unit}/fake_v4l2.h
            ${tool}/camera.cpp ${tool}/camerapublisher.cpp ${tool}/color.cpp ${tool}/hostclock.cpp ${tool}/messages.cpp
            ${tool}/publisher.cpp ${tool}/slotconverter.cpp ${tool}/storewriter.cpp
        LIBRARIES zevshm-core zevshm-pattern zevmm_testable Zev::shm PkgConfig::FFMPEG_MEDIA GTest::gtest_main ${CMAKE_DL_LIBS})
endif()
