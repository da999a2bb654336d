# The video road. Private classes are tested on the library's objects; the store is a fake, so that what the library
# asks of it can be compared call by call. So is the capture library, where cameras matter.
set(unit ${CMAKE_CURRENT_LIST_DIR})
set(fake_store ${unit}/fake_shm.cpp ${unit}/fake_shm.h)
set(fake_camera ${unit}/fake_zevmm.cpp ${unit}/fake_zevmm.h)
set(core_libraries zevqt-mm-objects Zev::zevmm Qt5::Test PkgConfig::FFMPEG)

foreach(test tst_shmemreader tst_shmemreaderaudio)
    zev_test(${test} SOURCES ${unit}/${test}.cpp ${unit}/shmemreader_probe.h ${fake_store} LIBRARIES ${core_libraries})
endforeach()
zev_test(tst_shmemreaderdma SOURCES ${unit}/tst_shmemreaderdma.cpp ${fake_store} LIBRARIES ${core_libraries})
# Over a store that has but what the library cannot do without: that it links is part of the test.
zev_test(tst_shmemreaderdma_bare SOURCES ${unit}/tst_shmemreaderdma.cpp ${fake_store} LIBRARIES ${core_libraries})
target_compile_definitions(tst_shmemreaderdma_bare PRIVATE FAKE_SHM_WITHOUT_INFO)
zev_test(tst_mediasourcebase SOURCES ${unit}/tst_mediasourcebase.cpp ${unit}/fake_source.h ${fake_store}
    LIBRARIES ${core_libraries})
zev_test(tst_shmemvideobuffer SOURCES ${unit}/tst_shmemvideobuffer.cpp ${fake_store} LIBRARIES ${core_libraries})
zev_test(tst_mediasource SOURCES ${unit}/tst_mediasource.cpp ${fake_store} LIBRARIES ${core_libraries})
zev_test(tst_storeframe SOURCES ${unit}/tst_storeframe.cpp ${fake_store} LIBRARIES ${core_libraries})
zev_test(tst_eglimagecontext SOURCES ${unit}/tst_eglimagecontext.cpp ${fake_store} LIBRARIES ${core_libraries})

# With a store that only unlocks.
set(sources ${PROJECT_SOURCE_DIR}/src/sources)
zev_test(tst_lockedframes
    SOURCES ${unit}/tst_lockedframes.cpp ${sources}/lockedframes.cpp ${sources}/shmemvideobuffer.cpp
    LIBRARIES Qt5::Multimedia Qt5::Test Threads::Threads)
target_include_directories(tst_lockedframes PRIVATE ${PROJECT_SOURCE_DIR}/src
    $<TARGET_PROPERTY:Zev::shm,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_definitions(tst_lockedframes PRIVATE QT_NO_KEYWORDS)

# With a currentContext() of the test's own instead of the one that asks Qt.
set(video ${PROJECT_SOURCE_DIR}/src/video)
zev_test(tst_shmemdmavideobuffer
    SOURCES ${unit}/tst_shmemdmavideobuffer.cpp ${video}/shmemdmavideobuffer.cpp ${video}/dmavideobuffer.cpp
        ${video}/eglimagecontext.cpp ${video}/storeframerecord.cpp
    LIBRARIES Qt5::Multimedia Qt5::Gui Qt5::Test)
target_include_directories(tst_shmemdmavideobuffer PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src
    $<TARGET_PROPERTY:Zev::shm,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_definitions(tst_shmemdmavideobuffer PRIVATE QT_NO_KEYWORDS)
set(sources ${PROJECT_SOURCE_DIR}/src/sources)
set(headers ${PROJECT_SOURCE_DIR}/include/zevqt-mm)
zev_test(tst_v4l2mediasource
    SOURCES ${unit}/tst_v4l2mediasource.cpp ${fake_camera} ${sources}/v4l2mediasource.cpp ${headers}/v4l2mediasource.h
        ${sources}/mediasourcebase.cpp ${headers}/mediasourcebase.h ${video}/dmavideobuffer.cpp
    LIBRARIES Qt5::Multimedia Qt5::Gui Qt5::Test)
target_include_directories(tst_v4l2mediasource PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src
    $<TARGET_PROPERTY:Zev::zevmm,INTERFACE_INCLUDE_DIRECTORIES>)
target_compile_definitions(tst_v4l2mediasource PRIVATE QT_NO_KEYWORDS ZEVQTMM_BUILD)

# With a tick source that has no thread: what the timeline asks of it is part of its contract, and time is the test's.
set(timeline_sources ${unit}/fake_source.h ${unit}/fakes/zevqt-utils/multimediathread.h
    ${PROJECT_SOURCE_DIR}/src/provider/videotimeline.cpp ${PROJECT_SOURCE_DIR}/include/zevqt-mm/videotimeline.h
    ${PROJECT_SOURCE_DIR}/src/sources/mediasourcebase.cpp ${PROJECT_SOURCE_DIR}/include/zevqt-mm/mediasourcebase.h)
foreach(test tst_videotimeline tst_videotimelinecadence)
    zev_test(${test} SOURCES ${unit}/${test}.cpp ${timeline_sources} LIBRARIES Qt5::Multimedia Qt5::Gui Qt5::Test)
    target_include_directories(${test} PRIVATE
        ${unit}/fakes ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src)
    target_compile_definitions(${test} PRIVATE QT_NO_KEYWORDS ZEVQTMM_BUILD)
endforeach()
# Without the thread sanitizer, these: several threads meet at a QMutex, whose locking lies inside Qt, which is not
# instrumented. The sanitizer sees no lock and reports what it guards, ours and the fake's alike; to suppress those
# reports by name would mean to suppress the very functions under test.
zev_test(tst_videoframeconverter NO_TSAN SOURCES ${unit}/tst_videoframeconverter.cpp ${fake_store} LIBRARIES ${core_libraries})
set(provider_libraries zevqt-mm-objects Qt5::Test PkgConfig::FFMPEG)
foreach(test tst_mediaprovider tst_mediaprovidernosignal tst_mediaproviderrunning tst_mediaprovidercamera)
    zev_test(${test} NO_TSAN SOURCES ${unit}/${test}.cpp ${fake_store} ${fake_camera} LIBRARIES ${provider_libraries})
    if(TARGET ${test}) # not under the thread sanitizer
        target_include_directories(${test} PRIVATE $<TARGET_PROPERTY:Zev::zevmm,INTERFACE_INCLUDE_DIRECTORIES>)
    endif()
endforeach()

include(${unit}/header_check.cmake)

find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
    add_test(NAME check_includes COMMAND Python3::Interpreter ${unit}/check_includes.py ${PROJECT_SOURCE_DIR})
    add_test(NAME check_includes_finds_errors COMMAND Python3::Interpreter ${unit}/check_includes.py --self-test)
    set_tests_properties(check_includes check_includes_finds_errors PROPERTIES LABELS unit)

    set(linked)
    foreach(target shm zevmm zevqt-utils zev-utils audio-level zevqt-mm zevshm)
        if(TARGET ${target}) # zevshm may be left out
            list(APPEND linked $<TARGET_FILE:${target}>)
        endif()
    endforeach()
    set(check_needed COMMAND Python3::Interpreter ${unit}/check_needed.py)
    add_test(NAME check_needed ${check_needed} ${linked})
    # Qt's own library stands for one that is linked to OpenGL.
    add_test(NAME check_needed_finds_errors ${check_needed} --as libzevqt-mm $<TARGET_FILE:Qt5::Gui>)
    set_tests_properties(check_needed check_needed_finds_errors PROPERTIES LABELS unit)
    set_property(TEST check_needed_finds_errors PROPERTY WILL_FAIL TRUE)
endif()
