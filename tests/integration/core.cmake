# The video road on a real store. Without the thread sanitizer: the tick thread and the test meet at the reader's QMutex
# and in Qt's event queue, whose locking lies inside Qt, which is not instrumented.
set(integration ${CMAKE_CURRENT_LIST_DIR})
zev_test(tst_sharedmemoryroad NO_TSAN LABEL integration SOURCES ${integration}/tst_sharedmemoryroad.cpp
    LIBRARIES zevqt-mm-objects Zev::zevmm Zev::shm Qt5::Test PkgConfig::FFMPEG)

# Real OpenGL contexts, made through EGL and not.
zev_test(tst_eglcurrentcontext LABEL integration SOURCES ${integration}/tst_eglcurrentcontext.cpp ARGUMENTS egl
    LIBRARIES zevqt-mm-objects Zev::zevmm Zev::shm Qt5::Test)
add_test(NAME tst_eglcurrentcontext_glx COMMAND tst_eglcurrentcontext glx)
set_tests_properties(tst_eglcurrentcontext_glx PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
zev_test_environment(tst_eglcurrentcontext_glx)

# The headers' reference: a public symbol without words is an error.
add_test(NAME api_reference COMMAND ${PROJECT_SOURCE_DIR}/scripts/api-reference ${PROJECT_BINARY_DIR}/api-reference)
set_tests_properties(api_reference PROPERTIES LABELS integration TIMEOUT 120
    SKIP_REGULAR_EXPRESSION "doxygen is not installed")

# The installed tree, as an application sees it. Without sanitizers: the example would have to be built with the same.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND AND NOT ZEV_SANITIZE)
    add_test(NAME installed_tree COMMAND Python3::Interpreter ${integration}/installed_tree.py
        ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER} $<$<TARGET_EXISTS:zevshm>:$<TARGET_FILE:zevshm>>
        COMMAND_EXPAND_LISTS)
    set_tests_properties(installed_tree PROPERTIES LABELS integration TIMEOUT 120)
    get_target_property(qmake Qt5::qmake IMPORTED_LOCATION)
    add_test(NAME installed_consumers COMMAND Python3::Interpreter ${integration}/installed_consumers.py
        ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER} ${qmake})
    set_tests_properties(installed_consumers PROPERTIES LABELS integration TIMEOUT 120)
endif()
