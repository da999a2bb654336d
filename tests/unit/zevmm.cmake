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
