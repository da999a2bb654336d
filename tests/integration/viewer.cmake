if(ZEV_BUILD_EXAMPLES AND ZEV_BUILD_QML)
    # Publishes frames whose every sample is known.
    add_executable(zevqt-testpublisher integration/testpublisher.cpp integration/testpattern.cpp)
    zev_target(zevqt-testpublisher)
    target_link_libraries(zevqt-testpublisher PRIVATE Zev::shm)

    zev_test(tst_viewer
        SOURCES integration/tst_viewer.cpp integration/viewerrig.cpp integration/xvfbserver.cpp
            integration/testpattern.cpp
        LIBRARIES Zev::shm Qt5::Gui PkgConfig::FFMPEG GTest::gtest
        LABEL integration)
    # What takes a window, or long, runs beside the rest.
    set_property(TEST tst_viewer APPEND PROPERTY ENVIRONMENT "GTEST_FILTER=-*Window*:*locked*:*ViewerColors*:*ViewerToolBars*")
    foreach(part IN ITEMS "window=*Window*-*locked*" "blocked=*locked*" "colors=*ViewerColors*:*ViewerToolBars*")
        string(REPLACE "=" ";" part "${part}")
        list(GET part 0 part_name)
        list(GET part 1 part_filter)
        add_test(NAME tst_viewer_${part_name} COMMAND tst_viewer --gtest_filter=${part_filter})
        set_tests_properties(tst_viewer_${part_name} PROPERTIES LABELS integration TIMEOUT 120)
        zev_test_environment(tst_viewer_${part_name})
    endforeach()
    target_compile_definitions(tst_viewer PRIVATE
        VIEWER="$<TARGET_FILE:zevqt-viewer>"
        PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
        PROJECT_VERSION="${PROJECT_VERSION}"
        NO_SIGNAL_PICTURE="${PROJECT_SOURCE_DIR}/examples/viewer/nosignal.png"
        ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
    if(TARGET zevshm)
        target_compile_definitions(tst_viewer PRIVATE ZEVSHM="$<TARGET_FILE:zevshm>")
        add_dependencies(tst_viewer zevshm)
    endif()
    add_dependencies(tst_viewer zevqt-viewer zevqt-testpublisher)

    # What it says and does when a source is missing or odd.
    if(TARGET zevshm)
        zev_test(tst_viewersource
            SOURCES integration/tst_viewersource.cpp integration/viewerrig.cpp integration/xvfbserver.cpp
                integration/testpattern.cpp
            LIBRARIES Zev::shm Qt5::Gui PkgConfig::FFMPEG GTest::gtest
            LABEL integration)
        target_compile_definitions(tst_viewersource PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ZEVSHM="$<TARGET_FILE:zevshm>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewersource zevqt-viewer zevqt-testpublisher zevshm)
        # What takes long runs beside the rest.
        set_property(TEST tst_viewersource APPEND PROPERTY ENVIRONMENT "GTEST_FILTER=-*ClockStep*")
        add_test(NAME tst_viewersource_steps COMMAND tst_viewersource --gtest_filter=*ClockStep*)
        set_tests_properties(tst_viewersource_steps PROPERTIES LABELS integration TIMEOUT 120)
        zev_test_environment(tst_viewersource_steps)
    endif()

    # Without the thread sanitizer: the tick thread and the viewer meet at Qt's event queue, which is not instrumented.
    zev_test(tst_viewerblocked NO_TSAN
        SOURCES integration/tst_viewerblocked.cpp integration/viewerrig.cpp integration/xvfbserver.cpp
            integration/testpattern.cpp
        LIBRARIES zevqt-viewer-parts Zev::shm Qt5::Gui PkgConfig::FFMPEG GTest::gtest
        LABEL integration)
    if(TARGET tst_viewerblocked)
        target_compile_definitions(tst_viewerblocked PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewerblocked zevqt-testpublisher)
    endif()

    # Real files.
    if(TARGET zevshm)
        zev_test(tst_viewerfilm
            SOURCES integration/tst_viewerfilm.cpp integration/viewerrig.cpp integration/xvfbserver.cpp
                integration/testpattern.cpp integration/toolpublisher.cpp integration/zevshm_media.cpp
            LIBRARIES zevshm-core zevshm-pattern Zev::shm Qt5::Gui PkgConfig::FFMPEG_MEDIA GTest::gtest
            LABEL integration)
        target_compile_definitions(tst_viewerfilm PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ZEVSHM="$<TARGET_FILE:zevshm>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewerfilm zevqt-viewer zevqt-testpublisher zevshm)
    endif()

    zev_test(tst_viewerdevices
        SOURCES integration/tst_viewerdevices.cpp integration/viewerrig.cpp integration/xvfbserver.cpp
            integration/testpattern.cpp
        LIBRARIES Zev::shm Qt5::Gui PkgConfig::FFMPEG GTest::gtest
        LABEL integration)
    target_compile_definitions(tst_viewerdevices PRIVATE
        VIEWER="$<TARGET_FILE:zevqt-viewer>"
        PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
        ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
    add_dependencies(tst_viewerdevices zevqt-viewer zevqt-testpublisher)

    find_package(Python3 COMPONENTS Interpreter)
    if(Python3_FOUND)
        add_test(NAME manpage_zevqt_viewer COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/manpages.py
            ${PROJECT_SOURCE_DIR}/docs/man/zevqt-viewer.1 $<TARGET_FILE:zevqt-viewer>,--help)
        set_tests_properties(manpage_zevqt_viewer PROPERTIES LABELS integration TIMEOUT 60)
        zev_test_environment(manpage_zevqt_viewer)
        if(TARGET zevshm)
            add_test(NAME run_script COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/run_script.py
                ${PROJECT_SOURCE_DIR} $<TARGET_FILE:zevshm> $<TARGET_FILE:zevqt-viewer>)
            set_tests_properties(run_script PROPERTIES LABELS integration TIMEOUT 120)
            zev_test_environment(run_script)
        endif()
    endif()

    # The viewer with sound.
    if(TARGET zevshm)
        zev_test(tst_viewerplayback
            SOURCES integration/tst_viewerplayback.cpp integration/viewerrig.cpp integration/testpattern.cpp
                integration/toolpublisher.cpp integration/xvfbserver.cpp integration/pulseserver.cpp
                integration/pulseserver.h integration/tonepublisher.cpp integration/tonepublisher.h
            LIBRARIES zevqt-viewer-parts Zev::shm Qt5::Gui PkgConfig::FFMPEG GTest::gtest Threads::Threads
            LABEL integration)
        target_compile_definitions(tst_viewerplayback PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ZEVSHM="$<TARGET_FILE:zevshm>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewerplayback zevqt-viewer zevshm)
        # Together they come near to two minutes on a machine that is busy.
        set_property(TEST tst_viewerplayback APPEND PROPERTY ENVIRONMENT "GTEST_FILTER=-*soundReturns*:*Silent*:*slowSound*:*volumeIs*:*theDefault*")
        add_test(NAME tst_viewerplayback_devices
            COMMAND tst_viewerplayback "--gtest_filter=*soundReturns*-*Outage*:*EachTime*:*WasNotThere*:*Silent*")
        add_test(NAME tst_viewerplayback_silent COMMAND tst_viewerplayback --gtest_filter=*Silent*)
        add_test(NAME tst_viewerplayback_server
            COMMAND tst_viewerplayback "--gtest_filter=*Outage*:*EachTime*:*WasNotThere*")
        add_test(NAME tst_viewerplayback_heard
            COMMAND tst_viewerplayback "--gtest_filter=*slowSound*:*volumeIs*:*theDefault*")
        foreach(part devices server silent heard)
            set_tests_properties(tst_viewerplayback_${part} PROPERTIES LABELS integration TIMEOUT 120)
            zev_test_environment(tst_viewerplayback_${part})
        endforeach()

        add_library(zev-clockshift MODULE integration/clockshift.c)
        zev_target(zev-clockshift)
        zev_test(tst_viewerclock
            SOURCES integration/tst_viewerclock.cpp integration/viewerrig.cpp integration/testpattern.cpp
                integration/toolpublisher.cpp integration/xvfbserver.cpp integration/pulseserver.cpp
                integration/pulseserver.h
            LIBRARIES Zev::shm Qt5::Gui PkgConfig::FFMPEG GTest::gtest
            LABEL integration)
        target_compile_definitions(tst_viewerclock PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ZEVSHM="$<TARGET_FILE:zevshm>"
            CLOCK_SHIFT="$<TARGET_FILE:zev-clockshift>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewerclock zevqt-viewer zevshm zev-clockshift)

        # Flash and beep. The recorder asks the sound server when what it recorded is heard.
        pkg_check_modules(PULSE IMPORTED_TARGET libpulse)
        if(NOT PULSE_FOUND)
            message(FATAL_ERROR "The tests of the viewer's sound need libpulse (libpulse-dev on Debian): "
                "run scripts/dependencies, or leave the tests out with -DZEV_BUILD_TESTS=OFF.")
        endif()
        zev_test(tst_viewersync NO_TEST
            SOURCES integration/tst_viewersync.cpp integration/beeps.h integration/monitorrecorder.cpp
                integration/processorwaits.cpp integration/toolpublisher.cpp integration/viewerrig.cpp
                integration/testpattern.cpp
                integration/xvfbserver.cpp integration/pulseserver.cpp integration/pulseserver.h
            LIBRARIES zevqt-viewer-parts Zev::shm Qt5::Gui PkgConfig::FFMPEG PkgConfig::PULSE GTest::gtest
            LABEL integration)
        target_compile_definitions(tst_viewersync PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ZEVSHM="$<TARGET_FILE:zevshm>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewersync zevshm)
        # 45 s, up to 95 on a machine that is busy. Each takes a fifteenth of a processor; two are to themselves, for this is
        # measured in milliseconds.
        zev_side_by_side(tst_viewersync tst_viewersync --gtest_filter=*fps25rate48000 --gtest_filter=*fps25rate44100
            --gtest_filter=*fps60rate48000 --gtest_filter=*fps60rate44100)
        set_tests_properties(tst_viewersync PROPERTIES PROCESSORS 2)

        zev_test(tst_viewerdelay NO_TEST
            SOURCES integration/tst_viewerdelay.cpp integration/monitorrecorder.cpp integration/beeps.h
                integration/toolpublisher.cpp integration/viewerrig.cpp integration/testpattern.cpp
                integration/xvfbserver.cpp integration/pulseserver.cpp integration/pulseserver.h
            LIBRARIES zevqt-viewer-parts Zev::shm Qt5::Gui PkgConfig::FFMPEG PkgConfig::PULSE GTest::gtest
            LABEL integration)
        target_compile_definitions(tst_viewerdelay PRIVATE
            VIEWER="$<TARGET_FILE:zevqt-viewer>"
            PUBLISHER="$<TARGET_FILE:zevqt-testpublisher>"
            ZEVSHM="$<TARGET_FILE:zevshm>"
            ARTIFACTS_DIR="${PROJECT_BINARY_DIR}/artifacts")
        add_dependencies(tst_viewerdelay zevqt-viewer zevshm)
        # 43 s.
        zev_side_by_side(tst_viewerdelay tst_viewerdelay --gtest_filter=*killed --gtest_filter=*ended)
    endif()
endif()

# With OpenGL the leak check sees what Mesa's driver, unloaded by then, and Qt Quick's offscreen surface keep: neither can
# be told by name any more. The software scene graph's run of tst_livevideo, and headless viewers, have the check.
if(ZEV_SANITIZE MATCHES "address")
    foreach(name tst_livevideo_opengl tst_livevideocamera_opengl tst_livesource_opengl tst_viewerwindow tst_viewer_window tst_viewer_blocked tst_viewer_colors)
        if(TEST ${name})
            set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT
                "ASAN_OPTIONS=detect_stack_use_after_return=1:detect_leaks=0")
        endif()
    endforeach()
endif()

# The module's plugin: its description, and how a stranger has it.
find_package(Python3 COMPONENTS Interpreter)
find_program(QMLPLUGINDUMP NAMES qmlplugindump)
if(Python3_FOUND AND QMLPLUGINDUMP AND NOT ZEV_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
    add_test(NAME qml_types COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/qml_types.py ${QMLPLUGINDUMP}
        ${PROJECT_BINARY_DIR}/qml ${PROJECT_SOURCE_DIR}/qml/plugins.qmltypes)
    set_tests_properties(qml_types PROPERTIES LABELS integration TIMEOUT 120)
    zev_test_environment(qml_types)
endif()
if(Python3_FOUND AND NOT ZEV_SANITIZE AND TARGET zevshm)
    add_test(NAME installed_qml COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/installed_qml.py
        ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER} $<TARGET_FILE:zevshm>)
    set_tests_properties(installed_qml PROPERTIES LABELS integration TIMEOUT 120)
endif()

# The documents: what they name is there, and what they tell a new user to do works.
if(Python3_FOUND AND TARGET zevshm)
    add_test(NAME documents COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/documents.py ${PROJECT_SOURCE_DIR}
        $<TARGET_FILE:zevshm> $<TARGET_FILE:zevqt-viewer>)
    set_tests_properties(documents PROPERTIES LABELS integration TIMEOUT 60)
    zev_test_environment(documents)
    if(NOT ZEV_SANITIZE)
        foreach(name c-publisher qwidget level-meter video-wall) # qml-minimal is installed_qml's
            add_test(NAME installed_example_${name} COMMAND Python3::Interpreter
                ${CMAKE_CURRENT_LIST_DIR}/installed_examples.py ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}
                ${CMAKE_CXX_COMPILER} ${name})
            set_tests_properties(installed_example_${name} PROPERTIES LABELS integration TIMEOUT 120)
        endforeach()
        add_test(NAME getting_started COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/getting_started.py
            ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR} ${CMAKE_CXX_COMPILER})
        set_tests_properties(getting_started PROPERTIES LABELS integration TIMEOUT 120)
    endif()
endif()
