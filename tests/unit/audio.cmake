zev_test(tst_clockadjustmentdetector
    SOURCES unit/tst_clockadjustmentdetector.cpp
    LIBRARIES Zev::zev-utils GTest::gtest_main)

# NO_TSAN: what has one thread only and then takes minutes.
include(${PROJECT_SOURCE_DIR}/platform/audio-level/variants.cmake)
zev_test(tst_audiolevel NO_TSAN
    SOURCES unit/tst_audiolevel.cpp unit/astats.cpp unit/astats.h
    LIBRARIES Zev::audio-level audio-level-vectors0 audio-level-vectors1 GTest::gtest_main)

# The reader and the player on the library's objects, over a store of known samples.
set(audio_unit ${CMAKE_CURRENT_LIST_DIR})
set(audio_store ${audio_unit}/fake_audiostore.cpp ${audio_unit}/fake_audiostore.h)
set(audio_libraries zevqt-mm-objects Zev::zevmm Zev::zevqt-utils Zev::audio-level Qt5::Test PkgConfig::FFMPEG)

foreach(test "tst_audioreader;NO_TSAN" tst_audioreaderresampling)
    list(GET test 0 name)
    zev_test(${test}
        SOURCES ${audio_unit}/${name}.cpp ${audio_store} ${audio_unit}/audioreader_testing.cpp
            ${audio_unit}/audioreader_testing.h ${audio_unit}/fake_resampler.cpp ${audio_unit}/fake_resampler.h
        LIBRARIES ${audio_libraries})
    foreach(function swr_alloc swr_init swr_convert swr_free)
        if(TARGET ${name})
            target_link_options(${name} PRIVATE LINKER:--wrap=${function})
        endif()
    endforeach()
endforeach()

zev_test(tst_resampleroptions SOURCES ${audio_unit}/tst_resampleroptions.cpp
    LIBRARIES zevqt-mm-objects Zev::shm Zev::zevmm Zev::zevqt-utils Zev::audio-level PkgConfig::FFMPEG
        GTest::gtest_main)
foreach(function int double sample_fmt channel_layout chlayout)
    target_link_options(tst_resampleroptions PRIVATE LINKER:--wrap=av_opt_set_${function})
endforeach()

zev_test(tst_audiolevels SOURCES ${audio_unit}/tst_audiolevels.cpp LIBRARIES Zev::zevqt-mm Qt5::Test)
zev_test(tst_audiolevelsrecorded
    SOURCES ${audio_unit}/tst_audiolevelsrecorded.cpp ${audio_unit}/astats.cpp ${audio_unit}/astats.h
    LIBRARIES Zev::zevqt-mm Zev::audio-level GTest::gtest_main)
target_compile_definitions(tst_audiolevelsrecorded PRIVATE TEST_DATA="${PROJECT_SOURCE_DIR}/tests/data")

# The player over devices of the test's own and a clock that is set at will. A source that dies in another thread and the
# player meet at Qt's connections and event queue, which are not built for the thread sanitizer.
foreach(test tst_audioplayer tst_audioplayerclock "tst_audioplayerlifetime;NO_TSAN" tst_audioplayerposition
    tst_soundserverreturn)
    list(GET test 0 name)
    zev_test(${test}
        SOURCES ${audio_unit}/${name}.cpp ${audio_store} ${audio_unit}/audioplayer_testing.cpp
            ${audio_unit}/audioplayer_testing.h ${audio_unit}/fake_audiosystem.cpp ${audio_unit}/fake_audiosystem.h
            ${audio_unit}/fake_clockdetector.cpp ${audio_unit}/fake_clockdetector.h
        LIBRARIES ${audio_libraries})
    if(TARGET ${name})
        target_compile_definitions(${name} PRIVATE QT_STATICPLUGIN)
    endif()
endforeach()
# What the sound server answers, by the names that the compiler gives the functions.
foreach(function 8isSilentEv 11isAnsweringEv 7hasSinkEv 7stateOfERK16QAudioDeviceInfo)
    target_link_options(tst_soundserverreturn PRIVATE LINKER:--wrap=_ZN11soundserver${function})
endforeach()

# A look at the server, by the client library that is looked up at run time.
zev_test(tst_soundserver SOURCES ${audio_unit}/tst_soundserver.cpp
    LIBRARIES zevqt-mm-objects Zev::shm Zev::zevmm Zev::zevqt-utils Zev::audio-level PkgConfig::FFMPEG GTest::gtest_main)
target_link_options(tst_soundserver PRIVATE LINKER:--wrap=_ZN8QLibrary7resolveEPKc)

# A day of playing against a source whose clock differs, in simulated time.
zev_test(tst_audioreaderdrift NO_TSAN SOURCES ${audio_unit}/tst_audioreaderdrift.cpp ${audio_store}
    LIBRARIES ${audio_libraries})
zev_test(tst_audioplaybackwatch SOURCES ${audio_unit}/tst_audioplaybackwatch.cpp
    LIBRARIES Zev::zevqt-mm GTest::gtest_main)
zev_test(tst_audioplaybackage SOURCES ${audio_unit}/tst_audioplaybackage.cpp
    LIBRARIES Zev::zevqt-mm GTest::gtest_main)
