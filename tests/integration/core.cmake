# The video road on a real store. Without the thread sanitizer: the tick thread and the test meet at the reader's QMutex
# and in Qt's event queue, whose locking lies inside Qt, which is not instrumented.
set(integration ${CMAKE_CURRENT_LIST_DIR})
zev_test(tst_sharedmemoryroad NO_TSAN LABEL integration SOURCES ${integration}/tst_sharedmemoryroad.cpp
    LIBRARIES zevqt-mm-objects Zev::shm Qt5::Test PkgConfig::FFMPEG)

# Real OpenGL contexts, made through EGL and not.
zev_test(tst_eglcurrentcontext LABEL integration SOURCES ${integration}/tst_eglcurrentcontext.cpp ARGUMENTS egl
    LIBRARIES zevqt-mm-objects Zev::shm Qt5::Test)
add_test(NAME tst_eglcurrentcontext_glx COMMAND tst_eglcurrentcontext glx)
set_tests_properties(tst_eglcurrentcontext_glx PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
zev_test_environment(tst_eglcurrentcontext_glx)
