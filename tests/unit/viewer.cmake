foreach(name framestatistics ratefollower readpointwatch vieweroptions viewersound)
    zev_test(tst_${name} SOURCES unit/tst_${name}.cpp LIBRARIES zevqt-viewer-parts GTest::gtest_main)
endforeach()
zev_test(tst_viewercamera
    SOURCES unit/tst_viewercamera.cpp unit/fake_zevmm.cpp unit/fake_zevmm.h unit/storepublisher.cpp unit/storepublisher.h
    LIBRARIES zevqt-viewer-parts Zev::shm GTest::gtest)
foreach(name fillgeometry yuvcolors)
    zev_test(tst_${name} SOURCES unit/tst_${name}.cpp LIBRARIES Zev::items GTest::gtest_main)
endforeach()

# The same program twice, on a display of its own: the software scene graph, and OpenGL.
zev_test(tst_livevideo
    SOURCES unit/tst_livevideo.cpp unit/scenegraph_testing.cpp unit/scenegraph_testing.h integration/xvfbserver.cpp
    LIBRARIES Zev::items GTest::gtest
    LABEL integration)
target_include_directories(tst_livevideo PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)
if(TARGET tst_livevideo)
    add_test(NAME tst_livevideo_opengl COMMAND tst_livevideo --opengl)
    set_tests_properties(tst_livevideo_opengl PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
    zev_test_environment(tst_livevideo_opengl)
endif()

# The same for sources whose frames are in the GPU, over a capture library of the test's own.
zev_test(tst_livevideocamera
    SOURCES unit/tst_livevideocamera.cpp unit/fake_zevmm.cpp unit/fake_zevmm.h unit/scenegraph_testing.cpp
        unit/scenegraph_testing.h integration/xvfbserver.cpp
    LIBRARIES Zev::items GTest::gtest
    LABEL integration)
target_include_directories(tst_livevideocamera PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration
    $<TARGET_PROPERTY:Zev::zevmm,INTERFACE_INCLUDE_DIRECTORIES>)
add_test(NAME tst_livevideocamera_opengl COMMAND tst_livevideocamera --opengl)
set_tests_properties(tst_livevideocamera_opengl PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
zev_test_environment(tst_livevideocamera_opengl)

# A camera by URL, on OpenGL through EGL, in either of Qt's render loops.
zev_test(tst_livesourcecamera
    SOURCES unit/tst_livesourcecamera.cpp unit/fake_zevmm.cpp unit/fake_zevmm.h unit/scenegraph_testing.cpp
        unit/scenegraph_testing.h unit/storepublisher.cpp unit/storepublisher.h integration/xvfbserver.cpp
    LIBRARIES Zev::items Zev::shm GTest::gtest
    LABEL integration)
target_include_directories(tst_livesourcecamera PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration
    $<TARGET_PROPERTY:Zev::zevmm,INTERFACE_INCLUDE_DIRECTORIES>)
set_property(TEST tst_livesourcecamera APPEND PROPERTY ENVIRONMENT QSG_RENDER_LOOP=threaded)
add_test(NAME tst_livesourcecamera_basic COMMAND tst_livesourcecamera)
set_tests_properties(tst_livesourcecamera_basic PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
zev_test_environment(tst_livesourcecamera_basic)
set_property(TEST tst_livesourcecamera_basic APPEND PROPERTY ENVIRONMENT QSG_RENDER_LOOP=basic)

# Sources by URL on real stores, twice likewise.
zev_test(tst_livesource
    SOURCES unit/tst_livesource.cpp unit/scenegraph_testing.cpp unit/scenegraph_testing.h unit/storepublisher.cpp
        unit/storepublisher.h integration/xvfbserver.cpp
    LIBRARIES Zev::items Zev::shm GTest::gtest
    LABEL integration)
target_include_directories(tst_livesource PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)
add_test(NAME tst_livesource_opengl COMMAND tst_livesource --opengl)
set_tests_properties(tst_livesource_opengl PROPERTIES LABELS integration TIMEOUT 120 SKIP_RETURN_CODE 77)
zev_test_environment(tst_livesource_opengl)
# The plugin is in its way: the program's own types are the ones to be found.
add_dependencies(tst_livesource zevqt-mm-qmlplugin)
set_property(TEST tst_livesource tst_livesource_opengl APPEND PROPERTY ENVIRONMENT "QML2_IMPORT_PATH=${PROJECT_BINARY_DIR}/qml")

# Levels as a model, without any player.
zev_test(tst_audiolevelsmodel
    SOURCES unit/tst_audiolevelsmodel.cpp unit/scenegraph_testing.cpp unit/scenegraph_testing.h unit/storepublisher.cpp
        unit/storepublisher.h integration/xvfbserver.cpp
    LIBRARIES Zev::items Zev::shm GTest::gtest
    LABEL integration)
target_include_directories(tst_audiolevelsmodel PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)

# The player for QML, over a sound server of its own.
zev_test(tst_liveaudio
    SOURCES unit/tst_liveaudio.cpp unit/scenegraph_testing.cpp unit/scenegraph_testing.h unit/storepublisher.cpp
        unit/storepublisher.h integration/xvfbserver.cpp integration/pulseserver.cpp integration/pulseserver.h
    LIBRARIES Zev::items Zev::shm GTest::gtest
    LABEL integration)
target_include_directories(tst_liveaudio PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)
zev_test(tst_liveaudioserver
    SOURCES unit/tst_liveaudioserver.cpp unit/scenegraph_testing.cpp unit/scenegraph_testing.h unit/storepublisher.cpp
        unit/storepublisher.h integration/xvfbserver.cpp integration/pulseserver.cpp integration/pulseserver.h
    LIBRARIES Zev::items Zev::shm GTest::gtest
    LABEL integration)
target_include_directories(tst_liveaudioserver PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)

zev_test(tst_viewerwindow
    SOURCES unit/tst_viewerwindow.cpp integration/xvfbserver.cpp
        ${PROJECT_SOURCE_DIR}/examples/viewer/viewer.qrc
    LIBRARIES zevqt-viewer-parts Qt5::Test GTest::gtest
    LABEL integration)
target_include_directories(tst_viewerwindow PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)
set_target_properties(tst_viewerwindow PROPERTIES AUTORCC ON)

# All of the sound is in one thread here: nothing for the thread sanitizer.
zev_test(tst_viewersounddevices NO_TSAN
    SOURCES unit/tst_viewersounddevices.cpp unit/fake_audiosystem.cpp unit/fake_audiosystem.h
        integration/tonepublisher.cpp integration/tonepublisher.h
    LIBRARIES zevqt-viewer-parts Zev::shm Qt5::Test Threads::Threads)
if(TARGET tst_viewersounddevices)
    target_include_directories(tst_viewersounddevices PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/integration)
    target_compile_definitions(tst_viewersounddevices PRIVATE QT_STATICPLUGIN)
endif()
