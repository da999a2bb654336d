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
# 65 s; up to 105 when a loaded machine makes one begin anew. Each takes a twentieth of a processor; two are to themselves,
# for somebody who is late for 15 ms may be heard.
zev_side_by_side(tst_audiotone_rows tst_audiotone tones:equal tones:resampled tones:raised tones:second
    tones:third)
set_tests_properties(tst_audiotone_rows PROPERTIES PROCESSORS 2)
zev_test(tst_audiorestarts SOURCES ${audio_integration}/tst_audiorestarts.cpp ${audio_playback}
    LIBRARIES ${audio_playback_libraries} LABEL integration)
zev_test(tst_audioevents SOURCES ${audio_integration}/tst_audioevents.cpp ${audio_playback}
    LIBRARIES ${audio_playback_libraries} LABEL integration)
zev_test(tst_audionoserver
    SOURCES ${audio_integration}/tst_audionoserver.cpp ${audio_integration}/tonepublisher.cpp
        ${audio_integration}/tonepublisher.h
    LIBRARIES ${audio_playback_libraries} LABEL integration)
