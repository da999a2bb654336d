# The player on a real sound server of the test's own, fed from real stores.
set(audio_integration ${CMAKE_CURRENT_LIST_DIR})
set(audio_playback
    ${audio_integration}/pulseserver.cpp ${audio_integration}/pulseserver.h
    ${audio_integration}/tonepublisher.cpp ${audio_integration}/tonepublisher.h
    ${audio_integration}/tonecheck.cpp ${audio_integration}/tonecheck.h)
set(audio_playback_libraries Zev::zevqt-mm Zev::shm Qt5::Test Threads::Threads)

zev_test(tst_audiotone
    SOURCES ${audio_integration}/tst_audiotone.cpp ${audio_integration}/processorwaits.cpp ${audio_playback}
    LIBRARIES ${audio_playback_libraries} LABEL integration
    ARGUMENTS checkFindsASingleSample checkAllowsOnlyTheSeamsOfThePositions checkForgivesOnlyWhatSomebodyWasLateFor
        checkFindsASampleThatIsLostOnTheWay)
# 65 s each; up to 105 when a loaded machine makes it begin anew. Who measures in milliseconds has two processors
# to itself.
foreach(row equal resampled second third)
    add_test(NAME tst_audiotone_${row} COMMAND tst_audiotone tones:${row})
    set_tests_properties(tst_audiotone_${row} PROPERTIES LABELS integration TIMEOUT 120 PROCESSORS 2)
    zev_test_environment(tst_audiotone_${row})
endforeach()
zev_test(tst_audiorestarts SOURCES ${audio_integration}/tst_audiorestarts.cpp ${audio_playback}
    LIBRARIES ${audio_playback_libraries} LABEL integration)
zev_test(tst_audioevents SOURCES ${audio_integration}/tst_audioevents.cpp ${audio_playback}
    LIBRARIES ${audio_playback_libraries} LABEL integration)
zev_test(tst_audionoserver
    SOURCES ${audio_integration}/tst_audionoserver.cpp ${audio_integration}/tonepublisher.cpp
        ${audio_integration}/tonepublisher.h
    LIBRARIES ${audio_playback_libraries} LABEL integration)
